#!/usr/bin/env bash
# Runs qvx graph, and holds it against qvx stats.
#
#     graph.sh QVX WORDCOUNT
. "$(dirname "$0")/common.sh"
wordcount=$2

# agrees TRACES...: calls and self time of each function are the same in all forms.
agrees() {
    run 0 stats --format csv "$@" -f -o told
    awk -F, 'NR > 1 { print $1, $3, $5 }' told | sort >expected
    for by in all thread; do
        run 0 graph --format json --by $by "$@" -f -o paths
        sed 's/^{"stack": \[\(".*", \)*"\([^"]*\)"\].*"calls": \([0-9]*\), .*"self_ns": \([0-9]*\)}$/\2,\3,\4/' paths |
            awk -F, '{ calls[$1] += $2; self[$1] += $3 }
                     END { for (name in calls) printf "%s %d %d\n", name, calls[name], self[name] }' |
            sort | diff expected - || fail "json, by $by: $*"
        run 0 graph --folded --by $by "$@" -f -o folded
        awk '{ time = $NF; sub(/ [0-9]*$/, ""); sub(/.*;/, ""); self[$0] += time }
             END { for (name in self) printf "%s %d\n", name, self[name] }' folded |
            sort | diff <(awk '$NF > 0 { sub(/ [0-9]* /, " "); print }' expected) - || fail "folded, by $by: $*"
    done
    [ -s expected ] || fail "$* has no calls"
}
mkdir recorded
mkdir source
for file in 1 2 3; do seq $((500 * file)) | sed 's/^/the word /' >source/$file.md; done
QVX_TRACEDIR=recorded "$wordcount" source 3 >/dev/null
agrees recorded/*.qvx
for trace in recorded/*.qvx; do
    agrees "$trace"
done
run 0 graph recorded -o tree
grep -q ' 3000      countLine$' tree || { cat tree; fail 'the lines of all files'; }

# Calls at random, in two threads, of which some are never left.
for seed in 1 2 3; do
    awk -v seed=$seed 'BEGIN {
        srand(seed); OFS = "\t"; print "\tTimestamp\t16\t0\t3000000"
        for (id = 1; id <= 4; id++) { print "", "FunctionDefine", 28, 1, 1, 1, "Invalid", id; print "", "CharString", 2, "f" id }
        for (tick = 10; tick < 4000; tick += int(9 * rand())) {
            thread = 1 + int(2 * rand())
            if (!depth[thread] || rand() < 0.5) {
                id = open[thread, ++depth[thread]] = 1 + int(4 * rand()); kind = "FunctionEnter"
            } else {
                id = open[thread, depth[thread]--]; kind = "FunctionLeave"
            }
            if (kind == "FunctionEnter" || rand() < 0.95)
                print "", kind, 28, tick, 1, thread, "Invalid", id
        }
    }' >table$seed
    agrees table$seed
done
agrees table1 table2 table3

printf '\t%s\n' $'Timestamp\t16\t0\t1000' $'FunctionDefine\t28\t5\t1\t2\tInvalid\t0x7' $'CharString\t4\ta;"b' \
    $'FunctionEnter\t28\t5\t1\t2\tInvalid\t0x7' $'FunctionEnter\t28\t7\t1\t2\tInvalid\t0x8' \
    $'FunctionEnter\t28\t8\t1\t2\tInvalid\t0x7' $'FunctionLeave\t28\t9\t1\t2\tInvalid\t0x7' \
    $'FunctionLeave\t28\t9\t1\t2\tInvalid\t0x8' $'FunctionLeave\t28\t9\t1\t2\tInvalid\t0x9' \
    $'FunctionEnter\t28\t104\t0\t3\tInvalid\t0x8' $'FunctionLeave\t28\t105\t0\t3\tInvalid\t0x8' >table
expect() { diff - <("$qvx" graph "$@" 2>notes; cat notes) || fail "graph $*"; }
expect table <<'END'
5.000 ms in functions, 100.000 ms from the first call to the last
      total      %        self      calls  function
   4.000 ms  80.00    2.000 ms          1  a;"b
   2.000 ms  40.00    1.000 ms          1    0x00000008
   1.000 ms  20.00    1.000 ms          1      a;"b
   1.000 ms  20.00    1.000 ms          1  0x00000008
1 call had not ended when the trace did.
1 leave of what had not been entered.
END
expect table --by thread --min 30 --depth 2 --from 6 <<'END'
4.000 ms in functions, 99.000 ms from the first call to the last
      total      %        self      calls  function
thread 2
   3.000 ms  75.00    1.000 ms          1  a;"b
   2.000 ms  50.00    1.000 ms          1    0x00000008
1 path of less than 30 % not shown (--min).
1 path longer than 2 functions not shown (--depth).
1 call had not ended when the trace did.
1 leave of what had not been entered.
END
[ "$("$qvx" graph table --depth 1 | grep -c '^[0-9]* paths\? longer than 1 function not shown')" -eq 1 ] || fail '1 function'
expect table --folded --by thread --depth 2 --thread 2 <<'END'
thread 2;a:"b 2000000
thread 2;a:"b;0x00000008 2000000
qvx: 1 path longer than 2 functions not shown (--depth)
qvx: 1 call had not ended when the trace did
qvx: 1 leave of what had not been entered
END
expect table --format json --name 0x00000008 --core 1 --to 9 <<'END'
{"stack": ["0x00000008"], "calls": 1, "total_ns": 2000000, "self_ns": 1000000}
{"stack": ["0x00000008", "a;\"b"], "calls": 1, "total_ns": 1000000, "self_ns": 1000000}
qvx: 1 leave of what had not been entered
END
expect table --from 200 <<'END'
1 leave of what had not been entered.
qvx: nothing is selected
END
# Threads change core: a call counts where it was entered, and took what it took.
printf '\t%s\n' $'Timestamp\t16\t0\t1000' $'FunctionEnter\t28\t10\t0\t2\tInvalid\t0x7' \
    $'FunctionEnter\t28\t12\t1\t2\tInvalid\t0x8' $'FunctionEnter\t28\t13\t0\t2\tInvalid\t0x9' \
    $'FunctionLeave\t28\t14\t1\t2\tInvalid\t0x9' $'FunctionLeave\t28\t17\t0\t2\tInvalid\t0x8' \
    $'FunctionLeave\t28\t20\t1\t2\tInvalid\t0x7' >moving
expect moving --core 0 --format json <<'END'
{"stack": ["0x00000007"], "calls": 1, "total_ns": 10000000, "self_ns": 5000000}
{"stack": ["0x00000007", "0x00000009"], "calls": 1, "total_ns": 1000000, "self_ns": 1000000}
END
expect moving --core 1 --folded <<'END'
0x00000008 4000000
END
expect table --callers 'a*' --folded <<'END'
a:"b 4000000
qvx: 1 leave of what had not been entered
END
sed 1d table >ticks
expect ticks --min 50 <<'END'
5 in functions, 100 from the first call to the last; in ticks, because not all traces tell how many are a second
      total      %        self      calls  function
          4  80.00           2          1  a;"b
3 paths of less than 50 % not shown (--min).
1 call had not ended when the trace did.
1 leave of what had not been entered.
END
run 2 graph table --min 101
says "no number from 0 to 100"
run 2 graph --folded --format json table
run 2 graph - --from 1ms <table
says 'only ticks can be told'
run 0 graph - --from 6 <table >/dev/null
big=recorded/$(ls -S recorded | head -1)
head -c 10000 "$big" >cut
run 3 graph cut >/dev/null
: >empty
run 0 graph empty >out
[ "$(<out)" = 'no functions in these traces' ] || { cat out; fail 'an empty trace'; }
finish graph
