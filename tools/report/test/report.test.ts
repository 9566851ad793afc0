import assert from 'node:assert/strict';
import { describe, it } from 'node:test';
import { deflateSync } from 'node:zlib';
import { flameOf } from '../src/flame';
import { bytesOf, inflate, readReport } from '../src/format';
import { behindLast, firstFrom, longestOf, parentOf, type Report, type Track } from '../src/model';
import { matches, patternOf, quoted, shown } from '../src/names';
import { Colors, Drawing, fitting, hitAt, kLight, kRow, layOut, paint, Pixels, type Look } from '../src/paint';
import { beginOf, binOf, Durations, functionTable, histogramOf } from '../src/statistics';
import { durationText, momentText, nanosecondsOf, stepOf, tickText, ticksOf } from '../src/times';
import { calls, Column, contents, randomSpans, type Span } from './writer';

const kNames: [string, string][] = ['main', 'parse', 'read', 'idle'].map((name) => ['function', name]);
//  main 0-100 calls parse 10-40, which calls parse 20-30; read 50-90 whose end is not told; idle at 90, for no time.
const kSpans: Span[] = [
    [0, 100, 0, 0],
    [10, 40, 1, 1],
    [20, 30, 1, 2],
    [50, 90, 2, 1, true],
    [90, 90, 3, 1],
];
function reportOf(spans: Span[], head: Record<string, unknown> = {}): Report {
    const { head: lines, data } = contents(kNames, [calls('thread 1', spans)], head);
    return readReport(lines, data);
}
function all(report: Report): { from: number; to: number } {
    return { from: report.from, to: report.to + 1 };
}

describe('format', () => {
    it('reads spans as they were written', () => {
        const { spans } = reportOf(kSpans).tracks[0];
        assert.ok(spans);
        const read = kSpans.map((_, i) => [spans.start[i], spans.end[i], spans.name[i], spans.depth[i], spans.open[i] === 1]);
        assert.deepEqual(read, kSpans.map(([a, b, c, d, e]) => [a, b, c, d, e === true]));
        assert.deepEqual([...spans.rows], [0, 1, 4, 5]);
        assert.deepEqual([0, 1, 2, 3].map((span) => parentOf(spans, span)), [-1, 0, 1, 0]);
    });
    it('reads marks and curves', () => {
        const at = new Column().signed(-5).signed(9).data;
        const { head, data } = contents(
            [['mark', 'Event'], ['text', 'one']],
            [
                {
                    line: { form: 'marks', sort: 'mark', table: 'mark', title: 'marks', count: 2 },
                    columns: [at, new Column().unsigned(0).unsigned(0).data, new Column().unsigned(0).unsigned(1).data],
                },
                {
                    line: { form: 'numbers', sort: 'counter', table: 'counter', title: 'n', count: 2 },
                    columns: [at, new Column().signed(7).signed(-9).data],
                },
                {
                    line: { form: 'reals', sort: 'counter', table: 'counter', title: 'r', count: 2 },
                    columns: [at, new Column().real(0.5).real(-1e300).data],
                },
            ],
        );
        const report = readReport(head, data);
        assert.deepEqual([...(report.tracks[0].marks?.at ?? [])], [-5, 4]);
        assert.equal(report.names.text[report.tracks[0].marks?.text[1] ?? 0].text, 'one');
        assert.deepEqual([...(report.tracks[1].curve?.value ?? [])], [7, -2]);
        assert.deepEqual([...(report.tracks[2].curve?.value ?? [])], [0.5, -1e300]);
        assert.deepEqual([report.from, report.to], [-5, 4]);
    });
    it('holds numbers of 53 bits', () => {
        for (const value of [0, 127, 128, 2 ** 31, 2 ** 52 - 1]) {
            const { spans } = reportOf([[value, 2 * value, 0, 0]]).tracks[0];
            assert.deepEqual([spans?.start[0], spans?.end[0]], [value, 2 * value]);
        }
    });
    it('says what is wrong with a page', async () => {
        const { head, data } = contents(kNames, [calls('t', kSpans)]);
        assert.throws(() => readReport(head, data.subarray(0, data.length - 1)), /cut/);
        assert.throws(() => readReport(head, Buffer.concat([data, data])), /cut/);
        assert.throws(() => readReport(head.replace('"format":1', '"format":2'), data), /another version/);
        const block = deflateSync(data);
        assert.deepEqual(Buffer.from(await inflate(block, data.length)), data);
        await assert.rejects(inflate(block, data.length + 1), /shorter/);
        await assert.rejects(inflate(block, data.length - 1), /longer/);
        await assert.rejects(inflate(block.subarray(0, block.length - 5), data.length));
    });
    it('reads base 64', () => assert.deepEqual([...bytesOf('AP+A')], [0, 255, 128]));
});

