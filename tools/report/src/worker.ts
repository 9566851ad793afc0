// The worker holds the trace: it reads it, paints it and answers what the page asks.

import { Embedded } from './embedded';
import type { Flame } from './flame';
import { bytesOf, inflate, readReport } from './format';
import { parentOf, type Report, type Table, type Track } from './model';
import { matches, patternOf, shown } from './names';
import {
    Colors,
    Drawing,
    fitting,
    heightOf,
    hitAt,
    kDark,
    kLight,
    kRow,
    kRuler,
    layOut,
    paint,
    Pixels,
    type Band,
    type Canvas,
    type Look,
} from './paint';
import type { Details, FromWorker, Questions, Summary, SurfaceId, ToWorker, View } from './protocol';
import { Served } from './served';
import type { Source } from './source';
import { durationText, momentText, nanosecondsOf, tickText } from './times';

interface Scope {
    postMessage(message: FromWorker, transfer?: Transferable[]): void;
    onmessage: ((event: MessageEvent<ToWorker>) => void) | null;
    requestAnimationFrame?: (paint: () => void) => void;
}
const scope = self as unknown as Scope;

const kFont = 11.5;

/** A picture, and what is shown in it. */
interface Surface {
    canvas: OffscreenCanvas;
    context: OffscreenCanvasRenderingContext2D;
    image: ImageData | null;
    view: View | null;
    tracks: Track[];
    bands: Band[];
    layout: string;
    isWaiting: boolean;
    /** More of what is shown is on its way. */
    isLoading: boolean;
}

let source: Source;
let report: Report;
const surfaces = new Map<SurfaceId, Surface>();
const wanted = new Map<Table, Uint8Array>();
let wantedPattern = '';
let flame: Flame | null = null;
let isReady = false;

const colors = { dark: new Colors(kDark.background), light: new Colors(kLight.background) };

function lookOf(id: SurfaceId, view: View): Look {
    const closed = new Set(id === 'timeline' ? view.closed : []);
    return {
        range: view.range,
        y: view.y,
        ratio: view.ratio,
        theme: view.isDark ? kDark : kLight,
        wanted: (track) => wanted.get(track.table) ?? null,
        names: (track) => report.names[track.table],
        colors: view.isDark ? colors.dark : colors.light,
        title: placeOf,
        ruler: id === 'timeline' ? { frequency: report.frequency } : null,
        isClosed: (track) => closed.has(track),
    };
}

function layOutIfNew(id: SurfaceId, surface: Surface, view: View): void {
    const layout = id === 'timeline' ? view.closed.join() : '';
    if (surface.layout === layout) return;
    surface.layout = layout;
    const closed = new Set(view.closed);
    surface.bands =
        id === 'timeline'
            ? layOut(surface.tracks, (track) => closed.has(track))
            : layOut(surface.tracks, () => false, 0);
}

function heightOfAll(id: SurfaceId, surface: Surface): number {
    const last = surface.bands[surface.bands.length - 1];
    return (id === 'timeline' ? kRuler : 0) + (last ? last.y + last.height : 0);
}

/** What stands above the fills: the time that is selected, and what has been picked. */
function overlays(id: SurfaceId, surface: Surface, view: View): { x: number; y: number; w: number; h: number }[] {
    const { picked, range, ratio } = view;
    if (!picked || (id === 'flame' && picked.track >= 0)) return [];
    const at = id === 'flame' ? 0 : picked.track;
    const track = surface.tracks[at];
    const band = surface.bands[at];
    if (!track || !band || band.height <= band.header || picked.index < 0) return [];
    const k = (view.width * ratio) / (range.to - range.from);
    const y = (band.y + band.header - view.y + (id === 'timeline' ? kRuler : 0)) * ratio;
    const x = (picked.range.from - range.from) * k;
    if (!track.spans) return [{ x: x - ratio, y, w: 4 * ratio, h: heightOf(track) * ratio }];
    const w = Math.max(2 * ratio, (picked.range.to - picked.range.from) * k);
    return [{ x, y: y + picked.depth * kRow * ratio, w, h: (kRow - 1) * ratio }];
}

/** Has what is in sight, and a little around it, be there. */
function load(id: SurfaceId, surface: Surface, view: View): void {
    if (surface.isLoading || (id === 'flame' && flame)) return;
    const [top, bottom] = [view.y - view.height / 2, view.y + 1.5 * view.height];
    const inSight = surface.bands.filter(
        ({ y, header, height }) => height > header && y < bottom && y + height > top,
    );
    const tracks = inSight.map(({ track }) => surface.tracks[track]);
    const coming = source.prepare(tracks, view.range, Math.round(view.width * view.ratio));
    if (!coming) return;
    surface.isLoading = true;
    coming.then(
        () => {
            surface.isLoading = false;
            drawSoon(id);
        },
        (error: unknown) => {
            surface.isLoading = false;
            failed(error);
        },
    );
}

