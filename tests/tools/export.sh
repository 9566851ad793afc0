#!/usr/bin/env bash
# Exports traces with qvx, and looks at what it says and at what it makes.
#
#     export.sh QVX WORDCOUNT
data=$(cd "$(dirname "$0")/../data" && pwd)
. "$(dirname "$0")/common.sh"
wordcount=$2
export_to() { run "$1" export "${@:2}"; }

# A recorded program: several threads in one file, without loss.
mkdir source
for i in 1 2 3 4; do yes "some words of file $i" | head -200 >source/$i.md; done
QVX_TRACEDIR=. "$wordcount" source 3 >/dev/null
[ "$(ls thread_*.qvx | wc -l)" -eq 4 ] || fail 'four threads were to be recorded'
export_to 0 thread_*.qvx --to vcd -o run.vcd --strict --save run.gtkw
[ -s err ] && fail "says something without need: $(cat err)"
[ "$(grep -c '^\$scope module thread_[0-9]* \$end$' run.vcd)" -eq 4 ] || fail 'threads of the dump'
grep -q '^\$var wire 1 [^ ]* countLine \$end$' run.vcd || fail 'functions of the dump'
grep -q '^[0-9A-F]\{8\} countLine$' run.gtkw.functions.txt || fail 'names for the viewer'
grep -q '^\[dumpfile\] "\([A-Z]:\)\?/.*/run.vcd"$' run.gtkw || fail 'the dump of the viewer'
entered=0
for thread in thread_*.qvx; do
    entered=$((entered + $("$qvx" dump --parsable "$thread" | grep -c '	FunctionEnter ')))
done
export_to 0 thread_*.qvx --to btf -o run.btf --strict
[ "$(grep -c ',R,[^,]*,[0-9]*,start$' run.btf)" -eq "$entered" ] || fail 'functions of the BTF file'
awk -F, '!/^#/ { if ($1 + 0 < last + 0) exit 1; last = $1 }' run.btf || fail 'the BTF file goes back in time'
export_to 0 thread_*.qvx --to vcd -o - >piped.vcd
cmp -s run.vcd piped.vcd || fail 'a pipe gets another dump'
run 0 check . >told
[ "$(grep -c '^\./thread_[0-9]*\.qvx: whole and legal$' told)" -eq 4 ] || { cat told; fail 'a directory is checked'; }
export_to 0 . --to btf -o directory.btf
[ "$(grep -c ',R,[^,]*,[0-9]*,start$' directory.btf)" -eq "$entered" ] || fail 'a directory is exported'

# Call depths are shown as lines, whatever else has such a name.
printf '\t%s\n' $'EventDefine\t8\t0x1\t0x0' $'CharString\t5\t0x6874706564' $'Event\t28\t1\t0\t1\t0x10\t0x1' \
    $'CounterDefine\t29\t1\t0\t1\t0x10\t0x2\t0' $'CharString\t7\t0x68747065645f61' \
    $'CounterValue\t36\t2\t0\t1\t0x10\t0x2\t4602678819172646912' $'HWExceptionEnter\t28\t3\t0\t1\t0x10\t0x5' \
    $'ProcessEnter\t28\t4\t0\t1\t0x10\t0x6' $'EndOfTrace\t0' >depths.txt
export_to 0 depths.txt --to vcd -o depths.vcd --save depths.gtkw
grep -A 1 '^@' depths.gtkw | grep -A 1 '^@8024' | grep '^trace' | tr '\n' ' ' >steps
[ "$(cat steps)" = 'trace.core_0.exception_depth[31:0] trace.core_0.process_depth[31:0] trace.thread_1.depth[31:0] ' ] || { cat depths.gtkw; fail 'depths'; }

# A counter is a line of steps under a name that tells its unit, and the set-up can be moved: it tells where it was.
{
    printf '\tCounterDefine\t29\t1\t0\t1\t0x10\t0x2\t0\n\tCharString\t1\t0x6e\n'
    printf '\tCounterDefineUnit\t29\t1\t0\t1\t0x10\t0x2\t0\n\tCharString\t2\t0x736d\n'
    printf '\tCounterValue\t36\t%s\t0\t1\t0x10\t0x2\t%s\n' 2 5 3 0xfffffffffffffffe
} >unit.txt
export_to 0 unit.txt --to vcd -o unit.vcd --save unit.gtkw
[ "$(grep -B 1 counters.n unit.gtkw | tr '\n' ' ')" = '@8424 +{n [ms]} trace.counters.n[63:0] ' ] || { cat unit.gtkw; fail 'a unit'; }
grep -q '^\[savefile\] "\([A-Z]:\)\?/.*/unit.gtkw"$' unit.gtkw || fail 'the place of the set-up'

