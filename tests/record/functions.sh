#!/usr/bin/env bash
# Records programs that are compiled with -finstrument-functions, by the library of the hooks alone, and compares the
# calls of each thread with what they are.
#
#     functions.sh QVX PYTHON LIBRARY COMPILER [ARCHIVE...]: the archives are linked, where others preload the library
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../tools/common.sh"
python=$2
library=$3
compiler=$4
shift 4
archives=("$@")

# build COMPILER FLAGS...: the program and two modules that it loads.
build() {
    "$@" -std=c++20 -finstrument-functions -g "$here/Cases.cpp" -o cases -pthread &&
        "$1" -shared -fPIC -finstrument-functions -DNAME=one "$here/Plugin.cpp" -o one.so &&
        "$1" -shared -fPIC -finstrument-functions -DNAME=other "$here/Plugin.cpp" -o other.so || fail "compile: $*"
}

calls() { "$python" -B "$here/calls.py" "$qvx" traces cases one.so other.so; }
record() {
    rm -rf traces && mkdir traces
    QVX_TRACEDIR=$work/traces LD_PRELOAD=$preload timeout -s KILL 60 ./cases "$@"
} 2>err
# is EXPECTED CASE [ARGUMENTS...]: what is called behind early(). Several results may be right: A|B.
is() {
    local expected=$1 got
    shift
    record "$@"
    got=$(calls | sed 's/early()//g')
    [[ "|$expected|" = *"|$got|"* ]] || { cat err; fail "$variant, $*: '$got', not '$expected'"; }
}

check() {
    export QVX_TRACEMODE=
    record two
    [ "$(calls)" = 'early()two(leaf()leaf())' ] || fail "$variant: before main"
    is 'two(leaf()leaf())' two
    is 'leaf()two(leaf()leaf())' atexit
    is 'exits(' exits
    is 'callsTail(tail())' tail
    is 'raises(handler()leaf())' raises
    is 'raises(handler()leaf())' raisesOnItsOwnStack

    # What a jump ends, and an exception with Clang, is left with the next call by which the stack tells so.
    local later=()
    [[ $variant != 'clang++ -O2' ]] || later=('jumps()leaf())' 'jumps(leaf()))')
    local behind='two(leaf()leaf())'
    is "jump(jumpsDeeper(jumps())leaf())$behind$(printf "|jump(jumpsDeeper(%s)$behind" "${later[@]}")" jump
    is "catches(throwsDeeper(throws())leaf())$behind$(printf "|catches(throwsDeeper(%s)$behind" "${later[@]/jumps/throws}")" catches

    local thread=' thread(two(leaf()leaf()))keyEnds(leaf())'
    is "$thread$thread$thread" threads
    is ' threadEnds(ends())' threadEnds
    is ' threadWaits(waits())' cancelled
    is 'leaf() threadExits(exits(' threadExits

    is 'forks() two(leaf()leaf())' forks
    is 'vforks(leaf())' vforks
    is 'plugin(one())plugin(other())plugin(one())' plugins ./one.so ./other.so
    # A stack that is left for another one ends what is open on it.
    is 'resumes(fiber(yields()))leaf()resumes(leaf())' fiber
    # GCC has hooks in the parts of a coroutine, too.
    local whole='runsCoroutine(coroutine(coroutine())coroutine(leaf())leaf()coroutine(two(leaf()leaf()))coroutine(coroutine()))'
    [[ $variant != clang* ]] || whole='runsCoroutine(coroutine()leaf()leaf()two(leaf()leaf()))'
    is "$whole" coroutine

    # Depth, and calls by the thousand with handlers between them: each that is entered is left.
    for case in deep storm; do
        record $case
        "$qvx" info traces/thread_*.qvx >info
        [ "$(awk '$2 == "FunctionEnter" { print $1 }' info)" = "$(awk '$2 == "FunctionLeave" { print $1 }' info)" ] ||
            { cat info; fail "$variant, $case: not left"; }
        awk -v case=$case '$2 == "FunctionEnter" { exit !(case == "deep" ? $1 == 40001 : $1 > 150001) } ' info ||
            { cat info; fail "$variant, $case: calls"; }
    done

    QVX_TRACEDEPTH=1 is 'two()' two
    QVX_TRACEMODE=off is '' two
    export QVX_TRACEMODE=mapped
    is 'killed(leaf()' killed
    is 'two(leaf()leaf())' abort
    is 'two(leaf()leaf())' _exit
    is 'execs( two(leaf()leaf())' execs
}

# check_linked: the hooks linked with the program, and functions that recording itself calls recorded with it.
check_linked() {
    preload=
    variant="$compiler, linked"
    "$compiler" -std=c++20 -finstrument-functions "$here/Cases.cpp" -o cases -pthread "${archives[@]}" || fail 'link'
    is 'two(leaf()leaf())' two
    is 'plugin(one())plugin(other())plugin(one())' plugins ./one.so ./other.so
    "$compiler" -std=c++20 -finstrument-functions -DOWN_LIBRARY "$here/Cases.cpp" -o cases -pthread "${archives[@]}"
    local clock
    for clock in tsc monotonic; do
        QVX_TRACECLOCK=$clock record two
        calls | sed 's/clock_gettime()//g; s/malloc()//g' | grep -q 'two(leaf()leaf())' ||
            fail "$variant, own library, $clock"
    done
}

preload=$library
for program in "$compiler" clang++; do
    command -v "$program" >/dev/null || { echo "skipped: no $program"; continue; }
    for level in -O0 -O2; do
        variant="${program##*/} $level"
        build "$program" $level
        check
    done
done
[ ${#archives[@]} -eq 0 ] || check_linked
finish functions
