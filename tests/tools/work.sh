#!/usr/bin/env bash
# Looks at how qvx does long work: what it shows meanwhile on a terminal, and that threads change no results.
#
#     work.sh QVX
. "$(dirname "$0")/common.sh"

# A trace of some twenty pages, and one that is long enough for several threads.
awk 'BEGIN {
    print "\tTimestamp\t16\t0\t1000000\n\tFunctionEnter\t28\t5\t0\t7\tInvalid\t1"
    for (i = 0; i < 90000; i++) {
        print "\tFunctionEnter\t28\t" 10 + 2 * i "\t0\t" i % 5 "\tInvalid\t" 3 + i % 3
        print "\tFunctionLeave\t28\t" 11 + 2 * i "\t0\t" i % 5 "\tInvalid\t" 3 + i % 3
    }
}' >table
run 0 convert table --paged -o trace
run 0 cat trace trace trace trace -o long
[ "$(stat -c %s long)" -gt $((16 * 1024 * 1024)) ] || fail 'the long trace is short'

# Results do not depend on --jobs.
while read -r verb; do
    for jobs in 1 2 7; do
        run 0 $verb --jobs $jobs -f -o with-$jobs
        cmp -s with-1 with-$jobs || fail "$verb --jobs $jobs"
    done
    [ -s with-1 ] || fail "$verb makes nothing"
done <<'END'
info long
info long --thread 3 --kind Function*
cut long --pages 60:62
dump long --from -20us
END
run 2 info long --jobs many
says "'many' is no whole number"

if [ "$QVX_SYSTEM" = Windows ] || ! python3 -c 'import pty; pty.openpty()' 2>/dev/null; then
    echo 'skipped: the bar, for which there is no terminal here'
    finish work
fi
# shown COMMAND: what comes on a terminal that is standard error of a command, line by line.
shown() {
    python3 -c '
import os, pty, sys
master, slave = pty.openpty()
pid = os.fork()
if pid == 0:
    os.dup2(slave, 2)
    os.execvp("bash", ["bash", "-c", sys.argv[1]])
os.close(slave)
try:
    while data := os.read(master, 4096):
        os.write(1, data)
except OSError: # the other side is closed
    pass
os.waitpid(pid, 0)' "$1" | tr '\r' '\n'
}
# A reader, or a writer, that takes its time makes work long.
slowly='{ sleep 1.2; cat >/dev/null; }'
bar='^\[=* *\] *[0-9]* %, [0-9.]* [kMG]*B/s, [0-9]*:[0-9][0-9] left *$'
shown "'$qvx' dump trace --format plain | $slowly" >got
grep -qv '^ *$' got && ! grep -v "$bar" got | grep -q '[^ ]' || { cat got; fail 'no bar'; }
[ -z "$(tail -n 1 got | tr -d ' ')" ] || fail 'the bar stays'
shown "'$qvx' dump trace --format plain --no-progress | $slowly" >got
[ -s got ] && { cat got; fail 'a bar with --no-progress'; }
shown "'$qvx' dump trace --format plain -f -o out" >got
[ -s got ] && { cat got; fail 'a bar for short work'; }
# Of a stream nobody knows the end. What else is said stands alone in its line.
shown "{ head -c 300000 trace; sleep 1.2; head -c 3000001 trace; } | '$qvx' digest - -f -o out" >got
grep -q '^[0-9.]* [kMG]*B, [0-9.]* [kMG]*B/s *$' got || { cat got; fail 'no rate'; }
grep -q '^ \+$' got && grep -q '^qvx: standard input: ' got || { cat got; fail 'the line stays before others'; }
# Where the terminal shows what is made, there is no bar.
shown "{ head -c 300000 trace; sleep 1.2; tail -c +300001 trace; } | '$qvx' dump - --format plain --no-pager >&2" >got
[ "$(grep -c Function got)" -eq 180001 ] || fail 'not all is shown'
grep -q '[kMG]B/s' got && fail 'a bar within what is shown'
finish work
