#!/usr/bin/env bash
# Runs qvx cut, split and cat: what comes out is looked at with the other verbs.
#
#     cut.sh QVX
. "$(dirname "$0")/common.sh"

# A trace of five pages: two threads call functions 3 to 5 within 1 and 2, from tick 10 to 40010, in a frame.
rows() {
    awk 'BEGIN {
        OFS = "\t"
        print "\tTraceEnabled\t16\t0\tUnknownLength\tUnknownExpanded\tNoExceptionFrames"
        print "\tTimestamp\t16\t0\t1000000"
        for (f = 1; f <= 5; f++) {
            print "\tFunctionDefine\t28\t1\t0\t7\tInvalid\t" f
            print "\tCharString\t2\tf" f
        }
        print "\tCounterDefine\t29\t1\t0\t7\tInvalid\t9\t0"
        print "\tFunctionEnter\t28\t5\t0\t7\tInvalid\t1"
        print "\tFunctionEnter\t28\t5\t1\t8\tInvalid\t2"
        for (i = 0; i < 20000; i++) {
            place = i % 2 "\t" 7 + i % 2 "\tInvalid\t"
            print "\tFunctionEnter\t28\t" 10 + 2 * i, place 3 + i % 3
            if (i % 100 == 0)
                print "\tCounterValue\t36\t" 10 + 2 * i, place 9, i
            print "\tFunctionLeave\t28\t" 11 + 2 * i, place 3 + i % 3
        }
        print "\tFunctionLeave\t28\t50000\t0\t7\tInvalid\t1"
        print "\tFunctionLeave\t28\t50000\t1\t8\tInvalid\t2"
        print "\tTraceDisabled\t0"
        print "\tEndOfTrace\t0"
    }'
}
rows >table
run 0 convert table --paged -o paged
run 0 convert table -o plain
run 0 check paged >/dev/null
# packets FILE...: their packets but for the layout's, with the places of frames unsaid.
packets() { for file; do "$qvx" dump --parsable "$file"; done | packetsOf; }
packetsOf() { # rows
    sed -n 's/^\t0x[0-9a-f]* \t//p' | sed 's/ \t/\t/g; s/ $//' | grep -v '^Fill\|^TraceEnabled\|^TraceDisabled\|^EndOfTrace'
}
packets paged >of-paged
clean() {
    for file; do
        "$qvx" check "$file" >found || { cat found; fail "check $file"; }
        [ "$("$qvx" info "$file" | grep -c '^End: *complete$')" -eq 1 ] || fail "$file is not complete"
    done
}

# One cut by time, from all forms of the trace: the same packets.
for form in table plain paged; do
    run 0 cut $form --from 10000 --to 30000 -o cut-$form
    says ' to begin with'
    clean cut-$form
    packets cut-$form | diff - <(packets cut-table) >/dev/null || fail "the cut of $form"
done
run 0 cut - --from 10000 --to 30000 -o cut-stream <paged
"$qvx" cut - --from 10000 --to 30000 -o - <paged 2>/dev/null >cut-pipe
clean cut-stream
packets cut-stream | cmp -s - <(packets cut-paged) || fail 'the cut of standard input'
packets cut-pipe | cmp -s - <(packets cut-paged) || fail 'the cut to standard output'
# Behind what it begins with: what dump selects.
<of-paged awk -F'\t' '!/Define|^CharString/ && $3 >= 10000 && $3 < 30000' |
    cmp -s - <(packets cut-paged | tail -n +16) || fail 'the packets of a cut'
packets cut-paged | sed -n 1,18p | cut -f 1,3- | diff - <(
    printf 'Timestamp\t0\t1000000\n'
    for f in 1 2 3 4 5; do printf 'FunctionDefine\t1\t0\t7\tInvalid\t0x0000000%s\nCharString\tf%s\n' $f $f; done
    printf 'CounterDefine\t1\t0\t7\tInvalid\t0x00000009\t0\n'
    printf 'FunctionEnter\t5\t%s\tInvalid\t0x0000000%s\n' $'0\t7' 1 $'1\t8' 2
    printf 'CounterValue\t9810\t0\t7\tInvalid\t0x00000009\t4900\n'
    printf 'FunctionEnter\t10000\t1\t8\tInvalid\t0x00000003\n'
    printf 'FunctionLeave\t10001\t1\t8\tInvalid\t0x00000003\n'
    printf 'FunctionEnter\t10002\t0\t7\tInvalid\t0x00000004\n') || fail 'the state'

