#!/usr/bin/env bash
# Runs qvx as people do, and compares what it says.
#
#     qvx.sh QVX QUICKSTART
. "$(dirname "$0")/common.sh"
quickstart=$2

# expect CODE OUTPUT ERRORS COMMAND...: the exit code and the whole of both outputs; - leaves an output unchecked.
expect() {
    local code=$1 output=$2 errors=$3
    shift 3
    "$@" >out 2>err
    local got=$?
    [ "$got" -eq "$code" ] || fail "exit $got, not $code: $*"
    [ "$output" = - ] || diff <(printf '%s' "$output") out || fail "output: $*"
    [ "$errors" = - ] || diff <(printf '%s' "$errors") err || fail "errors: $*"
}

printf '\x77\x10\x0a\0\0\0\0\0\0\0\x64\0\0\0\0\0\0\0' >trace # timestamp 10 at 100 ticks a second
printf '\x90\x1c\x14\0\0\0\0\0\0\0\x01\0\0\0\x02\0\0\0\xff\xff\xff\xff\xff\xff\xff\xff\x07\0\0\0\x7e\x02f\t' >>trace
printf '\x92\x1c\xd2\0\0\0\0\0\0\0\x01\0\0\0\x02\0\0\0\xff\xff\xff\xff\xff\xff\xff\xff\x07\0\0\0' >>trace
printf '\x82\x06\x01\x02\x07\0\0\0\x7c\0' >>trace

info='File:      trace
Layout:    plain or paged (one page reads the same either way)
Size:      92 bytes
Ticks:     10 to 210
Duration:  2.000000000 s (200 ticks at 100 a second)
Cores:     1
Threads:   2
Damage:    none
End:       complete
Packets:   5
             1  Timestamp
             1  EndOfTrace
             1  RelFunctionEnter
             1  FunctionDefine
             1  FunctionEnter
Functions: (id, times entered, name)
    0x00000007          2  f\x09
'
expect 0 "$info" '' "$qvx" info trace
expect 0 "$info" '' "$qvx" trace
expect 0 "${info/trace/standard input}" '' "$qvx" - <trace

expect 0 '{"file": "trace", "layout": "either", "bytes": 92, "packets": 5, "kinds": {"Timestamp": 1, "EndOfTrace": 1, "RelFunctionEnter": 1, "FunctionDefine": 1, "FunctionEnter": 1}, "first_tick": 10, "last_tick": 210, "frequency": 100, "duration_ns": 2000000000, "cores": [1], "threads": [2], "thread_names": {}, "process_names": {}, "programs": {}, "commands": {}, "whole": true, "damage": {"places": 0, "bytes": 0, "first": null}}
' '' "$qvx" info --format json trace
"$qvx" info --kind 'FunctionE*' trace | grep -A9 ^Packets | head -3 >out
"$qvx" info --kind 'FunctionE*' trace | grep -q '^Duration:  0.000000000 s (0 ticks at 100 a second)$' || fail 'the clock of a part'
diff - out <<'END' || fail 'info of a part'
Packets:   2
             1  RelFunctionEnter
             1  FunctionEnter
END
expect 2 '' "qvx: 'dmp' is neither a verb nor a file; did you mean 'dump'?
" "$qvx" dmp
expect 2 '' "qvx: 'dupm' is no verb; did you mean 'dump'?
" "$qvx" help dupm
expect 2 '' "--frmo: qvx dump has no such option; did you mean '--from'?
Run with --help for more information.
" "$qvx" dump trace --frmo 1

dump='Quorvex (QVX) packet description
Offset		Description 	TCode 	Length 	packet payload 
	0x0000000000000000 	timestamp                      	Timestamp 	16 	10 	100 
	0x0000000000000012 	define function                	FunctionDefine 	28 	20 	1 	2 	0xffffffffffffffff 	0x00000007 
	0x0000000000000030 	character string               	CharString 	2 	0x0966 
	0x0000000000000034 	enter function                 	FunctionEnter 	28 	210 	1 	2 	0xffffffffffffffff 	0x00000007 
	0x0000000000000052 	enter function                 	RelFunctionEnter 	6 	1 	0x02 	0x00000007 
	0x000000000000005a 	end of trace                   	EndOfTrace 	0 

