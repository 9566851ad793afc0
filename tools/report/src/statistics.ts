// What the calls of functions took within a range of time: the same sums, by the same rules, as `qvx stats` tells.

import type { Range, Report, Spans, Track } from './model';
import { nanosecondsOf } from './times';

const kSlots = 64;

/** How long something took, many times over: 64 counters for each power of two. */
export class Durations {
    count = 0;
    least = Infinity;
    most = 0;
    private readonly rows: (Uint32Array | undefined)[] = [];

    add(duration: number): void {
        ++this.count;
        if (duration < this.least) this.least = duration;
        if (duration > this.most) this.most = duration;
        const { number, slot } = slotOf(duration);
        (this.rows[number] ??= new Uint32Array(kSlots))[slot]++;
    }

    /** What so many hundredths of all do not exceed, to within a 64th. */
    percentile(hundredths: number): number {
        const wanted = Math.ceil((this.count * hundredths) / 100);
        if (wanted >= this.count) return this.most;
        let passed = 0;
        for (let number = 0; number < this.rows.length; ++number) {
            const row = this.rows[number];
            for (let slot = 0; row && slot < kSlots; ++slot) {
                passed += row[slot];
                if (passed === 0 || passed < wanted) continue;
                const first = number > 0 ? (kSlots + slot) * 2 ** (number - 1) : slot;
                const half = number > 1 ? 2 ** (number - 2) : 0;
                return Math.min(Math.max(first + half, this.least), this.most);
            }
        }
        return this.most;
    }
}

function widthOf(value: number): number {
    return value < 2 ** 31 ? 32 - Math.clz32(value) : 63 - Math.clz32(Math.floor(value / 2 ** 31));
}

function slotOf(duration: number): { number: number; slot: number } {
    const width = widthOf(duration);
    const number = width > 6 ? width - 6 : 0;
    const shifted = number > 0 ? Math.floor(duration / 2 ** (number - 1)) : duration;
    return { number, slot: shifted % kSlots };
}

/** What is known of a call when it ends, as far as it is within the range: times in nanoseconds, or in ticks of traces
 *  that do not tell their clock. */
export interface Call {
    span: number;
    duration: number;
    self: number;
    isLeft: boolean;
    /** No other call of the same function encloses it. */
    isOutermost: boolean;
}

/** Hands out all calls of a thread that are within a range, each when it ends, but for those that `opens` is told of
 *  when they begin. */
export function eachCall(
    track: Track,
    spans: Spans,
    range: Range,
    functions: number,
    ends: (call: Call) => void,
    opens?: (span: number) => void,
): void {
    const { start, end, name, depth, open } = spans;
    const { frequency } = track;
    const stack: number[] = [];
    const inner: number[] = [];
    const within = new Uint32Array(functions);
    const call: Call = { span: 0, duration: 0, self: 0, isLeft: true, isOutermost: true };
    const close = (): void => {
        const span = stack.pop() as number;
        const below = inner.pop() as number;
        const isOutermost = --within[name[span]] === 0;
        const from = start[span];
        const to = end[span];
        if (from >= range.to || (from < range.from && to <= range.from)) return;
        const ticks = Math.max(0, Math.min(to, range.to) - Math.max(from, range.from));
        const duration = nanosecondsOf(ticks, frequency);
        call.span = span;
        call.duration = duration;
        call.self = duration - Math.min(below, duration);
        call.isLeft = open[span] === 0;
        call.isOutermost = isOutermost;
        ends(call);
        if (inner.length > 0) inner[inner.length - 1] += duration;
    };
    for (let span = 0; span < start.length; ++span) {
        while (stack.length > depth[span]) close();
        stack.push(span);
        inner.push(0);
        ++within[name[span]];
        opens?.(span);
    }
    while (stack.length > 0) close();
}

/** What is told of a function. */
export interface FunctionRow {
    name: number;
    calls: number;
    unfinished: number;
    total: number;
    self: number;
    /** Of the calls that were left; null where there is none. */
    min: number | null;
    p50: number | null;
    p99: number | null;
    max: number | null;
}

