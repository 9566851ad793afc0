#!/usr/bin/env python3
"""Compares docs/format.md, the reader made from it, and qvx: they must say the same.

    check.py QVX SOURCE_DIR SAMPLES      SAMPLES is a trace with packets of every kind
"""
import difflib
import os
import pathlib
import re
import subprocess
import sys
import tempfile

import reader

QVX, SOURCE, SAMPLES = sys.argv[1], pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3])
PAGE = (SOURCE / 'docs/format.md').read_text(encoding='utf-8')
failures = 0


def expect(what, expected, got):
    global failures
    if expected == got:
        return
    failures += 1
    print(f'FAILED: {what}')
    if isinstance(expected, list):
        print(*difflib.unified_diff(list(map(str, expected)), list(map(str, got)), 'expected', 'got', n=1, lineterm=''), sep='\n')
    else:
        print(f'expected {expected}, got {got}')


def qvx(*arguments):
    done = subprocess.run([QVX, *arguments], capture_output=True)
    return done.stdout.decode('utf-8').replace('\r', ''), done.stderr.decode('utf-8'), done.returncode


KINDS = reader.Kinds(qvx('kinds', '--format', 'json')[0])


def rows(file):
    """The rows of a parsable table, as lists of cells: the offset as the reader writes it first, without Fill."""
    result = []
    for line in qvx('dump', '--parsable', file)[0].split('\n'):
        if line.startswith('\t'):
            cells = [cell.rstrip(' ') for cell in line[1:].split('\t')]
            if cells[1] != 'Fill':
                result.append(' '.join(['%04x' % int(cells[0], 16)] + cells[1:]).rstrip(' '))
    return result


def check_trace(name, data):
    """The reader against qvx, on one trace."""
    pathlib.Path('trace').write_bytes(data)
    read = list(reader.read(KINDS, data))
    packets = [packet for packet in read if not isinstance(packet, tuple) and packet.code != reader.FILL]
    expect(f'{name}: rows', [re.sub('^([^ ]*) [^ ]*', r'\1', line) for line in reader.listing(packets)], rows('trace'))

    lost = [packet for packet in read if isinstance(packet, tuple)]
    _, errors, code = qvx('dump', 'trace')
    places = [packet for packet in lost if packet[1] == 'lost']
    expect(f'{name}: what is lost',
           ([at for at, *_ in places[:1]], sum(size for *_, size in places), 3 if lost else 0),
           ([int(at) for at in re.findall(r'offset (\d+): .*stepped over', errors)],
            sum(map(int, re.findall(r'(\d+) bytes? stepped over', errors))), code))

    # What is written again has references and frame lengths of its own, and ends names that broke off.
    def written(cells):
        return [row for row in cells if not re.match('(Bus|System)?Sync |TraceEnabled |CharString 0', row)]

    qvx('convert', '--absolute', '-f', 'trace', '-o', 'absolute')
    expect(f'{name}: contexts', written(' '.join(packet.absolute).rstrip(' ') for packet in packets),
           written(row.split(' ', 1)[1] for row in rows('absolute')))
    pathlib.Path('table').write_text(qvx('dump', '--parsable', 'trace')[0], encoding='utf-8', newline='\n')
    qvx('convert', '-f', 'table', '-o', 'back')
    expect(f'{name}: back from the table', *(written(row.split(' ', 1)[1] for row in rows(file)) for file in ('trace', 'back')))


def vector(text):
    """The bytes of a vector, and what a reader says of them: lines of bytes in hexadecimal, 00*5 for 5 of them, with 3x in
    front for three of that line; behind > what is expected; behind # what it is about."""
    data, expected = b'', []
    for line in text.split('\n'):
        if line.startswith('> '):
            expected.append(re.sub(r'(\w)\*(\d+)$', lambda run: run[1] * int(run[2]), line[2:]))
            continue
        words = line.split('#')[0].split()
        times = int(words.pop(0)[:-1]) if words and words[0].endswith('x') else 1
        for word in words * times:
            digits, _, count = word.partition('*')
            data += bytes.fromhex(digits) * int(count or 1)
    return data, expected


def check_vectors():
    for path in sorted((SOURCE / 'tests/data/vectors').glob('*.hex')):
        data, expected = vector(path.read_text(encoding='utf-8'))
        expect(path.name, expected, list(reader.listing(reader.read(KINDS, data))))
        check_trace(path.name, data)


def check_samples():
    data = SAMPLES.read_bytes()
    expect('samples: kinds', list(KINDS.by_code), sorted({packet.code for packet in reader.read(KINDS, data)
                                                              if not isinstance(packet, tuple)}))
    check_trace('samples', data)


def table(head):
    """The rows of the page's table whose head begins so, as lists of cells."""
    lines = PAGE[PAGE.index(f'| {head} |'):].split('\n\n')[0].split('\n')[2:]
    return [[cell.strip() for cell in line.split('|')[1:-1]] for line in lines]


