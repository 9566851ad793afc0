#!/usr/bin/env bash
# Merges traces with qvx, and looks at what it makes and says.
#
#     merge.sh QVX WORDCOUNT QUICKSTART
. "$(dirname "$0")/common.sh"
wordcount=$2
quickstart=$3
merge() { run "$1" merge "${@:2}"; }
# The packets of a trace as rows without their places, but for those that frame it.
rows() { "$qvx" convert "$1" -f -o whole --absolute 2>/dev/null && "$qvx" dump --parsable whole |
    sed -n 's/^\t0x[0-9a-f]* \t//p' |
    grep -Ev '^(TraceEnabled|TraceDisabled|EndOfTrace|Fill|Sync|BusSync|SystemSync|Timestamp|CharString 	0) '; }
legal() { "$qvx" check "$1" >findings || { cat findings; fail "$1 is not legal"; }; }
table() { printf '\t%s\n' "${@:2}" >"$1"; }

# A recorded program: one trace in every shape, in the order of time, of which viewers get what they get of the threads.
mkdir source threads
for i in 1 2 3 4; do yes "some words of file $i" | head -300 >source/$i.md; done
QVX_TRACEDIR=threads "$wordcount" source 3 >/dev/null
[ "$(ls threads | wc -l)" -eq 4 ] || fail 'four threads were to be recorded'
for format in vcd btf; do run 0 export threads/* -o apart.$format --to $format; done
shown() { grep -v -e '\.qvx' -e '^#creationDate' -e '^bz ' -e ',T,' -e ',\(suspend\|resume\)$' "$1"; }
for thread in threads/*; do rows "$thread"; done | sort >expected
for shape in --relative --plain '--plain --relative' ''; do
    merge 0 threads -f -o run.qvx $shape
    says "packets of 4 traces, $(stat -c %s run.qvx) bytes"
    legal run.qvx
    rows run.qvx >got
    sort got | cmp - expected || fail "packets with ${shape:-no options}"
    grep '^Function' got | cut -f 3 | sort -nc || fail "times with ${shape:-no options}"
    [ "$("$qvx" dump --parsable run.qvx | grep -c 'Timestamp ')" -eq 1 ] || fail 'several clocks'
    told=$("$qvx" dump --format verbose --limit 1 run.qvx | sed -n 's/^Frame Length:\t//p')
    [ "$told" -eq "$(($(stat -c %s run.qvx) - 2))" ] || fail "a frame of $told bytes with ${shape:-no options}"
    for format in vcd btf; do
        run 0 export run.qvx -f -o one --to $format
        # One trace does not tell where each of those that it was made of has ended.
        diff <(shown apart.$format) <(shown one) >differences ||
            { head differences; fail "$format of a trace with ${shape:-no options}"; }
    done
done
[ -s expected ] || fail 'no packets'
"$qvx" dump --parsable run.qvx | grep -q '	Rel\|	Sync' && fail 'relative packets without --relative'
merge 0 threads -o - >piped
rows piped >got && sort got | cmp - expected || fail 'a pipe gets other packets'
merge 0 - "$(ls threads/* | head -1)" -f -o run.qvx <"$(ls threads/* | tail -1)"
says 'packets of 2 traces'
legal run.qvx
merge 1 threads -f -o "$(ls threads/* | head -1)"
says 'is the same file as the input'

# Another program: what it calls otherwise gets new numbers, and no name is lost.
mkdir other
QVX_TRACEDIR=other "$quickstart"
merge 0 threads other -f -o run.qvx
says '1 identifier of one trace means something else in another; it got a new number'
legal run.qvx
"$qvx" stats --format csv run.qvx | cut -d , -f 1,3 | sort >got
{ "$qvx" stats --format csv threads/* | cut -d , -f 1,3; "$qvx" stats --format csv other/* | sed -n '2,$p' | cut -d , -f 1,3; } |
    sort | diff - got || fail 'calls of two programs'

# Packets of many kinds at random times: none is lost or changed, and those of a trace keep their order.
for trace in 1 2 3 4 5; do
    awk -v trace=$trace 'function row(text) { print "\t" text }
    function text(words) { row("CharString\t" length(words) "\t" words) }
    BEGIN {
        OFS = "\t"; srand(trace)
        for (i = 0; i < 1500; ++i) {
            tick += int(rand() * 300); core = tick "\t" trace "\t" trace "\tInvalid\t"; id = int(rand() * 3); data = sprintf("0x%02x", i % 256)
            kind = int(rand() * 14)
            if (kind == 0) { row("FunctionDefine\t28\t" core id); if (rand() < .8) text("f" id); else row("CharString\t0") }
            if (kind == 1) row("FunctionEnter\t28\t" core id)
            if (kind == 2) row("FunctionLeave\t32\t" core id "\t" id)
            if (kind == 3) { row("VariableDefine\t32\t" core id "\t" id); text("v" id) }
            if (kind == 4) row("VariableWrite\t29\t" core id "\t" data)
            if (kind == 5) row("CounterValue\t36\t" core id "\t" i)
            if (kind == 6) { row("EventDefine\t8\t" id "\t" 1); text("e" id) }
            if (kind == 7) row("Event\t28\t" core id)
            if (kind == 8) { row("Message\t9\t" tick "\t0"); text("m" trace "." i) }
            if (kind == 9) text("t" trace "." i)
            if (kind == 10) row("BusData\t18\t" tick "\t" trace "\t7\tBusAccRead\t" data)
            if (kind == 11) row("SystemData\t17\t" tick "\t" trace "\t7\t" data)
            if (kind == 12) { row("StateDefine\t8\t" id "\t" id); text("s" id) }
            if (kind == 13) row("Transition\t24\t" id "\t" id "\t" id "\t" trace "\t" tick)
        }
    }' >random.$trace
    run 0 convert random.$trace -f -o random.$trace.qvx --relative
done
merge 0 random.?.qvx -f -o run.qvx
cp err said
rows run.qvx >all
for trace in 1 2 3 4 5; do rows random.$trace; done | sort >expected
sort all | cmp - expected || fail 'packets of many kinds'
[ "$(wc -l <expected)" -gt 7500 ] || fail 'too few packets'
for trace in 1 2 3 4 5; do
    mine() { awk -F '\t' -v trace="$trace " '/^(Function|Variable|Counter|Event )/ ? $4 == trace : /^CharString/ && $3 ~ "^[mt]" trace + 0 "\\."' "$1"; }
    rows random.$trace >alone
    cmp <(mine all) <(mine alone) || fail "the order of trace $trace"
    [ "$(mine all | wc -l)" -gt 500 ] || fail "trace $trace"
done
grep -q 'new number' said && fail 'what is alike got new numbers'

# What one trace undefines another may still have.
for trace in 1 2; do
    at() { printf "Function$1\t28\t$((trace + $2))\t$trace\t$trace\tInvalid\t1"; }
    table undefines.$trace "$(at Define 0)" $'CharString\t1\tf' "$(at Enter 2)" "$(at Leave 4)" "$(at Undefine 6)"
done
merge 0 undefines.1 undefines.2 -f -o run.qvx
legal run.qvx

# A text of its own is none of a packet that another trace has before it.
table a $'FunctionDefine\t28\t5\t1\t1\tInvalid\t1' $'FunctionEnter\t28\t7\t1\t1\tInvalid\t1'
table b $'FunctionEnter\t28\t5\t2\t2\tInvalid\t1' $'CharString\t3\town'
merge 0 b a -f -o run.qvx --absolute
merge 0 a b -f -o run.qvx --absolute
"$qvx" dump --format verbose run.qvx >out
"$qvx" info run.qvx | grep -q '0x00000001 .* own$' && fail 'a text of its own has become a name'

# Clocks: ticks are told by the fastest, whole numbers rounded down; what tells none stays as it is.
ticks() { rows run.qvx | cut -f 3 | tr -d '\n' | sed 's/ $//'; }
expect() { [ "$(ticks)" = "$1" ] || fail "ticks $(ticks), not $1"; }
enter() { printf 'FunctionEnter\t28\t%s\t%s\t1\tInvalid\t1' "$1" "${2:-0}"; }
table slow $'Timestamp\t16\t1\t3' "$(enter 1)" "$(enter 4)"
table fast $'Timestamp\t16\t0\t10' "$(enter 2)" "$(enter 13)" "$(enter 14)"
table none "$(enter 12)"
merge 0 slow fast -f -o run.qvx
says 'qvx: slow has a slower clock; its ticks are told by the fastest clock, 10 ticks a second'
expect '2 3 13 13 14'
"$qvx" dump --parsable run.qvx | grep -c $'Timestamp .*\t10 $' | grep -qx 1 || fail 'the clock of all'
merge 0 slow fast none slow -f -o run.qvx
says 'qvx: slow and 1 more have slower clocks; their ticks are told by the fastest clock'
says 'qvx: none does not tell how many ticks are a second'
expect '2 3 3 12 13 13 13 14'
merge 0 fast none --offset none=-1s --offset fast=+5 -f -o run.qvx
expect '2 7 18 19'
merge 0 slow --offset slow=-300ms -f -o run.qvx
expect '1 4'
merge 3 slow fast --offset slow=-4 -f -o run.qvx
says 'qvx: slow has ticks that the fastest clock or an offset puts out of 64 bits; they are unknown now'
expect 'Invalid 2 9 13 14'
table cores $'Timestamp\t20\t0\t1\t10' $'Timestamp\t20\t0\t2\t5' "$(enter 4 1)" "$(enter 4 2)"
merge 0 cores -f -o run.qvx
expect '4 8'
merge 2 none --offset none=1s -f -o run.qvx
says 'no trace tells how many ticks are a second'
merge 2 none --offset fast=1 -f -o run.qvx
merge 2 none --offset none=x -f -o run.qvx
merge 2 none --offset none -f -o run.qvx
mkdir host
"$qvx" convert none -o host/one.qvx 2>/dev/null
"$qvx" convert none -o host/two.qvx 2>/dev/null
merge 0 host none --offset host=-2 -f -o run.qvx
expect '10 10 12'

# Equal ticks come in the order of the files. Frames become one, which is as they all are.
table a $'TraceEnabled\t16\t0\tUnknownLength\tExpanded\tNoExceptionFrames' $'Message\t9\t1\t0' $'CharString\t1\ta' $'TraceDisabled\t0'
table b $'TraceEnabled\t16\t0\tUnknownLength\tNotExpanded\tNoExceptionFrames' $'Message\t9\t1\t0' $'CharString\t1\tb' $'TraceDisabled\t0'
merge 0 b a b -f -o run.qvx
[ "$(rows run.qvx | sed -n 's/^CharString 	1 	//p' | tr -d ' \n')" = bab ] || fail 'the order of equal ticks'
frame() { "$qvx" dump --parsable run.qvx | grep -o 'TraceEnabled .*' | cut -f 5 | tr -d ' '; }
[ "$(frame)" = MixExpanded ] || fail "a frame that is $(frame)"
merge 0 a a -f -o run.qvx
[ "$(frame)" = Expanded ] || fail "a frame that is $(frame)"

# An old tick of a definition stays. One far ahead of all behind it is told, and is unknown.
table a "$(enter 100)" $'FunctionDefine\t28\t5\t1\t1\tInvalid\t1' $'CharString\t1\tf' "$(enter 900000000)" $(true)
for tick in 101 102 103 104 105 106 107 108 109; do printf '\t%s\n' "$(enter $tick)"; done >>a
merge 3 a -f -o run.qvx
says 'a tick far ahead of all behind it'
[ "$(rows run.qvx | cut -f 3 | head -4 | tr -d '\n')" = '100 5 f Invalid ' ] || fail 'old and wrong ticks'
head -c 1000 "$(ls -S threads/* | head -1)" >cut
merge 3 cut -f -o run.qvx
says 'the trace ends within a packet'
legal run.qvx
merge 1 missing -f -o run.qvx
[ "$(ls ./*.part 2>/dev/null)" ] && fail 'something is left over'
merge 2 cut
merge 2 -o run.qvx
full_disk merge threads -o -

# Thousands of traces need few open files and little memory, also where something is selected of them.
if [ "${QVX_SYSTEM:-Linux}" = Linux ]; then
    mapfile -t many < <(yes "$(ls -S other/* | head -1)" | head -3000)
    memory=200000 # what sanitizers need is no matter
    (ulimit -v $memory && "$qvx" --version) >/dev/null 2>&1 || memory=unlimited
    for selection in --absolute '--kind=Function*'; do
        (ulimit -n 256 && ulimit -v $memory && "$qvx" merge "${many[@]}" "$selection" -f -o run.qvx 2>err) ||
            { cat err; fail "thousands of traces with $selection"; }
        legal run.qvx
    done
fi

# A terminal that nobody has.
if [ "${QVX_SYSTEM:-Linux}" = Linux ] && command -v setsid >/dev/null && [ -c /dev/tty ]; then
    setsid -w "$qvx" merge /dev/tty -o unopened 2>err
    [ $? -eq 1 ] && grep -q '^qvx: /dev/tty: No such device or address' err || { cat err; fail 'a device that cannot be opened'; }
fi
finish merge
