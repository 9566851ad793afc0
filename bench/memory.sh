#!/usr/bin/env bash
# What each verb of qvx takes for a trace of gigabytes: seconds and peak memory, the same out of standard input, and whether
# it ends without a word where nobody reads what it writes. Fails where one takes MOST (200) MiB or more, or says something.
#
#     bench/memory.sh DIRECTORY
#
# The directory of a build. COPIES (4) of LINES (18000000) lines that are counted by two threads; with these the trace has
# 4.3 GB, and all takes three times that on the disk.
set -euo pipefail
build=$(realpath "$1")
copies=${COPIES:-4}
lines=${LINES:-18000000}
most=${MOST:-200}
qvx=$build/tools/qvx/qvx
mkdir -p "$build/bench"
work=$(mktemp -d "$build/bench/memory.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

mkdir words recorded pieces
for i in 1 2; do yes "some words" | head -n $((lines / 2)) >words/$i.md || [ $? = 141 ]; done
QVX_TRACEDIR=recorded "$build/examples/wordcount" words 2 >/dev/null
offsets=()
for ((i = 1; i <= copies; ++i)); do # one after the other in time
    mkdir $i
    ln recorded/* $i
    offsets+=(--offset "$i=$((100 * i))s")
done
"$qvx" merge [0-9]* "${offsets[@]}" -o trace.qvx 2>/dev/null
rm -r words recorded [0-9]*
printf '%s\n\n' "a trace of $(stat -c %s trace.qvx) bytes"

# measure COMMAND...: seconds and peak memory of one run.
measure() {
    local code=0
    /usr/bin/time -q -o time -f '%e %M' "$qvx" "$@" >/dev/null 2>said || code=$?
    [ $code -eq 0 ] || { cat said >&2; echo "exit $code: qvx $*" >&2; failed=1; }
    awk -v most="$most" '{ printf " %.1f | %.1f MB |", $1, $2 * 1024 / 1e6; exit $2 >= 1024 * most }' time || failed=1
}
# What stands in place of the trace is @.
failed=0
printf '%s\n' '| qvx | seconds | memory | from standard input | memory | closed pipe |' '|---|---|---|---|---|---|'
while IFS='	' read -r how verb; do
    read -ra words <<<"$verb"
    words=("${words[@]//_/ }")
    printf '| `%s` |' "$(tr @_ 'T ' <<<"$verb")"
    measure "${words[@]/#@/trace.qvx}"
    rm -rf pieces/*
    if [[ $how == *stdin* ]]; then measure "${words[@]/#@/-}" <trace.qvx; else printf ' | |'; fi
    rm -rf pieces/*
    if [[ $how == *pipe* ]]; then
        { "$qvx" "${words[@]/#@/trace.qvx}" 2>said || true; } | head -c 1 >/dev/null || true
        if [ -s said ]; then failed=1; printf ' %s |\n' "$(head -1 said)"; else printf ' quiet |\n'; fi
    else
        printf ' |\n'
    fi
done <<'END'
stdin pipe	info @
stdin pipe	stats @
stdin pipe	stats @ --by thread
stdin pipe	stats @ --of threads
stdin pipe	stats @ --of cores
stdin pipe	stats @ --of bytes
stdin pipe	stats @ --diff trace.qvx
stdin pipe	graph @
stdin pipe	dump @
stdin pipe	dump @ --format text
stdin pipe	dump @ --format json
stdin pipe	dump @ --format verbose
stdin pipe	dump @ --tail 5
stdin pipe	check @
stdin pipe	digest @
stdin pipe	diff @ trace.qvx
stdin pipe	assert @ --rule no_loss
stdin pipe	cut @ --from 150s -o -
stdin pipe	cut @ --kind Function* -o -
stdin	split @ --size 500M -o pieces
stdin	split @ --by thread -o pieces
stdin pipe	cat @ -o -
stdin pipe	merge @ -o -
stdin pipe	repair @ -o -
stdin pipe	convert @ --relative -o -
stdin pipe	convert @ --plain -o -
stdin pipe	export @ --to vcd -o -
stdin pipe	export @ --to btf -o -
stdin pipe	export @ --to perfetto -o -
stdin pipe	export @ --to chrome -o -
stdin pipe	export @ --to speedscope -o -
stdin	export @ --to ctf -f -o pieces/out.ctf
stdin pipe	export @ --to folded -o -
stdin pipe	export @ --to csv -o -
stdin pipe	export @ --to json -o -
END
exit $failed
