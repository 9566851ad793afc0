#!/usr/bin/env bash
# Checks what an optimised build installs: small files without debug information, documents whose links lead somewhere,
# examples that find the library through CMake and pkg-config, and what ./dev says of wrong use.
#
#     install.sh BUILD_DIR
set -euo pipefail
build=$1
dev=$(dirname "$(realpath "$0")")/../dev
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() {
    echo "FAILED: $*"
    failed=1
}

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/usr" # an installed tree may be moved
cd "$work/usr"
libraries=$(dirname "$(find . -name "libquorvex.*" | head -1)")
most_shared=2350000 # which has the tables for the linker
for file in bin/qvx "$libraries"/libquorvex.*[ao]; do
    bytes=$(wc -c <"$file") most=2000000
    # Of an archive, what programs can get from it: code and data, without the tables for the linker, nor what stands in
    # no file before it runs.
    case $file in *.a) bytes=$(size -t "$file" | awk 'END { print $1 + $2 }') ;; esac
    # A program that has the library within it may be as large as both.
    case $file in bin/qvx) ls "$libraries"/libquorvex.so >/dev/null 2>&1 || bytes=$((bytes / 2)) ;; esac
    case $file in *.so) most=$most_shared ;; esac
    [ "$bytes" -le $most ] || fail "$file has $bytes bytes"
    ! readelf -S "$file" 2>/dev/null | grep -q '\.debug_info' || fail "$file has debug information"
done
shared=$build/tests/libquorvex_shared.so
if [ -e "$shared" ]; then
    strip -o "$work/stripped.so" "$shared"
    bytes=$(wc -c <"$work/stripped.so")
    [ "$bytes" -le $most_shared ] || fail "a shared library has $bytes bytes"
fi
for file in share/man/man1/qvx.1 share/bash-completion/completions/qvx share/zsh/site-functions/_qvx \
    share/fish/vendor_completions.d/qvx.fish include/quorvex/packets/Packets.def; do
    [ -s "$file" ] || fail "not installed: $file"
done
bin/qvx --version >/dev/null || fail 'qvx does not run'
for verb in $(bin/qvx help | sed -n '/^Subcommands/,/^$/s/^  \([a-z]*\) .*/\1/p'); do
    grep -qx "\.B qvx $verb" share/man/man1/qvx.1 || fail "the manual page does not tell of $verb"
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
for target in embed/embed quickstart; do
    sources=examples/${target%"$(basename "$target")"}
    cmake -S "$sources" -B "$work/$target" "${generator[@]}" >/dev/null
    cmake --build "$work/$target" --target "$(basename "$target")" >/dev/null
done
[ "$("$work/embed/embed/embed")" = 'function 5 is main' ] || fail 'examples/embed'
QVX_TRACEDIR=$work "$work/quickstart/quickstart" && ls "$work"/thread_*.qvx >/dev/null || fail 'examples/quickstart'
# As docs/guide.md says.
sed -n '/^export PKG_CONFIG_PATH/,/^```$/p' docs/guide.md | sed '$d' >"$work/guide.sh"
sed -i "s|PREFIX/lib|$work/usr/$libraries|" "$work/guide.sh"
(cd examples/embed && bash -e "$work/guide.sh") || fail 'pkg-config'
[ "$(examples/embed/embed)" = 'function 5 is main' ] || fail 'a program built with pkg-config'

while read -r code words; do
    got=0
    # shellcheck disable=SC2086
    bash "$dev" $words >"$work/out" 2>&1 || got=$?
    [ $got -eq "$code" ] && head -1 "$work/out" | grep -q '^usage: ./dev' || fail "exit $got, not $code: ./dev $words"
done <<'END'
0
0 help
0 --help
0 install --help
1 install --nonsense
1 nonsense
END
[ $failed -ne 0 ] || echo 'install: ok'
exit $failed
