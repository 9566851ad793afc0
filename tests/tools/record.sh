#!/usr/bin/env bash
# Runs programs with qvx record, and looks at the one trace that comes of each.
#
#     record.sh QVX COMPILER DIRECTORY_OF_CASES
source "$(dirname "$0")/common.sh"
compiler=$2
cases=$3
"$compiler" -std=c++20 -O1 -g -finstrument-functions "$cases/Cases.cpp" -o cases -pthread || fail compile
cat >program.c <<'END'
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
static volatile int ended;
void end(int signal) { ended = signal; }
void brief(void) { ended = 0; }
void lengthy(void) { usleep(20000); brief(); }
int main(int count, char** arguments) {
    for (int i = 1; i < count; ++i)
        printf("[%s]", arguments[i]);
    fflush(stdout);
    signal(SIGTERM, end);
    for (int i = 0; i < 3; ++i) {
        lengthy();
        brief();
    }
    while (count > 2 && !ended)
        pause();
    return ended ? ended : count > 1 ? atoi(arguments[1]) : 0;
}
END
"$compiler" -x c -g -finstrument-functions program.c -o program || fail compile

# calls TRACE: how often each function was entered, in the order of names.
calls() {
    "$qvx" stats --format json "$1" 2>/dev/null |
        sed 's/^{"function": "\(.*\)", "id": .*, "calls": \([0-9]*\), .*/\1=\2/' | sort | paste -s -d ' '
}
has() { [ "$(calls "$2")" = "$1" ] || { "$qvx" stats "$2"; fail "$2: $(calls "$2"), not $1"; }; }

# Names, arguments, exit codes.
run 0 record -o run.qvx -- ./program
says 'qvx: 10 calls, in run.qvx'
has 'brief=6 lengthy=3 main=1' run.qvx
run 0 check run.qvx >/dev/null
out=$("$qvx" record -fo run.qvx -- ./program 7 2>/dev/null)
[ $? -eq 7 ] && [ "$out" = '[7]' ] || fail "exit code and output: $out"
run 137 record --mapped -fo killed.qvx -- ./cases killed
has 'early=1 killed=1 leaf=1' killed.qvx
run 1 record -o none.qvx -- ./missing
says 'qvx: ./missing: No such file or directory'
run 1 record -o none.qvx -- true
says 'nothing was recorded'
[ ! -e none.qvx ] || fail 'a trace of nothing'
run 2 record -o none.qvx --min x -- ./program
run 2 record -o none.qvx --depth x -- ./program
run 2 record -o none.qvx

# A file is not replaced, and the program not run for nothing; in a directory each run gets its own.
run 1 record -o run.qvx -- ./program -x
says 'qvx: run.qvx: exists'
mkdir runs
run 0 record -o runs -- ./program
run 0 record -o runs/ -- ./program
[ "$(cd runs && echo *)" = 'program-2.qvx program.qvx' ] || fail "$(ls runs)"
# What has a name has one number, in each run.
numbers() { "$qvx" info "$1" | sed -n 's/^ *\(0x[0-9a-f]*\) .* \([a-z]*\)$/\1 \2/p' | sort; }
[ "$(numbers runs/program.qvx | wc -l)" -eq 3 ] && cmp <(numbers runs/program.qvx) <(numbers runs/program-2.qvx) ||
    fail 'numbers of functions'
has 'brief=12 lengthy=6 main=2' runs

# What is left out.
while read -r options expected; do
    run 0 record -fo run.qvx ${options//;/ } -- ./program
    has "$expected" run.qvx
    run 0 check run.qvx >/dev/null
done <<'END'
--only=b* brief=6
--only=b*;--only=main brief=6 main=1
--no=b* lengthy=3 main=1
--no=*e*;--only=m* main=1
--depth=2 brief=3 lengthy=3 main=1
--min=1ms lengthy=3 main=1
--min=100s
END

# Of many calls the last are kept, of a program that is killed, too.
ring() {
    run "$1" record --ring 512K -fo ring.qvx $2 -- ./cases "$3"
    local size
    size=$(stat -c %s ring.qvx)
    [ "$size" -gt 524288 ] && [ "$size" -lt 1200000 ] || fail "a ring of $size bytes"
    says "$4"
    "$qvx" info ring.qvx >out
    grep -q '^ *0x[0-9a-f]* *1  last$' out || { cat out; fail 'the last calls'; }
}
ring 0 '' many 'in ring.qvx'
ring 137 --mapped manyKilled 'in ring.qvx'
run 2 record --ring 1X -o none.qvx -- ./program

# Signals come to the program, which may end as it likes.
"$qvx" record -o ended.qvx -- ./program 0 wait 2>err >out &
while [ "$(cat out)" != '[0][wait]' ]; do sleep 0.02; done
sleep 0.2
kill $!
wait $!
[ $? -eq 15 ] || { cat err; fail 'a signal'; }
"$qvx" info ended.qvx | grep -q ' end$' || fail 'the handler'

# Processes that it starts, when they are asked for.
run 0 record -o alone.qvx -- ./cases forks
has 'early=1 forks=1' alone.qvx
run 0 record --follow -o all.qvx -- ./cases forks
has 'early=1 forks=1 leaf=2 two=1' all.qvx
run 0 record --mapped -o exec.qvx -- ./cases execs
has 'early=2 execs=1 leaf=2 two=1' exec.qvx

[ -z "$(ls -d ./*.recording-* 2>/dev/null)" ] || fail "left over: $(ls)"
finish record
