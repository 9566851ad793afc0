// Where the worker has the trace from: it stands in the page, or is served piece by piece.

import type { Flame } from './flame';
import type { Range, Report, Table, Track } from './model';
import type { FunctionTable, Histogram } from './statistics';

/** What something is that a track holds. */
export interface Item {
    start: number;
    end: number;
    /** A place in the table of the track; of values, 0. */
    name: number;
    depth: number;
    /** The end is not told. */
    isOpen: boolean;
    /** Of a span: what it is within, by name; how long what is in it took, and how many those are. */
    parent: number | null;
    inner: number;
    called: number;
    text: string;
    value: number;
}

export const kItem: Item = {
    start: 0,
    end: 0,
    name: 0,
    depth: 0,
    isOpen: false,
    parent: null,
    inner: 0,
    called: 0,
    text: '',
    value: 0,
};

/** Something in a track. */
export interface Place {
    track: number;
    index: number;
}

export interface FoundMark extends Place {
    at: number;
    name: number;
    text: string;
}

type Now<T> = T | Promise<T>;

export interface Source {
    /** Its tracks hold what is known of them. */
    readonly report: Report;
    /** Has tracks hold what a picture needs that shows a range on so many pixels. Null where they do already. */
    prepare(tracks: Track[], range: Range, pixels: number): Promise<void> | null;
    table(range: Range, track: number | null): Now<FunctionTable>;
    histogram(range: Range, track: number | null, name: number): Now<Histogram>;
    flame(range: Range, track: number | null): Now<Flame>;
    /** The first marks whose name or text is as a pattern says, and how many there are. */
    marks(range: Range, pattern: string | null, most: number): Now<{ marks: FoundMark[]; count: number }>;
    /** How often the names are used that are wanted. */
    count(wanted: Map<Table, Uint8Array>): number;
    /** The next one whose name is wanted, in the order of time, then of tracks. */
    next(pattern: string, wanted: Map<Table, Uint8Array>, from: Place & { at: number }, isBack: boolean): Now<Place | null>;
    item(track: number, index: number): Now<Item | null>;
}