# What a format cannot show is told, and is an error for those who want that.
{
    printf '\tExecInsn\t24\t5\t0\t1\t0x10\n\tMessage\t9\t6\t0\n\tCharString\t2\thi \n'
    printf '\tFunctionEnter\t28\t7\t0\t1\t0x10\t0x7\n\tMessage\t9\t6\t0\n\tEndOfTrace\t0\n'
} >losses.txt
export_to 3 losses.txt --to vcd -o losses.vcd
says 'qvx: losses.vcd: not shown as in the trace: messages (2), packets earlier than the one before them (1)'
says 'qvx: losses.vcd: no trace tells how many ticks are a second; a tick is shown as 1 ns'
export_to 1 losses.txt --to vcd -o strict.vcd --strict
says 'qvx: strict.vcd: cannot show messages (2)'
[ -e strict.vcd ] || [ -e strict.vcd.part ] && fail 'a failed export leaves a file'
export_to 3 losses.txt --to btf -o losses.btf
says 'instructions and branches (1), messages (2)'
head -c 100 "$(ls thread_*.qvx | head -1)" >cut
export_to 3 cut --to vcd -o cut.vcd
says 'the trace ends within a packet'
export_to 1 cut --to vcd -o lost.vcd --strict
says 'qvx: lost.vcd: cannot show what its traces lack'
[ -e lost.vcd ] && fail 'a failed export leaves a file'

# One wrong tick does not ruin the times of all: its packet, and what is relative to it, is shown at the time before
# and told. A pause, however long, is none, nor is an old definition.
# times EXIT END TICKS...: the exit code, the last time that is shown, the ticks of the packets; r is relative to the one
# before, d a definition, s a sync packet, f a border of frames, - no tick.
times() {
    local code=$1 end=$2 tick
    for tick in "${@:3}"; do
        case $tick in
        r*) printf '\tRelFunctionEnter\t6\t%s\t0x00\t0x7\n' "${tick#r}" ;;
        d*) printf '\tFunctionDefine\t28\t%s\t0\t1\t0x10\t0x7\n' "${tick#d}" ;;
        s*) printf '\tSync\t24\t%s\t0\t1\t0x10\n' "${tick#s}" ;;
        f) printf '\tTraceDisabled\t0\n\tTraceEnabled\t16\t0\tUnknownLength\t0x0\n' ;;
        *) printf '\tFunctionEnter\t28\t%s\t0\t1\t0x10\t0x7\n' "${tick/-/Invalid}" ;;
        esac
    done >times.txt
    printf '\tTraceDisabled\t0\n' >>times.txt
    for file in times.txt "times.txt thread.qvx"; do
        # shellcheck disable=SC2086
        export_to "$code" $file --to vcd -f -o times.vcd
        [ "$(grep '^#' times.vcd | tail -1)" = "#$end" ] || { cat err; fail "the time ends at $(grep '^#' times.vcd | tail -1), not $end: $*"; }
        [ "$code" -eq 0 ] || says "${told:-qvx: times.txt: offset }"
    done
}
printf '\tFunctionEnter\t28\t100\t0\t2\t0x10\t0x7\n' >thread.txt
"$qvx" convert thread.txt -o thread.qvx 2>err
far=1000000000000
times 0 500 100 200 300 600
times 3 500 100 200 $far 300 400 500 600
says 'offset 60: a tick far ahead of all behind it; 1 packet shown at the time of the one before'
times 3 500 $far 100 200 300 600                      # the first
times 3 500 100 200 300 $far 600                      # the last but one
times 3 500 100 $far 200 - $((2 * far)) 300 400 500 600 # two of them
times 3 500 100 s$far r1 r2 - r3 s300 r0 400 600      # a reference
says '3 packets shown'
export_to 1 times.txt --to vcd -f -o times.vcd --strict
times 0 $((far - 100)) 100 200 $far                   # the last: nothing contradicts it
times 0 $((far - 100)) 100 200 $((far - 9)) $((far - 5)) $far
times 0 $((far - 100)) 100 $((far - 1)) d150 d160 d170 $far
times 0 500 100 d50 300 d200 600
told='packets earlier than the one before them (4)' times 3 $((far - 100)) 100 200 $far f 300 400 500 600 # another frame tells nothing

