#!/usr/bin/env bash
# Runs all verbs that show threads on traces that tell what these are called.
#
#     names.sh QVX
. "$(dirname "$0")/common.sh"

row() { printf '\t%s' "$1"; shift; printf '\t%s' "$@"; printf '\n'; }
message() { row Message 9 "$1" 64; row CharString "${#2}" "$2"; }
{
    row Timestamp 16 1000 1000000000
    message 1000 'quorvex.process pid=7 program=/usr/bin/make'
    message 1000 'quorvex.command pid=7 arguments=make all'
    message 1001 'quorvex.thread pid=7 tid=2 name=main'
    message 1001 'quorvex.thread pid=7 tid=3'
    row FunctionDefine 28 1002 1 2 Invalid 0x7
    row CharString 4 work
    row FunctionEnter 28 1010 1 2 Invalid 0x7
    row FunctionEnter 28 1020 0 3 Invalid 0x7
    message 1025 hello
    row FunctionLeave 28 1030 1 2 Invalid 0x7
    message 1045 'quorvex.thread pid=7 tid=3 name=helper 1'
    row FunctionLeave 28 1050 0 3 Invalid 0x7
    row FunctionEnter 28 1060 0 4 Invalid 0x7
    row FunctionLeave 28 1061 0 4 Invalid 0x7
} >table
run 0 convert table -o trace

# expect VERB ARGUMENTS...: compares what qvx says with standard input.
expect() { diff - <("$qvx" "$@" 2>err) || fail "$*"; }
expect dump trace --format text <<'END'
                time  core     thread                  what
         0.000000010     1          2 main             > work
         0.000000020     0          3 make             > work
         0.000000025     -          -                  Message "hello"  Priority=64
         0.000000030     1          2 main             < work  20 ns
         0.000000050     0          3 helper 1         < work  30 ns
         0.000000060     0          4                  > work
         0.000000061     0          4                  < work  1 ns
END
[ "$("$qvx" dump trace --format text --kind Message | grep -c quorvex)" -eq 5 ] || fail 'messages that are asked for'
[ "$("$qvx" dump trace --format text --name 'quorvex.th*' | grep -c quorvex)" -eq 3 ] || fail 'messages of that name'
# By all their names that the trace tells, in any order of the two; standard input by those it has told so far.
for input in trace -; do
    "$qvx" dump "$input" --format json --kind Function* --thread 'help*,4' <trace |
        sed 's/.*"thread": \([0-9]*\).*}/\1/' | tr '\n' ' ' >threads
    [ "$(<threads)" = "$([ "$input" = - ] && echo '3 4 4 ' || echo '3 3 4 4 ')" ] || fail "--thread help* of $input: $(<threads)"
done
expect dump trace --format json --kind FunctionLeave --limit 1 <<'END'
{"offset": 329, "kind": "FunctionLeave", "tick": 1030, "core": 1, "thread": 2, "address": null, "time_ns": 30, "FuncId": 7, "name": "work", "thread_name": "main"}
END
expect stats trace --by thread --thread 'm*,h*' <<'END'
50 ns in functions, 40 ns from the first call to the last
thread  calls  total   self      %    min  median    p99    max  thread name  function
     3      1  30 ns  30 ns  60.00  30 ns   30 ns  30 ns  30 ns  helper 1     work
     2      1  20 ns  20 ns  40.00  20 ns   20 ns  20 ns  20 ns  main         work
END
expect stats trace --of threads --format csv <<'END'
thread,process,calls,busy_ns,thread_name
3,trace,1,30,helper 1
2,trace,1,20,main
4,trace,1,1,
END
expect graph trace --by thread <<'END'
51 ns in functions, 51 ns from the first call to the last
      total      %        self      calls  function
thread 2 (main)
      20 ns  39.22       20 ns          1  work
thread 3 (helper 1)
      30 ns  58.82       30 ns          1  work
thread 4
       1 ns   1.96        1 ns          1  work
