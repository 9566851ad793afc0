// The worker holds the trace: it reads it, paints it and answers what the page asks.

import { flameOf, type Flame } from './flame';
import { bytesOf, inflate, readReport } from './format';
import { firstFrom, parentOf, type Report, type Track } from './model';
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
import type { Details, FromWorker, MarkRow, Questions, Summary, SurfaceId, ToWorker, View } from './protocol';
import { functionTable, histogramOf } from './statistics';
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
}

let report: Report;
const surfaces = new Map<SurfaceId, Surface>();
const wanted = new Map<string, Uint8Array>();
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
    const track = surface.tracks[id === 'flame' ? 0 : picked.track];
    const band = surface.bands[id === 'flame' ? 0 : picked.track];
    if (!track || !band || band.height <= band.header || picked.index < 0) return [];
    const k = (view.width * ratio) / (range.to - range.from);
    const top = (band.y + band.header - view.y + (id === 'timeline' ? kRuler : 0)) * ratio;
    if (track.spans) {
        const { start, end, depth } = track.spans;
        const x = (start[picked.index] - range.from) * k;
        const w = Math.max(2 * ratio, (end[picked.index] - start[picked.index]) * k);
        return [{ x, y: top + depth[picked.index] * kRow * ratio, w, h: (kRow - 1) * ratio }];
    }
    const at = track.marks?.at ?? track.curve?.at;
    if (!at) return [];
    const x = (at[picked.index] - range.from) * k;
    return [{ x: x - ratio, y: top, w: 4 * ratio, h: heightOf(track) * ratio }];
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
    scope.postMessage({ is: 'painted', surface: id, height: heightOfAll(id, surface) });
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

