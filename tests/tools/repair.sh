#!/usr/bin/env bash
# Runs qvx repair on damaged, cut and hidden traces.
#
#     repair.sh QVX
. "$(dirname "$0")/common.sh"

awk 'BEGIN {
    print "\tTraceEnabled \t16 \t0 \t0 \tNotExpanded \tNoExceptionFrames "
    print "\tTimestamp \t16 \t5000000 \t1000000000 "
    for (i = 0; i < 11000; ++i) {
        f = sprintf("0x%08x", i % 50)
        if (i < 50) printf "\tFunctionDefine \t28 \t5000000 \t0 \t7 \tInvalid \t%s \n\tCharString \t4 \tname \n", f
        printf "\tFunctionEnter \t28 \t%d \t0 \t7 \tInvalid \t%s \n", 5000000 + 40 * i, f
        printf "\tFunctionLeave \t28 \t%d \t0 \t7 \tInvalid \t%s \n", 5000030 + 40 * i, f
    }
    print "\tTraceDisabled \t0 "
    print "\tEndOfTrace \t0 "
}' >table
trace=trace.qvx
"$qvx" convert table -o $trace --paged 2>/dev/null
size=$(stat -c %s $trace)
[ "$size" -gt 600000 ] || fail 'the trace has less than three pages'

# damage FILE OFFSET BYTES...: puts bytes, as printf knows them, in place of those that are there.
damage() { printf "$3" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; }
rows() { "$qvx" dump --parsable "$1" 2>/dev/null | cut -f 3- | grep -v '^Fill\|Sync\|TraceEnabled\|^$'; }
# repaired CODE FILE OPTIONS...: repairs a file to `out`, with its ledger in `ledger`; what is written must be whole.
repaired() {
    local code=$1 file=$2
    shift 2
    rm -f out
    run "$code" repair "$file" -o out "$@" >ledger
    "$qvx" check out >found || { cat found; fail "$file has become no whole trace"; }
}

repaired 0 "$trace"
cmp "$trace" out || fail 'a whole trace is changed'
[ ! -s ledger ] || fail 'a whole trace has a ledger'
repaired 0 "$trace" --plain
"$qvx" convert "$trace" -f -o plain 2>/dev/null && cmp plain out || fail 'plain'
repaired 0 plain --paged
cmp "$trace" out || fail 'paged'
for form in --absolute --relative; do
    "$qvx" convert "$trace" $form -f -o whole 2>/dev/null && repaired 0 whole && cmp whole out || fail "$form"
done
"$qvx" repair - -o - <"$trace" >out 2>err && cmp "$trace" out || fail 'standard input and output'

# A cut in a packet, in which nothing else is lost.
head -c 400001 "$trace" >cut
repaired 3 cut
grep -q '^cut: offset [0-9]*, length [0-9]*, page 1: .* \[cut\]$' ledger || fail 'a cut is not told'
diff <(rows cut) <(rows out | head -n -2) >differ || { head differ; fail 'a cut trace'; }
[ "$(rows out | tail -2 | cut -f 1 | tr -d ' \n')" = TraceDisabledEndOfTrace ] || fail 'the end of a cut trace'

# A length that runs out of step, in the middle of a page, and a page of zeros.
cp "$trace" length
at=$("$qvx" dump --parsable "$trace" 2>/dev/null | awk '$2 == "FunctionEnter" && ++n == 3000 { print $1; exit }')
damage length $((at + 1)) '\xfe'
repaired 3 length --format json
diff <(rows "$trace") <(rows out) || fail 'a wrong length loses something'
diff - ledger <<END || fail 'the ledger'
{"file": "length", "offset": $((at)), "length": 30, "page": $((at / 262144)), "kind": "FunctionEnter", "rule": "damage", "loss": true, "text": "announces 254 bytes, of which it has 28"}
END
cp "$trace" zeros
dd if=/dev/zero of=zeros bs=262144 seek=1 count=1 conv=notrunc status=none
run 3 repair zeros -o out -f >ledger
grep -q '^zeros: offset 262144, length 262144, page 1: 262144 bytes that are no packet are left out \[damage\]$' ledger ||
    fail 'a page of zeros'
says '262144 bytes lost in 1 place'
run 0 repair out -o again
cmp out again || fail 'what was repaired is repaired again'

