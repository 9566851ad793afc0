// How a report is read. Its data are blocks, each deflated by itself. The first holds lines of JSON, which tell all but
// long columns of numbers; the columns, of whole numbers as varints, stand one behind the other in what the other
// blocks make up, in the order of the lines.

import { makeSpans, type Curve, type Marks, type Name, type Report, type Spans, type Table, type Track } from './model';

/** Whole numbers of a column: seven bits a byte, the lowest first, the top bit where more follow. */
export class Reader {
    constructor(
        private readonly bytes: Uint8Array,
        private at: number,
        private readonly end: number,
    ) {}

    get isAtEnd(): boolean {
        return this.at >= this.end;
    }

    unsigned(): number {
        const { bytes } = this;
        let at = this.at;
        let byte = bytes[at++];
        let value = byte & 0x7f;
        let factor = 128;
        while (byte & 0x80) {
            if (at >= this.end) throw new Error('a column is cut');
            byte = bytes[at++];
            value += (byte & 0x7f) * factor;
            factor *= 128;
        }
        if (at > this.end) throw new Error('a column is cut');
        this.at = at;
        return value;
    }

    /** A number whose lowest bit is its sign. */
    signed(): number {
        const value = this.unsigned();
        return value % 2 === 0 ? value / 2 : -(value + 1) / 2;
    }

    /** A number of eight bytes, the lowest first. */
    real(): number {
        const { bytes, at } = this;
        if (at + 8 > this.end) throw new Error('a column is cut');
        this.at = at + 8;
        return new DataView(bytes.buffer, bytes.byteOffset + at).getFloat64(0, true);
    }
}

export interface Line {
    record: string;
    [key: string]: unknown;
}

/** Reads lines of JSON one by one. */
export function* linesOf(text: string): Generator<Line> {
    for (let from = 0; from < text.length; ) {
        const end = text.indexOf('\n', from);
        const line = text.slice(from, end < 0 ? text.length : end);
        from = end < 0 ? text.length : end + 1;
        if (line !== '') yield JSON.parse(line) as Line;
    }
}

export const kVersion = 1;

function readSpans(readers: Reader[], count: number): Spans {
    const [up, at, length, names, opens] = readers;
    const start = new Float64Array(count);
    const end = new Float64Array(count);
    const name = new Uint32Array(count);
    const depth = new Uint16Array(count);
    const open = new Uint8Array(count);
    // Ends of what the next one can be within, by depth, and of the last one at each depth.
    const ends: number[] = [];
    let before = -1;
    let last = 0;
    for (let i = 0; i < count; ++i) {
        const its = before + 1 - up.unsigned();
        // A first one within another is told from its start, others from the end of the one before them.
        const since = its > before ? last : ends[its];
        last = since + at.signed();
        start[i] = last;
        ends[its] = end[i] = last + length.unsigned();
        name[i] = names.unsigned();
        depth[i] = its;
        before = its;
    }
    for (let i = 0; !opens.isAtEnd; ) {
        i += opens.unsigned();
        open[i] = 1;
    }
    return makeSpans(start, end, name, depth, open);
}

function readMarks(readers: Reader[], count: number): Marks {
    const [at, names, texts] = readers;
    const marks: Marks = { at: new Float64Array(count), name: new Uint32Array(count), text: new Uint32Array(count) };
    let last = 0;
    for (let i = 0; i < count; ++i) {
        marks.at[i] = last += at.signed();
        marks.name[i] = names.unsigned();
        marks.text[i] = texts.unsigned();
    }
    return marks;
}

function readCurve(readers: Reader[], count: number, isReal: boolean): Curve {
    const [at, values] = readers;
    const curve: Curve = { at: new Float64Array(count), value: new Float64Array(count) };
    let last = 0;
    let value = 0;
    for (let i = 0; i < count; ++i) {
        curve.at[i] = last += at.signed();
        curve.value[i] = isReal ? values.real() : (value += values.signed());
    }
    return curve;
}

