#!/usr/bin/env bash
# Keeps documents and examples together. In each document, a block of code below a line that ends with a link to a file
# of examples/ is that file; and every command of a console block prints what the block says.
#
#     guide.sh [--rewrite] [SOURCE_DIR PROGRAMS [DOCUMENT...]]
#
# PROGRAMS are the directories of the programs, with colons; if not given, those of the build for release. With
# --rewrite the documents are made true instead.
set -uo pipefail
rewrite=
[ "${1:-}" != --rewrite ] || { rewrite=yes; shift; }
source=${1:-$(realpath "$(dirname "$0")/..")}
export PATH=${2:-$source/build/release/examples:$source/build/release/tools/qvx}:$PATH LC_ALL=C
shift $(($# < 2 ? $# : 2))
[ $# -gt 0 ] || set -- README.md docs/guide.md docs/qvx.md docs/record.md
command -v kettle >/dev/null || { echo 'there are no programs to run'; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/run"

# The document as it should be: blocks of files and outputs of commands put in anew.
renewed() {
    local line link= in= directory
    directory=$(dirname "$1")
    while IFS= read -r line; do
        case $in in
        file) [ "$line" != '```' ] || { in=; printf '%s\n' "$line"; } ;;
        console)
            case $line in
            '```') in=; printf '%s\n' "$line" ;;
            '$ '*) printf '%s\n' "$line" && (cd "$work/run" && eval "${line#'$ '}" 2>&1 </dev/null) ;;
            esac
            ;;
        *)
            printf '%s\n' "$line"
            case $line in
            '```cpp' | '```cmake')
                [ -z "$link" ] || { in=file; cat "$directory/$link" || return; }
                link=
                ;;
            '```console') in=console ;;
            *'](../examples/'*'):' | *'](examples/'*'):') link=${line##*'('} link=${link%'):'} ;;
            ?*) link= ;;
            esac
            ;;
        esac
    done <"$1"
}

failed=0
for document; do
    document=$source/$document
    renewed "$document" >"$work/renewed" || { failed=1; continue; }
    if [ -n "$rewrite" ]; then
        cp "$work/renewed" "$document"
    else
        diff "$document" "$work/renewed" || { echo "$document is not what its examples are and print"; failed=1; }
    fi
done
# Without a single program the test would be about nothing.
[ -s "$work/run/kettle.qvx" ] || { echo "no trace was written"; failed=1; }
# A document that cannot be made anew stays as it is.
if [ -z "$rewrite" ]; then
    printf '%s\n' '[none](../examples/none.cpp):' '' '```cpp' 'int x;' '```' >"$work/run/page"
    cp "$work/run/page" "$work/page"
    bash "$0" --rewrite "$work" "$PATH" run/page >/dev/null 2>&1
    cmp "$work/run/page" "$work/page" || { echo 'a document that cannot be made anew is changed'; failed=1; }
fi
exit $failed