'
expect 0 "$dump" '' "$qvx" dump trace
expect 0 '' '' "$qvx" dump trace -o table.txt
[ "$(cat table.txt)" = "$(printf '%s' "$dump")" ] || fail 'table.txt'
expect 1 '' 'qvx: table.txt: exists; use --force to overwrite it
' "$qvx" dump trace -o table.txt
expect 0 '' '' "$qvx" dump trace -f -o table.txt --limit 1
parsable='Quorvex (QVX) packet description
Offset		Description 	TCode 	Length 	packet payload 
	0x0000000000000000 	Timestamp 	16 	0x000000000000000a 	100 
	0x0000000000000012 	FunctionDefine 	28 	0x0000000000000014 	1 	2 	Invalid 	0x00000007 
	0x0000000000000030 	CharString 	2 	0x0966 

'
expect 0 "$parsable" '' "$qvx" dump --parsable --hex-tick --limit 2 trace

expect 3 'trace: offset 82, page 0: RelFunctionEnter is relative to the core context, which no packet has told before [reference]
trace: 1 finding
' '' "$qvx" check trace
expect 3 '{"file": "trace", "offset": 82, "page": 0, "kind": "RelFunctionEnter", "rule": "reference", "text": "is relative to the core context, which no packet has told before"}
' '' "$qvx" check --format json trace
head -c 82 trace >whole
expect 0 'standard input: whole and legal
' '' "$qvx" check - <whole
expect 0 '' '' "$qvx" check --format json whole
head -c 80 trace | expect 3 'standard input: offset 52, page 0: the trace ends within a packet [cut]
standard input: 1 finding
' '' "$qvx" check -
expect 3 'trace: 1 finding, 1 not shown (--limit tells how many are)
whole: whole and legal
' '' "$qvx" check --limit 0 trace whole
{ cat whole; for _ in $(seq 150); do printf '\x83\x06\x01\x02\x07\0\0\0'; done; } >many # leaves without enters
expect 3 - '' "$qvx" check many
[ "$(wc -l <out)" -eq 101 ] && grep -q 'findings, [0-9]* not shown' out || fail 'findings are not limited'
expect 3 - '' "$qvx" check --format json many
[ "$(wc -l <out)" -ge 140 ] || fail 'findings for programs are limited'
echo text >text
expect 1 'whole: whole and legal
' 'qvx: text: does not look like a trace
qvx: none: No such file or directory
' "$qvx" check text none whole
expect 1 'trace: 1 finding, 1 not shown (--limit tells how many are)
' 'qvx: none: No such file or directory
' "$qvx" check --limit 0 none trace

# What is not known is not listed, and no name does anything to a terminal.
printf '\t%s\n' $'FunctionDefine\t28\t5\tInvalid\tInvalid\tInvalid\t0x7' $'CharString\t4\t0x319bc266' \
    $'FunctionEnter\t28\t5\t3\tInvalid\tInvalid\t0x7' $'FunctionEnter\t28\t5\tInvalid\t4\tInvalid\t0xffffffff' >unknown.txt
expect 0 - '' "$qvx" unknown.txt
diff - <(sed -n '/^Cores\|^Threads/p; /^Functions/,$p' out) <<'END' || fail 'what is not known'
Cores:     3
Threads:   4
Functions: (id, times entered, name)
    0x00000007          1  f\xc2\x9b1
END

# Clocks that differ are told.
printf '\tTimestamp\t20\t5\t1\t100\n\tTimestamp\t20\t9\t2\t%d\n' 100 >alike
printf '\tTimestamp\t20\t5\t1\t100\n\tTimestamp\t20\t9\t2\t%d\n' 200 >unlike
expect 0 - '' "$qvx" alike
grep -q '^Duration:  0.040000000 s (4 ticks at 100 a second)$' out || { cat out; fail 'the duration by one clock'; }
expect 0 - '' "$qvx" unlike
grep -q ' at 100 a second; not all clocks of the trace are like that)$' out || { cat out; fail 'two clocks'; }