function draw(id: SurfaceId, surface: Surface): void {
    const { view, context, canvas } = surface;
    if (!view || !isReady) return;
    const width = Math.max(1, Math.round(view.width * view.ratio));
    const height = Math.max(1, Math.round(view.height * view.ratio));
    if (canvas.width !== width || canvas.height !== height || !surface.image) {
        canvas.width = width;
        canvas.height = height;
        surface.image = new ImageData(width, height);
    }
    layOutIfNew(id, surface, view);
    const look = lookOf(id, view);
    const pixels = new Pixels(new Uint32Array(surface.image.data.buffer), width, height);
    paint(pixels, surface.tracks, surface.bands, look);
    context.putImageData(surface.image, 0, 0);
    context.textBaseline = 'middle';
    const font = `${kFont * view.ratio}px system-ui, sans-serif`;
    const bold = `600 ${font}`;
    for (const { x, y, text, room, color, isBold } of pixels.texts) {
        context.font = isBold ? bold : font;
        context.fillStyle = color;
        const cut = fitting(text, room, (part) => widthOf(context, part));
        if (cut !== '') context.fillText(cut, x, y);
    }
    const k = width / (view.range.to - view.range.from);
    if (view.selection) {
        const from = (view.selection.from - view.range.from) * k;
        const to = (view.selection.to - view.range.from) * k;
        context.fillStyle = look.theme.selection;
        context.fillRect(from, 0, to - from, height);
        context.fillStyle = look.theme.accent;
        for (const x of [from, to]) context.fillRect(Math.round(x) - 0.5, 0, Math.max(1, view.ratio), height);
    }
    context.strokeStyle = look.theme.accent;
    context.lineWidth = 2 * view.ratio;
    for (const { x, y, w, h } of overlays(id, surface, view)) {
        const left = Math.max(-5, x);
        context.strokeRect(left, y, Math.min(width + 10, x + w) - left, h);
    }
    load(id, surface, view);
    scope.postMessage({ is: 'painted', surface: id, height: heightOfAll(id, surface), isWhole: !surface.isLoading });
}

const widths = new Map<string, number>();
function widthOf(context: OffscreenCanvasRenderingContext2D, text: string): number {
    const key = `${context.font} ${text}`;
    let width = widths.get(key);
    if (width === undefined) {
        if (widths.size > 20000) widths.clear();
        widths.set(key, (width = context.measureText(text).width));
    }
    return width;
}

function drawSoon(id: SurfaceId): void {
    const surface = surfaces.get(id);
    if (!surface || surface.isWaiting) return;
    surface.isWaiting = true;
    const now = (): void => {
        surface.isWaiting = false;
        draw(id, surface);
    };
    if (scope.requestAnimationFrame) scope.requestAnimationFrame(now);
    else setTimeout(now, 0);
}

/** A picture of the timeline as a file. */
async function pictureOf(form: 'svg' | 'png'): Promise<Blob> {
    const surface = surfaces.get('timeline');
    if (!surface?.view) throw new Error('there is nothing to take a picture of');
    if (form === 'png') {
        draw('timeline', surface);
        return surface.canvas.convertToBlob({ type: 'image/png' });
    }
    const view = { ...surface.view, ratio: 1 };
    const drawing = new Drawing(Math.round(view.width), Math.round(view.height), kFont);
    paint(drawing as Canvas, surface.tracks, surface.bands, lookOf('timeline', view));
    return new Blob([drawing.toString()], { type: 'image/svg+xml' });
}

function baseName(path: string): string {
    return path.replace(/^.*[/\\](?=.)/, '');
}
function placeOf(track: Track): string {
    return shown(track.title, 160) + (report.files.length > 1 ? ` of ${shown(baseName(report.files[track.file]), 160)}` : '');
}

