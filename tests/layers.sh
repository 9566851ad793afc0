#!/usr/bin/env bash
# Checks that includes go one way only: no folder of the library includes one to its right, and no two files include
# each other.
#
#     layers.sh SOURCE_DIR
set -euo pipefail
cd "$1"

find quorvex -name '*.h' -o -name '*.cpp' -o -name '*.def' | sort | xargs awk '
BEGIN {
    count = split("platform format packets factory stream analysis export instrument functions", order, " ")
    for (i = 1; i <= count; ++i) rank[order[i]] = i
    # Instrumentation stands beside analysis and exporters: neither includes the other.
    rank["instrument"] = rank["export"]
}
function folder(path, parts) { split(path, parts, "/"); return parts[2] }
/^[ \t]*#[ \t]*include[ \t]+"quorvex\// {
    split($0, quoted, "\"")
    target = quoted[2]
    from = folder(FILENAME)
    to = folder(target)
    if (FILENAME == "quorvex/quorvex.h") next
    if (!(from in rank)) { printf "%s: stands in no layer\n", FILENAME; bad = 1; next }
    if (!(to in rank)) { printf "%s: includes %s, which is in no layer\n", FILENAME, target; bad = 1; next }
    beside = (from == "instrument" && to == "analysis") || (from == "functions" && (to == "analysis" || to == "export"))
    if (rank[to] > rank[from] || (rank[to] == rank[from] && to != from) || beside) {
        printf "%s: includes %s, against the arrows\n", FILENAME, target
        bad = 1
    }
    if ((target, FILENAME) in seen) { printf "%s and %s include each other\n", FILENAME, target; bad = 1 }
    seen[FILENAME, target] = 1
    ++lines
}
END {
    if (lines == 0) { print "no includes found: is this the source tree?"; exit 1 }
    exit bad
}'
echo "layers: ok"