/** Makes a report of lines; what its tracks hold, and lines of other sorts, are for `fill`. */
export function readLines(head: string, fill: (line: Line, track: Track | null) => void): Report {
    const report: Report = {
        title: '',
        version: '',
        files: [],
        given: [],
        base: '0',
        frequency: 0,
        from: 0,
        to: 0,
        names: {
            function: [],
            process: [],
            interrupt: [],
            thread: [],
            state: [],
            signal: [],
            mark: [],
            text: [{ text: '', id: null }],
            counter: [],
        },
        tracks: [],
        unshown: [],
        notes: [],
    };
    for (const line of linesOf(head)) {
        switch (line.record) {
            case 'report':
                if (line['format'] !== kVersion) throw new Error('this report is of another version');
                report.from = Number(line['from'] ?? 0);
                report.to = Number(line['to'] ?? 0);
                report.title = line['title'] as string;
                report.version = line['version'] as string;
                report.base = String(line['base']);
                report.frequency = Number(line['frequency']);
                break;
            case 'file':
                report.files.push(line['name'] as string);
                break;
            case 'given':
                report.given.push(line['name'] as string);
                break;
            case 'name':
                report.names[line['table'] as Table].push({
                    text: line['name'] as string,
                    id: (line['id'] ?? null) as Name['id'],
                    ...(line['place'] === undefined ? {} : { place: line['place'] as string }),
                });
                break;
            case 'unshown':
                report.unshown.push({ what: line['what'] as string, count: Number(line['count']) });
                break;
            case 'note':
                report.notes.push(line['text'] as string);
                break;
            case 'track': {
                const track: Track = {
                    number: report.tracks.length,
                    sort: line['sort'] as string,
                    title: line['title'] as string,
                    file: Number(line['file']),
                    place: line['place'] as number | null,
                    frequency: Number(line['frequency']),
                    table: line['table'] as Table,
                    count: Number(line['count']),
                };
                fill(line, track);
                report.tracks.push(track);
                break;
            }
            default: // or of a later version, and of no use here
                fill(line, null);
        }
    }
    return report;
}

/** Columns of those sizes that stand one behind the other. */
export function readersOf(data: Uint8Array, position: number, sizes: number[]): Reader[] {
    if (sizes.reduce((sum, size) => sum + size, position) > data.length) throw new Error('the report is cut');
    return sizes.map((size) => new Reader(data, position, (position += size)));
}

/** Makes a report of its first block as a text and the other blocks one behind the other. */
export function readReport(head: string, data: Uint8Array): Report {
    let position = 0;
    const report = readLines(head, (line, track) => {
        if (!track) return;
        const sizes = line['columns'] as number[];
        const readers = readersOf(data, position, sizes);
        if (line['form'] === 'spans') track.spans = readSpans(readers, track.count);
        else if (line['form'] === 'marks') track.marks = readMarks(readers, track.count);
        else track.curve = readCurve(readers, track.count, line['form'] === 'reals');
        position += sizes.reduce((sum, size) => sum + size, 0);
    });
    if (position !== data.length) throw new Error('the report is cut');
    setRange(report);
    return report;
}

/** Finds when the first and the last of what is shown was. */
function setRange(report: Report): void {
    let from = Infinity;
    let to = -Infinity;
    for (const { spans, marks, curve } of report.tracks) {
        if (spans) {
            const outer = spans.rows.length > 1 ? spans.rows[1] : 0;
            for (let i = 0; i < outer; ++i) {
                from = Math.min(from, spans.start[spans.order[i]]);
                to = Math.max(to, spans.end[spans.order[i]]);
            }
        }
        for (const at of [marks?.at, curve?.at]) {
            if (!at || at.length === 0) continue;
            from = Math.min(from, at[0]);
            to = Math.max(to, at[at.length - 1]);
        }
    }
    report.from = from <= to ? from : 0;
    report.to = from <= to ? to : 0;
}

/** Inflates a block, of which the length that comes out is known. */
export async function inflate(bytes: Uint8Array, size: number): Promise<Uint8Array> {
    const out = new Uint8Array(size);
    const stream = new Blob([bytes as BlobPart]).stream().pipeThrough(new DecompressionStream('deflate'));
    const reader = stream.getReader() as ReadableStreamDefaultReader<Uint8Array>;
    let filled = 0;
    for (;;) {
        const { done, value } = await reader.read();
        if (done) break;
        if (filled + value.length > size) throw new Error('a block is longer than it should be');
        out.set(value, filled);
        filled += value.length;
    }
    if (filled !== size) throw new Error('a block is shorter than it should be');
    return out;
}

/** The bytes of a text in base 64. */
export function bytesOf(text: string): Uint8Array {
    const native = (Uint8Array as unknown as { fromBase64?: (text: string) => Uint8Array }).fromBase64;
    if (native) return native.call(Uint8Array, text);
    const raw = atob(text);
    const bytes = new Uint8Array(raw.length);
    for (let i = 0; i < raw.length; ++i) bytes[i] = raw.charCodeAt(i);
    return bytes;
}
