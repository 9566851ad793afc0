#!/usr/bin/env bash
# Keeps documents and examples together. In each document, a block of code below a line that ends with a link to a file
# of examples/ is that file; and every command of a console block prints what the block says.
#
#     guide.sh [--rewrite] SOURCE_DIR PROGRAMS DOCUMENT...
#
# PROGRAMS are the directories of the programs, with colons. With --rewrite the documents are made true instead.
set -uo pipefail
rewrite=
[ "$1" != --rewrite ] || { rewrite=yes; shift; }
source=$1
export PATH=$2:$PATH LC_ALL=C
shift 2
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
    renewed "$document" >"$work/renewed" || failed=1
    if [ -n "$rewrite" ]; then
        cp "$work/renewed" "$document"
    else
        diff "$document" "$work/renewed" || { echo "$document is not what its examples are and print"; failed=1; }
    fi
done
# Without a single program the test would be about nothing.
[ -s "$work/run/kettle.qvx" ] || { echo "no trace was written"; failed=1; }
exit $failed