function detailsOf(trackIndex: number, index: number): Details | null {
    const track = report.tracks[trackIndex];
    if (!track || index < 0 || index >= track.count) return null;
    const facts: [string, string][] = [];
    const moment = (at: number): string =>
        `${momentText(at, report.frequency)} (tick ${tickText(report, at)})`;
    const length = (ticks: number): string => {
        const value = nanosecondsOf(ticks, track.frequency);
        const text = durationText(value, track.frequency !== 0);
        return track.frequency !== 0 && value >= 1000 ? `${text} (${value} ns)` : text;
    };
    const { spans, marks, curve } = track;
    if (spans) {
        const name = report.names[track.table][spans.name[index]];
        const start = spans.start[index];
        const end = spans.end[index];
        facts.push(['In', placeOf(track)], ['From', moment(start)], ['Took', length(end - start)]);
        if (spans.open[index]) facts.push(['End', 'not told by the trace']);
        if (track.sort === 'function') {
            let inner = 0;
            let called = 0;
            for (let i = index + 1; i < spans.start.length && spans.depth[i] > spans.depth[index]; ++i) {
                if (spans.depth[i] !== spans.depth[index] + 1) continue;
                inner += nanosecondsOf(spans.end[i] - spans.start[i], track.frequency);
                ++called;
            }
            const whole = nanosecondsOf(end - start, track.frequency);
            const self = whole - Math.min(inner, whole);
            facts.push(['Of that itself', durationText(self, track.frequency !== 0)], ['Calls in it', `${called}`]);
            const parent = parentOf(spans, index);
            if (parent >= 0) facts.push(['Called by', shown(report.names[track.table][spans.name[parent]].text)]);
            facts.push(['Depth', `${spans.depth[index] + 1}`]);
        }
        if (name.place !== undefined) facts.push(['Defined at', shown(name.place, 4000)]);
        if (name.id !== null) facts.push(['Number', `${name.id}`]);
        const text = shown(name.text, 4000);
        return {
            track: trackIndex,
            index,
            name: text,
            function: track.sort === 'function' ? spans.name[index] : null,
            range: { from: start, to: end },
            facts,
            line: `${shown(name.text)}, ${durationText(nanosecondsOf(end - start, track.frequency), track.frequency !== 0)}, from ${momentText(start, report.frequency)}, in ${placeOf(track)}`,
        };
    }
    const at = (marks?.at ?? curve?.at)?.[index] ?? 0;
    facts.push(['In', placeOf(track)], ['At', moment(at)]);
    let name = shown(track.title);
    if (marks) {
        name = shown(report.names[track.table][marks.name[index]].text, 4000);
        const text = report.names.text[marks.text[index]].text;
        if (text !== '') facts.push(['Text', shown(text, 10000)]);
    } else if (curve) {
        facts.push(['Value', `${curve.value[index]}`]);
    }
    const value = curve ? ` is ${curve.value[index]}` : '';
    return {
        track: trackIndex,
        index,
        name,
        function: null,
        range: { from: at, to: at },
        facts,
        line: `${name}${value}, at ${momentText(at, report.frequency)}, in ${placeOf(track)}`,
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

/** What is searched for: `next` of the moments in the order of time, then of tracks. */
function nextHit(from: { at: number; track: number; index: number }, isBack: boolean): Details | null {
    let best: { at: number; track: number; index: number } | null = null;
    const isBefore = (a: { at: number; track: number; index: number }, b: typeof a): boolean =>
        a.at !== b.at ? a.at < b.at : a.track !== b.track ? a.track < b.track : a.index < b.index;
    report.tracks.forEach((track, number) => {
        const its = wanted.get(track.table);
        const at = track.spans?.start ?? track.marks?.at;
        const name = track.spans?.name ?? track.marks?.name;
        if (!its || !at || !name) return;
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
            return;
        }
    });
    const found = best as { track: number; index: number } | null;
    return found ? detailsOf(found.track, found.index) : null;
}

function search(text: string): number {
    wanted.clear();
    if (text === '') return 0;
    const pattern = patternOf(text);
    for (const [table, names] of Object.entries(report.names))
        wanted.set(table, Uint8Array.from(names, (name) => (matches(pattern, name.text) ? 1 : 0)));
    let count = 0;
    for (const track of report.tracks) {
        const its = wanted.get(track.table) as Uint8Array;
        const name = track.spans?.name ?? track.marks?.name;
        if (name) for (let i = 0; i < name.length; ++i) count += its[name[i]];
    }
    return count;
}

function marksOf(range: { from: number; to: number }, filter: string, most: number): { rows: MarkRow[]; count: number } {
    const pattern = filter === '' ? null : patternOf(filter);
    const rows: MarkRow[] = [];
    let count = 0;
    report.tracks.forEach((track, number) => {
        const { marks } = track;
        if (!marks) return;
        for (let i = firstFrom(marks.at, range.from); i < marks.at.length && marks.at[i] < range.to; ++i) {
            const name = report.names[track.table][marks.name[i]].text;
            const text = report.names.text[marks.text[i]].text;
            if (pattern && !matches(pattern, name) && !matches(pattern, text)) continue;
            ++count;
            if (rows.length < 4 * most)
                rows.push({
                    track: number,
                    index: i,
                    at: marks.at[i],
                    place: placeOf(track),
                    name: shown(name),
                    text: shown(text, 2000),
                });
        }
    });
    rows.sort((a, b) => a.at - b.at);
    return { rows: rows.slice(0, most), count };
}

function showFlame(ask: Questions['flame']['ask']): Questions['flame']['answer'] {
    const surface = surfaces.get('flame');
    if (!surface) throw new Error('there is no place for a flame graph');
    surface.layout = '?';
    if (ask.isMerged) {
        flame = flameOf(report, ask.range, ask.track);
        surface.tracks = [
            {
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
    flame = null;
    surface.tracks = report.tracks.filter(
        (track, index) => track.sort === 'function' && (ask.track === null || ask.track === index),
    );
    return { range: ask.range, hasClock: true, isCut: false, isEmpty: surface.tracks.length === 0 };
}

type Answers = { [Q in keyof Questions]: (ask: Questions[Q]['ask']) => Questions[Q]['answer'] | Promise<Questions[Q]['answer']> };

const answers: Answers = {
    table: ({ range, track }) => functionTable(report, range, track),
    histogram: ({ range, track, name }) => histogramOf(report, range, track, name),
    flame: showFlame,
    marks: ({ range, filter, most }) => marksOf(range, filter, most),
    search: ({ text }) => ({ count: search(text) }),
    next: ({ from, isBack }) => nextHit(from, isBack),
    pick: ({ surface: id, x, y }) => {
        const surface = surfaces.get(id);
        if (!surface?.view) return null;
        const { view } = surface;
        const top = id === 'timeline' ? kRuler : 0;
        if (y < top) return null;
        const hit = hitAt(surface.tracks, surface.bands, view.range, view.width, x, y - top + view.y);
        if (!hit) return null;
        if (hit.isTitle) return { isTitle: true, track: hit.track };
        const details = hit.index < 0 ? null : detailsIn(id, hit.track, hit.index);
        return details ? { isTitle: false, details } : null;
    },
    details: ({ surface, track, index }) => detailsIn(surface, track, index),
    picture: ({ form }) => pictureOf(form),
    settled: () => true,
};

function detailsIn(id: SurfaceId, track: number, index: number): Details | null {
    if (id === 'timeline') return detailsOf(track, index);
    if (flame) return index < flame.spans.start.length ? detailsOfPath(flame, index) : null;
    const its = surfaces.get('flame')?.tracks[track];
    return its ? detailsOf(report.tracks.indexOf(its), index) : null;
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
    report = readReport(new TextDecoder().decode(head), data);
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
