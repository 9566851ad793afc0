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
Ticks:     10 to 211
Duration:  2.010000000 s (201 ticks at 100 a second)
Cores:     1
Threads:   2
Damage:    none
Packets:   5
             1  Timestamp
             1  EndOfTrace
             1  RelFunctionEnter
             1  FunctionDefine
             1  FunctionEnter
Functions: (id, times entered, name)
    0x00000007          2  f?
'
expect 0 "$info" '' "$qvx" info trace
expect 0 "$info" '' "$qvx" trace
expect 0 "${info/trace/standard input}" '' "$qvx" - <trace

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

# Damage: an unknown kind in the middle, a cut packet at the end. What is whole is shown, and one line tells of the rest.
{ head -c 18 trace; printf '\x06\x02ab\x06\0'; tail -c +19 trace | head -c 70; } >damaged
expect 3 - 'qvx: damaged: offset 18: first of 2 damaged places, 12 bytes stepped over
' "$qvx" dump damaged
grep -q 'RelFunctionEnter' out && fail 'shows a cut packet'
expect 3 - - "$qvx" info damaged
grep -q 'Damage:    12 bytes in 2 places, the first at offset 18' out || { cat out; fail 'the damage of info'; }
printf '\x10' >lone
expect 3 - 'qvx: lone: offset 0: 1 byte stepped over
' "$qvx" lone
: >empty
expect 0 - '' "$qvx" empty
grep -q '^Packets:   0$' out || { cat out; fail 'an empty trace'; }

expect 1 '' 'qvx: missing: No such file or directory
' "$qvx" missing
expect 1 '' 'qvx: .: Is a directory
' "$qvx" dump .
expect 2 '' - "$qvx"
expect 2 '' - "$qvx" dump
expect 2 '' - "$qvx" dump --nonsense trace
expect 0 - '' "$qvx" --help
expect 0 - '' "$qvx" dump --help
grep -q 'Example: qvx dump' out || fail 'no example'
expect 0 - '' "$qvx" --version
expect 1 '' - "$qvx" dump trace -o nowhere/table.txt
full_disk dump trace
yes trace | head -200 | xargs cat >long
"$qvx" dump long 2>err | head -1 >/dev/null
# Windows does not end a program that writes to a closed pipe; there it says so.
[ -s err ] && [ "${QVX_SYSTEM:-}" != Windows ] && { cat err; fail 'a closed pipe is not quiet'; }

# The program of the README and its traces.
QVX_TRACEDIR=. "$quickstart"
[ "$(ls thread_*.qvx | wc -l)" -eq 2 ] || { ls; fail 'two threads were to be recorded'; }
cat thread_*.qvx >both
expect 0 - '' "$qvx" both
grep -Eq '^ +40  FunctionEnter$' out && grep -Eq '0x00000001 +40  fibonacci$' out || { cat out; fail 'the functions of both threads'; }

finish qvx