export_to 1 missing --to vcd -o out.vcd
export_to 2 cut -o out.unknown
export_to 2 cut --to nonsense -o out.vcd
export_to 2 cut --to btf -o out.btf --save out.gtkw
export_to 2 cut --to vcd -o - --save out.gtkw >/dev/null
: >empty
for format in vcd btf; do
    export_to 3 empty --to $format -o empty.$format
    says "qvx: empty.$format: shows nothing: the traces hold nothing that it could"
    [ -s empty.$format ] || fail "no frame around nothing in $format"
done
full_disk export losses.txt --to vcd -o -

# Several traces: a clock of 1 MHz beside one of 1 GHz, a thread that ends before the other, a process in a process,
# a clock of 32 bits that starts again, and the type of a counter.
function_at() { printf '\tFunction%s\t28\t%s\t0\t%s\t0x10\t0x7\n' "$@"; }
clock() { printf '\tTimestamp\t16\t0\t%s\n' "$1"; }
{ clock 1000000000; function_at Enter 1000000 1; function_at Enter 9000000 1; } >ns.txt
{ clock 1000000; function_at Enter 2000 2; function_at Enter 3000 2; } >us.txt
export_to 0 ns.txt us.txt --to vcd -o clocks.vcd
grep '^#' clocks.vcd | tr '\n' ' ' >told
[ "$(cat told)" = '#0 #1000000 #2000000 #3000000 #9000000 ' ] || { cat told; fail 'clocks'; }
export_to 0 ns.txt us.txt --to btf -o clocks.btf
grep -q '^3000000,Core_0,0,T,TASK_2,0,terminate$' clocks.btf || { cat clocks.btf; fail 'a thread runs on after its trace'; }
grep -q '^#creationDate 20[0-9-]*T[0-9:]*Z$' clocks.btf || fail 'the date of the BTF file'
{ clock 1000000000; function_at Enter 50 1; function_at Leave 60 1; } >other.txt
{ clock 1000000000; function_at Enter 40 1; function_at Leave 70 1; } >shared.txt
for format in vcd btf; do export_to 0 shared.txt other.txt --to $format -f -o shared.$format; done # a thread of two traces
for version in 2.1.0 2.1.5 2.2.0; do
    export_to 0 ns.txt --to btf -f -o version.btf --btf-version $version
    [ "$(head -1 version.btf)" = "#version $version" ] || fail "version $version"
done
export_to 2 ns.txt --to btf -f -o version.btf --btf-version 3
{ clock 1000000000; for tick in 4294967000 4294967295 5 800 1200; do function_at Enter $tick 1; done; } >around.txt
for tick in 3999999000 4000000000 30; do function_at Enter $tick 2; done >still.txt
export_to 0 around.txt --to vcd -o around.vcd
[ "$(grep '^#' around.vcd | tail -1)" = '#4294968496' ] || { tail around.vcd; fail 'a clock that starts again'; }
export_to 3 still.txt --to vcd -o still.vcd
[ "$(grep '^#' still.vcd | tail -1)" = '#1000' ] || { tail still.vcd; fail 'one tick that goes back is no clock that starts again'; }
printf '\tCounterDefine\t29\t1\t0\t1\t0x10\t0x2\t0\n\tCharString\t1\t0x6e\n' >counter.txt
printf '\tCounterValue\t36\t%s\t0\t1\t0x10\t0x2\t%s\n' 2 0 3 4602678819172646912 >>counter.txt
export_to 0 counter.txt --to vcd -o counter.vcd
grep -q '^\$var real 64 [^ ]* n \$end$' counter.vcd || fail 'a counter of doubles'
export_to 0 counter.txt --to btf -o counter.btf --counter n=signed
grep -q ',n,0,write,4602678819172646912$' counter.btf || fail 'the type that is told'
export_to 2 counter.txt --to btf -o counter.btf --counter n=number

