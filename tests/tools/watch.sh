#!/usr/bin/env bash
# Runs qvx watch on traces that are complete, still recorded, taken away, and left by a program that was killed.
#
#     watch.sh QVX WORDCOUNT
. "$(dirname "$0")/common.sh"
wordcount=$2

tables() { grep -c 'from the first call to the last' told; }

mkdir source recorded done
seq 200000 | sed 's/^/the word /' | split -l 20000 --additional-suffix=.md - source/
QVX_TRACEDIR=done "$wordcount" source 1 >/dev/null
run 0 stats done >expected
run 0 watch done >told
diff expected told || fail 'what is complete is told once, as stats does'
run 0 watch done --of threads --limit 1 >told
run 0 stats done --of threads --limit 1 | diff - told || fail 'the options are those of stats'

QVX_TRACEMODE=mapped QVX_TRACEDIR=recorded "$wordcount" source 1 >/dev/null &
program=$!
# It runs in small steps until it has counted a few lines, and rests there.
kill -STOP $program
until "$qvx" stats recorded 2>/dev/null | grep -q countLine; do
    kill -CONT $program && sleep 0.001 && kill -STOP $program || break
done
[ -n "$(ls recorded/*.page)" ] || fail 'the program has ended too early'
timeout 60 "$qvx" watch recorded --interval 1ms >growing &
watching=$!
run 0 watch recorded --interval 1ms --count 3 >told
[ "$(tables)" -eq 3 ] || fail "$(tables) tables, not 3"
cp -r recorded taken
timeout 60 "$qvx" watch taken --interval 1ms >first &
taken=$!
until [ -s first ]; do kill -0 $taken || break; done
rm -r taken
wait $taken || fail "exit $? when the traces have been taken away"
until [ -s growing ]; do kill -0 $watching || break; done
kill -CONT $program
sleep 0.01
kill -KILL $program 2>/dev/null
wait $program 2>/dev/null
wait $watching || fail "exit $? when the program has ended"
# All that the program recorded is in the last table, and the tables grow up to there.
run 0 stats recorded >expected 2>err
tail -n "$(wc -l <expected)" growing | diff expected - || fail 'the last table'
awk '$NF == "countLine" { fewer += $1 < calls; calls = $1 } END { exit fewer || calls == 0 }' growing ||
    fail 'there are fewer calls than before'

run 2 watch -
says 'standard input does not grow'
run 2 watch done --interval 5
says "'5' is no length of time"
run 2 watch done --of cores --by thread
says '--by'
run 1 watch nothing
finish watch
