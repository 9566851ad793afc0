#!/usr/bin/env bash
# Runs qvx stats, and counts once more by other means.
#
#     stats.sh QVX WORDCOUNT QUICKSTART
. "$(dirname "$0")/common.sh"
wordcount=$2
quickstart=$3

# calls, total and self time of each function, out of the table of a thread's packets.
count() {
    "$qvx" dump --parsable "$1" | awk '
    $1 ~ /^0x/ { kind = $2; tick = $4; id = $8 }
    kind == "Timestamp" && unit == 0 { unit = 1e9 / $5 }
    kind == "FunctionEnter" { open[++depth] = id; from[depth] = tick; inner[depth] = 0; within[id]++ }
    kind == "FunctionLeave" {
        took = tick - from[depth]; calls[id]++; self[id] += took - inner[depth]; inner[depth - 1] += took
        if (--within[id] == 0) total[id] += took
        depth--
    }
    END { for (id in calls) printf "%s %d %d %d\n", id, calls[id], unit * total[id], unit * self[id] }'
}
mkdir recorded
mkdir source
seq 3000 | sed 's/^/the word /' | split -l 500 --additional-suffix=.md - source/
QVX_TRACEDIR=recorded "$wordcount" source 3 >/dev/null
QVX_TRACEDIR=recorded "$quickstart" # whose function calls itself
[ "$(ls recorded/*.qvx | wc -l)" -ge 2 ] || fail 'no traces of threads'
for trace in recorded/*.qvx; do
    count "$trace" | sort >counted
    run 0 stats --format csv -f -o told "$trace"
    awk -F, 'NR > 1 { printf "0x%08x %d %d %d\n", $2, $3, $4, $5 }' told | sort | diff counted - || fail "$trace"
    [ -s counted ] || fail "$trace has no calls"
done
run 0 stats recorded/*.qvx -o all
grep -q '  run$' all || fail 'no function run'

printf '\t%s\n' $'Timestamp\t16\t0\t1000' $'FunctionDefine\t28\t5\t1\t2\tInvalid\t0x7' $'CharString\t3\t"a,' \
    $'FunctionEnter\t28\t5\t1\t2\tInvalid\t0x7' $'FunctionEnter\t28\t7\t1\t2\tInvalid\t0x8' \
    $'FunctionLeave\t28\t8\t1\t2\tInvalid\t0x8' $'FunctionLeave\t28\t8\t1\t2\tInvalid\t0x9' >table
expect() { diff - <("$qvx" stats "$@") || fail "stats $*"; }
expect table <<'END'
3.000 ms in functions, 3.000 ms from the first call to the last
calls     total      self      %       min    median       p99       max  function
    1  3.000 ms  2.000 ms  66.67         -         -         -         -  "a,
    1  1.000 ms  1.000 ms  33.33  1.000 ms  1.000 ms  1.000 ms  1.000 ms  0x00000008
1 call had not ended when the trace did.
1 leave of what had not been entered.
END
expect --sort calls --format csv table <<'END'
function,id,calls,total_ns,self_ns,min_ns,p50_ns,p99_ns,max_ns
"""a,",7,1,3000000,2000000,,,,
0x00000008,8,1,1000000,1000000,1000000,1000000,1000000,1000000
END
expect --by thread --format json table <<'END'
{"function": "\"a,", "id": 7, "thread": 2, "process": "table", "thread_name": null, "calls": 1, "total_ns": 3000000, "self_ns": 2000000, "min_ns": null, "p50_ns": null, "p99_ns": null, "max_ns": null}
{"function": "0x00000008", "id": 8, "thread": 2, "process": "table", "thread_name": null, "calls": 1, "total_ns": 1000000, "self_ns": 1000000, "min_ns": 1000000, "p50_ns": 1000000, "p99_ns": 1000000, "max_ns": 1000000}
END

# What is selected, of what, and compared with what.
expect --from 7 --to 8 --name '0x*' --format csv table <<'END'
function,id,calls,total_ns,self_ns,min_ns,p50_ns,p99_ns,max_ns
0x00000008,8,1,1000000,1000000,1000000,1000000,1000000,1000000
END
expect --thread 3 --format json table </dev/null
sed 's/	7	1	2	Invalid	0x8/	6	1	2	Invalid	0x8/' table >slower
expect --diff table --format csv slower <<'END'
function,calls_before,calls,total_before_ns,total_ns,self_before_ns,self_ns,change_ns
"""a,",1,1,3000000,3000000,2000000,1000000,-1000000
0x00000008,1,1,1000000,2000000,1000000,2000000,1000000
END
# Times from the start are from that of each run.
awk -F'\t' 'BEGIN { OFS = FS } $2 == "Timestamp" { $4 += 1000 } $2 ~ /^Function/ { $4 += 1000 } 1' table >later
expect --diff table --from 6ms --to 8ms --format csv later <<'END'
function,calls_before,calls,total_before_ns,total_ns,self_before_ns,self_ns,change_ns
"""a,",1,1,2000000,2000000,1000000,1000000,0
0x00000008,1,1,1000000,1000000,1000000,1000000,0
END
# What is told first, and shares, are of what is selected.
expect --from 6 --to 8 --name '0x*' table <<'END'
1.000 ms in functions, 2.000 ms from the first call to the last
calls     total      self       %       min    median       p99       max  function
    1  1.000 ms  1.000 ms  100.00  1.000 ms  1.000 ms  1.000 ms  1.000 ms  0x00000008
1 leave of what had not been entered.
END
expect --of threads --from 6 --to 7 table <<'END'
thread  calls  in functions       %  file
     2      1      1.000 ms  100.00  table
END
# Threads change core: a call counts where it was entered, and took what it took.
printf '\t%s\n' $'Timestamp\t16\t0\t1000' $'ProcessEnter\t28\t0\t1\t9\tInvalid\t0x5' \
    $'FunctionEnter\t28\t10\t0\t2\tInvalid\t0x7' $'FunctionEnter\t28\t12\t1\t2\tInvalid\t0x8' \
    $'FunctionEnter\t28\t13\t0\t2\tInvalid\t0x9' $'FunctionLeave\t28\t14\t1\t2\tInvalid\t0x9' \
    $'FunctionLeave\t28\t17\t0\t2\tInvalid\t0x8' $'FunctionLeave\t28\t20\t1\t2\tInvalid\t0x7' >moving
expect --core 0 --format csv moving <<'END'
function,id,calls,total_ns,self_ns,min_ns,p50_ns,p99_ns,max_ns
0x00000007,7,1,10000000,5000000,10000000,10000000,10000000,10000000
0x00000009,9,1,1000000,1000000,1000000,1000000,1000000,1000000
END
for where in '--core 1' '--process 5'; do
    # shellcheck disable=SC2086
    expect $where --format csv moving <<'END'
function,id,calls,total_ns,self_ns,min_ns,p50_ns,p99_ns,max_ns
0x00000008,8,1,5000000,4000000,5000000,5000000,5000000,5000000
END
done
expect --of threads table <<'END'
thread  calls  in functions       %  file
     2      2      3.000 ms  100.00  table
END
printf '\t%s\n' $'Timestamp\t16\t0\t1000' $'ProcessDefine\t28\t0\t1\t2\tInvalid\t0x7' $'CharString\t4\tmain' \
    $'ProcessEnter\t28\t0\t1\t2\tInvalid\t0x7' $'HWExceptionEnter\t28\t2\t1\t2\tInvalid\t0x3' \
    $'HWExceptionLeave\t28\t3\t1\t2\tInvalid\t0x3' $'ProcessEnter\t28\t4\t1\t2\tInvalid\t0x8' \
    $'ProcessLeave\t28\t7\t1\t2\tInvalid\t0x8' $'ProcessLeave\t28\t8\t1\t2\tInvalid\t0x7' \
    $'ProcessEnter\t28\t8\t0\t2\tInvalid\t0x7' $'CounterDefine\t29\t8\t1\t2\tInvalid\t0x5\t0' $'CharString\t5\tqueue' \
    $'CounterValue\t36\t8\t1\t2\tInvalid\t0x5\t10' $'CounterValue\t36\t9\t1\t2\tInvalid\t0x5\t1' \
    $'CounterValue\t36\t10\t1\t2\tInvalid\t0x5\t4' >cores
expect --of processes cores <<'END'
core  entered     total   running      %       min    median       p99       max  process
   1        1  8.000 ms  4.000 ms  40.00  8.000 ms  8.000 ms  8.000 ms  8.000 ms  main
   1        1  3.000 ms  3.000 ms  30.00  3.000 ms  3.000 ms  3.000 ms  3.000 ms  0x00000008
   0        1  2.000 ms  2.000 ms  20.00         -         -         -         -  main
END
expect --of processes --process main --core 1 --format csv cores <<'END'
process,id,core,entered,total_ns,running_ns,min_ns,p50_ns,p99_ns,max_ns
main,7,1,1,8000000,4000000,8000000,8000000,8000000,8000000
END
expect --of processes --from 1 --to 5 --core 1 --format csv cores <<'END'
process,id,core,entered,total_ns,running_ns,min_ns,p50_ns,p99_ns,max_ns
main,7,1,0,4000000,2000000,4000000,4000000,4000000,4000000
0x00000008,8,1,1,1000000,1000000,1000000,1000000,1000000,1000000
END
expect --of cores cores <<'END'
core  in processes  in interrupts      busy      %
   1      7.000 ms       1.000 ms  8.000 ms  80.00
   0      2.000 ms           0 ns  2.000 ms  20.00
END
expect --of interrupts --format json cores <<'END'
{"interrupt": "3", "id": 3, "core": 1, "entered": 1, "total_ns": 1000000, "running_ns": 1000000, "min_ns": 1000000, "p50_ns": 1000000, "p99_ns": 1000000, "max_ns": 1000000}
END
expect --of counters cores <<'END'
values  min  mean  max  first  last  counter
     3    1     5   10     10     4  queue
END
# A process runs until the next one is entered where nothing tells that it is left.
{ printf '\tTimestamp\t16\t0\t1000\n'
  for i in {0..999}; do printf '\tProcessEnter\t28\t%d\t1\t2\tInvalid\t%d\n' $i $((i % 4 / 2)); done
  printf '\tCounterValueVar\t28\t1000\t1\t2\tInvalid\t5\t\t\n\tCounterValueVar\t30\t1000\t1\t2\tInvalid\t5\t7\t9\n'; } >switched
expect --of processes --format csv switched <<'END'
process,id,core,entered,total_ns,running_ns,min_ns,p50_ns,p99_ns,max_ns
0x00000000,0,1,500,1000000000,500000000,,,,
0x00000001,1,1,500,998000000,500000000,,,,
END
# A value without bytes is none.
expect --of counters switched <<'END'
values  min  mean  max  first  last  counter
     1    7     7    7      7     7  0x00000005
END
run 2 stats - --diff - </dev/null
says 'only one of the traces can be standard input'
run 0 convert cores -o packets
expect --of bytes --limit 2 packets <<'END'
packets  bytes      %  kind
      3    114  27.40  CounterValue
      3     90  21.63  ProcessEnter
... and 6 more (--limit tells how many are shown)
END
expect --of bytes --name main packets --format csv <<'END'
kind,packets,bytes
ProcessEnter,2,60
ProcessDefine,1,36
ProcessLeave,1,30
END
run 2 stats table --sort cals
says "did you mean 'calls'?"
[ "$(grep -o p99 err | wc -l)" -eq 1 ] && ! grep -q amount err || { cat err; fail 'the names of columns'; }
for sort in median p50; do run 0 stats table --sort $sort --format csv -f -o by.$sort; done
cmp by.median by.p50 || fail 'a heading is no name'
run 0 stats table --sort % >/dev/null
for topic in cores processes interrupts counters; do
    expect --of $topic table <<<"no $topic in these traces"
done
for topic in functions threads processes cores interrupts counters bytes; do
    run 0 stats cores --of $topic --core 7 >out
    says 'qvx: nothing is selected'
    [ -s out ] && fail "something of $topic is selected"
done
# misuse OPTION ARGUMENTS...
misuse() {
    run 2 stats table "${@:2}"
    says "$1: "
}
misuse --by --of bytes --by thread
misuse --diff --diff table --by thread
for topic in threads cores; do misuse --name --of $topic --name x; done
misuse --from --from ''
run 2 stats - --to 1ms <table
says 'only ticks can be told'
misuse --to --to ''
finish stats
