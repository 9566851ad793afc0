#!/usr/bin/env python3
"""Reads what qvx export makes of traces by other software, and compares values with what qvx itself tells.

    readers.py QVX SOURCE_DIR SAMPLES WORDCOUNT [--rewrite]

SAMPLES is a trace with packets of every kind, WORDCOUNT a program that records itself. With --rewrite, the table of
docs/viewers.md is made anew.
"""
import collections
import csv
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

QVX, SOURCE, SAMPLES, WORDCOUNT = sys.argv[1], pathlib.Path(sys.argv[2]), sys.argv[3], sys.argv[4]
failures = 0
skipped = set()


def expect(what, expected, got):
    global failures
    if expected != got:
        failures += 1
        print(f'FAILED: {what}: expected {str(expected)[:2000]}, got {str(got)[:2000]}')


def qvx(*arguments):
    done = subprocess.run([QVX, *arguments], capture_output=True, stdin=subprocess.DEVNULL)
    if done.returncode not in (0, 3):
        sys.exit(f'qvx {arguments}: {done.stderr.decode()}')
    return done.stdout.decode('utf-8')


def lines(text):
    return [json.loads(line) for line in text.splitlines()]


def exported(kind, traces):
    return qvx('export', *traces, '--to', kind, '-o', '-')


def check_chrome(traces):
    """Slices are nested on each thread, by names; returns how often each function is entered."""
    file, open_, entered = json.loads(exported('chrome', traces)), collections.defaultdict(list), collections.Counter()
    for event in file['traceEvents']:
        place = event['pid'], event['tid']
        if event['ph'] == 'B':
            open_[place].append((event['name'], event['ts']))
            entered[event['name']] += event['cat'] == 'call'
        elif event['ph'] == 'E':
            name, since = open_[place].pop()
            expect('what a slice ends', (name, True), (event['name'], since <= event['ts']))
    expect('slices that stay open', [], [place for place, names in open_.items() if names])
    return +entered


def check_way_back(traces):
    """What import makes of the file is shown as the same file again."""
    with tempfile.TemporaryDirectory() as work:
        files = []
        for shown in traces, [f'{work}/back.qvx']:
            file = f'{work}/{len(files)}.json'
            qvx('export', *shown, '--to', 'chrome', '-o', file)
            if not files:
                qvx('import', file, '-o', f'{work}/back.qvx')
            text = pathlib.Path(file).read_text(encoding='utf-8')
            files.append([line for line in text.splitlines() if '"process_name"' not in line])
    differs = next((pair for pair in zip(*files) if pair[0] != pair[1]), (len(files[0]), len(files[1])))
    expect('the way back', *differs)


def check_speedscope(traces):
    """The rules that its importer has."""
    file, entered = json.loads(exported('speedscope', traces)), collections.Counter()
    names = [frame['name'] for frame in file['shared']['frames']]
    for profile in file['profiles']:
        stack, last = [], profile['startValue']
        for event in profile['events']:
            expect('times rise', True, last <= event['at'] <= profile['endValue'])
            last = event['at']
            if event['type'] == 'O':
                stack.append(event['frame'])
                entered[names[event['frame']]] += profile['name'].startswith('thread')
            else:
                expect('what is closed', stack.pop(), event['frame'])
        expect('frames that stay open', [], stack)
    return +entered


def check_tables(traces):
    """Both tables tell the same; returns calls, and what they took, by functions."""
    rows = lines(exported('json', traces))
    table = list(csv.DictReader(exported('csv', traces).splitlines(keepends=True)))
    expect('rows of both tables', len(rows), len(table))
    calls, times = collections.Counter(), collections.Counter()
    for row, cells in zip(rows, table):
        for name, value in row.items():
            if not isinstance(value, dict):
                expect(f'{name} of {row}', str(value), cells[name])
        if row['type'] == 'call':
            calls[row['name']] += 1
            times[row['name']] += row['duration_ns']
    return calls, times


