// A trace that is here as a whole.

import { flameOf, type Flame } from './flame';
import { firstFrom, parentOf, type Range, type Report, type Table } from './model';
import { matches } from './names';
import { kItem, type FoundMark, type Item, type Place, type Source } from './source';
import { functionTable, histogramOf, type FunctionTable, type Histogram } from './statistics';
import { nanosecondsOf } from './times';

export class Embedded implements Source {
    constructor(readonly report: Report) {}

    prepare(): null {
        return null;
    }
    table(range: Range, track: number | null): FunctionTable {
        return functionTable(this.report, range, track);
    }
    histogram(range: Range, track: number | null, name: number): Histogram {
        return histogramOf(this.report, range, track, name);
    }
    flame(range: Range, track: number | null): Flame {
        return flameOf(this.report, range, track);
    }

    marks(range: Range, pattern: string | null, most: number): { marks: FoundMark[]; count: number } {
        const found: FoundMark[] = [];
        const { report } = this;
        let count = 0;
        for (const { number, table, marks } of report.tracks) {
            if (!marks) continue;
            for (let i = firstFrom(marks.at, range.from); i < marks.at.length && marks.at[i] < range.to; ++i) {
                const text = report.names.text[marks.text[i]].text;
                if (pattern && !matches(pattern, report.names[table][marks.name[i]].text) && !matches(pattern, text))
                    continue;
                ++count;
                if (found.length < 4 * most)
                    found.push({ track: number, index: i, at: marks.at[i], name: marks.name[i], text });
            }
        }
        found.sort((a, b) => a.at - b.at);
        return { marks: found.slice(0, most), count };
    }

    count(wanted: Map<Table, Uint8Array>): number {
        let count = 0;
        for (const { table, spans, marks } of this.report.tracks) {
            const its = wanted.get(table) as Uint8Array;
            const name = spans?.name ?? marks?.name;
            if (name) for (let i = 0; i < name.length; ++i) count += its[name[i]];
        }
        return count;
    }

    next(_pattern: string, wanted: Map<Table, Uint8Array>, from: Place & { at: number }, isBack: boolean): Place | null {
        let best: typeof from | null = null;
        const isBefore = (a: typeof from, b: typeof from): boolean =>
            a.at !== b.at ? a.at < b.at : a.track !== b.track ? a.track < b.track : a.index < b.index;
        for (const { number, table, spans, marks } of this.report.tracks) {
            const its = wanted.get(table);
            const at = spans?.start ?? marks?.at;
            const name = spans?.name ?? marks?.name;
            if (!its || !at || !name) continue;
            const step = isBack ? -1 : 1;
            for (
                let i = firstFrom(at, isBack ? from.at + 0.5 : from.at); // ticks are whole
                i >= 0 && i <= at.length;
                i += step
            ) {
                if (i === at.length || its[name[i]] === 0) continue;
                const hit = { at: at[i], track: number, index: i };
                if (isBack ? !isBefore(hit, from) : !isBefore(from, hit)) continue;
                if (!best || (isBack ? isBefore(best, hit) : isBefore(hit, best))) best = hit;
                break;
            }
        }
        return best;
    }

    item(trackNumber: number, index: number): Item | null {
        const track = this.report.tracks[trackNumber];
        if (!track || !Number.isInteger(index) || index < 0 || index >= track.count) return null;
        const { spans, marks, curve, frequency } = track;
        if (!spans) {
            const at = (marks?.at ?? curve?.at)?.[index] ?? 0;
            const item = { ...kItem, start: at, end: at };
            if (marks) return { ...item, name: marks.name[index], text: this.report.names.text[marks.text[index]].text };
            return { ...item, value: curve?.value[index] ?? 0 };
        }
        const { start, end, depth, name, open } = spans;
        let inner = 0;
        let called = 0;
        for (let i = index + 1; i < start.length && depth[i] > depth[index]; ++i) {
            if (depth[i] !== depth[index] + 1) continue;
            inner += nanosecondsOf(end[i] - start[i], frequency);
            ++called;
        }
        const parent = parentOf(spans, index);
        return {
            ...kItem,
            start: start[index],
            end: end[index],
            name: name[index],
            depth: depth[index],
            isOpen: open[index] !== 0,
            parent: parent >= 0 ? name[parent] : null,
            inner,
            called,
        };
    }
}
