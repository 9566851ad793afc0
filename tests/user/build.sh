#!/usr/bin/env bash
# Builds a user's program in the three ways there are, and runs it: against an installed and then moved tree by CMake's
# find_package and by pkg-config, and with the source tree as a subdirectory. There the program is only compiled, unless
# QUORVEX_THOROUGH is set: the library once more takes as long as all the rest.
#
#     build.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
user=$source/tests/user
generator=(-G Ninja -DCMAKE_BUILD_TYPE=Debug)
command -v ccache >/dev/null && generator+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

expect_works() {
    [ "$("$@")" = works ] || { echo "failed: $*"; exit 1; }
}

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/moved"
for file in bin/qvx share/man/man1/qvx.1 share/bash-completion/completions/qvx include/quorvex/packets/Packets.def; do
    [ -e "$work/moved/$file" ] || { echo "not installed: $file"; exit 1; }
done
library=$(dirname "$(find "$work/moved" -name 'libquorvex.*' | head -1)")
export LD_LIBRARY_PATH=$library
"$work/moved/bin/qvx" --version >/dev/null

cmake -S "$user" -B "$work/package" "${generator[@]}" -DCMAKE_PREFIX_PATH="$work/moved" >/dev/null
cmake --build "$work/package" >/dev/null
expect_works "$work/package/user"

export PKG_CONFIG_PATH=$library/pkgconfig
flags=$(pkg-config --cflags --libs quorvex)
# shellcheck disable=SC2086  # the flags are words
${CXX:-c++} -std=c++20 "$user/main.cpp" $flags -o "$work/by_pkg_config"
expect_works "$work/by_pkg_config"

cmake -S "$user" -B "$work/subdirectory" "${generator[@]}" -DQUORVEX_SOURCE="$source" >/dev/null
if [ -n "${QUORVEX_THOROUGH:-}" ]; then
    cmake --build "$work/subdirectory" >/dev/null
    expect_works "$work/subdirectory/user"
else
    cmake --build "$work/subdirectory" --target CMakeFiles/user.dir/main.cpp.o >/dev/null
fi
[ ! -e "$work/subdirectory/quorvex/tests" ] || { echo "a subproject builds tests"; exit 1; }
echo "user program: ok"
