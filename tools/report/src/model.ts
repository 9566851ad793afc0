// What a report holds once it has been read: tracks on one axis of ticks. Ticks are counted from the report's base, so
// that they are exact as numbers of 53 bits.

/** What something is called, and the number that the trace knows it by. */
export interface Name {
    text: string;
    id: number | string | null;
    /** Of a function, the file and line where it is defined. */
    place?: string;
}

/** The tables of names; what tracks hold are places in one of them. */
export type Table =
    | 'function'
    | 'process'
    | 'interrupt'
    | 'thread'
    | 'state'
    | 'signal'
    | 'mark'
    | 'text'
    | 'counter';

/** Intervals within each other, in the order in which they begin, what encloses others before these. */
export interface Spans {
    start: Float64Array;
    end: Float64Array;
    name: Uint32Array;
    depth: Uint16Array;
    /** 1 where the end is not told but concluded. */
    open: Uint8Array;
    /** All of them by depth, then in the order of time. */
    order: Uint32Array;
    /** Where each depth begins in `order`; behind the last one, its length. */
    rows: Uint32Array;
    /** Of each 16 in `order`, then of each 16 of those, and so on, the longest: an index of a span. */
    levels: Uint32Array[];
    /** Where each stands in all of the track, where only a part of that is here. */
    place?: Float64Array;
}

/** Moments, in the order of time; `text` is 0 where there is none. */
export interface Marks {
    at: Float64Array;
    name: Uint32Array;
    text: Uint32Array;
    place?: Float64Array;
}

/** A value that holds until the next one. */
export interface Curve {
    at: Float64Array;
    value: Float64Array;
    place?: Float64Array;
    /** The least and the greatest value of the track, where only a part of that is here. */
    bounds?: [number, number];
}

export interface Track {
    /** Its place in the report. */
    number: number;
    /** What it shows: `function` of a thread, `process` and `interrupt` and `thread` of a core, and so on. */
    sort: string;
    title: string;
    file: number;
    /** Number of the thread or core that it is of; null where it is of none, or that is not known. */
    place: number | null;
    /** Ticks in a second; 0 where that is not told. */
    frequency: number;
    table: Table;
    count: number;
    spans?: Spans;
    marks?: Marks;
    curve?: Curve;
    /** The part that is here, where that is not all: from one tick to another, with one thing of those that are shorter
     *  than so many ticks. */
    tile?: { from: number; to: number; cell: number };
}

/** What a trace has and a report does not show. */
export interface Unshown {
    what: string;
    count: number;
}

export interface Report {
    title: string;
    version: string;
    files: string[];
    /** The names of files and directories that they were told by. */
    given: string[];
    /** The tick that all others are counted from, in decimal. */
    base: string;
    frequency: number;
    /** Of all that is shown, from the first tick to the last. */
    from: number;
    to: number;
    names: Record<Table, Name[]>;
    tracks: Track[];
    unshown: Unshown[];
    /** Sentences about what the traces lack. */
    notes: string[];
}

/** A part of the axis: from a tick to before another. */
export interface Range {
    from: number;
    to: number;
}

const kBranch = 16;

/** The index behind the last one in [lo, hi) at which `values[order[i]] <= limit`, which rises there. */
export function behindLast(values: Float64Array, order: Uint32Array, lo: number, hi: number, limit: number): number {
    while (lo < hi) {
        const middle = (lo + hi) >>> 1;
        if (values[order[middle]] <= limit) lo = middle + 1;
        else hi = middle;
    }
    return lo;
}

/** The same for values that rise by themselves, of those below the limit. */
export function firstFrom(values: Float64Array, limit: number, lo = 0, hi = values.length): number {
    while (lo < hi) {
        const middle = (lo + hi) >>> 1;
        if (values[middle] < limit) lo = middle + 1;
        else hi = middle;
    }
    return lo;
}

/** Puts spans in rows by depth, of which there are so many at least, and finds the longest of each group. */
export function makeSpans(
    start: Float64Array,
    end: Float64Array,
    name: Uint32Array,
    depth: Uint16Array,
    open: Uint8Array,
    leastRows = 0,
): Spans {
    const count = start.length;
    let deepest = leastRows - 1;
    for (let i = 0; i < count; ++i) if (depth[i] > deepest) deepest = depth[i];
    const rows = new Uint32Array(deepest + 2);
    for (let i = 0; i < count; ++i) ++rows[depth[i] + 1];
    for (let row = 1; row < rows.length; ++row) rows[row] += rows[row - 1];
    const next = rows.slice();
    const order = new Uint32Array(count);
    for (let i = 0; i < count; ++i) order[next[depth[i]]++] = i;
    const levels: Uint32Array[] = [];
    for (let below = order; below.length > kBranch; ) {
        const level = new Uint32Array(Math.ceil(below.length / kBranch));
        for (let i = 0; i < level.length; ++i) {
            const last = Math.min(below.length, (i + 1) * kBranch);
            let longest = below[i * kBranch];
            for (let j = i * kBranch + 1; j < last; ++j)
                if (end[below[j]] - start[below[j]] > end[longest] - start[longest]) longest = below[j];
            level[i] = longest;
        }
        levels.push(level);
        below = level;
    }
    return { start, end, name, depth, open, order, rows, levels };
}

/** The longest span of those from place i to before place j of `order`, of which there is one at least. */
export function longestOf(spans: Spans, i: number, j: number): number {
    const { start, end } = spans;
    let longest = spans.order[i];
    const look = (span: number): void => {
        if (end[span] - start[span] > end[longest] - start[longest]) longest = span;
    };
    let level: Uint32Array = spans.order;
    for (let next = 0; ; ++next) {
        const above = spans.levels[next];
        if (!above || j - i < 2 * kBranch) {
            for (; i < j; ++i) look(level[i]);
            return longest;
        }
        while (i % kBranch !== 0) look(level[i++]);
        while (j % kBranch !== 0) look(level[--j]);
        i /= kBranch;
        j /= kBranch;
        level = above;
    }
}

/** The innermost of the spans that enclose this one; -1 where there is none. */
export function parentOf(spans: Spans, span: number): number {
    for (let i = span - 1; i >= 0; --i) {
        if (spans.depth[i] < spans.depth[span]) return spans.depth[i] + 1 === spans.depth[span] ? i : -1;
    }
    return -1;
}