describe('statistics', () => {
    const rowsOf = (report: Report, from: number, to: number): unknown[] =>
        functionTable(report, { from, to }, null)
            .rows.sort((a, b) => a.name - b.name)
            .map((row) => [row.name, row.calls, row.unfinished, row.total, row.self, row.min, row.max]);

    it('counts all calls', () => {
        assert.deepEqual(rowsOf(reportOf(kSpans), 0, 101), [
            [0, 1, 0, 100, 30, 100, 100],
            [1, 2, 0, 30, 30, 10, 30],
            [2, 1, 1, 40, 40, null, null],
            [3, 1, 0, 0, 0, 0, 0],
        ]);
    });
    it('counts what is within a range', () => {
        assert.deepEqual(rowsOf(reportOf(kSpans), 25, 60), [
            [0, 1, 0, 35, 10, 35, 35],
            [1, 2, 0, 15, 15, 5, 15],
            [2, 1, 1, 10, 10, null, null],
        ]);
        assert.deepEqual(rowsOf(reportOf(kSpans), 30, 31), [
            [0, 1, 0, 1, 0, 1, 1],
            [1, 1, 0, 1, 1, 1, 1],
        ]);
        assert.deepEqual(rowsOf(reportOf(kSpans), 200, 300), []);
    });
    it('rounds each time down', () => {
        // 100 ticks of a third of a nanosecond.
        assert.deepEqual(rowsOf(reportOf(kSpans, { frequency: 3e9 }), 0, 101), [
            [0, 1, 0, 33, 10, 33, 33],
            [1, 2, 0, 10, 10, 3, 10],
            [2, 1, 1, 13, 13, null, null],
            [3, 1, 0, 0, 0, 0, 0],
        ]);
        assert.equal(functionTable(reportOf(kSpans, { frequency: 0 }), { from: 0, to: 101 }, null).hasClock, false);
    });
    it('tells percentiles to within a 64th', () => {
        const durations = new Durations();
        const values = Array.from({ length: 1000 }, (_, i) => (i * i * 7919) % 1000003);
        for (const value of values) durations.add(value);
        values.sort((a, b) => a - b);
        for (const hundredths of [1, 50, 90, 99, 100]) {
            const exact = values[Math.ceil((values.length * hundredths) / 100) - 1];
            const told = durations.percentile(hundredths);
            assert.ok(Math.abs(told - exact) <= exact / 64, `${hundredths}: ${told} for ${exact}`);
        }
        const small = new Durations();
        for (const value of [2 ** 40, 2 ** 40 + 1, 100]) small.add(value);
        assert.deepEqual([small.least, small.percentile(33), small.most], [100, 100, 2 ** 40 + 1]);
    });
    it('spreads durations over counters', () => {
        for (const value of [0, 7, 8, 15, 16, 1023, 1024, 2 ** 40 + 1]) {
            const bin = binOf(value);
            assert.ok(beginOf(bin) <= value && value < beginOf(bin + 1), `${value}`);
        }
        const report = reportOf(kSpans);
        const its = histogramOf(report, all(report), null, 1);
        assert.deepEqual(its.slowest.map(({ span, duration }) => [span, duration]), [[1, 30], [2, 10]]);
        assert.deepEqual(its.bins, [{ from: 10, to: 11, count: 1 }, { from: 30, to: 32, count: 1 }]);
    });
    it('has the same sums in the flame graph', () => {
        const report = reportOf(randomSpans(3000, 4));
        const range = { from: 5000, to: 200000 };
        const flame = flameOf(report, range, null);
        const { rows, whole } = functionTable(report, range, null);
        for (const row of rows) {
            let [self, count] = [0, 0];
            flame.spans.name.forEach((name, i) => {
                if (name !== row.name) return;
                self += flame.self[i];
                count += flame.calls[i];
            });
            assert.deepEqual([self, count], [row.self, row.calls]);
        }
        assert.equal(flame.width, whole);
        flame.spans.start.forEach((start, i) => {
            const parent = parentOf(flame.spans, i);
            assert.ok(parent < 0 || (flame.spans.start[parent] <= start && flame.spans.end[i] <= flame.spans.end[parent]));
        });
    });
});