# Damage: an unknown kind in the middle, a cut packet at the end. What is whole is shown, and one line tells of the rest.
{ head -c 18 trace; printf '\x06\x02ab\x06\0'; tail -c +19 trace; tail -c +19 trace | head -c 70; } >damaged
missing='of what a program recorded, at most the last 262144 bytes'
expect 3 - "qvx: damaged: offset 18: 6 bytes stepped over
qvx: damaged: offset 162: the trace ends within a packet of kind RelFunctionEnter; $missing are missing
" "$qvx" dump damaged
[ "$(grep -c 'RelFunctionEnter' out)" -eq 1 ] || fail 'shows a cut packet'
expect 3 - - "$qvx" info damaged
grep -q 'Damage:    6 bytes in 1 place, the first at offset 18' out && grep -q '^End:       offset 162, within a packet' out || { cat out; fail 'the damage of info'; }
printf '\x10\x18' >lone
expect 3 - "qvx: lone: offset 0: the trace ends within a packet of kind ExecInsn; $missing are missing
" "$qvx" lone
: >empty
expect 0 - 'qvx: empty: is empty; a program that records it has not written yet, or was killed before
' "$qvx" empty
grep -q '^Packets:   0$' out && grep -q '^End:       not marked; the file is empty$' out || { cat out; fail 'an empty trace'; }
expect 3 'empty: offset 0, page 0: the trace is empty; a program that records it has not written yet, or was killed before [cut]
empty: 1 finding
' '' "$qvx" check empty

# A large file is gone through in parts, which tells what one walk through standard input does.
awk 'BEGIN {
    printf "\tSync\t24\t5\t1\t2\tInvalid\n"
    for (i = 0; i < 20000; ++i) {
        if (i % 5000 == 10) printf "\tTimestamp\t16\t%d\t%d\n", i, 100 + (i > 9000)
        if (i % 900 == 0) printf "\tFunctionDefine\t28\t%d\t1\t2\tInvalid\t0x%x\n\tCharString\t2\t0x66%02x\n", i / 2, i % 300, 65 + i / 900
        printf "\tFunctionEnter\t28\t%d\t%d\t%d\tInvalid\t0x%x\n", (i > 100 ? i : "Invalid"), i % 3, i % 70, i % 300
    }
}' >calls.txt
run 0 convert calls.txt -f -o calls --paged
for ((i = 0; i < 36; ++i)); do head -c 524288 calls; done >large
{ head -c 18 trace; cat large; } >plain
{ head -c 9437000 large; printf '\x06\x02ab%0900d' 7; tail -c +9437905 large; } >torn
{ head -c 17000000 large; printf '\x79\x10\0\0\0\0'; } >shorn
for file in large plain torn shorn; do
    "$qvx" info "$file" >out 2>err
    code=$?
    "$qvx" info - <"$file" >out.one 2>err.one
    [ $? -eq $code ] && diff <(sed "s/^File: .*/File:      standard input/" out) out.one &&
        diff <(sed "s/^qvx: $file:/qvx: standard input:/" err) err.one || fail "$file in parts"
done
rm large plain torn shorn

expect 1 '' 'qvx: missing: No such file or directory
' "$qvx" missing
expect 1 '' 'qvx: .: has no files *.qvx
' "$qvx" dump .
expect 2 '' "--format: 'xml' is none of text, json, plain, html, latex, verbose
Run with --help for more information.
" "$qvx" dump trace --format xml
expect 2 '' - "$qvx" dump
# Wrong use: what the first line says of it.
while IFS='|' read -r arguments says; do
    # shellcheck disable=SC2086
    expect 2 '' "$says
Run with --help for more information.
" "$qvx" $arguments
done <<'END'
--foo|--foo: qvx has no such option
-x trace|-x: qvx has no such option
dump --lmit 3 trace|--lmit: qvx dump has no such option; did you mean '--limit'?
dump --lmit=3 --limit|--lmit: qvx dump has no such option; did you mean '--limit'?
trace --lmit|--lmit: qvx info has no such option
kinds --port|--port: qvx kinds has no such option
dump trace --limit -1|--limit: '-1' is no whole number from 0 to 18446744073709551615
dump trace --limit 18446744073709551616|--limit: '18446744073709551616' is no whole number from 0 to 18446744073709551615
dump trace --limit 1.5|--limit: '1.5' is no whole number from 0 to 18446744073709551615
dump trace --bytes|--bytes: goes with --format verbose
dump trace --bytes --format html|--bytes: goes with --format verbose
dump trace --format verbose --parsable|--parsable: goes with tables
dump trace --format verbose --hex-tick|--hex-tick: goes with tables
END
expect 0 - '' "$qvx" --help
for arguments in '' help; do
    # shellcheck disable=SC2086
    expect 0 "$(cat out)
