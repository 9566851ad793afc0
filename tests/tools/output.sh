#!/usr/bin/env bash
# What qvx does to what its outputs lead to: every verb and every file that it writes as the superuser, dump and
# export --save as another user too, with all that stands around compared before and after. Devices are those of a
# directory of the test's own.
#
#     output.sh QVX
. "$(dirname "$0")/common.sh"
umask 027
chmod 755 .

printf '\x79\x10\0\0\0\0\x50\0\0\0\0\0\0\0\0\0\0\0' >trace
for code in '\x90' '\x92'; do # a function is defined and entered
    printf "$code"'\x1c\x0a\0\0\0\0\0\0\0\x01\0\0\0\x02\0\0\0\x30\0\0\0\0\0\0\0\x07\0\0\0' >>trace
done
printf '\x7a\0\x7c\0' >>trace

# What stands in the directory of each case.
mkdir template && (
    cd template || exit
    mkdir directory closed
    cp ../trace trace && ln trace twin_of_trace && ln -s trace link_to_trace && : >trace.page
    echo old >old && chmod 604 old && ln old twin && ln -s ./old link && ln -s link link_to_link
    ln -s made dangling && ln -s nowhere/made far && ln -s loop loop
    echo part >new.part && echo part >old.part
    echo names >taken.functions.txt && echo names >states.states_7.txt && ln -s trace sly.processes.txt
    mkfifo fifo && perl -MSocket -e 'socket(my $s, PF_UNIX, SOCK_STREAM, 0); bind($s, sockaddr_un("socket"))'
) || fail 'the files of the cases'
devices=
if [ "$(id -u)" -eq 0 ] && mknod template/null c 1 3 && mknod template/full c 1 7 && mknod template/block b 241 241 &&
    chmod 666 template/{null,full,block} && : >template/null; then
    devices=yes
else
    rm -f template/{null,full,block}
    echo 'skipped: devices cannot be made here'
fi 2>/dev/null

# state: all files of the case, with all that must not change.
state() { find . ! -name . -printf '%P %y %m %U %l %i\n' -type f -exec cksum {} + | sort; }
fresh() {
    cd "$work" && rm -rf case && cp -a template case && cd case || exit
    [ "$user" = root ] || chown -hR 65534:65534 .
    chown 0:0 closed 2>/dev/null && chmod 755 closed
    before=$(state)
}
# attempt CODE SAYS CHANGED ARGUMENTS...: runs qvx in the directory of a case, and compares its exit code, a part of what
# it says, and the names of all files that are then others.
attempt() {
    local code=$1 says=$2 changed=$3 got after now
    shift 3
    $as "$qvx" "$@" >../out 2>../err <"${input:-/dev/null}"
    got=$?
    after=$(state)
    now=
    [ "$after" = "$before" ] || now=$(comm -3 <(echo "$before") <(echo "$after") |
        sed 's/^\t*\([0-9]\+ [0-9]\+ \.\/\)\?\([^ ]*\).*/\2/' | sort -u | paste -sd' ')
    [ "$got" -eq "$code" ] || { cat ../err; fail "$user: exit $got, not $code: qvx $*"; }
    [ "$now" = "$changed" ] || fail "$user: changes '$now', not '$changed': qvx $*"
    [ -z "$says" ] || grep -qF -- "$says" ../err || { cat ../err; fail "$user: does not say '$says': qvx $*"; }
    [ -z "$now" ] || fresh
}

# The table: with -f (+f), without (+) or both (*); the target; exit code, what is said with _ for blanks, what is changed.
exists='exists;_use_--force_to_overwrite_it'
same='is_the_same_file_as'
sort_of='is_a_block_device_or_a_socket'
cases="
+  new           0 - new
+f new           0 - new
+  old           1 $exists -
+f old           0 - old
+  link          1 $exists -
+f link_to_link  0 - old
*  dangling      0 - made
*  far           1 No_such_file_or_directory -
*  loop          1 Too_many_levels_of_symbolic_links -
*  directory     1 Is_a_directory -
*  .             1 Is_a_directory -
*  socket        1 $sort_of -
*  old/new       1 Not_a_directory -
*  nowhere/new   1 No_such_file_or_directory -
*  new/          1 No_such_file_or_directory -
*  fifo          0 - -"
[ -z "$devices" ] || cases+="
*  null          0 - -
*  full          1 No_space_left_on_device -
*  block         1 $sort_of -"
reads="
+f trace                    1 $same -
+f ./directory/../trace     1 $same -
+f link_to_trace            1 $same -
+f twin_of_trace            1 $same -
+f trace.page               1 $same -"

