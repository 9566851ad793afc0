// What the page and its worker, which holds the trace and paints, say to each other.

import type { Range, Track, Unshown } from './model';
import type { FunctionTable, Histogram } from './statistics';

export type SurfaceId = 'timeline' | 'flame';

/** What a picture is to show. */
export interface View {
    range: Range;
    y: number;
    /** Size in pixels of CSS, and how many of the device one of these is. */
    width: number;
    height: number;
    ratio: number;
    isDark: boolean;
    selection: Range | null;
    closed: number[];
    picked: { track: number; index: number; range: Range; depth: number } | null;
}

/** All that the page knows of a trace by itself. */
export interface Summary {
    title: string;
    version: string;
    files: string[];
    given: string[];
    base: string;
    frequency: number;
    from: number;
    to: number;
    tracks: Pick<Track, 'sort' | 'title' | 'file' | 'place' | 'count'>[];
    functions: { text: string; id: number | string | null }[];
    hasMarks: boolean;
    unshown: Unshown[];
    notes: string[];
    spans: number;
}

/** What something is, for people: pairs of a word and what it says. */
export interface Details {
    track: number;
    index: number;
    name: string;
    /** The function that it is a call of; null where it is none. */
    function: number | null;
    range: Range;
    depth: number;
    facts: [string, string][];
    line: string;
}

export interface MarkRow {
    track: number;
    index: number;
    at: number;
    place: string;
    name: string;
    text: string;
}

/** Each question by its name: what is asked, and what the answer is. */
export interface Questions {
    table: { ask: { range: Range; track: number | null }; answer: FunctionTable };
    histogram: { ask: { range: Range; track: number | null; name: number }; answer: Histogram };
    flame: {
        ask: { range: Range; track: number | null; isMerged: boolean };
        answer: { range: Range; hasClock: boolean; isCut: boolean; isEmpty: boolean };
    };
    marks: { ask: { range: Range; filter: string; most: number }; answer: { rows: MarkRow[]; count: number } };
    search: { ask: { text: string }; answer: { count: number } };
    next: { ask: { from: { at: number; track: number; index: number }; isBack: boolean }; answer: Details | null };
    pick: { ask: { surface: SurfaceId; x: number; y: number }; answer: Picked | null };
    details: { ask: { surface: SurfaceId; track: number; index: number }; answer: Details | null };
    picture: { ask: { form: 'svg' | 'png' }; answer: Blob };
    settled: { ask: Record<string, never>; answer: true };
}

export type Picked = { isTitle: true; track: number } | { isTitle: false; details: Details };

export type ToWorker =
    | { do: 'block'; text: string; size: number }
    | { do: 'end' }
    | { do: 'serve'; origin: string; token: string }
    | { do: 'surface'; surface: SurfaceId; canvas: OffscreenCanvas }
    | { do: 'view'; surface: SurfaceId; view: View }
    | { do: 'ask'; id: number; question: keyof Questions; ask: unknown };

export type FromWorker =
    | { is: 'ready'; summary: Summary }
    | { is: 'painted'; surface: SurfaceId; height: number; isWhole: boolean }
    | { is: 'answer'; id: number; answer: unknown }
    | { is: 'failed'; text: string; id?: number };
