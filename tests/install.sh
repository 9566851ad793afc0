#!/usr/bin/env bash
# Checks what an optimised build installs: small files without debug information, documents whose links lead somewhere,
# and an example that finds the library.
#
#     install.sh BUILD_DIR
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() {
    echo "FAILED: $*"
    failed=1
}

cmake --install "$build" --prefix "$work/usr" >/dev/null
cd "$work/usr"
libraries=$(dirname "$(find . -name "libquorvex.*" | head -1)")
for file in bin/qvx "$libraries"/libquorvex.*[ao]; do
    bytes=$(wc -c <"$file")
    # Of an archive, what programs can get from it: code and data, without the tables for the linker.
    case $file in *.a) bytes=$(size -t "$file" | awk 'END { print $4 }') ;; esac
    [ "$bytes" -le 2000000 ] || fail "$file has $bytes bytes"
    ! readelf -S "$file" 2>/dev/null | grep -q '\.debug_info' || fail "$file has debug information"
done

cd share/doc/quorvex
for file in README.md LICENSE CHANGELOG.md docs/guide.md docs/format.md docs/kinds.json examples/quickstart.cpp; do
    [ -s "$file" ] || fail "not installed: $file"
done
links=0
for page in *.md docs/*.md; do
    for link in $(grep -o ']([^)#: ]*[)#]' "$page" | sed 's/^](//; s/.$//'); do
        links=$((links + 1))
        [ -e "$(dirname "$page")/$link" ] || [ -z "$link" ] || fail "$page: link to $link"
    done
done
[ $links -gt 5 ] || fail 'no links found'

generator=(-G Ninja -DCMAKE_PREFIX_PATH="$work/usr")
command -v ccache >/dev/null && generator+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S examples/embed -B "$work/embed" "${generator[@]}" >/dev/null
cmake --build "$work/embed" >/dev/null
LD_LIBRARY_PATH=$work/usr/$libraries
export LD_LIBRARY_PATH
[ "$("$work/embed/embed")" = 'function 5 is main' ] || fail 'examples/embed'
[ $failed -ne 0 ] || echo 'install: ok'
exit $failed
