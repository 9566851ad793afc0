// Calls merged by their paths, as spans: as wide as they took, the most time first.

import { makeSpans, type Range, type Report, type Spans } from './model';
import { callTracks, eachCall } from './statistics';

export interface Flame {
    spans: Spans;
    calls: Float64Array;
    self: Float64Array;
    width: number;
    hasClock: boolean;
    /** Paths that are not told apart from those before them, because there are too many. */
    isCut: boolean;
}

const kMostPaths = 1 << 20;

export function flameOf(report: Report, range: Range, track: number | null): Flame {
    const functions = report.names.function.length;
    const parent: number[] = [];
    const name: number[] = [];
    const total: number[] = [];
    const self: number[] = [];
    const calls: number[] = [];
    const known = new Map<number, number>();
    let hasClock = true;
    let isCut = false;
    const pathOf = (above: number, its: number): number => {
        const key = (above + 1) * functions + its;
        let path = known.get(key);
        if (path === undefined) {
            if (parent.length >= kMostPaths) {
                isCut = true;
                return above;
            }
            path = parent.length;
            known.set(key, path);
            parent.push(above);
            name.push(its);
            total.push(0);
            self.push(0);
            calls.push(0);
        }
        return path;
    };
    for (const { track: its, spans } of callTracks(report, track)) {
        if (its.frequency === 0) hasClock = false;
        const stack: number[] = [];
        eachCall(
            its,
            spans,
            range,
            functions,
            ({ span, duration, self: own }) => {
                const path = stack[spans.depth[span]];
                if (path < 0) return;
                total[path] += duration;
                self[path] += own;
                ++calls[path];
            },
            (span) => {
                const depth = spans.depth[span];
                // What is outside the range has no path: calls that begin behind it, or end before.
                const isWithin =
                    spans.start[span] < range.to && (spans.end[span] > range.from || spans.start[span] >= range.from);
                stack[depth] = isWithin ? pathOf(depth > 0 ? stack[depth - 1] : -1, spans.name[span]) : -1;
            },
        );
    }
    return { ...layOut({ parent, name, total, self, calls }), hasClock, isCut };
}

/** Paths by number. Their parents stand before them; those without one have the parent -1. */
export interface Paths {
    parent: number[];
    name: number[];
    total: number[];
    self: number[];
    calls: number[];
}

export function layOut(paths: Paths): Pick<Flame, 'spans' | 'calls' | 'self' | 'width'> {
    const { parent, name, total, self, calls } = paths;
    const count = parent.length;
    const children: number[][] = Array.from({ length: count + 1 }, () => []);
    for (let path = 0; path < count; ++path) children[parent[path] + 1].push(path);
    const start = new Float64Array(count);
    const end = new Float64Array(count);
    const names = new Uint32Array(count);
    const depths = new Uint16Array(count);
    const itsCalls = new Float64Array(count);
    const itsSelf = new Float64Array(count);
    const work: { path: number; from: number; depth: number }[] = [];
    const push = (those: number[], from: number, depth: number): number => {
        those.sort((a, b) => total[b] - total[a] || a - b);
        const placed = those.map((path) => ({ path, from: (from += total[path]) - total[path], depth }));
        work.push(...placed.reverse());
        return from;
    };
    const width = push(children[0], 0, 0);
    for (let at = 0; work.length > 0; ++at) {
        const { path, from, depth } = work.pop() as (typeof work)[number];
        start[at] = from;
        end[at] = from + total[path];
        names[at] = name[path];
        depths[at] = depth;
        itsCalls[at] = calls[path];
        itsSelf[at] = self[path];
        push(children[path + 1], from, depth + 1);
    }
    return {
        spans: makeSpans(start, end, names, depths, new Uint8Array(count)),
        calls: itsCalls,
        self: itsSelf,
        width,
    };
}
