#!/usr/bin/env bash
# Converts traces between layouts, forms and tables with qvx, and compares what comes back.
#
#     convert.sh QVX WORDCOUNT SINGLESTEP      SINGLESTEP may be missing
. "$(dirname "$0")/common.sh"
wordcount=$2
singlestep=$3
convert() { run "$1" convert "${@:2}"; }
same() { cmp "$1" "$2" || fail "$1 and $2 differ"; }

# A recorded trace of several pages, there and back in every way. Names, order and all packets stay.
mkdir source
for i in 1 2 3 4 5; do yes "some words of file $i" | head -3000 >"source/$i.md"; done
QVX_TRACEDIR=. "$wordcount" source 1 >/dev/null
trace=$(ls -S thread_*.qvx | head -1)
[ "$(stat -c %s "$trace")" -gt 600000 ] || fail "the recorded trace is too small to have pages"
convert 0 "$trace" -o plain
convert 0 plain -o paged --paged
same paged "$trace"
convert 0 "$trace" -o relative.paged --relative --paged
convert 0 relative.paged -o relative --plain
convert 0 plain -o relative2 --relative
same relative relative2
convert 0 relative -o absolute --absolute
same absolute plain
convert 0 relative.paged -o absolute.paged --absolute --paged
same absolute.paged "$trace"
convert 1 absolute -f -o absolute --absolute
says 'qvx: absolute: is the same file as the input absolute'
same absolute plain
"$qvx" info plain | grep '^Layout:    plain$' >/dev/null || fail 'a plain trace is not called so'
for how in '' --parsable '--parsable --hex-tick'; do
    "$qvx" dump $how "$trace" >table
    convert 0 table -f -o table.qvx --paged
    [ -n "$how" ] && same table.qvx "$trace"
    sed 's/$/\r/' table >table.crlf
    convert 0 - -f -o table.qvx --paged <table.crlf
    [ -n "$how" ] && same table.qvx "$trace"
done

# The summary tells both sizes; the frame's length is told right in every layout and form.
convert 0 relative -f -o absolute --absolute
says "packets, $(stat -c %s relative) bytes -> $(stat -c %s absolute) bytes ("
for file in plain relative paged relative.paged; do
    told=$("$qvx" dump --format verbose --limit 1 "$file" | sed -n 's/^Frame Length:\t//p')
    real=$("$qvx" dump --parsable "$file" | sed -n 's/^\t\(0x[0-9a-f]*\) \tTraceDisabled .*/\1/p' | head -1)
    [ "$told" -eq $((real + 2)) ] || fail "$file: frame length $told, but its end is at $real"
done
convert 0 plain -o - >piped
"$qvx" dump --format verbose --limit 1 piped | grep -q '^Frame Length:	unknown$' || fail 'a pipe cannot be gone back in'
cat plain | "$qvx" convert - -o - 2>/dev/null | tail -c +19 | cmp - <(tail -c +19 piped) || fail 'from a pipe to a pipe'
"$qvx" convert plain --paged -o - 2>/dev/null | tail -c +19 | cmp - <(tail -c +19 paged) || fail 'pages to a pipe'

# Several files become one. The second begins with a relative packet: it keeps its meaning, the unknown context.
printf '\x7f\x18\x10\0\0\0\0\0\0\0\x01\0\0\0\x02\0\0\0\x30\0\0\0\0\0\0\0\x00\x02\x01\x01' >first
printf '\x00\x02\x00\x00\xc5\x01\x01' >second
convert 0 first second -o joined
says '5 packets, 37 bytes -> '
expected='	Sync 	24 	16 	1 	2 	0x0000000000000030 
	RelExecInsn 	2 	1 	0x01 
	Sync 	24 	Invalid 	0 	0 	Invalid 
	RelExecInsn 	2 	0 	0x00 
	RelSystemData 	1 	1 '
