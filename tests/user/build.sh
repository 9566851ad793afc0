#!/usr/bin/env bash
# Builds a user's program with the compiler and the flags of the build, and runs it: against an installed and then moved
# tree by CMake's find_package, and with the source tree as a subdirectory. There the program is only compiled, unless
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

cmake -S "$user" -B "$work/package" "${generator[@]}" -DCMAKE_PREFIX_PATH="$work/moved" >/dev/null
cmake --build "$work/package" >/dev/null
expect_works "$work/package/user"

cmake -S "$user" -B "$work/subdirectory" "${generator[@]}" -DQUORVEX_SOURCE="$source" >/dev/null
if [ -n "${QUORVEX_THOROUGH:-}" ]; then
    cmake --build "$work/subdirectory" >/dev/null
    expect_works "$work/subdirectory/user"
else
    cmake --build "$work/subdirectory" --target CMakeFiles/user.dir/main.cpp.o >/dev/null
fi
[ ! -e "$work/subdirectory/quorvex/tests" ] || { echo "a subproject builds tests"; exit 1; }
echo "user program: ok"
