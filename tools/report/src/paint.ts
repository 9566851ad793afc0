// Pictures of tracks. What a picture costs depends on its pixels, not on what the tracks hold: of all that falls into
// one pixel, one thing is painted.

import { behindLast, firstFrom, longestOf, type Name, type Range, type Spans, type Track } from './model';
import { momentText, stepOf } from './times';
import { shown } from './names';

export const kRow = 18;
export const kHeader = 20;
export const kRuler = 24;
const kCurve = 48;
const kGap = 4;

/** Fills under black text that people with any sort of colour vision can tell apart (Tol, "light"). */
const kFills = [0x77aadd, 0x99ddff, 0x44bb99, 0xbbcc33, 0xaaaa00, 0xeedd88, 0xee8866, 0xffaabb, 0xdddddd];

export interface Theme {
    background: number;
    band: number;
    header: number;
    text: string;
    faint: string;
    curve: number;
    curveFill: number;
    mark: number;
    accent: string;
    selection: string;
}

export const kLight: Theme = {
    background: 0xffffff,
    band: 0xf7f8fa,
    header: 0xe9ecf1,
    text: '#1a1d23',
    faint: '#565d6b',
    curve: 0x225588,
    curveFill: 0xc9d8ea,
    mark: 0xaa3377,
    accent: '#b3003b',
    selection: 'rgba(0, 90, 200, 0.14)',
};
export const kDark: Theme = {
    background: 0x16181d,
    band: 0x1b1e24,
    header: 0x272b34,
    text: '#e8eaee',
    faint: '#a4abb8',
    curve: 0x99ddff,
    curveFill: 0x2a4058,
    mark: 0xffaabb,
    accent: '#ffd166',
    selection: 'rgba(120, 180, 255, 0.20)',
};

/** What a picture is made of: fills in pixels of the device, then texts above them. */
export interface Canvas {
    readonly width: number;
    readonly height: number;
    fill(x: number, y: number, width: number, height: number, color: number): void;
    /** A row of fills, all of that place and height: `line` fills from one x to before another. */
    beginRow(y: number, height: number): void;
    line(from: number, to: number, color: number): void;
    endRow(): void;
    text(x: number, y: number, text: string, room: number, color: string, isBold?: boolean): void;
    /** Texts whose middle is above that are left out. */
    top: number;
}

/** Puts pixels into memory; texts are kept for who draws them. */
export class Pixels implements Canvas {
    readonly texts: { x: number; y: number; text: string; room: number; color: string; isBold: boolean }[] = [];
    top = 0;
    private rowTop = 0;
    private rowHeight = 0;

    constructor(
        readonly pixels: Uint32Array,
        readonly width: number,
        readonly height: number,
    ) {}

    fill(x: number, y: number, width: number, height: number, color: number): void {
        const from = Math.max(0, Math.round(x));
        const to = Math.min(this.width, Math.round(x + width));
        const top = Math.max(0, Math.round(y));
        const bottom = Math.min(this.height, Math.round(y + height));
        const value = pixelOf(color);
        for (let line = top; line < bottom && from < to; ++line)
            this.pixels.fill(value, line * this.width + from, line * this.width + to);
    }
    beginRow(y: number, height: number): void {
        this.rowTop = Math.max(0, Math.round(y));
        this.rowHeight = Math.min(this.height, Math.round(y + height)) - this.rowTop;
    }
    line(from: number, to: number, color: number): void {
        if (this.rowHeight <= 0) return;
        const begin = this.rowTop * this.width;
        this.pixels.fill(pixelOf(color), begin + Math.max(0, from), begin + Math.min(this.width, to));
    }
    endRow(): void {
        const begin = this.rowTop * this.width;
        for (let line = 1; line < this.rowHeight; ++line)
            this.pixels.copyWithin(begin + line * this.width, begin, begin + this.width);
    }
    text(x: number, y: number, text: string, room: number, color: string, isBold = false): void {
        if (y >= this.top) this.texts.push({ x, y, text, room, color, isBold });
    }
}