def check_perfetto(traces):
    """The packets are framed; returns how often each name begins."""
    done = subprocess.run([QVX, 'export', *traces, '--to', 'perfetto', '-o', '-'], capture_output=True)

    def fields(data):
        at = 0

        def varint():
            nonlocal at
            value = shift = 0
            while True:
                byte = data[at]
                at += 1
                value |= (byte & 0x7f) << shift
                shift += 7
                if byte < 0x80:
                    return value
        while at < len(data):
            key = varint()
            if key & 7 == 0:
                yield key >> 3, varint()
                continue
            size = varint() if key & 7 == 2 else 8
            yield key >> 3, data[at:at + size]
            at += size
        expect('the end of a message', len(data), at)

    names, begun, tracks, depth = {}, collections.Counter(), {}, collections.Counter()
    for number, packet in fields(done.stdout):
        expect('what the file consists of', 1, number)
        its = dict(fields(packet))
        for _, entry in fields(its.get(12, b'')):
            entry = dict(fields(entry))
            names[entry[1]] = entry[2].decode('utf-8')
        if 60 in its:
            track = dict(fields(its[60]))
            tracks[track[1]] = track
        if 11 in its:
            event = dict(fields(its[11]))
            expect('the track of an event', True, event[11] in tracks)
            begun[names[event[10]] if 10 in event else ''] += event[9] == 1 and 4 in tracks[event[11]]
            depth[event[11]] += {1: 1, 2: -1}.get(event[9], 0)
    expect('slices that stay open', [], [track for track, count in depth.items() if count])
    check_schema(done.stdout, lines(exported('json', traces)))
    return +begun


def check_schema(file, rows):
    """The published schema knows every field, and tells every row of the table."""
    try:
        from google.protobuf.unknown_fields import UnknownFieldSet
        from perfetto.protos.perfetto.trace import perfetto_trace_pb2
    except ImportError:
        return skipped.add('no schema of Perfetto (pip install perfetto protobuf)')

    def check(message):
        expect('unknown fields', 0, len(UnknownFieldSet(message)))
        for field, value in message.ListFields():
            if field.message_type:
                for each in value if hasattr(value, 'append') else [value]:
                    check(each)
    trace = perfetto_trace_pb2.Trace.FromString(file)
    check(trace)
    names, tracks, open_, got = {}, {}, collections.defaultdict(list), collections.Counter()
    for packet in trace.packet:
        names.update((name.iid, name.name) for name in packet.interned_data.event_names)
        if packet.HasField('track_descriptor'):
            its = packet.track_descriptor
            tracks[its.uuid] = its.thread.thread_name if its.HasField('thread') else its.name
        if packet.HasField('track_event'):
            its = packet.track_event
            track, name = tracks[its.track_uuid], names.get(its.name_iid, its.name)
            if its.type == its.TYPE_SLICE_BEGIN:
                open_[its.track_uuid].append((name, packet.timestamp))
            elif its.type == its.TYPE_SLICE_END:
                name, since = open_[its.track_uuid].pop()
                got[track, name, since, packet.timestamp - since] += 1
            elif its.type == its.TYPE_INSTANT:
                got[track, name, packet.timestamp] += 1
            else:
                value = its.double_counter_value if its.HasField('double_counter_value') else its.counter_value
                got[track, packet.timestamp, value % 2 ** 64] += 1
    told = collections.Counter()
    texts = {row['track'] for row in rows if row['type'] == 'value' and not re.fullmatch(r'-?[0-9.e+-]+', str(row['value']))}
    for row in rows:
        start = row.get('start_ns', row.get('start_ticks'))
        if row['track'] in texts:
            continue # shown as slices
        if row['type'] == 'value':
            value = float(row['value']) if isinstance(row['value'], float) else int(row['value'])
            told[row['track'], start, value % 2 ** 64] += 1
        elif row['type'] == 'event':
            told[row['track'], row['name'], start] += 1
        else:
            told[row['track'], row['name'], start, row.get('duration_ns', row.get('duration_ticks'))] += 1
    expect('rows that Perfetto is not told of', collections.Counter(), told - got)
    expect('what is in no row', collections.Counter(), collections.Counter(
        {its: count for its, count in (got - told).items() if its[0] not in texts}))