export interface FunctionTable {
    rows: FunctionRow[];
    hasClock: boolean;
    /** Time in functions. */
    whole: number;
}

/** The calls of functions are in these tracks, or in that one alone. */
export function callTracks(report: Report, track: number | null): { track: Track; spans: Spans; index: number }[] {
    return report.tracks.flatMap((its, index) =>
        its.sort === 'function' && its.spans && (track === null || track === index)
            ? [{ track: its, spans: its.spans, index }]
            : [],
    );
}

export function functionTable(report: Report, range: Range, track: number | null): FunctionTable {
    const count = report.names.function.length;
    const rows: (FunctionRow | undefined)[] = new Array(count);
    const durations: (Durations | undefined)[] = new Array(count);
    let hasClock = true;
    let whole = 0;
    for (const { track: its, spans } of callTracks(report, track)) {
        if (its.frequency === 0) hasClock = false;
        eachCall(its, spans, range, count, ({ span, duration, self, isLeft, isOutermost }) => {
            const name = spans.name[span];
            const row = (rows[name] ??= {
                name,
                calls: 0,
                unfinished: 0,
                total: 0,
                self: 0,
                min: null,
                p50: null,
                p99: null,
                max: null,
            });
            ++row.calls;
            if (isLeft) (durations[name] ??= new Durations()).add(duration);
            else ++row.unfinished;
            if (isOutermost) row.total += duration;
            row.self += self;
            whole += self;
        });
    }
    const told = rows.filter((row): row is FunctionRow => row !== undefined);
    for (const row of told) {
        const its = durations[row.name];
        if (!its) continue;
        row.min = its.least;
        row.p50 = its.percentile(50);
        row.p99 = its.percentile(99);
        row.max = its.most;
    }
    return { rows: told, hasClock, whole };
}

/** A call to go to. */
export interface Place {
    track: number;
    span: number;
    start: number;
    end: number;
    duration: number;
}

/** How the calls of a function that were left are spread: counters by duration, eight for each power of two. */
export interface Histogram {
    /** Where counters begin, in the unit of durations, and how many calls each has; those without any are left out. */
    bins: { from: number; to: number; count: number }[];
    count: number;
    slowest: Place[];
    hasClock: boolean;
}

const kSlowest = 20;
const kBins = 8;

export function histogramOf(report: Report, range: Range, track: number | null, name: number): Histogram {
    const counts = new Map<number, number>();
    let slowest: Place[] = [];
    let count = 0;
    let hasClock = true;
    for (const { track: its, spans, index } of callTracks(report, track)) {
        if (its.frequency === 0) hasClock = false;
        eachCall(its, spans, range, report.names.function.length, ({ span, duration, isLeft }) => {
            if (spans.name[span] !== name || !isLeft) return;
            ++count;
            const bin = binOf(duration);
            counts.set(bin, (counts.get(bin) ?? 0) + 1);
            if (slowest.length === kSlowest && duration <= slowest[kSlowest - 1].duration) return;
            slowest.push({ track: index, span, start: spans.start[span], end: spans.end[span], duration });
            slowest.sort((a, b) => b.duration - a.duration || a.start - b.start);
            slowest = slowest.slice(0, kSlowest);
        });
    }
    const bins = [...counts]
        .sort((a, b) => a[0] - b[0])
        .map(([bin, its]) => ({ from: beginOf(bin), to: beginOf(bin + 1), count: its }));
    return { bins, count, slowest, hasClock };
}

/** The number of the counter for a duration: below 8 each has one. */
export function binOf(duration: number): number {
    if (duration < kBins) return Math.floor(duration);
    const power = widthOf(duration) - 4;
    return kBins * (power + 1) + (Math.floor(duration / 2 ** power) - kBins);
}

/** The least duration that a counter is for. */
export function beginOf(bin: number): number {
    if (bin < kBins) return bin;
    const power = Math.floor(bin / kBins) - 1;
    return (kBins + (bin % kBins)) * 2 ** power;
}
