#!/usr/bin/env bash
# Runs qvx digest and qvx diff, and computes digests once more by other means.
#
#     digest.sh QVX WORDCOUNT
. "$(dirname "$0")/common.sh"
wordcount=$2

mkdir recorded source
seq 3000 | sed 's/^/the word /' | split -l 500 - source/
QVX_TRACEDIR=recorded "$wordcount" source 3 >/dev/null
QVX_TRACEDIR=recorded QVX_TRACEFILENAME=again_ "$wordcount" source 3 >/dev/null
trace=$(ls recorded/thread_*.qvx | head -1)

digest() { run "${2:-0}" digest "$1" >told && awk -v name="$1" '$1 != name { exit 1 } { print $2 }' told; }
same() { # FILE...: traces that tell the same
    for other in "$@"; do
        [ "$(digest "$other")" = "$(digest "$1")" ] || fail "$other has another digest than $1"
        run 0 diff "$1" "$other" -f -o told
        [ -s told ] && fail "diff $1 $other says something"
    done
}

# All forms of a recorded trace.
forms=("$trace")
for layout in plain paged; do
    for form in absolute relative; do
        run 0 convert "$trace" "--$layout" "--$form" -o "$layout.$form"
        forms+=("$layout.$form")
    done
done
"$qvx" dump --parsable plain.relative >table
same "${forms[@]}" table
run 0 digest recorded -o all
[ "$(wc -l <all)" -eq "$(ls recorded/*.qvx | wc -l)" ] || fail 'a digest for each file of a directory'
[ "$("$qvx" digest - <"$trace")" = "-  $(digest "$trace")" ] || fail 'standard input'

# Of a plain, absolute trace without padding and lengths of frames, it is the checksum of the file.
row() { printf '\t%s\n' "$1"; }
enter() { row $'FunctionEnter\t28\t'"$1"$'\t1\t2\tInvalid\t'"$2"; }
make() {
    row $'TraceEnabled\t16\t0\tUnknownLength\tUnknownExpanded\tNoExceptionFrames'
    row $'Timestamp\t16\t0\t1000'
    row $'FunctionDefine\t28\t'"$1"$'\t1\t2\tInvalid\t'"$2"
    row $'CharString\t4\tmain'
    enter 5 "$2"
    enter 6 0x8
    row $'Event\t30\t7\t1\t2\tInvalid\t0x1\t0x0203'
}
end() { row $'TraceDisabled\t0'; }
trace() { cat >rows && run 0 convert rows -f -o "$1"; }
{ make 5 0x7; end; } | trace one
if command -v sha256sum >/dev/null; then
    [ "$(digest one)" = "$(sha256sum <one | cut -d' ' -f1)" ] || fail 'no checksum of the file'
fi

# What a program leaves that is killed in mapped mode tells the same as what is made of it.
head -c 18 one >mapped
{
    printf 'QVXPAGE1\0\0\0\0\0\0\0\0\x12\0\0\0\0\0\0\0\xa4\0\0\0\0\0\0\0'
    head -c 4064 /dev/zero
    head -c 164 one
} >mapped.page
run 0 convert mapped -o unmapped
same mapped unmapped one

# What differs: a line a change, with what is said of it.
differ() { # CODE FIRST SECOND OPTION...: what diff shows is compared with what it should
    local code=$1 first=$2 second=$3
    shift 3
    run "$code" diff "$first" "$second" -f -o told "$@"
    diff - told || fail "diff $first $second $*"
}
{ make 5 0x7; enter 8 0x7; end; } | trace more
{ make 5 0x9; end; } | trace renumbered
{ make 50 0x7; end; } | trace later
{ make 5 0x7; row $'Message\t9\t8\t0'; row $'CharString\t2\thi'; } | trace cut
differ 1 one more --context 1 <<'END'
--- one
+++ more
  event 6, offset 132: Event tick 7 (0.007000000 s), core 1, thread 2, EvtId 0x00000001, Data 0x0203
+ event 7, offset 164: FunctionEnter tick 8 (0.008000000 s), core 1, thread 2, FuncId 0x00000007 main
  event 7, offset 164 and 194: TraceDisabled
END
differ 1 one later --context 0 <<'END'
--- one
+++ later
- event 3, offset 36: FunctionDefine tick 5 (0.005000000 s), core 1, thread 2, FuncId 0x00000007 main, text "main"
+ event 3, offset 36: FunctionDefine tick 50 (0.050000000 s), core 1, thread 2, FuncId 0x00000007 main, text "main"
  event 3 differs: tick
END
# Several differences: each where it is, and the rest of the longer trace.
several() { for i in 1 2 3 4 5 6 7 8 9 "$@"; do enter "$((10 * i))" "$i"; done; }
several 10 | trace ten
several 11 12 | sed -e 's/\t20\t/\t21\t/' -e '/\t70\t/d' | trace other
differ 1 ten other --context 1 <<'END'
--- ten
+++ other
  event 1, offset 0: FunctionEnter tick 10, core 1, thread 2, FuncId 0x00000001
- event 2, offset 30: FunctionEnter tick 20, core 1, thread 2, FuncId 0x00000002
+ event 2, offset 30: FunctionEnter tick 21, core 1, thread 2, FuncId 0x00000002
  event 2 differs: tick
  event 3, offset 60: FunctionEnter tick 30, core 1, thread 2, FuncId 0x00000003
