#!/usr/bin/env bash
# Runs qvx assert.
#
#     assert.sh QVX WORDCOUNT
. "$(dirname "$0")/common.sh"
wordcount=$2

mkdir recorded
mkdir source
for file in 1 2 3; do seq $((100 * file)) | sed 's/^/the word /' >source/$file.md; done
QVX_TRACEDIR=recorded "$wordcount" source 3 >/dev/null
cat >kept <<'END'
# what holds of every run
function "countLine" called at least 600 times
function "countLine" called at most 600 times
function "*" never longer than 100s   # of a test that is slow
depth never above 3
function "none" called never
no gap
no loss
END
run 0 assert recorded kept >told
[ "$(tail -1 told)" = '7 rules, 0 broken' ] || { cat told; fail 'all rules hold'; }
big=recorded/$(ls -S recorded | head -1)
head -c -20 "$big" >cut
run 3 assert cut --rule 'no gap' >told
run 1 assert cut --rule 'no loss' >told
grep -q 'cut: offset [0-9]*: the end of the trace is missing' told || { cat told; fail 'no loss'; }
run 0 assert --rule 'depth never above 3' --rule 'no loss' recorded/*.qvx >told

# Two traces, in rows without what nobody asks for here.
row() { printf '\t%s\t%s\t%s\t%s\t%s\tInvalid\t%s\n' "$@"; }
{ printf '\tTimestamp\t16\t0\t1000\n\tEventDefine\t8\t1\t0\n\tCharString\t3\task\n\tEventDefine\t8\t2\t0\n'
  printf '\tCharString\t7\ta"&<b>\\\n'; row Event 28 10 0 7 1; row Event 28 30 0 7 1; } >asks
{ printf '\tTimestamp\t16\t0\t1000\n'; row Event 28 12 1 8 2; row Event 28 90 1 8 2; } >answers
cat >rules <<'END'
event "ask" before event "a\"*" within 5ms
event "a\"&<b>\\" after event "ask"
END
expect() {
    local code=$1
    shift
    run "$code" assert "$@" >out
    diff - out || fail "assert $*"
}
expect 1 asks answers rules <<'END'
rules:1: event "ask" before event "a\"*" within 5ms: broken 1 time, 2 checked
    answers: offset 48, thread 8, core 1, tick 90, 0.090000000 s from the start: a"&<b>\ has the last ask 60.000 ms before it
rules:2: event "a\"&<b>\\" after event "ask": holds, 2 checked
2 rules, 1 broken
END
expect 1 asks answers --rules rules --rule 'event "a*" never' --format json --limit 1 <<'END'
{"rules": "rules", "line": 1, "rule": "event \"ask\" before event \"a\\\"*\" within 5ms", "checked": 2, "broken": 1}
{"rules": "rules", "line": 1, "rule": "event \"ask\" before event \"a\\\"*\" within 5ms", "file": "answers", "offset": 48, "thread": 8, "core": 1, "tick": 90, "time_ns": 90000000, "value": 60000000, "text": "a\"&<b>\\ has the last ask 60.000 ms before it"}
{"rules": "rules", "line": 2, "rule": "event \"a\\\"&<b>\\\\\" after event \"ask\"", "checked": 2, "broken": 0}
{"rules": "--rule", "line": 1, "rule": "event \"a*\" never", "checked": 4, "broken": 4}
{"rules": "--rule", "line": 1, "rule": "event \"a*\" never", "file": "asks", "offset": 52, "thread": 7, "core": 0, "tick": 10, "time_ns": 10000000, "value": 1, "text": "ask happens"}
END
expect 1 asks answers rules --format junit <<'END'
<?xml version="1.0" encoding="UTF-8"?>
<testsuites>
<testsuite name="qvx assert" tests="2" failures="1" errors="0" skipped="0">
<testcase classname="rules:1" name="event &quot;ask&quot; before event &quot;a\&quot;*&quot; within 5ms"><failure message="broken 1 time, 2 checked">
answers: offset 48, thread 8, core 1, tick 90, 0.090000000 s from the start: a&quot;&amp;&lt;b&gt;\ has the last ask 60.000 ms before it
</failure></testcase>
<testcase classname="rules:2" name="event &quot;a\&quot;&amp;&lt;b&gt;\\&quot; after event &quot;ask&quot;"/>
</testsuite>
</testsuites>
END
if command -v python3 >/dev/null; then
    python3 -c 'import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])' out || fail 'no XML'
fi
"$qvx" assert - --rule 'event "ask" at most 1 time' <asks >out
grep -q 'tick 30, 0.030000000 s from the start: ask happens 2 times' out || fail 'standard input'

# Wrong use, before anything is done.
printf 'no loss\n\nfunction "f" never longer than 5 apples\n' >wrong
for text in asks\ wrong asks\ --rule\ x asks asks\ --rules\ none asks\ --rules\ /dev/null 'asks rules --format html'; do
    run 2 assert $text -o never </dev/null
    [ ! -e never ] || fail "$text: an output"
done
for text in asks "asks answers" recorded; do
    # shellcheck disable=SC2086
    run 2 assert $text
    says 'no rules: give a rules file last, or --rules, or --rule'
done
run 2 assert asks --rule 'no loss' --rule ' '
says '--rule: is empty'
run 2 assert asks --rule 'no loss' --rule x
says '--rule:2: expected'
run 2 assert - --rules - <rules
says 'standard input can be read once'
echo 'event "ask" at most 1 time' | run 1 assert asks --rules - --rule 'no loss' --rule 'depth never above 1' >out
diff - out <<'END' || fail 'rules of standard input'
standard input:1: event "ask" at most 1 time: broken 1 time, 2 checked
    asks: offset 82, thread 7, core 0, tick 30, 0.030000000 s from the start: ask happens 2 times
--rule:1: no loss: holds, 1 checked
--rule:2: depth never above 1: holds, nothing to check
3 rules, 1 broken
END
: >empty
run 1 assert empty --rule 'no loss' >out
grep -q '^    empty: the trace is empty$' out || { cat out; fail 'an empty trace'; }
run 2 assert asks wrong
says 'wrong:3: expected the end of the line, found '"'apples'"
run 1 assert none rules
says 'none: '
run 2 assert asks --rules none
says 'none: No such file or directory'
run 2 assert asks --rules recorded
says 'recorded: Is a directory'
finish assert
