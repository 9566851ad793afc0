"""Asks what qvx view serves, as its page and as others would, and compares the answers with what qvx stats tells.

    view.py QVX WORDCOUNT
"""
import json, os, random, re, shutil, socket, struct, subprocess, sys, tempfile

qvx, wordcount = (os.path.abspath(path) for path in sys.argv[1:3])
failures = 0


def check(is_right, what):
    global failures
    if not is_right:
        failures += 1
        print('FAILED:', what)


def qvx_says(*words):
    return subprocess.run([qvx, *words], check=True, capture_output=True, text=True).stdout


class Server:
    def __init__(self, *words, **more):
        self.process = subprocess.Popen([qvx, 'view', '--no-browser', *words], stdout=subprocess.PIPE, text=True, **more)
        found = re.fullmatch(r'http://127\.0\.0\.1:(\d+)/#t=([0-9a-f]{32})\n', self.process.stdout.readline())
        assert found, 'no address'
        self.port, self.token = int(found[1]), found[2]
        self.host = f'127.0.0.1:{self.port}'

    def send(self, method, path, headers, version='1.1', body=b''):
        connection = socket.create_connection(('127.0.0.1', self.port))
        lines = [f'{method} {path} HTTP/{version}', *(f'{name}: {value}' for name, value in headers)]
        connection.sendall(('\r\n'.join(lines) + '\r\n\r\n').encode() + body)
        return connection

    def ask(self, *request, **more):
        """Status, headers and body of an answer; the status is 0 where there is none."""
        with self.send(*request, **more) as connection:
            try:
                answer = b''.join(iter(lambda: connection.recv(65536), b''))
            except ConnectionError:
                answer = b''
        head, _, body = answer.partition(b'\r\n\r\n')
        return (int(head.split()[1]) if head else 0), head.decode('latin1').lower(), body

    def own(self, question, version='1.1'):
        """An answer to what the page asks."""
        headers = [('Host', self.host), ('X-Token', self.token), ('Connection', 'close')]
        status, _, body = self.ask('GET', '/api/' + question, headers, version=version)
        return status, body

    def lines(self, question):
        status, body = self.own(question)
        assert status == 200, f'{status}: {question}'
        return [json.loads(line) for line in body.splitlines()]

    def end(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


def refusals(server):
    host, token = ('Host', server.host), ('X-Token', server.token)
    good = [host, token]
    # Method, path, headers, and the status that is expected.
    for method, path, headers, expected in [
        ('GET', '/', [host], 200),
        ('HEAD', '/', [host], 200),
        ('GET', '/', [('Host', f'localhost:{server.port}')], 200),
        ('GET', '/api/lines', good, 200),
        ('GET', '/api/lines', [('hOST', server.host), ('x-tOKEN', server.token)], 200),
        ('GET', '/api/lines', [*good, ('Origin', 'http://' + server.host), ('Sec-Fetch-Site', 'same-origin')], 200),
        # Who does not show the token, or not once.
        ('GET', '/api/lines', [host], 403),
        ('GET', '/api/lines', [host, ('X-Token', '0' * 32)], 403),
        ('GET', '/api/lines', [host, ('X-Token', '')], 403),
        ('GET', '/api/lines', [host, ('X-Token', server.token[:-1])], 403),
        ('GET', '/api/lines', [host, ('X-Token', server.token * 2)], 403),
        ('GET', '/api/lines', [host, token, token], 403),
        ('GET', '/api/lines?t=' + server.token, [host, ('Cookie', 't=' + server.token)], 403),
        ('GET', '/api/open', [host], 403),
        # Who calls this machine otherwise, as a name does that has been made to lead here.
        ('GET', '/', [('Host', 'evil.example')], 421),
        ('GET', '/', [('Host', f'evil.example:{server.port}')], 421),
        ('GET', '/', [('Host', '127.0.0.1')], 421),
        ('GET', '/', [host, ('Host', 'evil.example')], 421),
        ('GET', '/', [host, host], 421),
        ('GET', '/', [], 421),
        ('GET', '/api/lines', [('Host', 'evil.example'), token], 421),
        # Pages of other origins, and links in them.
        ('GET', '/', [host, ('Origin', 'null')], 403),
        ('GET', '/api/lines', [*good, ('Origin', 'null')], 403),
        ('GET', '/api/lines', [*good, ('Origin', 'http://evil.example')], 403),
        ('GET', '/api/lines', [*good, ('Origin', 'http://127.0.0.1:1')], 403),
        ('GET', '/api/lines', [*good, ('Origin', 'https://' + server.host)], 403),
        ('GET', '/api/lines', [*good, ('Sec-Fetch-Site', 'cross-site')], 403),
        ('GET', '/', [host, ('Sec-Fetch-Site', 'same-site')], 403),
        *((method, '/api/lines', good, 405) for method in ('POST', 'PUT', 'DELETE', 'OPTIONS', 'X')),
    ]:
        status, head, body = server.ask(method, path, [*headers, ('Connection', 'close')])
        check(status == expected, f'{status}, not {expected}: {method} {path} {headers}')
        check('access-control-' not in head, f'another origin may read {path}')
        check(all(its in head for its in ("frame-ancestors 'none'", 'nosniff', 'no-store', 'cross-origin-resource-policy: same-origin')), f'headers of {path}: {head}')
        check(expected == 200 or len(body) < 100, f'an answer to {method} {path} {headers}')
    # There are no files, and questions that cannot be understood have no answer.
    for path in ('/index.html', '/api', '/api/', '/api/x', '//', '/..', '/../../etc/passwd', '/%2e%2e/%2e%2e/etc/passwd', '/api/../lines',
                 '/api/%2e%2e%2fetc%2fpasswd', '/api/lines/', '/..\\..\\x', '/api/table?from=x&to=9', '/api/tile?from=0&to=9&tracks=0',
                 '/api/tile?from=0&to=9&cell=1&tracks=99', '/api/tile?from=0&to=9&cell=1&tracks=-1',
                 '/api/table?from=0&to=9&track=99', '/api/item?track=0', '/api/item?track=0&index=', '/api/histogram?from=0&to=9',
                 '/api/item?track=99999999999999999999&index=0', '/api/marks?from=0&to=9'):
        status = server.ask('GET', path, [*good, ('Connection', 'close')])[0]
        check(status == 404, f'{status}, not 404: {path}')
    # What is too long or never ends is not kept.
    check(server.ask('GET', '/' + 'a' * 100000, good)[0] in (0, 400, 414, 431), 'a path of 100 kB')
    check(server.ask('GET', '/', [host, ('A', 'a' * 100000)])[0] in (0, 400, 413, 431), 'a header of 100 kB')
    body = b'10000\r\n' + b'a' * 65536 + b'\r\n'
    with server.send('POST', '/api/lines', [*good, ('Transfer-Encoding', 'chunked')], body=body) as connection:
        check(b' 405 ' in connection.recv(100), 'a body is waited for')
    if os.path.exists('/proc/net/tcp'):
        listening = [line.split()[1] for line in open('/proc/net/tcp') if line.split()[3] == '0A']
        check([its for its in listening if its.endswith(f':{server.port:04X}')] == [f'0100007F:{server.port:04X}'], 'listens elsewhere')


def numbers_of(column):
    value = shift = 0
    for byte in column:
        value |= (byte & 127) << shift
        shift += 7
        if byte < 128:
            yield value
            value = shift = 0


def signed(value):
    return value // 2 if value % 2 == 0 else -(value + 1) // 2


def tile_of(server, words):
    """What a tile has of spans: by track (row, start, end, name, place)."""
    status, body = server.own('tile?' + words)
    assert status == 200
    at = 4 + struct.unpack('<I', body[:4])[0]
    spans = {}
    for line in (json.loads(line) for line in body[4:at].splitlines()):
        columns = []
        for size in line['columns']:
            columns.append(list(numbers_of(body[at:at + size])))
            at += size
        counts, starts, lengths, names, places, _ = columns
        its, i, place = [], 0, 0
        for row, count in enumerate(counts):
            last = int(re.search('from=(-?\\d+)', words)[1])
            for i in range(i, i + count):
                start = last + signed(starts[i])
                last = start + lengths[i]
                place += places[i]
                its.append((row, start, last, names[i], place))
            i += count > 0
        spans[line['track']] = its
    assert at == len(body)
    return spans


def answers(server, traces):
    lines = server.lines('lines')
    report = next(line for line in lines if line['record'] == 'report')
    names = [line['name'] for line in lines if line['record'] == 'name' and line['table'] == 'function']
    tracks = [line for line in lines if line['record'] == 'track']
    base, whole = int(report['base']), int(report['to']) - int(report['from'])
    rng = random.Random(5)
    for _ in range(12):
        begin = int(report['from']) + rng.randrange(whole)
        length = max(1, int(whole * rng.random() ** 3))
        words = f'from={begin}&to={begin + length}'
        table = server.lines('table?' + words)[0]
        rows = {names[name]: values for name, *values in zip(*(table[key] for key in ('name', 'calls', 'total', 'self', 'min', 'p50', 'p99', 'max')))}
        expected = {}
        for line in qvx_says('stats', traces, '--format', 'json', '--from', str(base + begin), '--to', str(base + begin + length)).splitlines():
            row = json.loads(line)
            expected[row['function']] = [row[key] or 0 for key in ('calls', 'total_ns', 'self_ns', 'min_ns', 'p50_ns', 'p99_ns', 'max_ns')]
        check(rows == expected, f'{words}: {rows}, not {expected}')
        for name, values in zip(table['name'], rows.values()):
            its = server.lines(f'histogram?{words}&name={name}')[0]
            check(sum(its['counts']) == its['count'] <= values[0], f'durations of {names[name]}')
    # A tile without cells has all; one with cells the longest of each, and all that are longer than these.
    everything = ','.join(str(i) for i in range(len(tracks)))
    window = f'from={report["from"]}&to={report["to"] + 1}&tracks={everything}'
    full = tile_of(server, window + '&cell=1')
    for i, track in enumerate(tracks):
        check(sorted(place for *_, place in full[i]) == list(range(track['count'])), f'all of track {i}')
        for row, start, end, name, place in full[i][:: max(1, len(full[i]) // 20)]:
            item = server.lines(f'item?track={i}&index={place}')[0]
            check((item['start'], item['end'], item['name'], item['depth']) == (start, end, name, row), f'{item} at {i}, {place}')
            if row > 0:
                above = [its for its in full[i] if its[0] == row - 1 and its[1] <= start and end <= its[2]]
                check(item['parent'] in [its[3] for its in above], f'what {item} is within')
    for cell in (1000, whole // 1000, whole // 7):
        for i, its in tile_of(server, f'{window}&cell={cell}').items():
            check(set(its) <= set(full[i]), f'track {i} with cells of {cell}')
            kept = {span[4] for span in its}
            check(all(span[4] in kept for span in full[i] if span[2] - span[1] >= cell), f'the long ones of track {i}, {cell}')
            cells = [(span[0], (span[1] - report['from']) // cell) for span in its if span[2] - span[1] < cell]
            check(len(cells) == len(set(cells)), f'two short ones in a cell of {cell}')
            # A block that is shorter than a cell shows in one of the two that it may touch.
            missing = {(span[0], (span[1] - report['from']) // cell) for span in full[i]} - {(span[0], (span[1] - report['from']) // cell) for span in its}
            check(len(missing) <= len(full[i]) / 512 + tracks[i]['rows'], f'{len(missing)} cells of {cell} are empty')
    # All that is searched for is found once, there and back.
    starts = sorted((start, i, place) for i in full for _, start, _, name, place in full[i] if names[name] == 'countFile')
    found, at = [], (report['from'] - 1, -1, 0)
    for back in (0, 1):
        while len(found) <= 2 * len(starts):
            hit = server.lines(f'next?from={at[0]}&track={at[1]}&index={at[2]}&pattern=*ountFi?e&back={back}')[0]
            if not hit:
                break
            at = (server.lines('item?track={track}&index={index}'.format(**hit))[0]['start'], hit['track'], hit['index'])
            found.append(at)
    check(found == starts + starts[-2::-1], 'what is searched for')


def main():
    os.mkdir('source')
    for i in range(5):
        with open(f'source/{i}.md', 'w') as file:
            file.writelines(f'the word {n}\n' for n in range(700 * (i + 1)))
    os.mkdir('recorded')
    subprocess.run([wordcount, 'source', '3'], check=True, stdout=subprocess.DEVNULL, env={**os.environ, 'QVX_TRACEDIR': 'recorded'})
    result = subprocess.run([qvx, 'view', '-'], capture_output=True, text=True)
    check(result.returncode == 2 and 'standard input' in result.stderr, 'standard input')
    check(subprocess.run([qvx, 'view', 'nothing'], capture_output=True).returncode == 1, 'nothing')

    # One that ends with its page; meanwhile, the others.
    ending = Server('recorded')
    page = ending.send('GET', '/api/open', [('Host', ending.host), ('X-Token', ending.token)])
    check(b' 200 ' in page.recv(1000), 'a page is open')
    page.close()

    server = Server('--stay', 'recorded')
    index = next(os.path.join('recorded', name) for name in os.listdir('recorded') if name.endswith('.view'))
    refusals(server)
    answers(server, 'recorded')
    lines = server.lines('lines')
    server.end()

    # The index is made once, and again when the traces have changed.
    made = os.stat(index).st_ino
    Server('recorded').end()
    check(os.stat(index).st_ino == made, 'the index is made twice')
    trace = index[:-len('.view')]
    os.utime(trace, (1, 1))
    Server('recorded').end()
    check(os.stat(index).st_ino != made, 'the index of another trace')
    if os.path.exists('/proc/self/fd'):  # a directory that nobody can write
        with open(trace) as file:
            Server(f'/proc/self/fd/{file.fileno()}', pass_fds=[file.fileno()], env={**os.environ, 'XDG_CACHE_HOME': os.path.abspath('cache')}).end()
        check(len(os.listdir('cache/qvx')) == 1, 'an index in the cache')

    # What is not an index is left alone, and what nobody else may read stays so.
    whole = open(index, 'rb').read()
    with open(index, 'w') as file:
        file.write('mine')
    os.chmod(trace, 0o600)
    Server('recorded', env={**os.environ, 'XDG_CACHE_HOME': os.path.abspath('other')}).end()
    check(open(index).read() == 'mine', 'the file of somebody else')
    check(os.stat(os.path.join('other/qvx', os.listdir('other/qvx')[0])).st_mode & 0o777 == 0o600, 'an index that others can read')

    # One that is damaged where it tells what stands where is made again.
    rng = random.Random(7)
    for _ in range(3):
        damaged = bytearray(whole)
        damaged[rng.choice((rng.randrange(8, 88), rng.randrange(struct.unpack_from('<Q', whole, 16)[0], len(whole))))] ^= 1 << rng.randrange(8)
        open(index, 'wb').write(damaged)
        server = Server('recorded')
        check(server.lines('lines') == lines, 'the lines of a damaged index')
        server.end()
        check(open(index, 'rb').read() != damaged, 'a damaged index is kept')

    check(ending.process.wait(timeout=30) == 0, 'the end of the page')
    ending.process.stdout.close()


work = tempfile.mkdtemp()
try:
    os.chdir(work)
    main()
finally:
    os.chdir('/')
    shutil.rmtree(work)
print('qvx view:', f'{failures} failures' if failures else 'ok')
sys.exit(failures > 0)