END
differ 1 ten other --context 1 --all <<'END'
--- ten
+++ other
  event 1, offset 0: FunctionEnter tick 10, core 1, thread 2, FuncId 0x00000001
- event 2, offset 30: FunctionEnter tick 20, core 1, thread 2, FuncId 0x00000002
+ event 2, offset 30: FunctionEnter tick 21, core 1, thread 2, FuncId 0x00000002
  event 2 differs: tick
  event 3, offset 60: FunctionEnter tick 30, core 1, thread 2, FuncId 0x00000003
...
  event 6, offset 150: FunctionEnter tick 60, core 1, thread 2, FuncId 0x00000006
- event 7, offset 180: FunctionEnter tick 70, core 1, thread 2, FuncId 0x00000007
- event 8, offset 210: FunctionEnter tick 80, core 1, thread 2, FuncId 0x00000008
- event 9, offset 240: FunctionEnter tick 90, core 1, thread 2, FuncId 0x00000009
- event 10, offset 270: FunctionEnter tick 100, core 1, thread 2, FuncId 0x0000000a
+ event 7, offset 180: FunctionEnter tick 80, core 1, thread 2, FuncId 0x00000008
+ event 8, offset 210: FunctionEnter tick 90, core 1, thread 2, FuncId 0x00000009
+ event 9, offset 240: FunctionEnter tick 110, core 1, thread 2, FuncId 0x0000000b
+ event 10, offset 270: FunctionEnter tick 120, core 1, thread 2, FuncId 0x0000000c
  event 7 differs: tick, FuncId
2 differences
END
differ 1 more one --kind Function* --format json --context 1 <<'END'
{"in": "both", "event": 3, "offset": 102, "offset2": 102, "kind": "FunctionEnter", "tick": 6, "core": 1, "thread": 2, "address": null, "time_ns": 6000000, "FuncId": 8}
{"in": "first", "event": 4, "offset": 164, "kind": "FunctionEnter", "tick": 8, "core": 1, "thread": 2, "address": null, "time_ns": 8000000, "FuncId": 7, "name": "main"}
{"ends": "second", "event": 3, "more": 1}
END
differ 1 one more --kind Function* --context 0 <<'END'
--- one
+++ more
+ event 4, offset 164: FunctionEnter tick 8 (0.008000000 s), core 1, thread 2, FuncId 0x00000007 main
one ends here; more has 1 more event
END
differ 1 one renumbered --context 0 <<'END'
--- one
+++ renumbered
- event 3, offset 36: FunctionDefine tick 5 (0.005000000 s), core 1, thread 2, FuncId 0x00000007 main, text "main"
- event 4, offset 72: FunctionEnter tick 5 (0.005000000 s), core 1, thread 2, FuncId 0x00000007 main
+ event 3, offset 36: FunctionDefine tick 5 (0.005000000 s), core 1, thread 2, FuncId 0x00000009 main, text "main"
+ event 4, offset 72: FunctionEnter tick 5 (0.005000000 s), core 1, thread 2, FuncId 0x00000009 main
  event 3 differs: FuncId
END
differ 0 one renumbered --by-name </dev/null
differ 0 one later --ignore-time </dev/null
run 2 diff one more --limit 6 # no more than --context and --all is shown
differ 0 one more --to 8ms --kind Func* </dev/null
run 0 diff one more --name none
says 'neither trace has anything that is selected'
run 1 diff one more -o out

# What is selected has a digest of its own, which says what diff says.
while read -r same first second options; do
    # shellcheck disable=SC2086
    run $((1 - same)) diff $first $second $options -f -o told
    # shellcheck disable=SC2086
    run 0 digest $first $second $options >told
    [ "$(cut -d ' ' -f 3 told | sort -u | wc -l)" -eq $((2 - same)) ] || fail "digests of $first and $second with $options"
done <<'END'
1 one more --to 8ms --kind Func*
0 one more --from 5
0 one more --kind Func*
1 one renumbered --kind Event
0 one renumbered --kind Event,FunctionEnter
1 ten other --to 20
END

# Runs of the same program by one thread tell the same but for times, and who ran where.
first=$(grep -la findFiles recorded/thread_*.qvx) second=$(grep -la findFiles recorded/again_*.qvx)
run 0 diff --ignore-time --ignore-place --by-name "$first" "$second"
run 1 diff --ignore-time --by-name "$first" "$second" -o place

# Trouble is no difference, and damage is told.
run 2 diff one missing
says 'missing: No such file'
run 2 diff one /dev/null/x
run 2 diff one
run 2 diff - - <one
says 'only one of the two'
run 2 diff one rows.txt
run 2 diff one more -o one -f
[ ! -e /dev/full ] || run 2 diff one more -f -o /dev/full
head -c 160 one >shorter
run 3 digest one shorter more >told
says 'shorter: offset 132: the trace ends within a packet of kind Event'
[ "$(wc -l <told)" -eq 3 ] || fail 'a digest of what can be read'
run 1 digest one missing more >told
[ "$(wc -l <told)" -eq 2 ] || fail 'the others have their digests'
run 3 diff shorter shorter
run 1 diff one shorter -o short
grep -q '^shorter ends here; one has 2 more events$' short || fail 'a trace that ends early'
run 3 diff cut cut
full_disk digest one
finish digest
