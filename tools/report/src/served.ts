// A trace that qvx holds: it is asked for what is to be seen, and for sums.

import { layOut, type Flame } from './flame';
import { linesOf, Reader, readersOf, readLines, type Line } from './format';
import { makeSpans, type Range, type Report, type Table, type Track } from './model';
import { kItem, type FoundMark, type Item, type Place, type Source } from './source';
import { beginOf, type FunctionRow, type FunctionTable, type Histogram } from './statistics';

type Words = Record<string, string | number>;
type Ask = (question: string, words?: Words) => Promise<Uint8Array>;

const decoder = new TextDecoder();

function wordsOf(range: Range, track: number | null): Words {
    return { from: range.from, to: range.to, ...(track === null ? {} : { track }) };
}
function numbersOf(value: unknown): number[] {
    return (value as unknown[]).map(Number);
}
/** Lines behind their length, and the columns behind them. */
function partsOf(answer: Uint8Array): { lines: Line[]; data: Uint8Array } {
    const behind = 4 + new DataView(answer.buffer, answer.byteOffset).getUint32(0, true);
    return { lines: [...linesOf(decoder.decode(answer.subarray(4, behind)))], data: answer.subarray(behind) };
}

export class Served implements Source {
    private readonly texts = new Map<number, number>();

    private constructor(
        private readonly ask: Ask,
        readonly report: Report,
        private readonly counts: Map<string, number[]>,
    ) {}

    /** Asks there. `ended` is called when nobody answers any more. */
    static async open(origin: string, token: string, ended: () => void): Promise<Served> {
        const send = async (question: string, words: Words = {}): Promise<Response> => {
            const query = new URLSearchParams(Object.entries(words).map(([word, its]): [string, string] => [word, `${its}`]));
            const response = await fetch(`${origin}/api/${question}?${query.toString()}`, {
                headers: { 'X-Token': token },
                cache: 'no-store',
            });
            if (!response.ok) throw new Error(`qvx refuses to answer (${response.status})`);
            return response;
        };
        const ask: Ask = async (question, words) => new Uint8Array(await (await send(question, words)).arrayBuffer());
        // As long as this is being answered, qvx knows that the page is there, and the page that qvx is.
        const presence = (await send('open')).body?.getReader();
        const watch = async (): Promise<void> => {
            while (presence && !(await presence.read()).done);
        };
        watch().then(ended, ended);
        const counts = new Map<string, number[]>();
        const report = readLines(decoder.decode(await ask('lines')), (line, track) => {
            if (line.record === 'counts') counts.set(line['table'] as string, numbersOf(line['counts']));
            if (!track) return;
            const none = new Float64Array();
            if (line['form'] === 'spans') {
                const rows = Number(line['rows']);
                track.spans = makeSpans(none, none, new Uint32Array(), new Uint16Array(), new Uint8Array(), rows);
            } else if (line['form'] === 'marks') {
                track.marks = { at: none, name: new Uint32Array(), text: new Uint32Array() };
            } else {
                track.curve = { at: none, value: none, bounds: [Number(line['least']), Number(line['most'])] };
            }
        });
        return new Served(ask, report, counts);
    }

    prepare(tracks: Track[], range: Range, pixels: number): Promise<void> | null {
        const { report } = this;
        const span = range.to - range.from;
        const cut = (from: number, to: number): Range => ({
            from: Math.max(Math.floor(from), report.from),
            to: Math.max(Math.min(Math.ceil(to), report.to + 1), report.from + 1),
        });
        const needed = cut(range.from, range.to);
        const lacking = tracks.filter(
            ({ tile }) =>
                !tile || tile.from > needed.from || tile.to < needed.to || tile.cell > Math.max(1, span / pixels),
        );
        if (lacking.length === 0) return null;
        const asked = cut(range.from - span / 2, range.to + span / 2);
        const tile = { ...asked, cell: Math.max(1, Math.floor(span / pixels / 2)) };
        return this.load(lacking, tile);
    }

    private async load(tracks: Track[], tile: NonNullable<Track['tile']>): Promise<void> {
        const answer = await this.ask('tile', { ...tile, tracks: tracks.map(({ number }) => number).join() });
        const { lines, data } = partsOf(answer);
        const byNumber = new Map(tracks.map((track) => [track.number, track]));
        let position = 0;
        for (const line of lines) {
            if (line.record === 'text') {
                const number = Number(line['number']);
                if (this.texts.has(number)) continue;
                this.texts.set(number, this.report.names.text.length);
                this.report.names.text.push({ text: line['text'] as string, id: null });
            } else {
                const sizes = numbersOf(line['columns']);
                const track = byNumber.get(Number(line['track']));
                if (track) this.fill(track, Number(line['count']), readersOf(data, position, sizes), tile.from);
                if (track) track.tile = tile;
                position += sizes.reduce((sum, size) => sum + size, 0);
            }
        }
    }