/** The same as a text of SVG. */
export class Drawing implements Canvas {
    private readonly parts: string[] = [];
    top = 0;
    private rowTop = 0;
    private rowHeight = 0;

    constructor(
        readonly width: number,
        readonly height: number,
        private readonly fontSize: number,
    ) {}

    fill(x: number, y: number, width: number, height: number, color: number): void {
        this.parts.push(
            `<rect x="${round(x)}" y="${round(y)}" width="${round(width)}" height="${round(height)}" fill="${hex(color)}"/>`,
        );
    }
    beginRow(y: number, height: number): void {
        this.rowTop = y;
        this.rowHeight = height;
    }
    line(from: number, to: number, color: number): void {
        const begin = Math.max(0, from);
        this.fill(begin, this.rowTop, Math.min(this.width, to) - begin, this.rowHeight, color);
    }
    endRow(): void {}
    text(x: number, y: number, text: string, room: number, color: string, isBold = false): void {
        const cut = fitting(text, room, (part) => part.length * this.fontSize * 0.56);
        if (cut === '' || y < this.top) return;
        const weight = isBold ? ' font-weight="bold"' : '';
        this.parts.push(`<text x="${round(x)}" y="${round(y)}" fill="${color}"${weight}>${escaped(cut)}</text>`);
    }
    toString(): string {
        return (
            `<svg xmlns="http://www.w3.org/2000/svg" width="${this.width}" height="${this.height}" ` +
            `viewBox="0 0 ${this.width} ${this.height}" font-family="sans-serif" font-size="${this.fontSize}" ` +
            `dominant-baseline="middle">${this.parts.join('')}</svg>\n`
        );
    }
}