END
"$qvx" info trace | grep -E '^(Thr|Pro)' | diff - <(printf 'Threads:   2 (main), 3 (helper 1), 4\nProgram:   make all in process 7\n') ||
    fail 'info'
"$qvx" info trace --format json |
    grep -qF '"thread_names": {"2": "main", "3": "helper 1"}, "process_names": {}, "programs": {"7": "/usr/bin/make"}, "commands": {"7": "make all"}' ||
    fail 'info for programs'

# Two traces that differ in a counter, whose values are doubles as elsewhere.
counted() { cat table; for value in 4598175219545276416 $1; do row CounterValue 36 1070 1 2 Invalid 9 $value; done; }
counted 4611686018427387904 >one
counted 4609434218613702656 >other
run 1 diff one other --context 1 >out
diff - out <<'END' || fail 'diff'
--- one
+++ other
  event 15, offset 502: CounterValue tick 1070 (0.000000070 s), core 1, thread 2 (main), CntrId 0x00000009, Value 0.25
- event 16, offset 540: CounterValue tick 1070 (0.000000070 s), core 1, thread 2 (main), CntrId 0x00000009, Value 2.0
+ event 16, offset 540: CounterValue tick 1070 (0.000000070 s), core 1, thread 2 (main), CntrId 0x00000009, Value 1.5
  event 16 differs: Value
END
run 1 diff one other --context 0 --format json >out
[ "$(grep -c '"thread_name": "main"' out)" -eq 2 ] || fail 'diff for programs'
# A rule is told of the names that come later, too.
run 1 assert trace --rule 'function "work" never shorter than 20ns' --rule 'thread gap never longer than 19ns' >out
grep -F ' s from' out | diff - <(
    printf '    trace: offset %s, %s from the start: %s\n' \
        442 'thread 4, core 0, tick 1060, 0.000000060 s' 'work takes 1 ns' \
        329 'thread 2 (main), core 1, tick 1030, 0.000000030 s' 'nothing in thread 2 for 20 ns' \
        412 'thread 3 (helper 1), core 0, tick 1050, 0.000000050 s' 'nothing in thread 3 for 30 ns'
) || fail 'assert'
for input in trace -; do
    run 1 assert "$input" --rule 'function "work" called at most 1 time' --format json <trace >out
    grep -q '"thread": 3.*"thread_name": "helper 1"' out || fail "assert $input for programs"
done

# What each format has of it. The command line and what is no name are lost where messages are.
while read -r code file text; do
    run "$code" export trace -f -o "$file"
    [ -d "$file" ] && file=$file/metadata
    grep -qaF -- "$text" "$file" || fail "$file does not have $text"
    ! grep -qa 'quorvex.thread' "$file" || fail "$file has messages that it shows as names"
    [ "$code" -eq 0 ] || says 'messages (1), what messages tell of the program (1)'
done <<'END'
3 run.vcd $scope module thread_3_helper_1 $end
3 run.btf ,TASK_helper_1_3,
0 run.pftrace thread 3 (helper 1)
0 run.trace.json "args":{"name":"thread 3 (helper 1)"}
3 run.speedscope.json "name":"thread 3 (helper 1)"
0 run.ctf "main" = 2, "helper 1" = 3
0 run.csv call,thread 2 (main),work
0 run.jsonl "track": "thread 2 (main)"
END

# What begins in the middle of it knows the names too.
run 0 cut trace --from 1055 -o part
"$qvx" dump part --format text --name '*helper*' | grep -q Message || fail 'a part without names'
"$qvx" info trace part --format json | sed 1d | grep -q '"thread_names": {"2": "main"}' || fail 'info of several'
# Pieces repeat what has been told, and together they are the whole again.
run 0 split trace --every 30ns -o piece
for join in cat merge; do
    run 0 $join piece-*.qvx -f -o joined
    [ "$("$qvx" dump joined --kind Message | grep -c quorvex)" -eq 5 ] || fail "what $join makes of pieces"
done
finish names