async function detailsOf(trackIndex: number, index: number): Promise<Details | null> {
    const track = report.tracks[trackIndex];
    const item = track ? await source.item(trackIndex, index) : null;
    if (!track || !item) return null;
    const { start, end, depth } = item;
    const facts: [string, string][] = [['In', placeOf(track)]];
    const moment = `${momentText(start, report.frequency)} (tick ${tickText(report, start)})`;
    const details = { track: trackIndex, index, range: { from: start, to: end }, depth, facts, function: null };
    const names = report.names[track.table];
    if (track.spans) {
        const name = names[item.name];
        const hasClock = track.frequency !== 0;
        const value = nanosecondsOf(end - start, track.frequency);
        const length = durationText(value, hasClock);
        facts.push(['From', moment], ['Took', hasClock && value >= 1000 ? `${length} (${value} ns)` : length]);
        if (item.isOpen) facts.push(['End', 'not told by the trace']);
        if (track.sort === 'function') {
            const self = value - Math.min(item.inner, value);
            facts.push(['Of that itself', durationText(self, hasClock)], ['Calls in it', `${item.called}`]);
            if (item.parent !== null) facts.push(['Called by', shown(names[item.parent].text)]);
            facts.push(['Depth', `${depth + 1}`]);
        }
        if (name.place !== undefined) facts.push(['Defined at', shown(name.place, 4000)]);
        if (name.id !== null) facts.push(['Number', `${name.id}`]);
        return {
            ...details,
            name: shown(name.text, 4000),
            function: track.sort === 'function' ? item.name : null,
            line: `${shown(name.text)}, ${length}, from ${momentText(start, report.frequency)}, in ${placeOf(track)}`,
        };
    }
    facts.push(['At', moment]);
    if (track.marks && item.text !== '') facts.push(['Text', shown(item.text, 10000)]);
    if (track.curve) facts.push(['Value', `${item.value}`]);
    const name = track.marks ? shown(names[item.name].text, 4000) : shown(track.title);
    const value = track.curve ? ` is ${item.value}` : '';
    return {
        ...details,
        name,
        line: `${name}${value}, at ${momentText(start, report.frequency)}, in ${placeOf(track)}`,
    };
}

/** The same of a path of the merged calls. */
function detailsOfPath(its: Flame, index: number): Details {
    const { spans, calls, self, width } = its;
    const name = report.names.function[spans.name[index]];
    const total = spans.end[index] - spans.start[index];
    const share = width > 0 ? ((100 * total) / width).toFixed(2) : '0';
    const path: string[] = [];
    for (let at = parentOf(spans, index); at >= 0; at = parentOf(spans, at))
        path.unshift(shown(report.names.function[spans.name[at]].text, 80));
    return {
        track: -1,
        index,
        name: shown(name.text, 4000),
        function: spans.name[index],
        range: { from: spans.start[index], to: spans.end[index] },
        depth: spans.depth[index],
        facts: [
            ['Path', path.length > 0 ? path.join(' › ') : 'called by nothing that is known'],
            ['Calls', `${calls[index]}`],
            ['Total', `${durationText(total, its.hasClock)}, ${share} %`],
            ['Self', durationText(self[index], its.hasClock)],
            ...(name.place === undefined ? [] : [['Defined at', shown(name.place, 4000)] as [string, string]]),
        ],
        line: `${shown(name.text)}, ${calls[index]} calls, ${durationText(total, its.hasClock)}, ${share} %`,
    };
}

async function nextHit({ from, isBack }: Questions['next']['ask']): Promise<Details | null> {
    const found = await source.next(wantedPattern, wanted, from, isBack);
    return found ? detailsOf(found.track, found.index) : null;
}

function search(text: string): number {
    wanted.clear();
    if (text === '') return 0;
    wantedPattern = patternOf(text);
    for (const [table, names] of Object.entries(report.names))
        wanted.set(table as Table, Uint8Array.from(names, (name) => (matches(wantedPattern, name.text) ? 1 : 0)));
    return source.count(wanted);
}

async function marksOf({ range, filter, most }: Questions['marks']['ask']): Promise<Questions['marks']['answer']> {
    const { marks, count } = await source.marks(range, filter === '' ? null : patternOf(filter), most);
    const rows = marks.map(({ track, index, at, name, text }) => {
        const its = report.tracks[track];
        const title = shown(report.names[its.table][name].text);
        return { track, index, at, place: placeOf(its), name: title, text: shown(text, 2000) };
    });
    return { rows, count };
}

async function showFlame(ask: Questions['flame']['ask']): Promise<Questions['flame']['answer']> {
    const surface = surfaces.get('flame');
    if (!surface) throw new Error('there is no place for a flame graph');
    flame = ask.isMerged ? await source.flame(ask.range, ask.track) : null;
    surface.layout = '?';
    if (flame) {
        surface.tracks = [
            {
                number: -1,
                sort: 'flame',
                title: '',
                file: -1,
                place: null,
                frequency: 0,
                table: 'function',
                count: flame.spans.start.length,
                spans: flame.spans,
            },
        ];
        const range = { from: 0, to: Math.max(1, flame.width) };
        return { range, hasClock: flame.hasClock, isCut: flame.isCut, isEmpty: flame.spans.start.length === 0 };
    }
    // Another part of them may be here than in the timeline.
    surface.tracks = report.tracks
        .filter((track, index) => track.sort === 'function' && (ask.track === null || ask.track === index))
        .map((track) => ({ ...track }));
    return { range: ask.range, hasClock: true, isCut: false, isEmpty: surface.tracks.length === 0 };
}

