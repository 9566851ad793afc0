# What the tests of qvx share: a directory of their own, and failures that are counted. Read by scripts whose first
# argument is the program.
set -uo pipefail
qvx=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}
# run CODE ARGUMENTS...: runs qvx, and compares its exit code. What it says stands in the file err.
run() {
    local code=$1
    shift
    "$qvx" "$@" 2>err
    local got=$?
    [ "$got" -eq "$code" ] || { cat err; fail "exit $got, not $code: $*"; }
}
says() { grep -qF -- "$1" err || { cat err; fail "does not say: $1"; }; }
# full_disk ARGUMENTS...: qvx must tell that its output goes to a full disk.
full_disk() {
    [ -e /dev/full ] || return
    "$qvx" "$@" >/dev/full 2>err
    [ $? -eq 1 ] && grep -q 'No space left on device' err || { cat err; fail 'a full disk'; }
}
finish() {
    [ "$failures" -eq 0 ] && echo "$1: ok"
    exit "$((failures > 0))"
}