# try VERB TABLE: all rows of a table. What goes to the FIFO stays there until it is read.
try() {
    local verb=$1 how target code says changed force
    while read -r how target code says changed; do
        [ -n "$how" ] || continue
        [ "$says" = - ] && says=
        [ "$changed" = - ] && changed=
        if [[ $verb == *--save ]]; then
            # This file is not all that is written, and nothing but a file will do.
            [[ $target =~ ^(fifo|null|full)$ ]] && { code=1 says='is no file that others could stand beside'; }
            [ "$code" -eq 0 ] && changed=$(printf '%s\n' "$changed" "$target.functions.txt" x.vcd | sort | paste -sd' ')
        fi
        [ "$target" = fifo ] && exec 8<>fifo 9<fifo 8>&-
        for force in '' -f; do
            [ "$how" = '*' ] || [ "$how" = "+${force:1}" ] || continue
            # shellcheck disable=SC2086
            attempt "$code" "${says//_/ }" "$changed" $verb "$target" $force
        done
        [ "$target" = fifo ] && [ "$code" -eq 0 ] && [ "$(wc -c <&9)" -lt 40 ] && fail "$user: no bytes in the FIFO: $verb"
        exec 9<&-
    done <<<"$2"
}
all() { # the verbs
    fresh
    local verb
    for verb in "$@"; do
        try "$verb" "$cases"
        [ "$verb" = 'kinds -o' ] || try "$verb" "$reads"
    done
}

user=root as=
all 'kinds -o' 'info trace -o' 'dump trace -o' 'convert trace -o' 'repair trace -o' 'export --to btf trace -o' 'export --to vcd trace -o' \
    'export --to vcd trace -o x.vcd --save'
if [ "$(id -u)" -ne 0 ] || ! setpriv --reuid=65534 --regid=65534 --clear-groups "$qvx" --version >/dev/null 2>&1; then
    echo 'skipped: qvx cannot be run as another user here'
else
    user=other as='setpriv --reuid=65534 --regid=65534 --clear-groups'
    all 'dump trace -o' 'export --to vcd trace -o x.vcd --save' # the user matters where all verbs are alike
    attempt 1 'no file can be made in its directory: Permission denied' '' dump trace -o closed/new
    echo foreign | tee foreign closed/old >/dev/null && chmod 644 foreign closed/old && before=$(state)
    attempt 1 'foreign: Permission denied' '' dump trace -f -o foreign
    attempt 1 'closed/old: Permission denied' '' dump trace -f -o closed/old
    chmod 666 foreign closed/old && chmod 1777 . && chown 0 . && before=$(state)
    attempt 1 'foreign: Permission denied' '' dump trace -f -o foreign
    attempt 1 'no file can be made in its directory' '' dump trace -f -o closed/old
fi
user=root as=
fresh

# All files of a run are looked at before it begins, and are kept apart.
attempt 1 'taken.functions.txt: exists; use --force' '' export --to vcd missing -o x.vcd --save taken
attempt 1 'states.states_7.txt: exists; use --force' '' export --to vcd missing -o x.vcd --save states
attempt 1 'sly.processes.txt: is the same file as the input trace' '' export --to vcd trace -f -o x.vcd --save sly
attempt 1 'x.vcd: is the same file as the output ./x.vcd' '' export --to vcd trace -o ./x.vcd --save x.vcd
attempt 1 'x.functions.txt: is the same file as the output x.functions.txt' '' export --to vcd trace -f -o x.functions.txt --save x
attempt 1 'made: is the same file as the output dangling' '' export --to vcd trace -f -o dangling --save made
attempt 1 'is no file that a viewer could be set up for' '' export --to vcd trace -o fifo --save x
input=trace attempt 1 'is the same file as standard input' '' convert - -f -o trace
"$qvx" dump trace >>trace 2>../err && fail 'adds a trace to itself'
attempt 1 '' '' kinds -o ''
[ "$(stat -c %a old)" = 604 ] || fail 'the files of the cases have other modes'
"$qvx" kinds -f -o old && "$qvx" kinds -o new && [ "$(stat -c %a old new | paste -sd,)" = 604,640 ] || fail 'modes'
[ "$(cat twin)" = old ] || fail 'the other name of a file that is replaced'
fresh

