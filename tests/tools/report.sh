#!/usr/bin/env bash
# Runs qvx report, and reads what its pages hold by other means.
#
#     report.sh QVX WORDCOUNT
. "$(dirname "$0")/common.sh"
wordcount=$2

mkdir recorded source
seq 3000 | sed 's/^/the word /' | split -l 500 --additional-suffix=.md - source/
QVX_TRACEDIR=recorded "$wordcount" source 3 >/dev/null

# A page is one file that asks for nothing; what is wrong is said before anything is written.
run 0 report recorded --title 'a <b> title' -o page.html
head -c 15 page.html | grep -q '<!DOCTYPE html>' || fail 'no page'
! grep -qE '(src|href)=|https?://[^w]' page.html || fail 'a page that asks for something'
grep -q "Content-Security-Policy\" content=\"default-src 'none'" page.html || fail 'no policy'
! grep -q 'a <b> title' page.html || fail 'a title that is markup'
run 1 report recorded -o page.html
says 'page.html'
run 1 report missing.qvx -o other.html
[ ! -e other.html ] || fail 'a page of nothing'
full_disk report recorded

# Of what is damaged, the page tells as well; nothing but the page is written to standard output.
trace=$(ls -S recorded/*.qvx | head -1)
head -c 3000 "$trace" >cut.qvx
run 3 report cut.qvx -o cut.html
run 0 report - <"$trace" >piped.html
[ "$(tail -c 13 piped.html)" = 'q()</script>' ] || fail 'a page in a pipe'

# Moments of each sort, some in relative form; what is not shown is counted.
printf '\t%s\n' $'Timestamp\t16\t0\t1000000000' $'FunctionDefine\t28\t5\t1\t2\tInvalid\t0x7' $'CharString\t4\tmain' \
    $'FunctionEnter\t28\t5\t1\t2\tInvalid\t0x7' $'CounterValue\t36\t6\t1\t2\tInvalid\t0x5\t300' \
    $'Sync\t24\t6\t1\t2\tInvalid' $'RelCounterValue\t14\t1\t0x0\t0x5\t299' $'Message\t9\t8\t0' \
    $'CharString\t2\thi' $'ExecInsn\t24\t9\t1\t3\t0x10' $'FunctionLeave\t28\t10\t1\t2\tInvalid\t0x7' >table
run 0 report table -o table.html

if command -v python3 >/dev/null; then
    cat >read.py <<'END'
import base64, json, re, sys, zlib
blocks = [(int(size), zlib.decompress(base64.b64decode(text))) for size, text in re.findall(
    r'<script type="application/octet-stream" data-size="(\d+)">(.*?)</script><script>q\(\)</script>', open(sys.argv[1]).read())]
assert all(size == len(data) for size, data in blocks)
lines = [json.loads(line) for line in blocks[0][1].splitlines()]
data = b''.join(block for _, block in blocks[1:])
def numbers(column):
    value = shift = 0
    for byte in column:
        value |= (byte & 127) << shift
        shift += 7
        if byte < 128:
            yield value
            value = shift = 0
signed = lambda value: value // 2 if value % 2 == 0 else -(value + 1) // 2
nanoseconds = 10 ** 9 // (next(int(line['frequency']) for line in lines if line.get('frequency')) or 10 ** 9)
names = [line['name'] for line in lines if line['record'] == 'name' and line['table'] == 'function']
at, sums = 0, {}
for track in (line for line in lines if line['record'] == 'track'):
    columns = []
    for size in track['columns']:
        columns.append(list(numbers(data[at:at + size])))
        at += size
    assert all(len(column) == track['count'] for column in columns[:3]), track
    if track['sort'] == 'function':
        for length, name in zip(columns[2], columns[3]):
            count, most = sums.get(names[name], (0, 0))
            sums[names[name]] = count + 1, max(most, length)
    else:
        print(track['sort'], track['title'], [signed(value) for value in columns[track['form'] == 'spans']])
assert at == len(data)
for line in lines:
    if line['record'] in ('note', 'unshown'):
        print(line['record'], line.get('text') or '%s %d' % (line['what'], line['count']))
for name, (count, most) in sorted(sums.items()):
    print(name, count, most * nanoseconds)
END
    python3 read.py page.html >told || fail 'a page that cannot be read'
    run 0 stats recorded --format csv -f -o stats
    awk -F, 'NR > 1 { print $1, $3, $9 }' stats | sort | diff - <(sort told) || fail 'other calls than those of stats'
    python3 read.py table.html | diff - <(printf '%s\n' 'mark messages [8]' 'thread core 1: threads [5, 0, 0]' \
        'counter counter 0x00000005 [6, 1]' 'unshown ExecInsn 1' 'main 1 5') || fail 'the page of a table'
    python3 read.py cut.html | grep '^note cut.qvx: something is damaged or missing' >/dev/null || fail 'a note of damage'
    python3 read.py piped.html >piped || fail 'the page in a pipe'
    run 0 report "$trace" -o one.html
    python3 read.py one.html | diff - piped || fail 'another page of standard input'
fi

finish 'qvx report'