    /** Puts what has come into a track. */
    private fill(track: Track, count: number, columns: Reader[], from: number): void {
        const [counts, at, second, third, places, opens] = columns;
        const place = new Float64Array(count);
        const start = new Float64Array(count);
        if (track.spans) {
            const end = new Float64Array(count);
            const name = new Uint32Array(count);
            const depth = new Uint16Array(count);
            const open = new Uint8Array(count);
            let i = 0;
            let its = 0;
            let lastPlace = 0;
            for (let row = 0; !counts.isAtEnd; ++row) {
                let last = from;
                for (const behind = i + counts.unsigned(); i < behind; ++i) {
                    start[i] = last + at.signed();
                    last = end[i] = start[i] + second.unsigned();
                    name[i] = third.unsigned();
                    place[i] = lastPlace += places.unsigned();
                    depth[i] = row;
                }
            }
            while (!opens.isAtEnd) open[(its += opens.unsigned())] = 1;
            track.spans = { ...makeSpans(start, end, name, depth, open, track.spans.rows.length - 1), place };
            return;
        }
        const value = new Float64Array(count);
        const name = new Uint32Array(count);
        const text = new Uint32Array(count);
        let last = from;
        let lastPlace = 0;
        for (let i = 0; i < count; ++i) {
            start[i] = last += at.signed();
            place[i] = lastPlace += places.unsigned();
            if (track.marks) {
                name[i] = second.unsigned();
                text[i] = this.texts.get(third.unsigned()) ?? 0;
            } else {
                value[i] = second.real();
            }
        }
        if (track.marks) track.marks = { at: start, name, text, place };
        else track.curve = { ...track.curve, at: start, value, place };
    }

    async table(range: Range, track: number | null): Promise<FunctionTable> {
        const [line] = await this.linesOf('table', wordsOf(range, track));
        const columns = (['name', 'calls', 'unfinished', 'total', 'self', 'min', 'p50', 'p99', 'max'] as const).map(
            (key): [keyof FunctionRow, number[]] => [key, numbersOf(line[key])],
        );
        const rows = columns[0][1].map((_, i) => {
            const row = Object.fromEntries(columns.map(([key, its]) => [key, its[i]])) as unknown as FunctionRow;
            return row.calls > row.unfinished ? row : { ...row, min: null, p50: null, p99: null, max: null };
        });
        return { rows, hasClock: line['hasClock'] === true, whole: Number(line['whole']) };
    }

    async histogram(range: Range, track: number | null, name: number): Promise<Histogram> {
        const [line, ...slowest] = await this.linesOf('histogram', { ...wordsOf(range, track), name });
        const counts = numbersOf(line['counts']);
        return {
            bins: numbersOf(line['bins']).map((bin, i) => ({ from: beginOf(bin), to: beginOf(bin + 1), count: counts[i] })),
            count: Number(line['count']),
            slowest: slowest.map((its) => ({
                track: Number(its['track']),
                span: Number(its['span']),
                start: Number(its['start']),
                end: Number(its['end']),
                duration: Number(its['duration']),
            })),
            hasClock: line['hasClock'] === true,
        };
    }

    async flame(range: Range, track: number | null): Promise<Flame> {
        const { lines, data } = partsOf(await this.ask('flame', wordsOf(range, track)));
        const [line] = lines;
        const count = Number(line['count']);
        const [parent, name, total, self, calls] = readersOf(data, 0, numbersOf(line['columns'])).map((column) =>
            Array.from({ length: count }, () => column.unsigned()),
        );
        const paths = { parent: parent.map((above) => above - 1), name, total, self, calls };
        return { ...layOut(paths), hasClock: line['hasClock'] === true, isCut: line['isCut'] === true };
    }

    async marks(range: Range, pattern: string | null, most: number): Promise<{ marks: FoundMark[]; count: number }> {
        const words = { ...wordsOf(range, null), filter: pattern ?? '', most };
        const [line, ...found] = await this.linesOf('marks', words);
        const marks = found.map((its) => ({
            track: Number(its['track']),
            index: Number(its['index']),
            at: Number(its['at']),
            name: Number(its['name']),
            text: its['text'] as string,
        }));
        return { marks, count: Number(line['count']) };
    }

    count(wanted: Map<Table, Uint8Array>): number {
        let count = 0;
        for (const [table, its] of wanted)
            (this.counts.get(table) ?? []).forEach((uses, name) => (count += its[name] ? uses : 0));
        return count;
    }

    async next(
        pattern: string,
        _wanted: Map<Table, Uint8Array>,
        from: Place & { at: number },
        isBack: boolean,
    ): Promise<Place | null> {
        const kFar = 2 ** 52;
        // Ticks are whole: between two of them is before or behind all that is at one of them.
        const place = Number.isInteger(from.at) ? from : { at: isBack ? Math.floor(from.at) : Math.ceil(from.at), track: isBack ? kFar : -1, index: 0 };
        const [line] = await this.linesOf('next', {
            from: place.at,
            track: Math.min(place.track, kFar),
            index: place.index,
            pattern,
            back: isBack ? 1 : 0,
        });
        return line ? { track: Number(line['track']), index: Number(line['index']) } : null;
    }

    async item(track: number, index: number): Promise<Item | null> {
        if (!this.report.tracks[track] || !Number.isInteger(index) || index < 0) return null;
        const [line] = await this.linesOf('item', { track, index });
        if (!line) return null;
        const numbers = ['start', 'end', 'name', 'depth', 'inner', 'called', 'value'] as const;
        const item = { ...kItem, isOpen: line['isOpen'] === true, text: (line['text'] ?? '') as string };
        for (const key of numbers) item[key] = Number(line[key] ?? (key === 'end' ? line['start'] : 0));
        return { ...item, parent: line['parent'] === undefined ? null : Number(line['parent']) };
    }

    private async linesOf(question: string, words: Words): Promise<Line[]> {
        return [...linesOf(decoder.decode(await this.ask(question, words)))].filter((line) => line as unknown);
    }
}