function round(value: number): string {
    return String(Math.round(value * 100) / 100);
}
function hex(color: number): string {
    return `#${color.toString(16).padStart(6, '0')}`;
}
function escaped(text: string): string {
    return text.replace(/[&<>"]/g, (one) => `&#${one.charCodeAt(0)};`);
}
/** A colour as memory of a picture has it. */
function pixelOf(color: number): number {
    return (0xff000000 | ((color & 0xff) << 16) | (color & 0xff00) | (color >> 16)) >>> 0;
}
function mixed(color: number, other: number, share: number): number {
    let result = 0;
    for (const shift of [16, 8, 0]) {
        const from = (color >> shift) & 0xff;
        const to = (other >> shift) & 0xff;
        result |= Math.round(from + (to - from) * share) << shift;
    }
    return result;
}

/** As much of a text as there is room for, by `width` of a text; empty where less than two characters would be left. */
export function fitting(text: string, room: number, width: (text: string) => number): string {
    const whole = width(text);
    if (whole <= room) return text;
    for (let most = Math.floor((text.length * room) / whole) - 1; most >= 2; --most) {
        const cut = `${text.slice(0, most)}…`;
        if (width(cut) <= room) return cut;
    }
    return '';
}

/** The colours of names: those that were used one after the other differ. */
export class Colors {
    private readonly faint: number[];

    constructor(background: number) {
        this.faint = kFills.map((fill) => mixed(fill, background, 0.8));
    }
    of(name: number, isFaint: boolean): number {
        return (isFaint ? this.faint : kFills)[name % kFills.length];
    }
}

/** A track where it stands in a picture, in pixels of CSS from the top. */
export interface Band {
    track: number;
    y: number;
    header: number;
    height: number;
}

export function heightOf(track: Track): number {
    if (track.spans) return (track.spans.rows.length - 1) * kRow;
    return track.curve ? kCurve : kRow;
}

/** Puts tracks one below the other. */
export function layOut(tracks: Track[], isClosed: (track: number) => boolean, header = kHeader): Band[] {
    let y = 0;
    return tracks.map((track, index) => {
        const height = header + (isClosed(index) ? 0 : heightOf(track) + kGap);
        const band = { track: index, y, header, height };
        y += height;
        return band;
    });
}

/** What is shown of tracks. */
export interface Look {
    range: Range;
    /** How far the picture is scrolled down, in pixels of CSS. */
    y: number;
    /** Pixels of the device for one of CSS. */
    ratio: number;
    theme: Theme;
    /** Which names of a track's table are looked for; null while nothing is. */
    wanted: (track: Track) => Uint8Array | null;
    names: (track: Track) => Name[];
    colors: Colors;
    title: (track: Track) => string;
    ruler: { frequency: number } | null;
    isClosed: (track: number) => boolean;
}

/** Paints the bands that are in sight. */
export function paint(canvas: Canvas, tracks: Track[], bands: Band[], look: Look): void {
    const { ratio, theme } = look;
    canvas.fill(0, 0, canvas.width, canvas.height, theme.background);
    const top = look.ruler ? kRuler : 0;
    canvas.top = look.ruler ? (kRuler + 6) * ratio : 0;
    for (const band of bands) {
        const y = (top + band.y - look.y) * ratio;
        if (y > canvas.height || y + band.height * ratio < 0) continue;
        const track = tracks[band.track];
        if (band.header > 0) {
            canvas.fill(0, y, canvas.width, (band.header - 2) * ratio, theme.header);
            const sign = look.isClosed(band.track) ? '▸' : '▾';
            const title = `${sign} ${look.title(track)}`;
            canvas.text(6 * ratio, y + (band.header / 2 - 1) * ratio, title, canvas.width, theme.text, true);
        }
        if (band.height <= band.header) continue;
        const body = y + band.header * ratio;
        if (track.spans) paintSpans(canvas, track, track.spans, body, look);
        else if (track.marks) paintMarks(canvas, track, body, look);
        else paintCurve(canvas, track, body, look);
    }
    if (look.ruler) paintRuler(canvas, look, look.ruler);
}

const kLabel = 30;

function paintSpans(canvas: Canvas, track: Track, spans: Spans, top: number, look: Look): void {
    const { range, ratio } = look;
    const { start, end, name, order, rows } = spans;
    const k = canvas.width / (range.to - range.from);
    const t0 = range.from;
    const names = look.names(track);
    const { colors } = look;
    const wanted = look.wanted(track);
    for (let row = 0; row + 1 < rows.length; ++row) {
        const y = top + row * kRow * ratio;
        if (y > canvas.height) return;
        if (y + kRow * ratio < 0) continue;
        const hi = rows[row + 1];
        canvas.beginRow(y, (kRow - 1) * ratio);
        let i = behindLast(end, order, rows[row], hi, t0);
        // What ends right there may be a moment that is in sight.
        while (i > rows[row] && end[order[i - 1]] >= t0) --i;
        while (i < hi && start[order[i]] < range.to) {
            const span = order[i];
            const x0 = (start[span] - t0) * k;
            const x1 = (end[span] - t0) * k;
            if (x1 - x0 >= 1) {
                const from = Math.max(0, Math.floor(x0));
                let to = Math.min(canvas.width, Math.max(from + 1, Math.floor(x1)));
                const isFaint = wanted !== null && wanted[name[span]] === 0;
                // Where there is room, calls that touch have a gap between them.
                if (to - from > 3 * ratio && to < canvas.width) to -= Math.ceil(ratio / 2);
                canvas.line(from, to, colors.of(name[span], isFaint));
                if (to - from > kLabel * ratio) {
                    const color = isFaint ? look.theme.faint : '#101216';
                    const label = shown(names[name[span]].text, 120) + (spans.open[span] ? ' …' : '');
                    canvas.text(from + 3 * ratio, y + (kRow / 2) * ratio, label, to - from - 5 * ratio, color);
                }
                ++i;
            } else {
                const pixel = Math.max(0, Math.floor(x0));
                const j = Math.max(i + 1, gallop(end, order, i + 1, hi, t0 + (pixel + 1) / k));
                let its = longestOf(spans, i, j);
                let isFaint = wanted !== null && wanted[name[its]] === 0;
                // What is looked for is seen, also between longer ones.
                for (let other = i; isFaint && other < j && other < i + 4096; ++other)
                    if (wanted?.[name[order[other]]]) {
                        its = order[other];
                        isFaint = false;
                    }
                canvas.line(pixel, pixel + 1, colors.of(name[its], isFaint));
                i = j;
            }
        }
        canvas.endRow();
    }
}

/** The index behind the last one from lo on at which `values[order[i]] <= limit`; soon where that is near. */
function gallop(values: Float64Array, order: Uint32Array, lo: number, hi: number, limit: number): number {
    let step = 1;
    let at = lo;
    while (at < hi && values[order[at]] <= limit) {
        lo = at + 1;
        at += step;
        step *= 2;
    }
    return behindLast(values, order, lo, Math.min(at, hi), limit);
}

function paintMarks(canvas: Canvas, track: Track, top: number, look: Look): void {
    const marks = track.marks;
    if (!marks) return;
    const { range, ratio, theme } = look;
    const k = canvas.width / (range.to - range.from);
    const wanted = look.wanted(track);
    const names = look.names(track);
    const texts = look.names({ ...track, table: 'text' });
    const size = Math.max(2, Math.round(2 * ratio));
    canvas.beginRow(top, (kRow - 1) * ratio);
    for (let i = firstFrom(marks.at, range.from); i < marks.at.length && marks.at[i] < range.to; ) {
        const x = Math.floor((marks.at[i] - range.from) * k);
        const next = Math.max(i + 1, firstFrom(marks.at, range.from + (x + 1) / k, i));
        let isFaint = wanted !== null;
        for (let other = i; isFaint && other < next && other < i + 4096; ++other)
            isFaint = wanted?.[marks.name[other]] !== 1;
        canvas.line(x, x + size, isFaint ? mixed(theme.mark, theme.background, 0.75) : theme.mark);
        const until = next < marks.at.length ? (marks.at[next] - range.from) * k : canvas.width;
        const room = Math.min(until, canvas.width) - x - 6 * ratio;
        if (room > kLabel * ratio) {
            const name = names[marks.name[i]].text;
            const its = texts[marks.text[i]].text;
            // That a message is one says its track.
            const text = its === '' ? name : name === 'Message' ? its : `${name} ${its}`;
            const y = top + (kRow / 2) * ratio;
            canvas.text(x + 4 * ratio, y, shown(text, 120), room, isFaint ? theme.faint : theme.text);
        }
        i = next;
    }
    canvas.endRow();
}

/** The least and the greatest finite value; of none, 0 and 1. */
export function boundsOf(values: Float64Array): [number, number] {
    let least = Infinity;
    let most = -Infinity;
    for (let i = 0; i < values.length; ++i) {
        if (!Number.isFinite(values[i])) continue;
        if (values[i] < least) least = values[i];
        if (values[i] > most) most = values[i];
    }
    return least > most ? [0, 1] : [least, most];
}

const bounds = new WeakMap<Float64Array, [number, number]>();

function paintCurve(canvas: Canvas, track: Track, top: number, look: Look): void {
    const curve = track.curve;
    if (!curve) return;
    const { range, ratio, theme } = look;
    const known = curve.bounds ?? bounds.get(curve.value) ?? boundsOf(curve.value);
    bounds.set(curve.value, known);
    const [low, high] = [Math.min(0, known[0]), known[1] > known[0] ? known[1] : Math.max(known[1], known[0] + 1)];
    const height = (kCurve - 6) * ratio;
    const yOf = (value: number): number => top + 3 * ratio + height * (1 - (value - low) / (high - low));
    const k = canvas.width / (range.to - range.from);
    const zero = yOf(Math.max(low, Math.min(0, high)));
    let i = firstFrom(curve.at, range.from);
    let held = i > 0 ? curve.value[i - 1] : NaN;
    canvas.fill(0, top, canvas.width, kCurve * ratio, theme.band);
    for (let x = 0; x < canvas.width; ) {
        const until = range.from + (x + 1) / k;
        const next = firstFrom(curve.at, until, i);
        if (next === i) {
            // Nothing changes in a stretch of pixels.
            const change = i < curve.at.length ? Math.floor((curve.at[i] - range.from) * k) : canvas.width;
            const to = Math.min(canvas.width, Math.max(x + 1, change));
            if (Number.isFinite(held)) {
                const y = yOf(held);
                canvas.fill(x, Math.min(y, zero), to - x, Math.abs(zero - y), theme.curveFill);
                canvas.fill(x, y - ratio / 2, to - x, Math.max(1, ratio), theme.curve);
            }
            x = to;
            continue;
        }
        let least = Number.isFinite(held) ? held : curve.value[i];
        let most = least;
        for (; i < next; ++i) {
            if (curve.value[i] < least) least = curve.value[i];
            if (curve.value[i] > most) most = curve.value[i];
        }
        held = curve.value[next - 1];
        if (Number.isFinite(most)) {
            const y = yOf(most);
            canvas.fill(x, Math.min(y, zero), 1, Math.abs(zero - y), theme.curveFill);
            canvas.fill(x, y - ratio / 2, 1, Math.max(1, yOf(least) - y + ratio), theme.curve);
        }
        ++x;
    }
    const label = `${known[0]} … ${known[1]}`;
    canvas.text(6 * ratio, top + 8 * ratio, label, canvas.width, theme.faint);
}

function paintRuler(canvas: Canvas, look: Look, ruler: { frequency: number }): void {
    const { range, ratio, theme } = look;
    const { frequency } = ruler;
    canvas.top = 0;
    canvas.fill(0, 0, canvas.width, kRuler * ratio, theme.band);
    canvas.fill(0, kRuler * ratio - 1, canvas.width, 1, theme.header);
    const span = range.to - range.from;
    const step = stepOf(span, frequency, canvas.width / (130 * ratio));
    const k = canvas.width / span;
    const gray = parseInt(theme.faint.slice(1), 16);
    for (let at = Math.ceil(range.from / step) * step; at < range.to; at += step) {
        const x = (at - range.from) * k;
        canvas.fill(x, kRuler * ratio * 0.6, Math.max(1, ratio), kRuler * ratio * 0.4, gray);
        canvas.text(x + 4 * ratio, kRuler * ratio * 0.5, momentText(at, frequency, step), 120 * ratio, theme.text);
    }
}

/** What is at a place of a picture. */
export interface Hit {
    track: number;
    /** Of the track's spans, marks or values; -1: its title, or nothing. */
    index: number;
    isTitle: boolean;
}

export function hitAt(
    tracks: Track[],
    bands: Band[],
    range: Range,
    width: number,
    x: number,
    y: number,
): Hit | null {
    const band = bands.find((its) => y >= its.y && y < its.y + its.height);
    if (!band) return null;
    const hit: Hit = { track: band.track, index: -1, isTitle: y < band.y + band.header };
    if (hit.isTitle) return hit;
    const { spans, marks, curve } = tracks[band.track];
    const k = (range.to - range.from) / width;
    const time = range.from + x * k;
    if (spans) {
        const row = Math.floor((y - band.y - band.header) / kRow);
        if (row + 1 >= spans.rows.length) return hit;
        const lo = spans.rows[row];
        const hi = spans.rows[row + 1];
        // The longest one of those that touch the pixel.
        const i = behindLast(spans.end, spans.order, lo, hi, time - k / 2);
        const j = behindLast(spans.start, spans.order, i, hi, time + k / 2);
        hit.index = i < j ? longestOf(spans, i, j) : -1;
    } else if (marks) {
        const i = firstFrom(marks.at, time - 4 * k);
        hit.index = i < marks.at.length && marks.at[i] <= time + 4 * k ? i : -1;
    } else if (curve) {
        hit.index = firstFrom(curve.at, time + k / 2) - 1;
    }
    return hit;
}