# A page that is gone, which the length of the frame tells of.
{ head -c 262144 "$trace"; tail -c +524289 "$trace"; } >gone
repaired 3 gone --format json
grep -qF '"kind": "TraceEnabled", "rule": "frame", "loss": true, "text": "tells a frame of ' ledger &&
    grep -qF ': 262144 bytes are missing; the length is put right"' ledger || { cat ledger; fail 'a page that is gone'; }
says '262144 bytes lost in 1 place,'
"$qvx" repair gone --plain -o - 2>err >out && fail 'a page that is gone is no loss'
for verb in info digest dump; do
    # shellcheck disable=SC2086
    run 3 $verb gone >told
    says 'gone: frames have 262144 bytes less than they tell: something was taken out of the trace'
done
run 3 info gone >told
grep -q '^End:       complete; frames have 262144 bytes less' told || { cat told; fail 'info of what is gone'; }
run 3 check gone >told
run 1 assert gone --rule 'no loss' >told
grep -q 'gone: frames have 262144 bytes less than they tell' told || { cat told; fail 'no loss in what is gone'; }

# What cannot be seen while a trace is repaired may be found in what was made of it.
cp "$trace" changed
damage changed $((at + 26)) '\xee\xee'
run 3 repair changed -o out -f >ledger
says "$("$qvx" check out | sed -n '$s/^out: \([0-9]* findings\?\)$/qvx: out: \1 left, which qvx check tells: /p')"
: >empty
run 1 repair empty -o none >/dev/null
says 'empty: is empty; a program that records it has not written yet, or was killed before'

# Relative packets behind a sync packet that is lost have no time.
"$qvx" convert "$trace" --relative -f -o relative 2>/dev/null
cp relative lost
at=$("$qvx" dump --parsable relative 2>/dev/null | awk '$2 == "Sync" && ++n == 20 { print $1; exit }')
damage lost $((at)) '\xff'
repaired 3 lost
grep -q 'the core context of [0-9]* relative packets\? is not known, as what told it may be lost \[reference\]' ledger ||
    { cat ledger; fail 'a lost context is not told'; }
diff <("$qvx" convert --absolute relative -o - 2>/dev/null | "$qvx" dump --parsable - | cut -f 3- | grep ^Function) \
    <("$qvx" convert --absolute out -o - 2>/dev/null | "$qvx" dump --parsable - | cut -f 3- | grep ^Function) |
    grep '^>' | grep -v 'Invalid' && fail 'relative packets have a wrong time'

# Traces in an image.
head -c 4956 "$trace" >small # up to the end of a packet
{ head -c 70000 /dev/urandom; cat "$trace"; head -c 4096 /dev/zero; cat small; seq 9999; } >image
run 3 repair --scan image -o found.qvx >ledger
cmp "$trace" found.qvx || fail 'the first trace of an image'
run 3 repair small -o whole -f >/dev/null
cmp whole found-2.qvx || fail 'the second trace of an image'
[ ! -e found-3.qvx ] || fail 'there is a third'
diff - <(grep 'a trace' ledger) <<END || fail 'offsets of the traces'
image: offset 70000, length $size, page 0: a trace, written to found.qvx [trace]
image: offset $((74096 + size)), length $(stat -c %s found-2.qvx | awk '{ print $1 - 4 }'), page $(((74096 + size) / 262144)): a trace, written to found-2.qvx [trace]
END
seq 9999 >text
head -c 2000000 "$qvx" >program
for noise in text program; do
    run 1 repair --scan "$noise" -o none >/dev/null
    says 'no trace was found in it'
done
[ ! -e none ] || fail 'something is written where no trace was found'

# What cannot be.
run 1 repair text -o none >/dev/null
run 1 repair missing -o none
run 1 repair . -o none
run 1 repair "$trace" -o "$trace" -f
says 'is the same file as the input'
run 2 repair --scan "$trace" -o -
run 2 repair "$trace" -o none --plain --paged
full_disk repair cut -o -
full_disk repair cut -o none
[ ! -e none ] || fail 'something is written though its ledger could not be'
if [ "${QVX_SYSTEM:-Linux}" = Linux ]; then
    (ulimit -f 100 && "$qvx" repair "$trace" -o none >/dev/null 2>err)
    [ $? -eq 1 ] && says 'none: File too large' && [ ! -e none ] || fail 'a limit for files'
fi
finish repair
