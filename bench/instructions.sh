#!/usr/bin/env bash
# Counts the instructions that the hot paths take for a packet, and fails where they are more than 3 % above those that
# instructions.txt tells; with --accept writes that file.
#
#     bench/instructions.sh PROGRAM [--accept]
#
# What differs between machines does not count: valgrind shows the same processor everywhere, but for vector
# instructions, which the C library is told not to use; the environment, the program's name and the working directory
# are always the same. A pass is the difference between two passes and one.
set -euo pipefail

expected=$(realpath "$(dirname "${BASH_SOURCE[0]}")")/instructions.txt
program=$(realpath "$1")
accept=${2:-}
jobs=${JOBS:-$(nproc)}

directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
cd "$directory"
ln -s "$program" program

count() {
    local packets=20000 passes log counts=()
    for passes in 1 2; do
        log=$(env -i PATH=/usr/bin:/bin QVX_TRACEDIR=. QVX_TRACECLOCK=monotonic GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX_Fast_Unaligned_Load,-ERMS,-FSRM \
            valgrind --tool=callgrind --vgdb=no --callgrind-out-file=/dev/null --toggle-collect=counted \
            ./program "$1" $packets $passes 2>&1) || { printf '%s\n' "$log" >&2; return 255; }
        counts+=("$(sed -n 's/.*Collected : //p' <<<"$log")")
    done
    awk -v path="$1" -v count=$((counts[1] - counts[0])) -v packets=$packets \
        'BEGIN { printf "%s %.1f\n", path, count / packets }'
}
export -f count

{
    ./program | sed -n 1p
    ./program | sed 1d | xargs -P "$jobs" -I{} bash -c 'set -euo pipefail; count "$@"' count {} | sort
} >counted

if [ "$accept" = --accept ]; then
    { printf '# Instructions for a packet, by bench/instructions.sh.\n' && cat counted; } >"$expected"
    printf 'written to %s\n' "$expected"
    exit
fi

awk '
    /^#/ { next }
    FNR == NR { expected[$1] = $0; sub(/^[^ ]* /, "", expected[$1]); next }
    $1 == "compiler" {
        sub(/^compiler /, "")
        if ($0 != expected["compiler"]) {
            print "the file is for " expected["compiler"] ", this is " $0 ": more instructions are no failure"
            foreign = 1
        }
        printf "%-25s %9s %9s\n", "instructions a packet", "expected", "counted"
        next
    }
    {
        verdict = ""
        if (!($1 in expected))
            verdict = "NOT EXPECTED"
        else if ($2 > 1.03 * expected[$1])
            verdict = "MORE"
        else if ($2 < 0.97 * expected[$1])
            verdict = "fewer"
        printf "%-25s %9s %9s  %s\n", $1, expected[$1], $2, verdict
        bad += verdict ~ /^[A-Z]/
        delete expected[$1]
        fewer += verdict == "fewer"
    }
    END {
        delete expected["compiler"]
        for (path in expected) {
            printf "%-25s %9s %9s  GONE\n", path, expected[path], ""
            bad = 1
        }
        if (fewer || bad)
            print "./dev bench --accept makes these the expected ones (bench/instructions.txt)"
        exit bad && !foreign
    }' "$expected" counted