" '' "$qvx" $arguments
done
expect 0 - '' "$qvx" dump --help
expect 0 "$(cat out)
" '' "$qvx" help dump
grep -q 'Example: qvx dump' out || fail 'no example'
expect 0 - '' "$qvx" --version
expect 1 '' - "$qvx" dump trace -o nowhere/table.txt
full_disk dump trace
yes trace | head -200 | xargs cat >long
"$qvx" dump long 2>err | head -1 >/dev/null
# Windows does not end a program that writes to a closed pipe; there it says so.
[ -s err ] && [ "${QVX_SYSTEM:-}" != Windows ] && { cat err; fail 'a closed pipe is not quiet'; }

# Names with spaces are completed as they are, and so are verbs, options and words.
mkdir completed
: >'completed/a b.qvx'
eval "$("$qvx" --completion-bash)"
while IFS='|' read -r words completions; do
    IFS=' ' read -ra COMP_WORDS <<<"$words"
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    (cd completed && _qvx && printf '%s|' "${COMPREPLY[@]}") >out
    [ "$(cat out)" = "$completions|" ] || { cat out; fail "completion of $words"; }
done <<'END'
qvx a|assert|a b.qvx
qvx dump a|a b.qvx
qvx du|dump
qvx dump --hex|--hex-tick
qvx dump --format v|verbose
END

for shell in zsh fish; do
    "$qvx" --completion-$shell >completion
    grep -q 'hex-tick' completion || fail "completion for $shell"
    if command -v $shell >/dev/null; then
        $shell -n completion || fail "completion for $shell"
    fi
done

# The program of the README and its traces.
QVX_TRACEDIR=. "$quickstart"
[ "$(ls thread_*.qvx | wc -l)" -eq 2 ] || { ls; fail 'two threads were to be recorded'; }
cat thread_*.qvx >both
expect 0 - '' "$qvx" both
grep -Eq '^ +40  FunctionEnter$' out && grep -Eq '0x00000001 +40  fibonacci$' out || { cat out; fail 'the functions of both threads'; }

# What is no trace is said to be none, by every verb.
head -c 3000 "$0" >text
head -c 3000 "$BASH" >program
head -c 5000 /dev/zero >zeros
printf 'QVXPAGE1%64s' >trace.page
printf '{"packets": [{"kind": "Sync"}, {"kind": "Fill"}]}' >json
mkfifo pipe
"$qvx" dump trace -f -o table.txt 2>err
for verb in info dump 'convert -f -o out' 'export --to vcd -f -o out' 'export --to btf -f -o out'; do
    for file in text program zeros json -; do
        # shellcheck disable=SC2086
        run 1 $verb "$file" <text >/dev/null
        says "qvx: ${file/#-/standard input}: does not look like a trace"
    done
    # shellcheck disable=SC2086
    run 1 $verb trace.page
    says 'qvx: trace.page: is the page file of a trace, which is trace'
    # A file that cannot be gone back in is read like any other, a table too.
    [ "${QVX_SYSTEM:-}" = Windows ] && continue
    for file in trace table.txt; do
        cat "$file" >pipe &
        # shellcheck disable=SC2086
        run 0 $verb pipe >shown
        wait
        [ -s shown ] || [ "$verb" != dump ] || fail "nothing of $file through a pipe"
    done
done
run 1 $'a\e[2Jb\n'
says 'qvx: a\x1b[2Jb\x0a: '

