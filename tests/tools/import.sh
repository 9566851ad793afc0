#!/usr/bin/env bash
# Runs qvx import on what other tools write.
#
#     import.sh QVX PROGRAM
. "$(dirname "$0")/common.sh"

# imports_file CODE FILE [OPTION...]: makes a trace, which must be legal, and shows it in the file shown.
imports_file() {
    run "$1" import "${@:2}" -f -o out.qvx
    "$qvx" check out.qvx >checked || { cat checked; fail "import ${*:2} gives a trace with findings"; }
    {
        "$qvx" dump --format text --name 'quorvex.*' out.qvx | sed '1d; s/.*Message //; s/  Priority.*//'
        "$qvx" dump --format text out.qvx | sed 1d
    } >shown
}
# The same of standard input.
imports() { imports_file "$1" - "${@:2}"; }
# shows NAME <EXPECTED
shows() { diff - shown || fail "$1 is shown otherwise"; }

# Chrome's events: unsorted, calls inner before outer, times in all forms, ends that lack a begin, a list without an end.
imports 3 <<'IN'
{"displayTimeUnit":"ns","other":{"traceEvents":1},"traceEvents":[
{"ph":"X","name":"inner","ts":12.5,"dur":1.25,"pid":7,"tid":8},
{"ph":"X","name":"outer","ts":"10","dur":1e1,"pid":7,"tid":8,"args":{"x":{"y":1}}},
{"ph":"X","name":"empty","ts":1.5e1,"dur":0,"pid":7,"tid":8},
{"ph":"X","name":"overlaps","ts":19,"dur":2.0000009,"pid":7,"tid":8},
{"ph":"B","name":"b\u0001\"","ts":11,"pid":7,"tid":9},
{"ph":"C","name":"load","ts":11.5,"pid":7,"args":{"a":1,"b":-2.5}},
{"ph":"C","name":"heap","ts":11.5,"pid":7,"args":{"bytes":18}},
{"ph":"i","name":"mark","ts":12,"pid":7,"tid":9},
{"ph":"E","ts":13,"pid":7,"tid":9},
{"ph":"E","ts":14,"pid":7,"tid":9},
{"ph":"b","name":"load","cat":"net","id":"0x1","ts":15,"pid":7,"tid":9},
{"ph":"e","name":"load","cat":"net","id":"0x1","ts":16,"pid":7,"tid":9},
{"ph":"s","name":"flow","ts":14,"pid":7,"tid":9},
{"ph":"X","name":"Total load","ts":0,"dur":5,"pid":7,"tid":70,"args":{"count":2,"avg ms":1}},
{"ph":"i","name":"early","ts":-1,"pid":7,"tid":9},
{"ph":"B","name":"open","ts":17,"pid":8,"tid":8},
{"ph":"M","name":"thread_name","pid":7,"tid":8,"args":{"name":"main"}},
{"ph":"M","name":"process_name","pid":7,"args":{"name":"prog \\"}},
IN
says "arguments of events (1), calls that go on behind the end of their callers (1), ends of calls that have not begun (1), events before time 0 (1), events of phase 's' (1), parts of nanoseconds (1), sums over events (1)"
shows 'Chrome JSON' <<'OUT'
"quorvex.process pid=7 program=prog \x5c"
"quorvex.thread pid=7 tid=8 name=main"
"quorvex.thread pid=7 tid=9"
"quorvex.thread pid=7 tid=7"
"quorvex.thread pid=7 tid=1 name=net 0x1"
         0.000000000     -          8 main             > outer
         0.000001000     -          9 prog \           > b\x01"
         0.000001500     -          7 prog \           CounterValue load.a  Value=1
         0.000001500     -          7 prog \           CounterValue load.b  Value=-2.5
         0.000001500     -          7 prog \           CounterValue heap  Value=18
         0.000002000     -          9 prog \             Event mark
         0.000002500     -          8 main               > inner
         0.000003000     -          9 prog \           < b\x01"  2.000 us
         0.000003750     -          8 main               < inner  1.250 us
         0.000005000     -          1 net 0x1          > load
         0.000005000     -          8 main               > empty
         0.000005000     -          8 main               < empty  0 ns
         0.000006000     -          1 net 0x1          < load  1.000 us
         0.000007000     -         10                  > open
         0.000009000     -          8 main               > overlaps
         0.000010000     -          8 main               < overlaps  1.000 us
         0.000010000     -          8 main             < outer  10.000 us
OUT
printf '[{"ph":"i","name":"a","ts":1,"pid":1},{"ph":"i","name":"b","ts' | imports 3
says 'the last event, which is cut (1)'
printf '[{"ph":"i","name":"a","ts":1,"pid":1},{]}' | imports 3
says 'what stands behind offset 3'
printf '\xEF\xBB\xBF [{"ph":"i","name":"a","ts":1,"pid":1,"tid":"render"}]' | imports 0
shows 'a name for a thread' <<'OUT'
"quorvex.thread pid=1 tid=1 name=render"
         0.000000000     -          1 render           Event a
OUT

# Folded stacks: outer functions stay open, counts are times.
printf 'main;a b;c 3\nmain;a b 2\r\n\nmain;d 5\nno stack\nother 0\n' | imports 3
says 'lines that are no stacks (1)'
shows 'folded stacks' <<'OUT'
                   0     -          -  Message "Made of folded stacks: a tick is what they count, and calls side by side may have been one after the other in any order."  Priority=0
                   0     -          1  > main
                   0     -          1    > a b
                   0     -          1      > c
                   3     -          1      < c  3 ticks
                   5     -          1    < a b  5 ticks
                   5     -          1    > d
                  10     -          1    < d  5 ticks
                  10     -          1  < main  10 ticks
                  10     -          1  > other
                  10     -          1  < other  0 ticks
OUT
"$qvx" graph --folded out.qvx | sort >folded
printf 'main;a b 2\nmain;a b;c 3\nmain;d 5\n' | diff - folded || fail 'folded stacks that are folded again'

# perf script: blanks in names, cores, switches, samples with call chains and without.
imports 3 <<'IN'
# captured on a machine
work er:1 [0]  1133  7308.705696:    5025125 cpu-clock: 
	            126c spin+0x3e (/path/spin)
	           d44a3 [unknown] (/usr/lib/libstdc++.so.6.0.30)

   work er:1 [0]  1433 [001]  7350.992661:       sched:sched_switch: prev_comm=work er:1 [0] prev_pid=1433 prev_prio=120 prev_state=R ==> next_comm=ls next_pid=9 next_prio=120
         swapper     0 [001]  7350.992670: sched:sched_switch: prev_comm=ls prev_pid=9 prev_prio=120 prev_state=I ==> next_comm=swapper/1 next_pid=0 next_prio=120
            ls  7/9 [000]  7351.000000001:          1 cycles:u:      7f00 main (/bin/ls)
            ls  7/9 [000]  7351.100000: sched:sched_wakeup: comm=ls pid=9
what is this
IN
says 'callers in call chains (1), lines that tell no event (1)'
shows 'perf script' <<'OUT'
"quorvex.process pid=1133 program=work er:1 [0]"
"quorvex.process pid=1433 program=work er:1 [0]"
"quorvex.process pid=0 program=swapper"
"quorvex.thread pid=1133 tid=1133 name=work er:1 [0]"
"quorvex.thread pid=1433 tid=1433 name=work er:1 [0]"
"quorvex.thread pid=7 tid=9 name=ls"
"quorvex.thread pid=0 tid=0 name=swapper"
         0.000000000     -       1133 work er:1 [0]    Event cpu-clock in spin  IP=0x000000000000126c
        42.286965000     1          9 ls               > process ls
        42.286974000     1          9 ls               < process ls  9.000 us
        42.294304001     0          9 ls               Event cycles:u in main  IP=0x0000000000007f00
        42.394304000     -          -                  Message "ls 9 sched:sched_wakeup: comm=ls pid=9"  Priority=0
        42.394304000     0          9 ls               Event sched:sched_wakeup
OUT

# Value changes: scopes, several names of one variable, vectors, reals, negative integers, unknown values, dumps.
imports 3 <<'IN'
$date today $end $timescale 10 ns $end
$scope module top $end $var wire 1 ! clk $end $scope module sub $end $var wire 1 ! clock $end
$var wire 8 " data [7:0] $end $var integer 32 # count $end $upscope $end
$var real 64 % volts $end $var event 1 & tick $end $var string 1 ' state $end $var wire 72 ( wide $end $enddefinitions $end
#0 $dumpvars 0! b0 " b0 # r0 % 1& sidle ' bx ( $end
#5 1! b101 " b11111111111111111111111111111110 # r-1.5 % 1&
srunning '
#7 x! bx1 " #6 0!
$dumpoff x! bx " $end
#9 1! $dumpon 1! b1 " $end 1?
IN
says 'times that are none or go back (1), values of unknown variables (1), values x and z (4)'
shows 'value changes' <<'OUT'
         0.000000000     -          -  Signal  Master=0  SignalValue=0x00  SignalMask=0x01
         0.000000000     -          -  Signal  Master=1  SignalValue=0x00  SignalMask=0x01
         0.000000000     -          0  CounterValue top.sub.data[7:0]  Value=0
         0.000000000     -          0  CounterValue top.sub.count  Value=0
         0.000000000     -          0  CounterValue top.volts  Value=0
         0.000000000     -          -  Message "top.state: idle"  Priority=0
         0.000000050     -          -  Signal  Master=0  SignalValue=0x01  SignalMask=0x01
         0.000000050     -          -  Signal  Master=1  SignalValue=0x01  SignalMask=0x01
         0.000000050     -          0  CounterValue top.sub.data[7:0]  Value=5
         0.000000050     -          0  CounterValue top.sub.count  Value=-2
         0.000000050     -          0  CounterValue top.volts  Value=-1.5
         0.000000050     -          0  Event top.tick
         0.000000050     -          -  Message "top.state: running"  Priority=0
         0.000000070     -          -  Signal  Master=0  SignalValue=0x00  SignalMask=0x01
         0.000000070     -          -  Signal  Master=1  SignalValue=0x00  SignalMask=0x01
         0.000000090     -          -  Signal  Master=0  SignalValue=0x01  SignalMask=0x01
         0.000000090     -          -  Signal  Master=1  SignalValue=0x01  SignalMask=0x01
         0.000000090     -          0  CounterValue top.sub.data[7:0]  Value=1
OUT

# CTF: what another tracer has recorded, in a directory of two traces with clocks of their own. Of the kernel one stream
# a core, whose switches tell the threads; of a program threads in the events, and calls by addresses, one of them in a
# file that is there.
if ! python3 -c '' 2>/dev/null; then
    echo 'skipped: python3, which writes CTF, is missing'
elif mkdir -p session/kernel session/ust && "$qvx" import session -o none.qvx 2>err; grep -q 'has no CTF' err; then
    echo 'skipped: CTF, which this qvx was built without'
else
    run 1 import session -f -o none.qvx
    says 'qvx: session: is no CTF trace'
    python3 - "$2" "$(nm "$2" | sed -n 's/ T main$//p')" <<'PY'
import struct
import sys

TYPES = '''/* CTF 1.8 */
typealias integer { size = 8; align = 8; } := u8;
typealias integer { size = 32; align = 8; } := u32;
typealias integer { size = 32; align = 8; signed = true; } := i32;
typealias integer { size = 64; align = 8; } := u64;
typealias integer { size = 64; align = 8; base = 16; } := address;
typealias floating_point { exp_dig = 11; mant_dig = 53; align = 8; } := real;
trace { major = 1; minor = 8; byte_order = le; packet.header := struct { u32 magic; }; };
clock { name = c; freq = %d; offset_s = %d; };
typealias integer { size = 64; align = 8; map = clock.c.value; } := tick;
stream { packet.context := struct { tick timestamp_begin; tick timestamp_end; u64 content_size; u64 packet_size;
    u64 events_discarded; u32 cpu_id; }; event.header := struct { u8 id; tick timestamp; }; %s };
'''


def metadata(directory, frequency, seconds, context, *events):
    with open(f'session/{directory}/metadata', 'w') as out:
        out.write(TYPES % (frequency, seconds, context))
        for number, (name, fields) in enumerate(events):
            out.write(f'event {{ name = "{name}"; id = {number}; fields := struct {{ {fields} }}; }};\n')


def packet(core, lost, *events):
    """Events are (time, number, fields)."""
    body = b''.join(struct.pack('<BQ', number, time) + b''.join(fields) for time, number, *fields in events)
    size = 8 * (48 + len(body))
    return struct.pack('<IQQQQQI', 0xC1FC1FC1, events[0][0], events[-1][0], size, size, lost, core) + body


def u8(*values): return bytes(values)
def u32(*values): return struct.pack(f'<{len(values)}i', *values)
def u64(*values): return struct.pack(f'<{len(values)}Q', *values)
def text(value): return value.encode() + b'\0'
def switch(time, last, next_): return time, 0, u32(last), text(f't{last}'), u32(next_), text(f't{next_}'), u32(120)


metadata('kernel', 1000000000, 1000, '',
         ('sched_switch', 'i32 prev_tid; string prev_comm; i32 next_tid; string next_comm; i32 next_prio;'),
         ('syscall_entry_open', 'string filename; address flags;'), ('syscall_exit_open', 'i32 ret;'),
         ('sched_process_exit', 'i32 tid;'), ('irq_begin', 'u8 irq;'), ('irq_end', 'u8 irq;'),
         ('lttng_statedump_process_state', 'i32 tid; i32 pid; string name;'),
         ('thread_switched_out', 'u32 thread_id; string name;'), ('thread_switched_in', 'u32 thread_id; string name;'),
         ('app:data', 'u64 big; real part; i32 less; enum : u8 { IDLE = 0, BUSY = 1 ... 3 } state; struct { u8 x; } at;'
          ' u8 row[2]; variant <state> { u8 IDLE; string BUSY; } as;'),
         ('perf_comm', 'i32 pid; i32 tid; string comm;'))
with open('session/kernel/cpu0', 'wb') as out:
    out.write(packet(0, 0, (1000, 4, u8(1)), switch(2000, 0, 7), (2500, 1, text('/etc'), u64(0x8000)),
                     switch(3000, 7, 8), (3500, 3, u32(9)), switch(4000, 8, 7), (4500, 2, u32(-2))))
    out.write(packet(0, 5, (6000, 9, u64(2**63), struct.pack('<d', .5), u32(-3), u8(2, 4, 1, 2), text('abc')),
                     (6500, 9, u64(3), struct.pack('<d', 2), u32(3), u8(0, 4, 1, 2, 6)), switch(7000, 7, 0)))
with open('session/kernel/cpu1', 'wb') as out:
    out.write(packet(1, 0, (0, 10, u32(12, 12), text('twelve')), switch(2200, 0, 9), (2600, 4, u8(3)), (2700, 4, u8(4)), (2800, 5, u8(3)),
                     (8000, 6, u32(9, 3), text('nine')), (8100, 7, u32(9), text('nine')), (8200, 8, u32(1), text('')), (9000, 5, u8(3))))
metadata('ust', 1000000, 999, 'event.context := struct { i32 vpid; i32 vtid; string procname; address ip; };',
         ('lttng_ust_cyg_profile:func_entry', 'address addr; address call_site;'),
         ('lttng_ust_cyg_profile:func_exit', 'address addr; address call_site;'), ('app:mark', ''),
         ('lttng_ust_statedump:bin_info', 'address baddr; address memsz; string path; u8 is_pic;'))
who = u32(7, 8) + text('worker') + u64(0x1234)
with open('session/ust/stream', 'wb') as out:
    out.write(packet(0, 0, (5, 2, who), (1000003, 0, who, u64(0x401000, 1)), (1000004, 0, who, u64(0x402000, 2)),
                     (1000005, 1, who, u64(0x402000, 2)), (1000006, 1, who, u64(0x401000, 1)), (1000006, 2, who),
                     (1000007, 0, who, u64(0x10000000 + int(sys.argv[2], 16), 1)),
                     (1000008, 3, who, u64(0x10000000, 1 << 27), text(sys.argv[1]), u8(1))))
PY
    imports_file 3 session
    says 'not kept: call sites (5), ends of calls that have not begun (1), events before time 0 (1), events that the tracer discarded (5), events without a time (1), rows of values (2), values of more than 63 bits (1)'
    sed -i '/bin_info/d' shown
    shows CTF <<'OUT'
"quorvex.process pid=12 program=twelve"
"quorvex.thread pid=12 tid=12 name=twelve"
"quorvex.thread pid=2 tid=2 name=cpu 0"
"quorvex.thread pid=7 tid=7 name=t7"
"quorvex.thread pid=2 tid=3 name=cpu 1"
"quorvex.thread pid=3 tid=9 name=nine"
"quorvex.thread pid=7 tid=8 name=worker"
         0.000000000     -          2 cpu 0            > irq
         0.000000000     -          2 cpu 0              CounterValue irq_begin.irq  Value=1
         0.000001000     0          7 t7               > process t7
         0.000001000     -          2 cpu 0              CounterValue sched_switch.next_prio  Value=120
         0.000001200     1          9 nine             > process nine
         0.000001200     -          3 cpu 1            CounterValue sched_switch.next_prio  Value=120
         0.000001500     -          7 t7               > syscall_open
         0.000001500     -          -                  Message "7 syscall_entry_open: filename=/etc flags=0x8000"  Priority=0
         0.000001600     -          9 nine             > irq
         0.000001600     -          9 nine               CounterValue irq_begin.irq  Value=3
         0.000001700     -          9 nine               > irq
         0.000001700     -          9 nine                 CounterValue irq_begin.irq  Value=4
         0.000001800     -          9 nine               < irq  100 ns
         0.000001800     -          9 nine               CounterValue irq_end.irq  Value=3
         0.000002000     0          7 t7                 < process t7  1.000 us
         0.000002000     0          8 worker           > process t7
         0.000002000     -          7 t7                 CounterValue sched_switch.next_prio  Value=120
         0.000002000     -          8 worker           > 0x401000
         0.000002500     0          8 worker             Event sched_process_exit
         0.000002500     -          8 worker             CounterValue sched_process_exit.tid  Value=9
         0.000003000     0          8 worker             < process t7  1.000 us
         0.000003000     0          7 t7                 > process t7
         0.000003000     -          8 worker             CounterValue sched_switch.next_prio  Value=120
         0.000003000     -          8 worker             > 0x402000
         0.000003500     -          7 t7               < syscall_open  2.000 us
         0.000003500     -          7 t7               CounterValue syscall_exit_open.ret  Value=-2
         0.000004000     -          8 worker             < 0x402000  1.000 us
         0.000005000     0          7 t7               Event app:data
         0.000005000     -          7 t7               CounterValue app:data.part  Value=0.5
         0.000005000     -          7 t7               CounterValue app:data.less  Value=-3
         0.000005000     -          7 t7               CounterValue app:data.at.x  Value=4
         0.000005000     -          -                  Message "7 app:data: state=BUSY as=abc"  Priority=0
         0.000005000     -          8 worker           < 0x401000  3.000 us
         0.000005000     0          8 worker           Event app:mark  IP=0x0000000000001234
         0.000005500     0          7 t7               Event app:data
         0.000005500     -          7 t7               CounterValue app:data.big  Value=3
         0.000005500     -          7 t7               CounterValue app:data.part  Value=2.0
         0.000005500     -          7 t7               CounterValue app:data.less  Value=3
         0.000005500     -          7 t7               CounterValue app:data.at.x  Value=4
         0.000005500     -          7 t7               CounterValue app:data.as  Value=6
         0.000005500     -          -                  Message "7 app:data: state=IDLE"  Priority=0
         0.000006000     -          -                  TraceBroken
         0.000006000     0          7 t7               < process t7  3.000 us
         0.000006000     -          7 t7               CounterValue sched_switch.next_prio  Value=120
         0.000006000     -          8 worker           > main
         0.000007000     1          9 nine               Event lttng_statedump_process_state
         0.000007100     1          9 nine               < process nine  5.900 us
         0.000007200     1          1                  > process 0x00000001
         0.000008000     -          1                  CounterValue irq_end.irq  Value=3
OUT
    run 1 import session/ust/metadata -f -o none.qvx
    says 'is no directory'
    run 1 import session --format vcd -f -o none.qvx
    cp -r session cut
    truncate -s -1 cut/ust/stream
    run 1 import cut -f -o none.qvx
    says "qvx: cut: libbabeltrace2: Failed to index CTF stream file"
    cp session/ust/stream cut/ust
    sed -i 's/ id = 1; / id = 9; /' cut/ust/metadata # of which the second call is
    run 3 import cut -f -o damaged.qvx
    says 'the rest of a stream, which cannot be read: No event class'
    # An event that reaches beyond the end of its block, after which the order of babeltrace2 aborts.
    cp session/ust/metadata cut/ust
    printf '\000' | dd of=cut/kernel/cpu1 bs=1 seek=151 conv=notrunc status=none
    printf '\001' | dd of=cut/kernel/cpu1 bs=1 seek=158 conv=notrunc status=none
    run 3 import cut -f -o damaged.qvx
    says 'the rest of a stream, which cannot be read: '
    : >cut/ust/metadata
    run 1 import cut -f -o none.qvx
    [ -e none.qvx ] && fail 'a trace of a failed import'
fi

# What is none of them, and what cannot be read.
printf 'hello\n' | run 1 import - -f -o none.qvx
says 'has no line of perf script, for which it is taken; --format tells what it is'
printf '{"a":1}' | run 1 import - -f -o none.qvx
says 'has no traceEvents'
printf '$var x' | run 1 import - -f -o none.qvx
says 'is no value change dump'
[ -e none.qvx ] && fail 'a trace of nothing'
run 1 import missing.json -o none.qvx
run 1 import . -o none.qvx
run 2 import a.json
run 2 import - --format word -o none.qvx

# More than fits memory at a time comes out in order, and nothing is lost.
awk 'BEGIN { print "["; for (i = 0; i < 400000; ++i) { t = (i * 7919) % 400000
    printf "{\"ph\":\"X\",\"name\":\"f%d\",\"ts\":%d,\"dur\":0.5,\"pid\":1,\"tid\":%d},\n", t % 10, t, t % 3 + 1 } }' >many.json
run 0 import many.json -f -o many.qvx
"$qvx" stats --format json many.qvx | sort >calls
for i in 0 1 2 3 4 5 6 7 8 9; do
    grep -q "\"f$i\", \"id\": [0-9]*, \"calls\": 40000, \"total_ns\": 20000000," calls || fail "calls of f$i"
done
run 0 check many.qvx -f -o checked

finish import
