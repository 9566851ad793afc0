#!/usr/bin/env bash
# What qvx makes of large traces: sizes, seconds and memory, as tables.
#
#     bench/files.sh DIRECTORY
#
# The directory of a build. COPIES (65) of one trace make the large file, LINES (9000000) are counted by each of two
# threads, and VIEWS (5) times what these leave is shown by qvx view; with these it takes 10 GB and some minutes.
set -euo pipefail
build=$(realpath "$1")
copies=${COPIES:-65}
lines=${LINES:-9000000}
views=${VIEWS:-5}
qvx=$build/tools/qvx/qvx
repository=$(realpath "$(dirname "${BASH_SOURCE[0]}")/..")
mkdir -p "$build/bench"
work=$(mktemp -d "$build/bench/files.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

size() { cat "$@" | wc -c; }
mega() { awk -v bytes="$1" 'BEGIN { printf bytes < 1e9 ? "%.0f MB" : "%.2f GB", bytes < 1e9 ? bytes / 1e6 : bytes / 1e9 }'; }

# timed WHAT SIZE COMMAND...: a row with its seconds, the bytes in a second, and its memory.
timed() {
    /usr/bin/time -o time -f '%e %M' "${@:3}" 2>/dev/null
    awk -v what="$1" -v bytes="$2" '{ printf "| %s | %.1f | %.0f | %.1f MB |\n", what, $1, bytes / $1 / 1e6, $2 / 1e3 }' time
}

printf '%s\n' '| program | instructions | absolute, bytes | relative, bytes | of it |' '|---|---|---|---|---|'
for program in true "gzip -c $repository/README.md" 'ls /' "sort $repository/README.md"; do
    rm -f ./*.qvx
    # shellcheck disable=SC2086  # the program and its arguments
    "$build/examples/singlestep" steps.qvx 0 $program >/dev/null 2>&1
    "$qvx" convert steps.qvx -o absolute.qvx --absolute 2>/dev/null
    "$qvx" convert absolute.qvx -o relative.qvx --relative 2>/dev/null
    "$qvx" info absolute.qvx | awk -v name="${program/"$repository/"/}" -v absolute="$(size absolute.qvx)" \
        -v relative="$(size relative.qvx)" '$2 == "ExecInsn" {
            printf "| %s | %d | %d | %d | %.1f %% |\n", name, $1, absolute, relative, 100 * relative / absolute }'
    [ "${program%% *}" != gzip ] || mv absolute.qvx gzip
done
rm -f ./*.qvx

for ((i = 0; i < copies; ++i)); do printf 'gzip\n'; done | xargs "$qvx" convert --paged -o large.qvx 2>/dev/null
large=$(size large.qvx)
printf '\n%s\n\n' "the trace of gzip $copies times in one file: $(mega "$large"), $("$qvx" info large.qvx | awk '$1 == "Packets:" { print $2 }') packets"
printf '%s\n' '| conversion | seconds | MB/s of the larger side | peak memory |' '|---|---|---|---|'
timed 'paged to paged' "$large" "$qvx" convert large.qvx --paged -o copy.qvx
rm copy.qvx
timed 'absolute paged to relative plain' "$large" "$qvx" convert large.qvx --relative --plain -o relative.qvx
timed 'relative plain to absolute paged' "$large" "$qvx" convert relative.qvx --absolute --paged -o back.qvx
cmp large.qvx back.qvx
rm back.qvx large.qvx
"$qvx" dump --parsable relative.qvx -o table.txt
table=$(size table.txt)
timed "relative to parsable table, $(mega "$table")" "$table" "$qvx" dump --parsable relative.qvx -f -o table.txt
timed 'back, the same bytes' "$table" "$qvx" convert table.txt --plain -o again.qvx
cmp relative.qvx again.qvx
rm ./*.qvx table.txt

mkdir words
for i in 1 2; do yes "some words" | head -n "$lines" >words/$i.md || [ $? = 141 ]; done
QVX_TRACEDIR=. "$build/examples/wordcount" words 2 >/dev/null
all=$(size thread_*.qvx)
printf '\n%s\n\n' "$((2 * lines)) lines counted by two threads: $(mega "$all")"
printf '%s\n' '| to | processor seconds | MB/s of the trace | MB/s of the export | peak memory | size of the export |' \
    '|---|---|---|---|---|---|'
for format in $("$qvx" export --list | cut -d ' ' -f 1); do
    /usr/bin/time -o time -f '%U %S %M' "$qvx" export thread_*.qvx --to "$format" -o "run.$format" 2>/dev/null
    export=$(find "run.$format" -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum }')
    awk -v format="$format" -v all="$all" -v export="$export" -v size="$(mega "$export")" '{
        seconds = $1 + $2
        printf "| %s | %.2f | %.0f | %.0f | %.1f MB | %s |\n",
            format, seconds, all / seconds / 1e6, export / seconds / 1e6, $3 * 1024 / 1e6, size }' time
    rm -r "run.$format"
done

trace=$(ls -S thread_*.qvx | head -1)
printf '\n%s\n\n' "one of these, $(mega "$(size "$trace")")"
printf '%s\n' '| question | seconds | MB/s of the trace | peak memory |' '|---|---|---|---|'
timed 'which functions take the time' "$(size "$trace")" "$qvx" stats "$trace" -f -o out
timed 'who waits' "$(size "$trace")" "$qvx" stats "$trace" --by thread --name 'count*' --sort total -f -o out
timed 'who calls whom' "$(size "$trace")" "$qvx" graph "$trace" -f -o out
timed 'what happened in the second from 0.5 s on' "$(size "$trace")" \
    "$qvx" dump "$trace" --format text --from 500ms --to 1500ms -f -o out

mkdir recorded
mv thread_*.qvx recorded
offsets=()
for ((i = 1; i <= views; ++i)); do # one after the other in time
    mkdir "$i"
    ln recorded/* "$i"
    offsets+=(--offset "$i=$((100 * i))s")
done
"$qvx" merge [0-9]* "${offsets[@]}" -o all.qvx 2>/dev/null
rm -r recorded [0-9]*
printf '\n%s\n\n' "all of these $views times in one trace: $(mega "$(stat -c %s all.qvx)")"
python3 "$repository/bench/view.py" "$qvx" all.qvx