run 0 cut paged --from 10000 --to 30000 --no-state -o bare
packets bare | sed -n 1p | grep -q '^FunctionEnter.*10000' || fail 'no state'
run 0 cut paged --from 0.01s --to -20ms -o cut-units
packets cut-units | tail -n 1 | grep -q '^FunctionLeave.*[[:space:]]29999[[:space:]]' || fail 'times with units'
run 0 cut paged --thread 8 --kind 'Function*' --from 10000 -o cut-8
packets cut-8 | grep Function | grep -v Define | cut -f 5 | sort -u | diff - <(echo 8) || fail 'a thread'
packets cut-8 | grep -c '^FunctionEnter.*0x00000002' | diff - <(echo 1) || fail 'what the thread had open'
run 0 cut paged --from 99999 -o cut-none
packets cut-none | grep -c '^FunctionDefine' >/dev/null || fail 'a cut behind the end'

run 0 cut paged --pages 1:2 --no-state -o pages
dd if=paged bs=262144 skip=1 count=2 2>/dev/null >expected
dd if=pages bs=262144 skip=1 count=2 2>/dev/null | cmp -s - expected || fail 'pages as they are'
run 0 cut paged --pages -1: -o last
"$qvx" check last >/dev/null || fail 'the last page'
run 0 cut - --pages 1:2 -o pages-stream <paged
run 0 cut paged --pages 1:2 -o pages-state
packets pages-stream | cmp -s - <(packets pages-state) || fail 'pages of standard input'
run 1 cut - --pages -1: -o none <paged
run 0 cut paged --pages -20: -o all
cmp -s <(packets all) of-paged || fail 'pages from before the first one'
run 1 cut plain --pages -1: -o none
for arguments in '--pages 1-2' '--pages 1:x' '--pages 1 --from 5' '--from x' '--pages 2:1' '--pages -1:-2' '--pages -1:2' --pages=:-20 --pages=:-9223372036854775808 \
    '--from 3 --to 2'; do
    run 2 cut paged $arguments -o none
done
run 1 cut paged --from 0 -o last
says 'exists; use --force'
for pages in 5 0:5 9:; do
    run 1 cut paged --pages $pages -o none
    says 'paged: has 5 pages, the first of which is 0'
    run 1 cut - --pages $pages -o none <paged
    says 'has 5 pages'
done
[ -e none ] && fail 'a failed cut leaves a file'
# A definition behind --to is behind the part, and at the beginning of the one that follows.
head -n -2 table >late.table
printf '\tFunctionDefine\t28\t60000\t0\t7\tInvalid\t6\n\tCharString\t2\tf6\n\tFunctionEnter\t28\t60001\t0\t7\tInvalid\t6\n\tTraceDisabled\t0\n\tEndOfTrace\t0\n' >>late.table
run 0 convert late.table --paged -o late
for file in late - late.table; do
    run 0 cut $file --from 45000 --to 60000 -f -o cut-early <late
    packets cut-early | grep -q 'f6' && fail "a definition from behind the end of $file"
    packets cut-early | tail -n 1 | grep -q '^FunctionLeave.*50000.*0x00000002' || fail "the end of a part of $file"
    run 0 cut $file --from 60000 -f -o cut-late <late
    run 0 cut $file --to 60000 -f -o cut-early <late
    run 0 cat cut-early cut-late -f -o cut-all
    packets cut-all | cmp -s - <(packets late) || fail "both parts of $file"
done
head -c 1000000 paged >killed
run 3 cut killed --from 10000 -o cut-killed
says 'the end of the trace is missing'
run 0 cut killed --from 10000 --to 12000 -o cut-of-killed
"$qvx" check cut-of-killed >/dev/null || fail 'the cut of a trace without its end'

# Apart and together again: nothing is lost, nothing comes twice.
happened() { packets "$@" | grep -v 'Define\|^CharString\|^Timestamp'; }
mkdir pieces
run 0 split paged --size 300K -o pieces
says ' pieces, '
[ "$(echo $(ls pieces))" = 'paged-0001.qvx paged-0002.qvx paged-0003.qvx paged-0004.qvx' ] ||
    fail "names of pieces: $(ls pieces)"