# Descriptors that are there already are written where they stand.
echo begun >log
"$qvx" kinds -o /dev/stdout >>log
"$qvx" kinds -o /dev/fd/7 7>>log
ln -s /dev/fd/7 link_to_descriptor && "$qvx" kinds -o link_to_descriptor 7>>log
"$qvx" kinds >kinds
cmp log <(echo begun; cat kinds kinds kinds) || fail 'descriptors'
"$qvx" kinds -o >(cat >substituted) && wait $!
cmp kinds substituted || fail 'process substitution'
run 1 kinds -o /dev/fd/7
run 1 kinds -o /dev/fd/7 7<kinds
run 1 kinds >&-
says 'standard output: Bad file descriptor'
"$qvx" convert trace -o whole 2>&- && cmp trace whole || fail 'messages without a place get into the file'
# More than a pipe takes at once.
cp trace ../big && for _ in $(seq 12); do cat ../big ../big >../bigger && mv ../bigger ../big; done
"$qvx" dump ../big >rows
perl -MFcntl -e 'fcntl(STDOUT, F_SETFL, O_WRONLY | O_NONBLOCK); exec @ARGV' "$qvx" dump ../big 2>err |
    (sleep 0.2 && cat) | cmp rows - && [ ! -s err ] || { cat err; fail 'a pipe that another process has set not to wait'; }
exec 8<>fifo 9>fifo 8>&- # nobody reads
env --default-signal=PIPE "$qvx" kinds >&9 2>err
[ $? -eq $((128 + 13)) ] && [ ! -s err ] || { cat err; fail 'a pipe without a reader'; }
env --ignore-signal=PIPE "$qvx" kinds >&9 2>err
[ $? -eq 1 ] && [ ! -s err ] || { cat err; fail 'a pipe without a reader, and without a signal'; }
exec 9>&-
fresh

# What fails, fails with the reason and leaves nothing.
(ulimit -f 1 && "$qvx" kinds --format html -o new 2>../err)
[ $? -eq 1 ] && grep -qF 'new: File too large' ../err && [ "$(state)" = "$before" ] || { cat ../err; fail 'a limit for files'; }
if (unshare -m true) 2>/dev/null; then
    mkdir ../small
    unshare -m sh -c 'mount -t tmpfs -o size=8k none "$0" 2>/dev/null || exit 77
        "$@" kinds --format html -o "$0/new"; got=$?; [ -z "$(ls -A "$0")" ] && exit $got' ../small "$qvx" 2>err
    got=$?
    [ $got -eq 77 ] && echo 'skipped: a small file system cannot be made here'
    [ $got -eq 77 ] || { [ $got -eq 1 ] && says 'new: No space left on device'; } || fail "exit $got on a small file system"
fi

# Signals: sent before there is a file, while there is one, and when it is nearly in its place.
empty() { [ -z "$(ls -A)" ] || { ls -A; fail "left after $1"; rm -f ./* ./.q*; }; }
mkdir ../signals && cd ../signals && cp ../trace ../long || exit
for _ in $(seq 13); do cat ../long ../long >../longer && mv ../longer ../long; done
for signal in HUP INT QUIT PIPE ALRM TERM USR1 XCPU; do
    for moment in waits writes; do
        mkfifo ../input
        env --default-signal "$qvx" export --to vcd --save x.gtkw -o x.vcd ../input 2>/dev/null &
        pid=$!
        exec 7>../input
        if [ "$moment" = writes ]; then
            cat ../long >&7 # more than is read at once
            until [ "$(ls -A | wc -l)" -eq 2 ]; do kill -0 $pid || break; done
        fi
        kill -s $signal $pid
        exec 7>&-
        wait $pid 2>/dev/null # the shell tells of signals
        got=$?
        [ $got -eq $((128 + $(kill -l $signal))) ] || fail "exit $got after $signal while it $moment"
        empty "$signal while it $moment"
        rm ../input
    done
done
for nap in $(seq -f 0.%03.0f 2 2 60); do # the signal comes twice
    env --default-signal timeout -s TERM "$nap" "$qvx" convert ../long -o new 2>/dev/null
    [ ! -e new ] || cmp ../long new || fail 'a part of a file has its name'
    rm -f new
    empty 'a signal at some moment'
done

# Two at once: one of them is whole, and without -f the other fails.
cd ../signals || exit
cat ../trace ../trace >../twice
rounds=${QUORVEX_THOROUGH:+100}
for _ in $(seq "${rounds:-10}"); do
    for force in '' -f; do
        # shellcheck disable=SC2086
        "$qvx" convert $force ../trace -o both 2>/dev/null & one=$!
        # shellcheck disable=SC2086
        "$qvx" convert $force ../twice -o both 2>/dev/null & two=$!
        wait $one; one=$?
        wait $two; two=$?
        case $force$one$two in
        -f00) cmp -s both ../trace || cmp -s both ../twice ;;
        01) cmp -s both ../trace ;;
        10) cmp -s both ../twice ;;
        *) false ;;
        esac || fail "two at once: exit $one and $two with '$force'"
        rm both
        empty 'two at once'
    done
done

finish output