describe('model', () => {
    it('finds places and the longest span', () => {
        const report = reportOf(randomSpans(5000, 4));
        const spans = report.tracks[0].spans;
        assert.ok(spans);
        for (let row = 0; row + 1 < spans.rows.length; ++row) {
            const lo: number = spans.rows[row];
            const hi: number = spans.rows[row + 1];
            const parts: [number, number][] = [[lo, hi], [lo, lo + 1], [lo + 3, Math.min(hi, lo + 100)]];
            for (const [i, j] of parts) {
                if (i >= j) continue;
                const lengths: number[] = [...spans.order.subarray(i, j)].map((span) => spans.end[span] - spans.start[span]);
                const its = longestOf(spans, i, j);
                assert.equal(spans.end[its] - spans.start[its], Math.max(...lengths));
            }
            const limit = spans.end[spans.order[(lo + hi) >> 1]];
            const place = behindLast(spans.end, spans.order, lo, hi, limit);
            assert.ok(place === hi || spans.end[spans.order[place]] > limit);
            assert.ok(spans.end[spans.order[place - 1]] <= limit);
        }
        assert.deepEqual([0, 1, 2, 9].map((at) => firstFrom(Float64Array.of(1, 2, 2, 8), at)), [0, 0, 1, 4]);
    });
});

describe('paint', () => {
    const lookOf = (report: Report, from: number, to: number): Look => ({
        range: { from, to },
        y: 0,
        ratio: 1,
        theme: kLight,
        wanted: () => null,
        names: (track: Track) => report.names[track.table],
        colors: new Colors(kLight.background),
        title: (track: Track) => track.title,
        ruler: null,
        isClosed: () => false,
    });
    it('paints each call where it is', () => {
        const report = reportOf(kSpans);
        const pixels = new Pixels(new Uint32Array(200 * 60), 200, 60);
        const bands = layOut(report.tracks, () => false, 0);
        paint(pixels, report.tracks, bands, lookOf(report, 0, 100));
        const isSet = (x: number, y: number): boolean => pixels.pixels[y * 200 + x] !== 0xffffffff;
        const rows = [0, 1, 2].map((row) => [5, 30, 50, 70, 95, 110, 150, 185].map((x) => isSet(x, row * kRow + 5)));
        assert.deepEqual(rows, [
            [true, true, true, true, true, true, true, true],
            [false, true, true, true, false, true, true, false],
            [false, false, true, false, false, false, false, false],
        ]);
        assert.deepEqual(pixels.texts.map(({ text }) => text), ['main', 'parse', 'read …']);
    });
    it('paints as much for a million calls as for a thousand', () => {
        const counted = [1000, 200000].map((count) => {
            const report = reportOf(randomSpans(count, 4));
            let lines = 0;
            const pixels = new Pixels(new Uint32Array(300 * 500), 300, 500);
            pixels.line = () => void ++lines;
            paint(pixels, report.tracks, layOut(report.tracks, () => false, 0), lookOf(report, report.from, report.to));
            return lines;
        });
        assert.ok(counted[1] <= 2 * 300 * 22, `${counted}`);
    });
    it('shows a call that is looked for among longer ones', () => {
        const spans: Span[] = Array.from({ length: 100 }, (_, i) => [i * 10, i * 10 + (i === 50 ? 1 : 9), i === 50 ? 2 : 1, 0]);
        const report = reportOf(spans);
        const look = { ...lookOf(report, 0, 1000), wanted: () => Uint8Array.of(0, 0, 1, 0) };
        const colors = new Set<number>();
        const pixels = new Pixels(new Uint32Array(20 * 20), 20, 20);
        pixels.line = (_from, _to, color) => void colors.add(color);
        paint(pixels, report.tracks, layOut(report.tracks, () => false, 0), look);
        assert.ok(colors.has(look.colors.of(2, false)));
    });
    it('finds what is at a place', () => {
        const report = reportOf(kSpans);
        const bands = layOut(report.tracks, () => false, 0);
        const at = (x: number, row: number): number =>
            hitAt(report.tracks, bands, { from: 0, to: 100 }, 200, x, row * kRow + 5)?.index ?? -2;
        assert.deepEqual([at(5, 0), at(30, 1), at(50, 2), at(110, 1), at(5, 1), at(5, 9)], [0, 1, 2, 3, -1, -2]);
    });
    it('writes names into SVG as text only', () => {
        const names: [string, string][] = [['function', '</text><script>alert(1)</script>&"']];
        const { head, data } = contents(names, [calls('<b>', [[0, 100, 0, 0]])]);
        const report = readReport(head, data);
        const drawing = new Drawing(2000, 60, 11);
        paint(drawing, report.tracks, layOut(report.tracks, () => false), lookOf(report, 0, 100));
        const svg = drawing.toString();
        assert.ok(!/<script|<b>/.test(svg) && svg.includes('&#60;b&#62;') && svg.includes('&#60;script'));
    });
    it('cuts texts to their room', () => {
        const width = (text: string): number => text.length;
        assert.deepEqual(['abcdef', 'abc', 'abcdefghij'].map((text) => fitting(text, 4, width)), ['abc…', 'abc', 'abc…']);
        assert.equal(fitting('abcdef', 2, width), '');
    });
});

