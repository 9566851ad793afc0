#!/usr/bin/env bash
# Runs qvx dump for people and for programs, and the options that select packets.
#
#     dump.sh QVX
. "$(dirname "$0")/common.sh"

row() { printf '\t%s' "$1"; shift; printf '\t%s' "$@"; printf '\n'; }
{
    row Timestamp 16 1000 1000000
    row FunctionDefine 28 1000 1 2 Invalid 0x7
    row CharString 4 work
    row TypeDefine 29 Invalid Invalid Invalid Invalid 0x1 4
    row CharString 5 float
    row VariableDefine 32 Invalid Invalid Invalid Invalid 0x9 0x1
    row CharString 5 speed
    row FunctionEnter 28 1500 1 2 Invalid 0x7
    row FunctionEnter 28 2000 1 2 0x1000 0x8
    row ProcessEnter 28 2000 1 2 Invalid 0x5
    row CounterValue 36 2100 1 2 Invalid 0x6 12
    row VariableWrite 32 2200 0 3 Invalid 0x9 0x3f800000
    row Message 9 2300 -2
    row CharString 2 $'\u00e9'
    row FunctionLeave 28 3000 1 2 Invalid 0x8
    row FunctionLeave 28 1003000 1 2 Invalid 0x7
} >table
run 0 convert table -o trace
# Of values of counters, those of eight bytes are doubles where they look so; longer ones are shown whole.
{
    row Timestamp 16 1000 1000
    row CounterValue 36 1000 1 2 Invalid 0x6 4611686018427387904
    row CounterValueVar 36 1000 1 2 Invalid 0x5 7 9
    row CounterValueVar 60 1000 1 2 Invalid 0x5 0x0102030405060708090a0b0c0d0e0f10 0x1
} >counters
"$qvx" dump counters --format text | sed -n 's/.*  Value=//p' | tr '\n' ' ' >out
[ "$(<out)" = '2.0 7  Idx1=9 0x0102030405060708090a0b0c0d0e0f10  Idx1=0x00000000000000000000000000000001 ' ] || { cat out; fail 'counters'; }

# expect ARGUMENTS...: compares what dump says with standard input.
expect() { diff - <("$qvx" dump "$@" 2>err) || fail "dump $*"; }
expect trace --format text <<'END'
                time  core     thread  what
         0.000500000     1          2  > work
         0.001000000     1          2    > 0x00000008
         0.001000000     1          2      > process 0x00000005
         0.001100000     1          2      CounterValue 0x00000006  Value=12
         0.001200000     0          3  VariableWrite speed  Data=1
         0.001300000     -          -  Message "é"  Priority=-2
         0.002000000     1          2    < 0x00000008  1.000 ms
         1.002000000     1          2  < work  1.001 s
END
# Each row: the options, and the ticks of the packets that they select.
while read -r options; do
    read -r ticks
    got=$("$qvx" dump trace --format text --time ticks $options | awk 'NR > 1 && !/ open since / { printf "%s ", $1 }')
    [ "${got% }" = "$ticks" ] || fail "$options: $got"
    got=$("$qvx" dump --format text --time ticks $options - <trace | awk 'NR > 1 && !/ open since / { printf "%s ", $1 }')
    [ "${got% }" = "$ticks" ] || [[ $options = *-[0-9]* ]] || fail "standard input, $options: $got"
done <<'END'
--from 2100 --to 2300
2100 2200
--from 0.0012s
2200 2300 3000 1003000
--from +1200 --to 1300us
2200
--from -1s
3000 1003000
--from -1001000 --to -1
2000 2000 2100 2200 2300 3000
--core 0
2200
--core 0,0x1 --thread 2 --kind Function*
1000 1500 2000 3000 1003000
--process 5
2000 2100 3000 1003000
--kind CounterValue --kind Message
2100 2300
--name wor?
1500 1003000
--name spe*
2200
--limit 2
1500 2000
--tail 1
1003000
--kind Timestamp
1000
END
expect trace --format text --time delta --tail 2 <<'END'
                time  core     thread  what
         0.000700000     1          2    < 0x00000008  1.000 ms
         1.000000000     1          2  < work  1.001 s
END
# Depth and durations count what is before the part that is shown.
expect trace --format text --from 3000 --time ns <<'END'
                time  core     thread  what
                   -     1          2  | work  open since 500000
                   -     1          2    | 0x00000008  open since 1000000
             2000000     1          2    < 0x00000008  1.000 ms
          1002000000     1          2  < work  1.001 s