type Answers = { [Q in keyof Questions]: (ask: Questions[Q]['ask']) => Questions[Q]['answer'] | Promise<Questions[Q]['answer']> };

const answers: Answers = {
    table: ({ range, track }) => source.table(range, track),
    histogram: ({ range, track, name }) => source.histogram(range, track, name),
    flame: showFlame,
    marks: marksOf,
    search: ({ text }) => ({ count: search(text) }),
    next: nextHit,
    pick: async ({ surface: id, x, y }) => {
        const surface = surfaces.get(id);
        if (!surface?.view) return null;
        const { view } = surface;
        const top = id === 'timeline' ? kRuler : 0;
        if (y < top) return null;
        const hit = hitAt(surface.tracks, surface.bands, view.range, view.width, x, y - top + view.y);
        if (!hit) return null;
        if (hit.isTitle) return { isTitle: true, track: hit.track };
        const { spans, marks, curve } = surface.tracks[hit.track];
        const index = (spans ?? marks ?? curve)?.place?.[hit.index] ?? hit.index;
        const details = index < 0 ? null : await detailsIn(id, hit.track, index);
        return details ? { isTitle: false, details } : null;
    },
    details: ({ surface, track, index }) => detailsIn(surface, track, index),
    picture: ({ form }) => pictureOf(form),
    settled: () => true,
};

async function detailsIn(id: SurfaceId, track: number, index: number): Promise<Details | null> {
    if (id === 'timeline') return detailsOf(track, index);
    if (flame) return index < flame.spans.start.length ? detailsOfPath(flame, index) : null;
    const its = surfaces.get('flame')?.tracks[track];
    return its ? detailsOf(its.number, index) : null;
}

function summaryOf(its: Report): Summary {
    return {
        title: its.title,
        version: its.version,
        files: its.files,
        given: its.given,
        base: its.base,
        frequency: its.frequency,
        from: its.from,
        to: its.to,
        tracks: its.tracks.map(({ sort, title, file, place, count }) => ({ sort, title, file, place, count })),
        functions: its.names.function,
        hasMarks: its.tracks.some((track) => track.marks),
        unshown: its.unshown,
        notes: its.notes,
        spans: its.tracks.reduce((sum, track) => sum + (track.spans ? track.count : 0), 0),
    };
}

const blocks: Promise<Uint8Array>[] = [];

async function finish(): Promise<void> {
    const [head, ...rest] = await Promise.all(blocks);
    if (!head) throw new Error('this page holds no trace');
    blocks.length = 0;
    const data = new Uint8Array(rest.reduce((sum, block) => sum + block.length, 0));
    let at = 0;
    for (const block of rest) {
        data.set(block, at);
        at += block.length;
    }
    begin(new Embedded(readReport(new TextDecoder().decode(head), data)));
}

function begin(its: Source): void {
    source = its;
    report = its.report;
    isReady = true;
    const timeline = surfaces.get('timeline');
    if (timeline) timeline.tracks = report.tracks;
    scope.postMessage({ is: 'ready', summary: summaryOf(report) });
}

function failed(error: unknown, id?: number): void {
    const text = error instanceof Error ? error.message : String(error);
    scope.postMessage(id === undefined ? { is: 'failed', text } : { is: 'failed', text, id });
}

scope.onmessage = ({ data: message }) => {
    switch (message.do) {
        case 'block':
            blocks.push(inflate(bytesOf(message.text), message.size));
            blocks[blocks.length - 1].catch(() => undefined); // told by finish()
            break;
        case 'end':
            finish().catch(failed);
            break;
        case 'serve':
            Served.open(message.origin, message.token, () => failed(new Error('qvx has ended'))).then(begin, failed);
            break;
        case 'surface': {
            const context = message.canvas.getContext('2d', { alpha: false }) as OffscreenCanvasRenderingContext2D;
            surfaces.set(message.surface, {
                canvas: message.canvas,
                context,
                image: null,
                view: null,
                tracks: [],
                bands: [],
                layout: '?',
                isWaiting: false,
                isLoading: false,
            });
            break;
        }
        case 'view': {
            const surface = surfaces.get(message.surface);
            if (!surface) break;
            surface.view = message.view;
            drawSoon(message.surface);
            break;
        }
        case 'ask': {
            const answer = answers[message.question] as (ask: unknown) => unknown;
            Promise.resolve()
                .then(() => answer(message.ask))
                .then(
                    (its) => scope.postMessage({ is: 'answer', id: message.id, answer: its }),
                    (error: unknown) => failed(error, message.id),
                );
        }
    }
};