# The ending tells the format. One that is a directory comes to be as a whole, and takes nothing that is not its own.
export_to 0 ns.txt -o ending.trace.json
grep -q '"ph":"B"' ending.trace.json || fail 'the ending of a name'
export_to 0 ns.txt -o of.ctf/
[ "$(ls of.ctf | tr '\n' ' ')" = 'metadata stream ' ] || { ls -a of.ctf; fail 'a directory'; }
cp of.ctf/stream stream.old
export_to 1 us.txt -o of.ctf
says 'qvx: of.ctf: exists; use --force to overwrite it'
cmp -s of.ctf/stream stream.old || fail 'a directory is changed without force'
export_to 0 us.txt -f -o of.ctf
cmp -s of.ctf/stream stream.old && fail 'a directory is not changed by force'
: >of.ctf/notes
export_to 1 us.txt -f -o of.ctf
says 'notes: is in the way: readers of the format would take it for a part'
export_to 1 missing -o new.ctf
export_to 1 losses.txt -o new.ctf --strict
[ -e new.ctf ] && fail 'a failed export leaves a directory'
export_to 1 ns.txt --to ctf -o -
export_to 1 ns.txt --to ctf -f -o ns.txt
export_to 1 ns.txt --to ctf -o none/of.ctf
ls -a | grep -q '^\.qvx' && fail 'a failed export leaves files'
run 0 export --list >list
[ "$(cut -d ' ' -f 1 list | tr '\n' ' ')" = 'vcd btf perfetto chrome speedscope ctf folded csv json ' ] || { cat list; fail 'the list'; }
export_to 2 --to vcd -o out.vcd

# No format needs many open files, or much memory for each trace.
if [ "${QVX_SYSTEM:-Linux}" = Linux ]; then
    mapfile -t many < <(yes "$(ls -S thread_*.qvx | tail -1)" | head -1000)
    memory=200000 # what sanitizers need is no matter
    (ulimit -v $memory && "$qvx" --version) >/dev/null 2>&1 || memory=unlimited
    for format in $(cut -d ' ' -f 1 list); do
        (ulimit -n 256 && ulimit -v $memory && "$qvx" export "${many[@]}" --kind 'Function*' --to $format -f -o many.$format 2>err)
        [[ $? = [03] ]] || { cat err; fail "a thousand traces as $format"; } # one thread, a thousand times
    done
fi
# The way there and back again: what import makes of a file for Chrome is shown as that file, but for the names of
# the inputs. What holds for a bit of all that there is stands in a file of its own.
# same_again FILE TRACE: tells the first line that differs.
same_again() {
    run 0 import "$1" -f -o "$2"
    "$qvx" export "$2" --to chrome -f -o again.json 2>err || true
    diff <(grep -v '"process_name"' "$1") <(grep -v '"process_name"' again.json) >differs ||
        { head -3 differs; fail "the way back of $1"; }
}
grep -v '^lost: ' "$data/scene.trace.json" >scene.json
same_again scene.json a.qvx
cmp scene.json again.json || fail 'names of processes, and the file that a trace is in'
for traces in 'thread_*.qvx' 'ns.txt us.txt' 'shared.txt other.txt' around.txt losses.txt depths.txt unit.txt counter.txt; do
    # shellcheck disable=SC2086
    "$qvx" export $traces --to chrome -f -o there.json 2>err
    same_again there.json back.qvx
done
# A gigahertz and more, ticks that share a nanosecond, and what is told of by no event of its own.
{
    clock 3000000000
    function_at Enter 3000000001 1 Enter 3000000002 1 Enter 3000000003 2 Leave 3000000004 1 Leave 3000000009 3
    function_at Enter 3000000011 1 Leave 3000000012 2
} >fast.txt
"$qvx" export fast.txt --to chrome -f -o there.json 2>err
same_again there.json back.qvx

# A viewer takes the dump, and what sets it up.
if command -v vcd2fst >/dev/null; then
    vcd2fst run.vcd run.fst >log 2>&1 && [ ! -s log ] || { cat log; fail 'vcd2fst'; }
else
    echo 'skipped: no vcd2fst (package gtkwave)'
fi

finish export