END
expect trace --format json --from 2000 --to 2300 <<'END'
{"offset": 163, "kind": "FunctionEnter", "tick": 2000, "core": 1, "thread": 2, "address": 4096, "time_ns": 1000000, "FuncId": 8}
{"offset": 193, "kind": "ProcessEnter", "tick": 2000, "core": 1, "thread": 2, "address": null, "time_ns": 1000000, "ProcId": 5}
{"offset": 223, "kind": "CounterValue", "tick": 2100, "core": 1, "thread": 2, "address": null, "time_ns": 1100000, "CntrId": 6, "Value": 12}
{"offset": 261, "kind": "VariableWrite", "tick": 2200, "core": 0, "thread": 3, "address": null, "time_ns": 1200000, "VarId": 9, "Data": "0x3f800000", "name": "speed"}
END

# What is open is told where nothing happens, of what is selected only.
expect trace --format text --from 4000 --to 5000 --time delta <<'END'
                time  core     thread  what
                   -     1          2  | work  open since 0.000500000
END
for nothing in '--core 0' '--thread 3' '--kind Message' '--name x'; do
    # shellcheck disable=SC2086
    expect trace --format text --from 4000 --to 5000 $nothing <<'END'
                time  core     thread  what
END
    says 'qvx: nothing is selected'
done

# Several traces are one in the order of time, and each its own process where its names are.
mkdir traces
sed -e s,work,walk, -e s,1500,1400, table >table2
"$qvx" convert table2 -o traces/thread_10.qvx 2>/dev/null
cp trace traces/thread_9.qvx
expect traces --to 1501 <<'END'
                time  core     thread  what
         0.000400000     1          2  > walk
         0.000500000     1          2  > work
END
# What is behind the part that is shown has been read ahead.
expect traces --from 3000 --to 3001 <<'END'
                time  core     thread  what
                   -     1          2  | work  open since 0.000500000
                   -     1          2    | 0x00000008  open since 0.001000000
                   -     1          2  | walk  open since 0.000400000
                   -     1          2    | 0x00000008  open since 0.001000000
         0.002000000     1          2    < 0x00000008  1.000 ms
         0.002000000     1          2    < 0x00000008  1.000 ms
END
# What has no tick is where the one before it is, however far has been read ahead.
{ row FunctionEnter 28 10 1 2 Invalid 0x7; row Message 9 Invalid -2; row CharString 2 ab; row FunctionLeave 28 90 1 2 Invalid 0x7; } >ahead
expect ahead ahead --to 50 --kind Message --format text --time ticks <<'END'
                time  core     thread  what
                   -     -          -  Message "ab"  Priority=-2
                   -     -          -  Message "ab"  Priority=-2
END
expect traces --kind Message --format json --limit 1 <<'END'
{"file": "traces/thread_9.qvx", "offset": 295, "kind": "Message", "tick": 2300, "core": null, "thread": null, "address": null, "time_ns": 1300000, "Priority": -2, "text": "é"}
END
# Definitions may be older than what is traced: they do not begin it, also on standard input.
sed 's/28	1000	/28	10	/' table >older
"$qvx" dump older --format text >expected
grep -q ' 0.000500000 .*> work' expected || { cat expected; fail 'a trace that begins with old definitions'; }
"$qvx" dump - --format text <older | diff expected - || fail 'old definitions on standard input'

# Of processes that are entered and never left, the last one runs.
{ row Timestamp 16 0 1000
  for i in {1..300}; do row ProcessEnter 28 $i 1 2 Invalid $((i % 3 + 1)); done; } >switched
[ "$("$qvx" dump --process 2 --parsable switched | grep -c ProcessEnter)" -eq 100 ] || fail 'processes that are not left'

esc=$'\x1b'
run 0 dump trace --format text --color always --limit 1 -o colored
grep -qF "> $esc[1mwork$esc[0m" colored || fail 'no colours'

# misuse TEXT ARGUMENTS...
misuse() {
    run 2 dump "${@:2}"
    says "$1"
}
misuse "'1m' is no time" trace --from 1m
misuse 'is no number of 32 bits' trace --core x
misuse "did you mean 'Message'?" trace --kind Mesage
misuse 'standard input cannot be read twice' - --from -1s
misuse '--format: goes with one trace' traces --format plain
misuse '--parsable: goes with one trace' traces --parsable
misuse '--hex-tick: goes with one trace' traces --hex-tick --format html
misuse '--time: goes with --format text' trace --format plain --time ns
misuse '--time: goes with --format text' trace --format json --time ticks
misuse "--from: '' is no time" trace --from ''
misuse 'FILES: standard input cannot be read twice' trace -
misuse '--to: standard input cannot be read twice' trace - --to 1ms
misuse 'only one of the traces can be standard input' - -
run 1 dump table2 traces/none.qvx
mkdir empty
run 1 dump empty
says 'empty: has no files *.qvx'
sed -i 1d table
run 1 dump table --from 1s
says 'does not tell how many ticks are a second'
finish dump