def check_dump(traces):
    """Import takes from a dump what another reader does: all values of all variables that are numbers."""
    try:
        from vcd.reader import TokenKind, tokenize
    except ImportError:
        return skipped.add('no second reader of dumps (pip install pyvcd)')
    with tempfile.TemporaryDirectory() as work:
        qvx('export', *traces, '--to', 'vcd', '-o', f'{work}/run.vcd')
        qvx('import', f'{work}/run.vcd', '-o', f'{work}/back.qvx')
        rows = lines(exported('json', [f'{work}/back.qvx']))
        theirs, names, scopes, time = collections.defaultdict(list), {}, [], 0
        with open(f'{work}/run.vcd', 'rb') as file:
            for token in tokenize(file):
                if token.kind is TokenKind.SCOPE:
                    scopes.append(token.scope.ident)
                elif token.kind is TokenKind.UPSCOPE:
                    scopes.pop()
                elif token.kind is TokenKind.VAR:
                    names[token.var.id_code] = '.'.join([*scopes, token.var.ref_str.replace(' ', '')])
                elif token.kind is TokenKind.CHANGE_TIME:
                    time = token.time_change
                elif token.kind in (TokenKind.CHANGE_SCALAR, TokenKind.CHANGE_VECTOR, TokenKind.CHANGE_REAL):
                    value = token.data.value
                    value = int(value) if value in ('0', '1') else value
                    if not isinstance(value, str) and value == value: # neither unknown nor no number
                        theirs[names[token.data.id_code]].append((time, value))
    ours = collections.defaultdict(list)
    for row in rows:
        if row['type'] == 'value' and row['value'] is not None:
            value = row['value']
            ours[row['track']].append((row['start_ns'], int(value) if isinstance(value, str) else value))
    expect('values of a dump', dict(theirs), dict(ours))


def check_ctf(trace):
    """Every event, every field, as babeltrace2 reads them."""
    if not shutil.which('babeltrace2'):
        return skipped.add('no babeltrace2 (package babeltrace2)')
    with tempfile.TemporaryDirectory() as work:
        qvx('export', trace, '-o', f'{work}/of.ctf')
        done = subprocess.run(['babeltrace2', '--clock-cycles', f'{work}/of.ctf'], capture_output=True)
        expect('babeltrace2', (0, b''), (done.returncode, done.stderr))
    events = re.findall(r'^\[(\d+)\] \([^)]*\) (\w+): (?:\{ (.*?) \})?$', done.stdout.decode('utf-8'), re.M | re.S)
    # What frames a trace, and states contexts and clocks, is no event.
    packets = [packet for packet in lines(qvx('dump', trace, '--format', 'json'))
               if packet['kind'] not in ('TraceEnabled', 'TraceDisabled', 'EndOfTrace', 'Timestamp')
               and not packet['kind'].endswith('Sync') and packet['kind'] != 'Fill'
               and (packet['kind'] != 'CharString' or packet.get('text'))]
    expect('kinds of events', [re.sub('^Rel', '', packet['kind']) for packet in packets], [name for _, name, _ in events])

    def value(text):
        if text.startswith('"'):
            return text[1:-1]
        if text.startswith('('):
            text = text.rsplit('container = ', 1)[1].rstrip(' )')
        if text.startswith('['):
            return [int(number, 0) for number in re.findall(r'\] = (\w+)', text)]
        return int(text, 0)

    for packet, (_, name, text) in zip(packets, events):
        fields = {field: value(its) for field, its in
                  re.findall(r'(\w+) = (\[ .*?\]|\[ \]|\( .*? \)|"[^"]*"|\S+?)(?=, \w+ = |$)', text or '', re.S)}
        for told, of in (('core', 'HWCtx'), ('thread', 'SWCtx'), ('address', 'IP')):
            if told in packet and of in fields:
                packet[of] = packet.pop(told)
        for field, its in fields.items():
            if field.endswith(('_size', '_count')):
                continue
            told = packet.get(field)
            if isinstance(its, list) and field != 'Idx':
                its = '0x' + ''.join(f'{byte:02x}' for byte in reversed(its))
                its = int(its, 0) if isinstance(told, int) else its
            elif isinstance(its, list):
                told = [int(number) for number in told]
            elif told is None:
                told = {'text': ''}.get(field, 2 ** (64 if its >= 2 ** 32 else 32) - 1 if isinstance(its, int) else None)
            elif isinstance(told, str) and isinstance(its, int):
                told = int(told, 0)
            expect(f'{field} of {name}', told, its)
        left = set(packet) - set(fields) - {'offset', 'kind', 'tick', 'time_ns', 'name', 'core', 'thread', 'address'}
        expect(f'fields of {name}', set(), left)