[ "$("$qvx" dump --parsable joined | sed -n 's/^\t0x[0-9a-f]* //p')" = "$expected" ] || fail 'joined'
convert 0 first second -o joined.absolute --absolute
convert 0 joined -o joined2.absolute --absolute
same joined.absolute joined2.absolute
expected='	Sync 	24 	16 	1 	2 	0x0000000000000030 
	ExecInsn 	24 	17 	1 	2 	0x0000000000000031 
	ExecInsn 	24 	Invalid 	0 	0 	Invalid 
	SystemData 	16 	18446744073709551614 	0 	0 '
[ "$("$qvx" dump --parsable joined.absolute | sed -n 's/^\t0x[0-9a-f]* //p')" = "$expected" ] || fail 'joined.absolute'

# It ends once.
printf '\x7a\0\x7c\0' >ends
convert 0 ends ends -f -o joined
printf '\x7a\0\x7a\0\x7c\0' | cmp - joined || fail 'the ends of several files'

# Sync packets of the trace itself, Fill packets in the middle of a page and trace-enabled packets that are shorter
# than usual are kept.
printf '\x79\x04\x05\0\0\0\x7d\x01x\x7f\x18\x10\0\0\0\0\0\0\0\x01\0\0\0\x02\0\0\0\x30\0\0\0\0\0\0\0\x7c\0' >odd
for form in '' --absolute --relative; do
    convert 0 odd -f -o odd.qvx $form
    [ "$("$qvx" dump --parsable odd.qvx | grep -c $'^\t0x')" -eq 4 ] || fail "odd packets with ${form:-no form}"
    "$qvx" dump --parsable odd.qvx | grep -q 'TraceEnabled 	16 	5 	UnknownLength' || fail "version with ${form:-no form}"
done

# Bad input: what is whole is converted, one line tells of the rest, and the exit code says so.
head -c 100000 plain >cut
convert 3 cut -o cut.qvx --relative
grep -Eq '^qvx: cut: offset 99[0-9]+: the trace ends within a packet of kind [A-Za-z]+; .* are missing$' err || { cat err; fail 'the cut packet'; }
printf '\tSync\t24\t1\t2\t3\t4\n\tSync\t24\t1\t2\t3\n\tNothing\n\tEndOfTrace\t0\n' >wrong.txt
convert 3 wrong.txt -o wrong.qvx
says 'qvx: wrong.txt: line 2, column 15: expected IP, a number of at most 8 bytes, found the end of the row; 2 rows skipped'
says '2 packets'
{ "$qvx" info wrong.txt 2>err || true; } | grep -qx 'Damage:    2 rows, the first in line 2' || fail 'the rows of info'
convert 1 missing -o out
says 'qvx: missing: No such file or directory'
mkdir both && cp plain both/1.qvx && cp plain both/2.qvx
convert 0 both -o of-directory
convert 0 plain plain -o of-files
cmp of-directory of-files || fail 'the traces of a directory'
convert 2 plain
convert 2 plain -o out --plain --paged
convert 2 plain -o out --absolute --relative
{ printf '\x80\x06\0\0\0\0\0\0'; for _ in $(seq 1100); do printf '\x7e\xff%255s' n; done; printf '\x7e\0'; } >huge
convert 1 huge -o out --paged
says 'qvx: huge: offset 0: a RelFunctionDefine packet of 282710 bytes, its text included, does not fit a block of 262144 bytes'
[ -e out ] || [ -e out.part ] && fail 'a failed conversion leaves a file'
full_disk convert plain -o -

# A recorded instruction trace: the relative form takes at most a quarter.
if [ -x "$singlestep" ] && "$singlestep" steps 20000 /bin/true 2>/dev/null && [ "$(stat -c %s steps)" -gt 500000 ]; then
    convert 0 steps -o steps.relative --relative
    cat err
    [ $((4 * $(stat -c %s steps.relative))) -le "$(stat -c %s steps)" ] || fail 'relative steps take too much'
    convert 0 steps.relative -o steps.absolute --absolute --paged
    same steps.absolute steps
else
    echo 'skipped: programs cannot be run step by step here'
fi

finish convert
