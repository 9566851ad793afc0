// Writes reports, for tests: what qvx does, from lists of numbers.

import { deflateSync } from 'node:zlib';

export class Column {
    private readonly bytes: number[] = [];

    unsigned(value: number): this {
        for (; value >= 128; value = Math.floor(value / 128)) this.bytes.push((value % 128) + 128);
        this.bytes.push(value);
        return this;
    }
    signed(value: number): this {
        return this.unsigned(value < 0 ? -2 * value - 1 : 2 * value);
    }
    real(value: number): this {
        this.bytes.push(...Buffer.from(new Float64Array([value]).buffer));
        return this;
    }
    get data(): Buffer {
        return Buffer.from(this.bytes);
    }
}

/** A call: when it began and ended, which function, how deep, and whether its end is told. */
export type Span = [start: number, end: number, name: number, depth: number, open?: boolean];

export function spanColumns(spans: Span[]): Buffer[] {
    const columns = Array.from({ length: 5 }, () => new Column());
    const [up, at, length, names, opens] = columns;
    const ends: number[] = [];
    let before = -1;
    let last = 0;
    let open = 0;
    spans.forEach(([start, end, name, depth, isOpen], i) => {
        up.unsigned(before + 1 - depth);
        at.signed(start - (depth > before ? last : ends[depth]));
        length.unsigned(end - start);
        names.unsigned(name);
        if (isOpen) opens.unsigned(i - open);
        if (isOpen) open = i;
        ends[depth] = end;
        last = start;
        before = depth;
    });
    return columns.map((column) => column.data);
}

export interface TrackOf {
    line: Record<string, unknown>;
    columns: Buffer[];
}
export function calls(title: string, spans: Span[], line: Record<string, unknown> = {}): TrackOf {
    return {
        line: { sort: 'function', form: 'spans', title, table: 'function', count: spans.length, place: 1, ...line },
        columns: spanColumns(spans),
    };
}

/** The first block and the others, as they are before they are deflated. */
export function contents(
    names: [table: string, name: string][],
    tracks: TrackOf[],
    head: Record<string, unknown> = {},
): { head: string; data: Buffer } {
    const lines: Record<string, unknown>[] = [
        { record: 'report', format: 1, title: 'sample', version: '0', base: '1000', frequency: 1e9, ...head },
        { record: 'file', name: 'sample.qvx' },
        { record: 'given', name: 'sample.qvx' },
        ...names.map(([table, name], id) => ({ record: 'name', table, name, id })),
        ...tracks.map(({ line, columns }) => ({
            record: 'track',
            file: 0,
            place: null,
            frequency: head['frequency'] ?? 1e9,
            columns: columns.map((column) => column.length),
            ...line,
        })),
    ];
    return {
        head: lines.map((line) => `${JSON.stringify(line)}\n`).join(''),
        data: Buffer.concat(tracks.flatMap(({ columns }) => columns)),
    };
}

/** A whole page. */
export function pageOf(page: string, { head, data }: { head: string; data: Buffer }): string {
    const blocks: Uint8Array[] = [Buffer.from(head)];
    for (let at = 0; at < data.length; at += 1 << 22) blocks.push(data.subarray(at, at + (1 << 22)));
    return (
        page +
        blocks
            .map(
                (block) =>
                    `<script type="application/octet-stream" data-size="${block.length}">` +
                    `${deflateSync(block).toString('base64')}</script><script>q()</script>\n`,
            )
            .join('')
    );
}

/** Calls nested at random, but always alike, of so many functions. */
export function randomSpans(count: number, functions: number, seed = 1): Span[] {
    let state = seed >>> 0;
    const random = (below: number): number => {
        state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
        return Math.floor((state / 2 ** 32) * below);
    };
    const spans: Span[] = [];
    const open: Span[] = [];
    let time = 0;
    const leave = (): void => {
        time += random(400);
        (open.pop() as Span)[1] = time;
    };
    while (spans.length < count) {
        while (open.length > 0 && (open.length > 20 || random(5) < 2)) leave();
        time += random(300);
        const span: Span = [time, time, random(functions), open.length];
        spans.push(span);
        open.push(span);
    }
    while (open.length > 0) leave();
    return spans;
}
