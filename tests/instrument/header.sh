#!/usr/bin/env bash
# What the header of marks promises of itself: it is small, refuses names that are no literals, and is not recorded by
# hooks. Compiles only.
#
#     header.sh SOURCE_DIR COMPILER [FLAGS...]
set -uo pipefail
source=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

cpp() { "$compiler" "${flags[@]}" -x c++ -std=c++20 -I "$source" -include quorvex/instrument/Record.h "$@"; }
c() { "$compiler" "${flags[@]}" -x c -std=c11 -I "$source" -include quorvex/instrument/Record.h "$@"; }
compiler=$1
flags=("${@:2}")

for language in cpp c; do
    lines=$($language -E -P /dev/null | grep -c .)
    [ "$lines" -gt 50 ] && [ "$lines" -le 2000 ] || { echo "$language: $lines lines"; failed=1; }
    # Each of these takes a literal, and not a variable.
    for mark in 'SCOPE(NAME)' 'COUNTER(NAME, "", 1)' 'COUNTER("", NAME, 1)' 'EVENT(NAME)' 'EVENT_DATA(NAME, "", 1)' \
        'WAIT(NAME, 1 == 2, (void)0)'; do
        for name in '"a" " name"' variable; do
            echo "void f(const char* variable) { (void)variable; QUORVEX_TRACE_${mark/NAME/$name}; }" >"$work/code"
            $language -Wno-missing-prototypes -fsyntax-only "$work/code" >"$work/said" 2>&1 && taken=yes || taken=
            [ "$taken" = "$([ "$name" = variable ] || echo yes)" ] || { echo "$language: $mark of $name"; cat "$work/said"; failed=1; }
        done
    done
done

cat >"$work/code" <<'END'
struct Mutex { bool try_lock(); void lock(); void unlock(); };
void f(Mutex& mutex) {
    QUORVEX_TRACE_FUNCTION();
    QUORVEX_LOCK(mutex);
    QUORVEX_TRACE_COUNTER("", "", 1);
    QUORVEX_TRACE_EVENT("");
    QUORVEX_TRACE_MESSAGE("");
}
END
cpp -O0 -finstrument-functions -S "$work/code" -o "$work/code.s" || failed=1
[[ $("$compiler" --version) = *clang* ]] || [ "$(grep -c 'call.*__cyg_profile_func_enter' "$work/code.s")" = 1 ] || { echo "its own functions are recorded"; failed=1; }
exit $failed
