#!/usr/bin/env bash
# Checks that wrong arguments to a packet's constructor give at most 20 lines of errors, whatever its kind.
#
#     errors.sh COMPILER SOURCE_DIR
set -euo pipefail
cd "$2"

kinds=$(sed -nE 's/^QUORVEX_(ABSOLUTE_)?TCODE\([^,]*, (\w+),.*/\2/p' quorvex/format/TCodes.def)
{
    echo '#include "quorvex/quorvex.h"'
    echo 'struct Wrong {} wrong;'
    sed 's/.*/Quorvex::C& of&(wrong, wrong);/' <<<"$kinds"
} | { LC_ALL=C "$1" -std=c++20 -fsyntax-only -I. -x c++ - 2>&1 || true; } | awk -v expected="$(wc -l <<<"$kinds")" '
/ error: / { ++errors; lines = 0 }
++lines > 20 { print "line " lines " of an error: " $0; bad = 1 }
END {
    if (errors != expected)
        print errors " errors for " expected " kinds"
    exit bad || errors != expected
}'