def check_ctf_back(traces):
    """What is exported, imported and exported again is the same, but for the names of the traces."""
    with tempfile.TemporaryDirectory() as work:
        qvx('export', *traces, '-o', f'{work}/one.ctf')
        done = subprocess.run([QVX, 'import', f'{work}/one.ctf', '-o', f'{work}/run.qvx'], capture_output=True)
        if b'has no CTF' in done.stderr:
            return skipped.add('no libbabeltrace2 in qvx (package libbabeltrace2-dev)')
        expect('import of CTF', 0, done.returncode)
        qvx('export', f'{work}/run.qvx', '-o', f'{work}/two.ctf')
        one, two = ([re.sub(rb'(?<=inputs = ").*?(?="; first_tick)', b'', pathlib.Path(f'{work}/{which}.ctf/{file}').read_bytes())
                     for file in ('metadata', 'stream')] for which in ('one', 'two'))
        expect('CTF again', one, two)


def check_page():
    """The table in docs/viewers.md is what the formats say of themselves."""
    formats = lines(qvx('export', '--list', '--format', 'json'))
    kinds = [json.loads(line)['name'] for line in qvx('kinds', '--format', 'json').splitlines()]
    shown = [kind for kind in kinds if any(kind in its['shows'] for its in formats)]
    rows = ['| | ' + ' | '.join(its['format'] for its in formats) + ' |', '|---' * (len(formats) + 1) + '|']
    rows += [f'| {kind} | ' + ' | '.join('yes' if kind in its['shows'] else '' for its in formats) + ' |' for kind in shown]
    page = SOURCE / 'docs/viewers.md'
    text = page.read_text(encoding='utf-8')
    start, end = (text.index(f'<!-- {mark} -->') for mark in ('kinds', 'end'))
    table = '<!-- kinds -->\n\n' + '\n'.join(rows) + '\n\n'
    if '--rewrite' in sys.argv:
        page.write_text(text[:start] + table + text[end:], encoding='utf-8')
    else:
        expect('the table of docs/viewers.md', table, text[start:end])


def check_all(traces):
    stats = {row['function']: row for row in lines(qvx('stats', *traces, '--format', 'json'))}
    expected = collections.Counter({name: row['calls'] for name, row in stats.items()})
    calls, times = check_tables(traces)
    for what, got in (('chrome', check_chrome(traces)), ('speedscope', check_speedscope(traces)), ('tables', calls),
                      ('perfetto', check_perfetto(traces))):
        expect(f'calls in {what}', expected, got)
    expect('times of calls', {name: row['total_ns'] for name, row in stats.items()}, dict(times))
    folded = exported('folded', traces)
    expect('folded stacks', qvx('graph', '--folded', *traces), folded)
    expect('the sum of folded stacks', sum(row['self_ns'] for row in stats.values()),
           sum(int(line.rsplit(' ', 1)[1]) for line in folded.splitlines()))
    check_ctf(traces[0])
    check_ctf_back(traces)
    check_way_back(traces)
    check_dump(traces)


with tempfile.TemporaryDirectory() as recorded:
    subprocess.run([WORDCOUNT, SOURCE / 'docs', '3'], stdout=subprocess.DEVNULL, check=True,
                   env={**os.environ, 'QVX_TRACEDIR': recorded})
    check_all(sorted(str(trace) for trace in pathlib.Path(recorded).glob('*.qvx')))
with tempfile.TemporaryDirectory() as made: # a bit of all that there is
    (pathlib.Path(made) / 'scene.json').write_text(
        re.sub('(?m)^lost: .*\n', '', (SOURCE / 'tests/data/scene.trace.json').read_text(encoding='utf-8')), encoding='utf-8')
    qvx('import', f'{made}/scene.json', '-o', f'{made}/scene.qvx')
    check_dump([f'{made}/scene.qvx'])
    check_perfetto([f'{made}/scene.qvx'])
for check in (check_chrome, check_way_back, check_speedscope, check_tables, check_perfetto):
    check([SAMPLES])
check_ctf(SAMPLES)
check_ctf_back([SAMPLES])
check_page()
for reader in sorted(skipped):
    print(f'skipped: {reader}')
print('readers: ok' if failures == 0 else f'{failures} failures')
sys.exit(failures > 0)