def layout_of(field):
    """A field of kinds.json in the words of the table of kinds."""
    def span(value):
        return '-'.join(map(str, value)) if type(value) is list else str(value)
    count = field.get('count', 1)
    times = '' if count == 1 else '{%s}' % span(count) if count == [0, 1] else ':' + span(count)
    return f"{field['name']}:{span(field['size'])}{times}"


def check_page():
    kinds = KINDS.by_code.values()
    rows_of_kinds = re.findall(r'^QUORVEX_(?:ABSOLUTE_)?TCODE\((0x..), (\w+), "(.*?)", "(.*?)", \w+, (\w+)\)$',
                               (SOURCE / 'quorvex/format/TCodes.def').read_text(encoding='ascii'), re.M)
    expect('the table of kinds', [(int(code, 16), name, what, layout, text != 'None')
                                  for code, name, what, layout, text in rows_of_kinds],
           [(kind['code'], kind['name'], kind['description'], '|'.join(map(layout_of, kind['fields'])), kind['text'])
            for kind in kinds])
    types = {(field['name'], field['type']) for kind in kinds for field in kind['fields']}
    expect('docs/format.md: fields', sorted(f'{name} {kind}' for name, kind in types | {('SrcFuncId', 'id')}),
           sorted(f'{name} {kind}' for names, several, *_ in table('field | type')
                  for name, kind in zip(names.split(', '), several.split(', ') * 9)))

    # The lengths that the page tells: those of the fields, and where its table has others, these.
    names, lengths, _ = zip(*table('kind | payload length'))
    codes = [[int(code, 16) for code in part.split(' to ')] for part in names[-1].split(', ')]
    expect('docs/format.md: kinds that may be longer', [kind['code'] for kind in kinds if kind['longer']],
           [code for part in codes for code in range(part[0], part[-1] + 1)])
    told = {}
    for its_names, its_lengths in zip(names[:-1], lengths):
        numbers = [int(number) for number in re.findall(r'\d+', its_lengths)]
        step = 2 if 'even' in its_lengths else numbers.pop() if 'by' in its_lengths else 1
        every = range(numbers[0], numbers[1] + 1, step) if ' to ' in its_lengths else numbers
        told.update(dict.fromkeys(its_names.split(', '), set(every)))
    for kind in kinds:
        less = {'relative core': 22, 'relative bus': 15, 'relative system': 15}.get(kind['context'], 0)
        every = {0}
        for field in kind['fields']:
            (least, most), (few, many) = (of if type(of) is list else (of, of)
                                          for of in (field['size'], field.get('count', 1)))
            step = 1 if least < most else most
            every = {size + more for size in every for more in range(least * few, most * many + 1, step)}
        name = kind['name'][3:] if less else kind['name']
        every = {length - less for length in told[name]} if name in told else every
        expect(f"docs/format.md: lengths of {kind['name']}", str(sorted(every)),
               str([length for first, last, step in kind['lengths'] for length in range(first, last + 1, step)]))


def check_example():
    """The bytes of the page's example against its comments."""
    example = PAGE.split('<!-- example -->')[1].split('<!-- end -->')[0]
    lines = re.findall(r'^([0-9a-f]{4})  ((?:[0-9a-f]{2} )+) *(.*)$', example, re.M)
    data, expected = b'', []
    for offset, digits, comment in lines:
        expect(f'docs/format.md: offset of "{comment}"', int(offset, 16), len(data))
        data += bytes.fromhex(digits)
        if kind := re.match(r'([A-Z]\w+), (?:(\d+) bytes|empty)', comment):
            expected.append([offset, '-', kind[1], kind[2] or '0'])
        elif tick := re.match(r't(?:ick|ime) (\d+)', comment):
            expected[-1][1] = tick[1]
        elif length := re.match(r'frame length (\d+)', comment):
            frame = int(length[1])
    read = list(reader.read(KINDS, data))
    expect('docs/format.md: the example', [' '.join(line) for line in expected],
           [' '.join(line.replace(' + ', ' - ').split(' ')[:4]) for line in reader.listing(read)])
    expect('docs/format.md: frame length', frame, next(p.at + 2 for p in read if p.name == 'TraceDisabled') - read[0].at)
    check_trace('docs/format.md: the example', data)
    ticks = [int(line[1]) for line in expected if line[1] != '-']
    expect('docs/format.md: qvx info', [f'{min(ticks)} to {max(ticks)}'], re.findall('Ticks: *(.*)', qvx('info', 'trace')[0]))


with tempfile.TemporaryDirectory() as work:
    os.chdir(work)
    check_page()
    check_example()
    check_vectors()
    check_samples()
    os.chdir(SOURCE)
if not failures:
    print('format: ok')
sys.exit(failures > 0)