# The end. A frame, and where it is cut: what is said, and the line of info. With its page file, nothing is missing.
{ printf '\x79\x10\0\0\0\0\x54\0\0\0\0\0\0\0\0\0\0\0' && head -c 82 trace | tail -c 64 && printf '\x7a\0'; } >framed
while IFS='|' read -r size code end; do
    head -c "$size" framed >cut
    for verb in dump 'convert -f -o out' 'export --to btf -f -o out'; do
        # shellcheck disable=SC2086
        run "$code" $verb cut >/dev/null
        [ "$code" -eq 0 ] || says "$end"
    done
    run "$code" info cut >out
    run "$code" check cut >checked
    grep -qF "End:       $end" out || { cat out; fail "the end at $size"; }
done <<END
84|0|complete
82|3|missing
18|3|missing
81|3|offset 52
83|3|offset 82
3|3|offset 0
END
run 3 dump cut >/dev/null
says 'offset 0: the trace ends within a packet of kind TraceEnabled; of what a program recorded, at most the last 262144 bytes are missing'
run 0 dump --limit 1 framed >/dev/null
[ -s err ] && fail 'says something of an end that it has not seen'
head -c 18 framed >mapped
{ printf 'QVXPAGE1\0\0\0\0\0\0\0\0\x12\0\0\0\0\0\0\0\x52\0\0\0\0\0\0\0' && head -c 4064 zeros && head -c 82 framed; } >mapped.page
run 0 info mapped >out
says 'qvx: mapped: the program that records it still runs or was killed; nothing is missing'
grep -q '^End:       the program that records it still runs' out && grep -q '^Size:      82 bytes' out || { cat out; fail 'a mapped trace'; }
run 0 check mapped >out
cp mapped alone # without its page file
for verb in info check; do run 3 $verb alone >out; done
for form in '' --paged --relative; do
    # shellcheck disable=SC2086
    run 0 convert mapped $form -f -o whole.qvx
    run 0 info whole.qvx >out
    grep -q '^End:       complete' out && grep -q ' TraceDisabled$' out || { cat out; fail "a mapped trace converted $form"; }
done
# A frame that tells its length tells how much is missing.
run 0 convert framed -o told.qvx
head -c 60 told.qvx >told
run 3 info told >out
size=$(wc -c <told.qvx)
grep -qF "the last $((size - 60)) bytes are missing" out || { cat out; fail "what is missing of $size bytes"; }
head -c $((size - 1)) told.qvx >told
run 3 info told >out
grep -qF 'the last 1 byte is missing' out || { cat out; fail 'a byte that is missing'; }

# Texts without an end: a conversion gives them one. Where the trace ends, that is told.
x() { printf '\x7e\xff%255s' x; }
{ head -c 48 trace | tail -c 30 && x && x && head -c 18 trace; } >broken
run 0 convert broken -o broken.qvx
says '-> 564 bytes'
[ "$("$qvx" dump --parsable broken.qvx | grep -c CharString)" -eq 3 ] || fail 'a text that gets an end'
head -c 544 broken >cut
run 3 dump cut >/dev/null
says 'qvx: cut: offset 544: the trace ends within the text of a packet of kind FunctionDefine'

# The same times from packets in either form, and from what they are exported to.
printf '\t%s\n' $'Sync\t24\t1000\t0\t1\t0x10' $'RelFunctionEnter\t6\t5\t0x00\t0x7' $'BusSync\t16\t2000\t1\t2' \
    $'RelBusData\t3\t7\tBusAccRead\t0x11' $'FunctionDefine\t28\t500\t0\t1\t0x10\t0x7' $'SystemSync\t16\t3000\t1\t2' \
    $'RelSystemData\t2\t255\t0x22' $'Message\t9\t2888\t0' $'EndOfTrace\t0' >times.txt
run 0 convert times.txt -o times
run 0 convert times -o times.absolute --absolute
for file in times times.absolute times.txt; do
    "$qvx" info "$file" | grep -q '^Ticks:     1005 to 2888$' || { "$qvx" info "$file"; fail "the times of $file"; }
    "$qvx" export "$file" --to vcd -o - 2>/dev/null >out
    grep -q 'Time 0 is tick 1005\.' out && [ "$(grep '^#' out | tail -1)" = '#1883' ] || fail "the exported times of $file"
done

finish qvx