describe('times', () => {
    it('are told as qvx tells them', () => {
        const texts: [number, string][] = [
            [0, '0 ns'], [999, '999 ns'], [1000, '1.000 us'], [1999999, '1.999 ms'], [12345678901, '12.345 s'],
        ];
        for (const [value, text] of texts) assert.equal(durationText(value), text);
        assert.equal(durationText(5, false), '5 ticks');
        assert.equal(momentText(1500, 1e6, 100), '0.0015 s');
        assert.equal(momentText(1500, 0), '1500');
        assert.equal(tickText({ base: '18446744073709551000' }, 615), '18446744073709551615');
    });
    it('are read', () => {
        const texts: [string, number | null][] = [
            ['1.5s', 1.5e9], ['20us', 20000], [' 3 ns ', 3], ['7', 7], ['-2ms', -2e6], ['', null], ['1 h', null], ['x', null],
        ];
        for (const [text, ticks] of texts) assert.equal(ticksOf(text, 1e9), ticks);
        assert.equal(ticksOf('1s', 0), null);
    });
    it('become nanoseconds without loss', () => {
        const exact = (ticks: number, frequency: number): number => Number((BigInt(ticks) * 10n ** 9n) / BigInt(frequency));
        for (const frequency of [1e9, 3e9, 24e6, 1, 2399999999, 7])
            for (const ticks of [0, 1, 12345, 2 ** 40 + 1, 2 ** 52 + 12345])
                if (exact(ticks, frequency) <= Number.MAX_SAFE_INTEGER)
                    assert.equal(nanosecondsOf(ticks, frequency), exact(ticks, frequency));
        assert.equal(nanosecondsOf(77, 0), 77);
    });
    it('have round steps', () => assert.deepEqual([stepOf(1000, 1000, 10), stepOf(33, 0, 10)], [100, 5]));
});

describe('names', () => {
    it('are matched as qvx matches them', () => {
        const cases: [string, string, boolean][] = [
            ['read*', 'readFile', true], ['read', 'readFile', false], ['*File', 'readFile', true], ['r?ad*', 'readFile', true],
            ['*a*b*c', 'xxaxxbxxc', true], ['*a*b*c', 'xxaxxbxx', false], ['', '', true], ['*', '', true], ['?', '', false],
        ];
        for (const [pattern, text, is] of cases) assert.equal(matches(pattern, text), is, `${pattern} ${text}`);
        assert.equal(patternOf('ad'), '*ad*');
        assert.equal(patternOf('a?'), 'a?');
    });
    it('are shown on one line, whatever they hold', () => {
        assert.equal(shown('a\u202eb\n\u0000c\ud800\u{1f600}'), 'a\\u{202e}b\\u{a}\\u{0}c\\u{d800}\u{1f600}');
        assert.equal(shown('x'.repeat(1e6)).length, 301);
    });
    it('are quoted for a shell', () => {
        assert.equal(quoted('a/b.qvx'), 'a/b.qvx');
        assert.equal(quoted("it's $(x)"), `'it'\\''s $(x)'`);
        assert.equal(quoted(''), "''");
    });
});