for piece in pieces/*; do
    "$qvx" check "$piece" >/dev/null || fail "$piece"
    [ "$(wc -c <"$piece")" -le 307200 ] || fail "$piece is too large"
done
# What a piece restates has ticks before those of its own.
for piece in pieces/*; do happened "$piece" >its; awk -F'\t' -v last="${last:--1}" '$3 + 0 > last' its; last=$(tail -n 1 its | cut -f 3); done |
    cmp -s - <(happened paged) || fail 'the packets of all pieces'
run 1 split paged --size 300K -o pieces
run 0 split paged --size 300K -o pieces -f
run 0 split - --every 10ms -o time <plain
[ "$(echo time-*)" = 'time-0001.qvx time-0002.qvx time-0003.qvx time-0004.qvx time-0005.qvx' ] ||
    fail "pieces by time: $(ls time-*)"
"$qvx" info time-0003.qvx | grep -q 'Layout: *plain' || fail 'the layout of pieces'
happened time-0003.qvx | tail -n 1 | cut -f 3 | diff - <(echo 30004) || fail 'the end of a piece by time'
for by in thread core; do
    run 0 split paged --by $by -o by
    for piece in by-$by-*.qvx; do "$qvx" check "$piece" >found || { cat found; fail "$piece"; }; done
    happened by-$by-*.qvx | sort | cmp -s - <(happened paged | sort) || fail "pieces by $by"
done
[ "$(echo by-*)" = 'by-core-0.qvx by-core-1.qvx by-thread-7.qvx by-thread-8.qvx' ] || fail "$(echo by-*)"
# Where a file must stay open until it is renamed, there can be no more of them than the system opens.
threads=300
[ "${QVX_SYSTEM:-}" = Windows ] || [ -n "${QVX_CHECKED:-}" ] && threads=50
awk -v threads=$threads 'BEGIN { for (i = 0; i < 300; i++) for (t = 0; t < threads; t += 1 + i % 3 * 50)
    print "\tFunctionEnter\t28\t" i "\t0\t" t "\tInvalid\t1" }' >many.table
mkdir many
(failures=0; ulimit -n 100; run 0 split many.table --by thread -o many/; exit $failures) || fail 'many threads'
[ "$(ls many | wc -l)" -eq $threads ] || fail "$(ls many | wc -l) pieces of $threads threads"
happened many/* | sort | cmp -s - <(happened many.table | sort) || fail 'pieces of many threads'
for arguments in '' '--size 1M --by core' '--size x' '--size 5X' '--size 255K' '--every x' '--every 0' '--every 0s' '--by time'; do
    run 2 split paged $arguments -o none
done
run 1 split paged --size 1M -o no/where/
mkdir tiny
if [ -n "${QUORVEX_THOROUGH:-}" ]; then # it takes ten thousand files
    run 1 split table --every 1 -o tiny
    says '10000 pieces'
fi
awk 'BEGIN { for (f = 0; f < 9000; f++) printf "\tFunctionDefine\t28\t1\t0\t7\tInvalid\t%d\n\tCharString\t5\tf%04d\n", f, f }' >names.table
run 1 split names.table --size 256K -o tiny
says 'what holds there takes '
[ -z "$(ls tiny)" ] || fail "$(ls tiny | wc -l) of too many pieces are left"
[ -z "$(find . -name '.qvx-*')" ] || fail 'files are left behind'

run 0 cat paged paged -o both
"$qvx" check both >found
[ "$(grep -c '\[time\]' found)" -eq 2 ] && [ "$(wc -l <found)" -eq 3 ] || { cat found; fail 'joined pages'; }
# What only repeats what holds there already comes once.
twice() { cat of-paged; tail -n +13 of-paged; }
twice | cmp -s - <(packets both) || fail 'packets of joined pages'
"$qvx" info both | grep -q 'Layout: *paged' || fail 'the layout of joined pages'
run 0 cat paged plain -o mixed
twice | cmp -s - <(packets mixed) || fail 'packets of joined traces'
run 0 cat - -o copied <paged
packets copied | cmp -s - of-paged || fail 'a copied stream'
# Relative packets keep what they are relative to, also behind a trace that tells another context.
run 0 convert paged --relative --paged -o relative
run 0 convert plain --relative -o relative-plain
printf '\tRelFunctionEnter\t6\t0\t0\t1\n' >early.table
run 0 convert early.table -o early
for first in relative relative-plain; do
    run 0 cat $first early $first -o joined -f
    { for file in $first early $first; do "$qvx" convert --absolute -f -o absolute $file 2>/dev/null; packets absolute; done; } >expected
    "$qvx" convert --absolute -f -o absolute joined 2>/dev/null
    packets absolute | cmp -s - expected || fail "relative packets behind $first"
done
run 0 cut relative --from 10000 --to 30000 -o cut-relative
"$qvx" convert --absolute -o absolute -f cut-relative 2>/dev/null
packets absolute | grep -v '^Sync' | cmp -s - <(packets cut-paged) || fail 'the cut of relative packets'
"$qvx" check cut-relative >/dev/null || fail 'check of the cut of relative packets'
run 0 cut relative --thread 8 --kind 'Function*' --from 10000 -o cut-relative -f
[ "$(packets cut-relative | grep '^Sync' | cut -f 5 | grep -vc '^8 *$')" -le 1 ] || fail 'references that no packet needs'
"$qvx" convert --absolute -o absolute -f cut-relative 2>/dev/null
packets absolute | grep -v '^Sync' | cmp -s - <(packets cut-8) || fail 'a thread of relative packets'
# The pieces of a trace give it back.
forms='paged relative-plain plain relative'
[ -z "${QVX_CHECKED:-}" ] || forms='paged relative-plain'
for form in $forms; do
    for how in '--size 300K' '--every 10ms'; do
        rm -f pieces/*
        run 0 split $form $how -o pieces
        run 0 cat pieces/* -f -o joined
        "$qvx" check joined >found || { cat found; fail "check of the pieces of $form, $how"; }
        "$qvx" convert --absolute -f -o absolute joined 2>/dev/null
        "$qvx" dump --parsable absolute >rows
        [ "$(grep -c 'TraceEnabled' rows)" -eq 1 ] || fail "frames of the pieces of $form, $how"
        packetsOf <rows | grep -v '^Sync' | cmp -s - of-paged || fail "the pieces of $form, $how"
    done
done
# So does a merge, in whatever order they come; of some of them, it has what is open in all once.
events() { "$qvx" convert --absolute -f -o absolute "$1" 2>/dev/null && packets absolute | grep -v '^Sync\|Define\|^CharString\|^Timestamp'; }
events paged | sort >expected
for form in paged relative-plain; do
    rm -f pieces/*
    run 0 split $form --every 10ms -o pieces/part
    for parts in '12345' '52143'; do
        run 0 merge $(sed 's,.,pieces/part-000&.qvx ,g' <<<$parts) -f -o joined
        events joined | sort | cmp -s - expected || fail "the merged pieces of $form, $parts"
    done
    run 0 merge pieces/part-0004.qvx pieces/part-0002.qvx -f -o joined
    events joined >got
    [ "$(grep -c '^FunctionEnter.*0x0000000[12] *$' got)" -eq 2 ] || fail "what is open in pieces of $form"
    # Each also begins with a call that is left there, and a value.
    [ "$(grep -c '^Function' got)" -eq 20004 ] && [ "$(grep -c '^CounterValue' got)" -eq 102 ] || fail "two pieces of $form"
done
# What happens twice, happens twice; and so does what stands behind the beginnings of traces.
printf '\tFunctionEnter\t28\t5\t0\t7\tInvalid\t1\n' | tee open.table >>recursive.table
{ cat open.table open.table && printf '\tFunctionLeave\t28\t6\t0\t7\tInvalid\t1\n'; cat open.table; } >recursive.table
run 0 merge recursive.table open.table -f -o joined
events joined | grep -c '^FunctionEnter' | diff - <(echo 3) || fail 'a call within itself'
{ printf '\tMessage\t9\t5\t0\n' && cat open.table; } >begun.table
run 0 merge begun.table begun.table -f -o joined
events joined | grep -c '^FunctionEnter' | diff - <(echo 2) || fail 'the same call of two traces'
# What several traces call by one number is told of.
sed 's/\tf2$/\tg2/' table >other.table
run 0 cat table other.table -f -o joined
says '1 identifier of one trace means something else in another; qvx merge keeps them apart'
run 0 cat table table -f -o joined
grep -q 'means something else' err && fail 'what is alike means something else'
# Other verbs take of a trace what cut does; of several, the times are those of all.
while read -r form options; do
    # shellcheck disable=SC2086
    run 0 cut $form $options -f -o part
    while read -r verb; do
        # shellcheck disable=SC2086
        {
            "$qvx" $verb part -f -o expected 2>/dev/null
            code=$? # an export of nothing tells so
            run $code $verb $form $options -f -o got
        }
        cmp -s <(sed 's/part$//; /creationDate/d' expected) <(sed "s/$form\$//; /creationDate/d" got) ||
            fail "$verb $form $options"
    done <<'VERBS'
convert
convert --paged --absolute
convert --relative
merge
export --to vcd
export --to btf
VERBS
done < <(head -n "$([ -n "${QVX_CHECKED:-}" ] && echo 2 || echo 7)" <<'END'
paged --from 10000 --to 30000
relative --thread 8 --kind Function* --from 10000
plain --from +5000 --to -10ms
table --name f3
plain --kind CounterValue
paged --core 1 --from 60000
plain --to 5
END
)
run 0 split paged --by thread -o apart
for thread in 7 8; do run 0 cut apart-thread-$thread.qvx --from 1000 --to 2000 -o part-$thread; done
run 0 merge part-7 part-8 -o expected -f
run 0 merge apart-thread-*.qvx --from +1000 --to 2ms -o got -f
cmp -s expected got || fail 'a part of several traces'
run 0 convert - --from 1ms --to 2ms -f -o got <paged
run 0 convert paged --from 1000 --to 2000 -f -o expected
cmp -s expected got || fail 'a part of standard input'
head -c 500000 plain >short
run 3 convert short --thread 7 -f -o got
says 'short: offset 499'
: >empty
run 0 cut empty -f -o got
says 'empty: is empty'
for verb in cut dump convert; do
    run 2 $verb - --from 2ms --to 1ms -f -o got <paged
    says '--to: what is selected would end before it begins'
done
full_disk cut paged --from 5 -o -
finish cut
