// The page: it shows what the worker tells, and puts no text anywhere but as text.

import { Chart } from './chart';
import type { Range } from './model';
import { matches, patternOf, quoted, shown } from './names';
import { kRuler } from './paint';
import type { Details, FromWorker, Picked, Questions, Summary, SurfaceId, ToWorker, View } from './protocol';
import type { FunctionRow } from './statistics';
import { durationText, momentText, tickText, ticksOf } from './times';

/** The program of the worker, which the build puts here. */
declare const WORKER_SOURCE: string;

function get<E extends HTMLElement>(id: string): E {
    const element = document.getElementById(id);
    if (!element) throw new Error(`the page lacks ${id}`);
    return element as E;
}
function make<K extends keyof HTMLElementTagNameMap>(
    tag: K,
    text = '',
    attributes: Record<string, string> = {},
): HTMLElementTagNameMap[K] {
    const element = document.createElement(tag);
    element.textContent = text;
    for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
    return element;
}

type Tab = 'functions' | 'flame' | 'durations' | 'messages' | 'trace';
const kPanels: Record<Tab, string> = {
    functions: 'functions',
    flame: 'flamePanel',
    durations: 'durations',
    messages: 'messages',
    trace: 'trace',
};
const kTabs = Object.keys(kPanels) as Tab[];

type Column = 'name' | 'calls' | 'total' | 'self' | 'min' | 'p50' | 'p99' | 'max';
const kColumns: { key: Column; label: string }[] = [
    { key: 'name', label: 'function' },
    { key: 'calls', label: 'calls' },
    { key: 'total', label: 'total' },
    { key: 'self', label: 'self' },
    { key: 'min', label: 'min' },
    { key: 'p50', label: 'median' },
    { key: 'p99', label: 'p99' },
    { key: 'max', label: 'max' },
];

/** What the page shows, as far as a link tells it. */
const state = {
    selection: null as Range | null,
    tab: 'functions' as Tab,
    function: null as number | null,
    thread: null as number | null,
    sort: 'self' as Column,
    isRising: false,
    closed: [] as number[],
    picked: null as { track: number; index: number; depth: number } | null,
    theme: null as 'dark' | 'light' | null,
};
let summary: Summary | null = null;
let shownRows = 0;
let refreshTimer = 0;
let rememberTimer = 0;

// The worker, and questions to it.

const worker = new Worker(URL.createObjectURL(new Blob([WORKER_SOURCE], { type: 'text/javascript' })));
const loading = new Set<SurfaceId>();
const waiting = new Map<number, { resolve: (answer: never) => void; reject: (error: Error) => void }>();
let asked = 0;

function send(message: ToWorker, transfer: Transferable[] = []): void {
    worker.postMessage(message, transfer);
}
function ask<Q extends keyof Questions>(question: Q, its: Questions[Q]['ask']): Promise<Questions[Q]['answer']> {
    const id = ++asked;
    showBusySoon();
    send({ do: 'ask', id, question, ask: its });
    return new Promise((resolve, reject) => waiting.set(id, { resolve, reject }));
}
/** Tells, behind what is being done now, whether something is still to come. */
function showBusySoon(): void {
    setTimeout(() => {
        const isBusy = waiting.size > 0 || loading.size > 0 || refreshTimer !== 0 || rememberTimer !== 0;
        get('bottom').setAttribute('aria-busy', String(isBusy));
    });
}
/** Does something a little later, once, however often it is wanted until then. The timer before is given back. */
function later(timer: number, delay: number, work: () => void): number {
    clearTimeout(timer);
    showBusySoon();
    return window.setTimeout(() => {
        work();
        showBusySoon();
    }, delay);
}
/** Asks one thing at a time and forgets all but the last of what is asked meanwhile. */
function latest<A extends unknown[]>(work: (...args: A) => Promise<void>): (...args: A) => void {
    let isBusy = false;
    let next: A | null = null;
    const go = (args: A): void => {
        isBusy = true;
        work(...args)
            .catch(fail)
            .finally(() => {
                isBusy = false;
                const its = next;
                next = null;
                if (its) go(its);
            });
    };
    return (...args) => {
        if (isBusy) next = args;
        else go(args);
    };
}
function fail(error: unknown): void {
    const status = get('status');
    status.textContent = error instanceof Error ? error.message : String(error);
    status.classList.add('failed');
}

worker.onerror = (event) => fail(event.message || 'the worker cannot run');
worker.onmessage = ({ data: message }: MessageEvent<FromWorker>) => {
    switch (message.is) {
        case 'ready':
            begin(message.summary);
            break;
        case 'painted':
            charts[message.surface].setContentHeight(message.height);
            if (message.isWhole) loading.delete(message.surface);
            else loading.add(message.surface);
            showBusySoon();
            if (message.surface === 'timeline' && message.isWhole) document.documentElement.dataset['ready'] = '';
            break;
        case 'answer':
            showBusySoon();
            waiting.get(message.id)?.resolve(message.answer as never);
            waiting.delete(message.id);
            break;
        case 'failed': {
            showBusySoon();
            const error = new Error(message.text);
            if (message.id === undefined) fail(`This trace cannot be shown${summary ? ' any more' : ''}: ${message.text}`);
            else waiting.get(message.id)?.reject(error);
            waiting.delete(message.id ?? -1);
        }
    }
};

// Data stand behind the program, in elements that hand themselves over one by one.
let hasBlocks = false;
(globalThis as unknown as { q: () => void }).q = () => {
    const script = document.currentScript;
    const block = script?.previousElementSibling;
    if (!script || !block) return;
    hasBlocks = true;
    send({ do: 'block', text: block.textContent ?? '', size: Number(block.getAttribute('data-size')) });
    block.remove();
    script.remove();
};

// Charts.

function isDark(): boolean {
    return state.theme ? state.theme === 'dark' : matchMedia('(prefers-color-scheme: dark)').matches;
}
function viewOf(chart: Chart, id: SurfaceId): View {
    return {
        range: chart.range,
        y: chart.scroll.scrollTop,
        width: chart.width,
        height: chart.height,
        ratio: Math.min(3, window.devicePixelRatio || 1),
        isDark: isDark(),
        selection: id === 'timeline' ? state.selection : null,
        closed: state.closed,
        picked: state.picked && pickedRange ? { ...state.picked, range: pickedRange } : null,
    };
}
function redraw(id: SurfaceId): void {
    if (!summary || !charts) return;
    send({ do: 'view', surface: id, view: viewOf(charts[id], id) });
    if (id === 'timeline') rememberSoon();
}

const pointAt = latest(async (id: SurfaceId, x: number, y: number) => {
    const picked = await ask('pick', { surface: id, x, y });
    charts[id].canvas.style.cursor = picked ? 'pointer' : 'default';
    const line = picked && !picked.isTitle ? picked.details.line : '';
    if (id === 'flame') get('flameStatus').textContent = line;
    else if (line !== '') tell(line);
});
async function click(id: SurfaceId, x: number, y: number): Promise<void> {
    const picked: Picked | null = await ask('pick', { surface: id, x, y });
    if (!picked) return;
    if (picked.isTitle) toggle(picked.track);
    else {
        showDetails(picked.details);
        if (id === 'flame' && picked.details.track < 0) charts.flame.show(picked.details.range);
    }
}
function toggle(track: number): void {
    state.closed = state.closed.includes(track)
        ? state.closed.filter((its) => its !== track)
        : [...state.closed, track];
    redraw('timeline');
}
function chartOf(id: SurfaceId, prefix: string, canvas: string): Chart {
    const chart = new Chart(
        get(prefix === '' ? 'scroll' : `${prefix}Scroll`),
        get<HTMLCanvasElement>(canvas),
        get(prefix === '' ? 'spacer' : `${prefix}Spacer`),
        id === 'timeline' ? kRuler : 0,
        {
            changed: () => redraw(id),
            clicked: (x, y) => void click(id, x, y).catch(fail),
            hovered: (x, y) => summary && pointAt(id, x, y),
            left: () => undefined,
            ...(id === 'timeline' ? { selected: (range: Range) => select(range) } : {}),
            key: (event) => keyIn(id, event),
        },
    );
    return chart;
}
const charts: Record<SurfaceId, Chart> = {
    timeline: chartOf('timeline', '', 'timeline'),
    flame: chartOf('flame', 'flame', 'flame'),
};
for (const id of ['timeline', 'flame'] as const) {
    const canvas = charts[id].canvas.transferControlToOffscreen();
    send({ do: 'surface', surface: id, canvas }, [canvas]);
}

function keyIn(id: SurfaceId, event: KeyboardEvent): boolean {
    if (event.code === 'Slash' && event.shiftKey) get<HTMLDialogElement>('helpDialog').showModal();
    else if (event.key === '?') get<HTMLDialogElement>('helpDialog').showModal();
    else if (event.key === '/') get('query').focus();
    else if (event.key === 'Escape') escape();
    else if (id === 'timeline' && event.code === 'KeyF') fitSelection();
    else if (id === 'timeline' && event.code === 'KeyM') select(charts.timeline.range);
    else if (id === 'timeline' && event.code === 'Enter') void jump(event.shiftKey).catch(fail);
    else return false;
    return true;
}
function escape(): void {
    if (!get('details').hidden) closeDetails();
    else select(null);
}
function fitSelection(): void {
    if (state.picked && state.selection === null && pickedRange) charts.timeline.fit(pickedRange);
    else if (state.selection) charts.timeline.fit(state.selection);
    else charts.timeline.showAll();
}

// Selection.

/** All that is selected: of nothing, the whole trace and the tick behind it. */
function rangeNow(): Range {
    if (state.selection) return state.selection;
    return summary ? { from: summary.from, to: summary.to + 1 } : { from: 0, to: 1 };
}
function select(range: Range | null): void {
    if (!summary) return;
    // Whole ticks, so that it can be told exactly.
    state.selection = range && { from: Math.floor(range.from), to: Math.max(Math.floor(range.from) + 1, Math.ceil(range.to)) };
    const text = (ticks: number): string => momentText(ticks, summary?.frequency ?? 0).replace(/ s$/, 's');
    get<HTMLInputElement>('from').value = state.selection ? text(state.selection.from) : '';
    get<HTMLInputElement>('to').value = state.selection ? text(state.selection.to) : '';
    redraw('timeline');
    refreshSoon();
}
/** While a range is being dragged, sums wait until it stands still. */
function refreshSoon(): void {
    refreshTimer = later(refreshTimer, 120, refresh);
}
function refresh(): void {
    if (!summary) return;
    clearTimeout(refreshTimer);
    refreshTimer = 0;
    showCommand();
    rememberSoon();
    show[state.tab]();
}

function showCommand(): void {
    get<HTMLInputElement>('command').value = commandNow();
}
/** What prints the same in a terminal. */
function commandNow(): string {
    if (!summary) return '';
    const its = summary;
    const thread = state.thread === null ? undefined : its.tracks[state.thread];
    const files = thread ? [its.files[thread.file]] : its.given;
    const words: string[] = [];
    if (state.selection) {
        words.push('--from', tickText(its, state.selection.from), '--to', tickText(its, state.selection.to));
    }
    if (thread && thread.place !== null && state.tab !== 'messages') words.push('--thread', String(thread.place));
    const filter = get<HTMLInputElement>('filter').value;
    let verb = 'stats';
    switch (state.tab) {
        case 'functions':
            if (filter !== '') words.push('--name', patternOf(filter));
            if (state.sort !== 'self') words.push('--sort', state.sort === 'name' ? 'function' : state.sort);
            break;
        case 'durations':
            if (state.function !== null) words.push('--name', its.functions[state.function].text);
            break;
        case 'flame':
            verb = 'graph';
            break;
        case 'messages':
            verb = 'dump';
            words.push('--format', 'text', '--kind', 'Message,Event,TraceBroken');
            break;
        case 'trace':
            verb = 'info';
            words.length = 0;
            break;
    }
    return ['qvx', verb, ...files, ...words].map(quoted).join(' ');
}

// Panels.

const showFunctions = latest(async () => {
    if (!summary) return;
    const its = summary;
    const { rows, hasClock, whole } = await ask('table', { range: rangeNow(), track: state.thread });
    const filter = get<HTMLInputElement>('filter').value;
    const pattern = patternOf(filter);
    const kept = filter === '' ? rows : rows.filter((row) => matches(pattern, its.functions[row.name].text));
    const key = state.sort;
    const way = state.isRising ? 1 : -1;
    kept.sort((a, b) => {
        if (key === 'name') {
            const [one, other] = [its.functions[a.name].text, its.functions[b.name].text];
            return one === other ? a.name - b.name : one < other ? -way : way;
        }
        return ((a[key] ?? -1) - (b[key] ?? -1)) * way || a.name - b.name;
    });
    const body = document.createElement('tbody');
    const count = Math.min(kept.length, Math.max(200, shownRows));
    for (const row of kept.slice(0, count)) body.append(rowOf(row, its, hasClock));
    get('table').querySelector('tbody')?.replaceWith(body);
    get('more').hidden = count >= kept.length;
    const unfinished = kept.reduce((sum, row) => sum + row.unfinished, 0);
    const calls = kept.reduce((sum, row) => sum + row.calls, 0);
    get('sums').textContent =
        `${kept.length} functions, ${calls} calls, ${durationText(whole, hasClock)} in functions` +
        (unfinished > 0 ? `, ${unfinished} calls without an end` : '');
});
function rowOf(row: FunctionRow, its: Summary, hasClock: boolean): HTMLTableRowElement {
    const line = make('tr');
    if (row.name === state.function) line.setAttribute('aria-current', 'true');
    const cell = make('td', '', { class: 'name' });
    const button = make('button', shown(its.functions[row.name].text), { type: 'button', title: 'Show its durations' });
    button.addEventListener('click', () => {
        state.function = row.name;
        setTab('durations');
    });
    cell.append(button);
    line.append(cell, make('td', String(row.calls), { class: 'number' }));
    for (const key of ['total', 'self', 'min', 'p50', 'p99', 'max'] as const) {
        const value = row[key];
        const text = value === null ? '–' : durationText(value, hasClock);
        line.append(make('td', text, { class: 'number', ...(value === null ? {} : { 'data-value': String(value) }) }));
    }
    return line;
}
function makeHead(): void {
    const head = get('table').querySelector('thead tr');
    head?.replaceChildren(
        ...kColumns.map(({ key, label }) => {
            const isIt = state.sort === key;
            const cell = make('th', '', { scope: 'col', class: key === 'name' ? '' : 'number' });
            cell.setAttribute('aria-sort', !isIt ? 'none' : state.isRising ? 'ascending' : 'descending');
            const button = make('button', label + (isIt ? (state.isRising ? ' ▲' : ' ▼') : ''), { type: 'button' });
            button.addEventListener('click', () => {
                state.isRising = isIt ? !state.isRising : key === 'name';
                state.sort = key;
                makeHead();
                refresh();
                get('table').querySelectorAll('th button').forEach((one, i) => {
                    if (kColumns[i].key === key) (one as HTMLElement).focus();
                });
            });
            cell.append(button);
            return cell;
        }),
    );
}

const showFlame = latest(async () => {
    const isMerged = get<HTMLInputElement>('merged').checked;
    const { range, isCut, isEmpty } = await ask('flame', { range: rangeNow(), track: state.thread, isMerged });
    charts.flame.setLimits(range);
    charts.flame.showAll();
    get('flameStatus').textContent = isEmpty
        ? 'No calls are selected.'
        : isCut
          ? 'There are more paths than are told apart.'
          : '';
});

const showDurations = latest(async () => {
    if (!summary) return;
    if (state.function === null) {
        const { rows } = await ask('table', { range: rangeNow(), track: state.thread });
        rows.sort((a, b) => b.self - a.self);
        state.function = rows[0]?.name ?? null;
        showCommand();
    }
    if (state.function === null) {
        get('histogramStatus').textContent = 'There are no calls.';
        return;
    }
    const choice = get<HTMLSelectElement>('function');
    choice.value = String(state.function);
    const its = await ask('histogram', { range: rangeNow(), track: state.thread, name: state.function });
    get('histogramStatus').textContent = `${its.count} calls that have ended`;
    get('histogram').replaceChildren(...(its.count > 0 ? [pictureOf(its)] : []));
    get('slowest').replaceChildren(
        ...its.slowest.map((call) => {
            const item = make('li');
            const text = `${durationText(call.duration, its.hasClock)} at ${momentText(call.start, summary?.frequency ?? 0)}`;
            const button = make('button', text, { type: 'button' });
            button.addEventListener('click', () => void goTo(call.track, call.span).catch(fail));
            item.append(button);
            return item;
        }),
    );
});

/** Bars from the shortest durations to the longest, with a table of the same for who cannot see them. */
function pictureOf(its: Questions['histogram']['answer']): HTMLElement {
    const ns = 'http://www.w3.org/2000/svg';
    const [width, height, left, bottom] = [560, 190, 6, 20];
    const svg = document.createElementNS(ns, 'svg');
    const set = (element: Element, attributes: Record<string, string | number>): Element => {
        for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, String(value));
        return element;
    };
    set(svg, { width, height, viewBox: `0 0 ${width} ${height}`, 'aria-hidden': 'true' });
    const most = Math.max(...its.bins.map((bin) => bin.count));
    // A place on the axis for each counter between the first and the last, also of those that have nothing.
    const low = Math.log2(its.bins[0].from + 1);
    const high = Math.max(Math.log2(its.bins[its.bins.length - 1].to + 1), low + 0.1);
    const xOf = (value: number): number => left + ((width - 2 * left) * (Math.log2(value + 1) - low)) / (high - low);
    for (const bin of its.bins) {
        const tall = Math.max(1, ((height - bottom - 16) * bin.count) / most);
        const x = xOf(bin.from);
        const rect = document.createElementNS(ns, 'rect');
        const wide = Math.max(1, xOf(bin.to) - x - 1);
        set(rect, { x, y: height - bottom - tall, width: wide, height: tall, class: 'barOf' });
        const title = document.createElementNS(ns, 'title');
        title.textContent = binText(bin, its.hasClock);
        rect.append(title);
        svg.append(rect);
    }
    const texts: [number, number, string, string][] = [
        [left, height - 5, 'start', durationText(its.bins[0].from, its.hasClock)],
        [width - left, height - 5, 'end', durationText(its.bins[its.bins.length - 1].to, its.hasClock)],
        [left, 11, 'start', `${most} calls`],
    ];
    for (const [x, y, anchor, text] of texts) {
        const label = document.createElementNS(ns, 'text');
        set(label, { x, y, 'text-anchor': anchor, class: 'axis' });
        label.textContent = text;
        svg.append(label);
    }
    const box = make('div');
    const list = make('ul', '', { class: 'hidden' });
    for (const bin of its.bins) list.append(make('li', binText(bin, its.hasClock)));
    box.append(svg, list);
    return box;
}
function binText(bin: { from: number; to: number; count: number }, hasClock: boolean): string {
    return `${bin.count} calls from ${durationText(bin.from, hasClock)} to below ${durationText(bin.to, hasClock)}`;
}

const showMessages = latest(async () => {
    const filter = get<HTMLInputElement>('markFilter').value;
    const { rows, count } = await ask('marks', { range: rangeNow(), filter, most: 500 });
    get('markStatus').textContent =
        count > rows.length ? `the first ${rows.length} of ${count}` : `${count} within the selection`;
    const body = document.createElement('tbody');
    for (const row of rows) {
        const line = make('tr');
        const cell = make('td', '', { class: 'number' });
        const button = make('button', momentText(row.at, summary?.frequency ?? 0), { type: 'button' });
        button.addEventListener('click', () => void goTo(row.track, row.index).catch(fail));
        cell.append(button);
        line.append(cell, make('td', row.place), make('td', row.name), make('td', row.text));
        body.append(line);
    }
    get('marks').querySelector('tbody')?.replaceWith(body);
});

function showTrace(): void {
    if (!summary) return;
    const its = summary;
    const facts: [string, string][] = [
        ...its.files.slice(0, 100).map((file): [string, string] => ['File', shown(file, 2000)]),
        ['Begins at', `tick ${tickText(its, its.from)}`],
        ['Duration', its.frequency > 0 ? momentText(its.to - its.from, its.frequency) : `${its.to - its.from} ticks`],
        ['Clock', its.frequency > 0 ? `${its.frequency} ticks a second` : 'not told: times are in ticks'],
        ['Tracks', String(its.tracks.length)],
        ['Intervals', String(its.spans)],
        ['Functions', String(its.functions.length)],
        ...its.unshown.map(({ what, count }): [string, string] => ['Not shown', `${count} × ${shown(what)}`]),
        ...its.notes.map((note): [string, string] => ['Note', shown(note, 4000)]),
        ['Written by', `qvx ${its.version}`],
    ];
    if (its.files.length > 100) facts.splice(100, 0, ['Files', `and ${its.files.length - 100} more`]);
    setFacts(get('facts'), facts);
}
function setFacts(list: HTMLElement, facts: [string, string][]): void {
    list.replaceChildren(...facts.flatMap(([word, text]) => [make('dt', word), make('dd', text)]));
}

const show: Record<Tab, () => void> = {
    functions: showFunctions,
    flame: showFlame,
    durations: showDurations,
    messages: showMessages,
    trace: showTrace,
};
function setTab(tab: Tab): void {
    state.tab = tab;
    for (const its of kTabs) {
        const button = get(`tab-${its}`);
        button.setAttribute('aria-selected', String(its === tab));
        button.tabIndex = its === tab ? 0 : -1;
        get(kPanels[its]).hidden = its !== tab;
    }
    refresh();
}

// Details and search.

let pickedRange: Range | null = null;
let pickedFunction: number | null = null;

function tell(text: string): void {
    const status = get('status');
    if (status.textContent !== text) status.textContent = text;
}
function showDetails(details: Details): void {
    state.picked = { track: details.track, index: details.index, depth: details.depth };
    pickedRange = details.range;
    pickedFunction = details.function;
    get('detailsName').textContent = details.name;
    setFacts(get('detailsFacts'), details.facts);
    get('goTo').hidden = details.track < 0;
    get('goDurations').hidden = details.function === null;
    get('details').hidden = false;
    tell(details.line);
    redraw('timeline');
    redraw('flame');
}
function closeDetails(): void {
    get('details').hidden = true;
    state.picked = null;
    pickedRange = null;
    redraw('timeline');
    redraw('flame');
    charts.timeline.canvas.focus();
}
/** Shows something in the timeline, with what it is. */
async function goTo(track: number, index: number): Promise<void> {
    const details = await ask('details', { surface: 'timeline', track, index });
    if (!details) return;
    state.closed = state.closed.filter((its) => its !== track);
    showDetails(details);
    showRange(details.range);
}
function showRange(range: Range): void {
    const length = range.to - range.from;
    const now = charts.timeline.range;
    // Of a moment, so much around it as is shown already, but not all.
    const room = length > 0 ? length : Math.min(now.to - now.from, (summary ? summary.to - summary.from : 1) / 100);
    charts.timeline.fit(length > 0 ? range : { from: range.from - room / 2, to: range.to + room / 2 });
}
async function jump(isBack: boolean): Promise<void> {
    if (!summary || get<HTMLInputElement>('query').value === '') return;
    let from = state.picked && state.picked.track >= 0 && pickedRange
        ? { at: pickedRange.from, ...state.picked }
        : { at: charts.timeline.range.from, track: -1, index: -1 };
    let details = await ask('next', { from, isBack });
    if (!details) {
        // Behind the last one comes the first.
        from = { at: isBack ? summary.to + 1 : summary.from - 1, track: isBack ? Infinity : -1, index: -1 };
        details = await ask('next', { from, isBack });
    }
    if (details) await goTo(details.track, details.index);
}
const searchNow = latest(async () => {
    const text = get<HTMLInputElement>('query').value;
    const { count } = await ask('search', { text });
    get('hits').textContent = text === '' ? '' : `${count} found`;
    redraw('timeline');
    redraw('flame');
});

// Links.

function rememberSoon(): void {
    rememberTimer = later(rememberTimer, 250, () => {
        rememberTimer = 0;
        history.replaceState(null, '', hashNow());
    });
}
function hashNow(): string {
    const { range } = charts.timeline;
    const words = new URLSearchParams();
    if (token !== null) words.set('t', token);
    words.set('view', `${range.from.toFixed(3)},${range.to.toFixed(3)}`);
    if (state.selection) words.set('selected', `${state.selection.from},${state.selection.to}`);
    if (state.tab !== 'functions') words.set('tab', state.tab);
    if (state.function !== null) words.set('function', String(state.function));
    if (state.thread !== null) words.set('thread', String(state.thread));
    if (state.sort !== 'self' || state.isRising) words.set('sort', (state.isRising ? '+' : '-') + state.sort);
    if (state.closed.length > 0) words.set('closed', state.closed.join());
    if (state.picked && state.picked.track >= 0) words.set('at', `${state.picked.track},${state.picked.index}`);
    if (state.theme) words.set('theme', state.theme);
    for (const id of ['query', 'filter', 'markFilter']) {
        const text = get<HTMLInputElement>(id).value;
        if (text !== '') words.set(id, text);
    }
    return `#${words.toString()}`;
}
function numbersOf(text: string | null, count: number): number[] | null {
    if (text === null) return null;
    const numbers = text.split(',').map(Number);
    return numbers.length >= count && numbers.every(Number.isFinite) ? numbers : null;
}
/** Does what a link tells, as far as it fits this trace. */
function restore(its: Summary): void {
    const words = new URLSearchParams(location.hash.slice(1));
    for (const id of ['query', 'filter', 'markFilter']) get<HTMLInputElement>(id).value = words.get(id) ?? '';
    const theme = words.get('theme');
    state.theme = theme === 'dark' || theme === 'light' ? theme : null;
    const whole = (text: string | null, end: number): number | null => {
        const number = numbersOf(text, 1)?.[0];
        return number !== undefined && Number.isInteger(number) && number >= 0 && number < end ? number : null;
    };
    state.function = whole(words.get('function'), its.functions.length);
    state.thread = whole(words.get('thread'), its.tracks.length);
    if (state.thread !== null && its.tracks[state.thread].sort !== 'function') state.thread = null;
    get<HTMLSelectElement>('thread').value = state.thread === null ? '' : String(state.thread);
    const sort = words.get('sort') ?? '-self';
    const column = kColumns.find(({ key }) => key === sort.slice(1));
    state.sort = column?.key ?? 'self';
    state.isRising = column !== undefined && sort.startsWith('+');
    state.closed = numbersOf(words.get('closed'), 1) ?? [];
    charts.timeline.setLimits(its);
    const view = numbersOf(words.get('view'), 2);
    if (view && view[0] < view[1]) charts.timeline.show({ from: view[0], to: view[1] });
    else charts.timeline.showAll();
    const selected = numbersOf(words.get('selected'), 2);
    makeHead();
    applyTheme();
    select(selected && selected[0] < selected[1] ? { from: selected[0], to: selected[1] } : null);
    setTab(kTabs.find((tab) => tab === words.get('tab')) ?? 'functions');
    const at = numbersOf(words.get('at'), 2);
    if (at)
        void ask('details', { surface: 'timeline', track: at[0], index: at[1] })
            .then((details) => details && showDetails(details))
            .catch(fail);
    searchNow();
}

// All together.

function applyTheme(): void {
    document.documentElement.dataset['theme'] = isDark() ? 'dark' : 'light';
    get('theme').textContent = isDark() ? 'Light' : 'Dark';
    redraw('timeline');
    redraw('flame');
}
function begin(its: Summary): void {
    summary = its;
    document.title = `${shown(its.title, 100)} – trace`;
    get('title').textContent = shown(its.title, 200);
    const threads = get<HTMLSelectElement>('thread');
    its.tracks.forEach((track, index) => {
        if (track.sort !== 'function') return;
        const file = its.files.length > 1 ? ` of ${shown(its.files[track.file].replace(/^.*[/\\](?=.)/, ''), 80)}` : '';
        threads.append(make('option', shown(track.title, 80) + file, { value: String(index) }));
    });
    const functions = get<HTMLSelectElement>('function');
    const sorted = its.functions.map((name, index) => ({ text: name.text, index }));
    sorted.sort((a, b) => (a.text < b.text ? -1 : a.text > b.text ? 1 : a.index - b.index));
    functions.append(
        ...sorted.slice(0, 5000).map(({ text, index }) => make('option', shown(text, 120), { value: String(index) })),
    );
    tell(
        its.unshown.length + its.notes.length > 0
            ? 'Not all of the trace is shown here, or there: see “Trace” below.'
            : `${its.spans} intervals in ${its.tracks.length} tracks. ? shows the keys.`,
    );
    restore(its);
}
async function save(form: 'svg' | 'png'): Promise<void> {
    const picture = await ask('picture', { form });
    const url = URL.createObjectURL(picture);
    const link = make('a', '', { href: url, download: `trace.${form}` });
    link.click();
    setTimeout(() => URL.revokeObjectURL(url), 10000);
}
async function copy(text: string, field: HTMLInputElement | null): Promise<void> {
    try {
        await navigator.clipboard.writeText(text);
        tell('Copied.');
    } catch {
        if (field) field.select();
        tell(field ? 'Press Ctrl+C to copy.' : text);
    }
}

const kKeys: [string, string][] = [
    ['W S, + −', 'zoom in and out'],
    ['A D, ← →', 'earlier and later'],
    ['↑ ↓, wheel', 'scroll the tracks'],
    ['Ctrl + wheel, wheel on the ruler', 'zoom where the mouse is'],
    ['Drag', 'move'],
    ['Shift + drag, drag on the ruler', 'select a time'],
    ['M', 'select what is in view'],
    ['F', 'fit what is selected'],
    ['0, double click', 'all'],
    ['/', 'search'],
    ['Enter, Shift + Enter', 'next and previous of what is searched for'],
    ['Click', 'details; on a title, close or open the track'],
    ['Escape', 'close the details, then clear the selection'],
    ['?', 'this help'],
];
get('keys').replaceChildren(
    ...kKeys.map(([keys, what]) => {
        const line = make('tr');
        const cell = make('th', '', { scope: 'row' });
        cell.append(make('kbd', keys));
        line.append(cell, make('td', what));
        return line;
    }),
);

function onClick(id: string, work: () => void | Promise<void>): void {
    get(id).addEventListener('click', () => {
        if (summary || id === 'help') Promise.resolve(work()).catch(fail);
    });
}
onClick('earlier', () => charts.timeline.pan(-0.3));
onClick('later', () => charts.timeline.pan(0.3));
onClick('in', () => charts.timeline.zoom(0.5));
onClick('out', () => charts.timeline.zoom(2));
onClick('fit', () => charts.timeline.showAll());
onClick('fitSelection', fitSelection);
onClick('selectView', () => select(charts.timeline.range));
onClick('clear', () => select(null));
onClick('flameFit', () => charts.flame.showAll());
onClick('png', () => save('png'));
onClick('svg', () => save('svg'));
onClick('link', () => copy(location.href.replace(/#.*$/, '') + hashNow(), null));
onClick('copy', () => copy(get<HTMLInputElement>('command').value, get<HTMLInputElement>('command')));
onClick('help', () => get<HTMLDialogElement>('helpDialog').showModal());
onClick('theme', () => {
    state.theme = isDark() ? 'light' : 'dark';
    applyTheme();
});
onClick('more', () => {
    shownRows = get('table').querySelectorAll('tbody tr').length + 1000;
    refresh();
});
onClick('close', closeDetails);
onClick('goTo', () => {
    if (pickedRange) showRange(pickedRange);
});
onClick('goDurations', () => {
    state.function = pickedFunction;
    setTab('durations');
});
onClick('goSearch', () => {
    if (!summary) return;
    const name = pickedFunction === null ? get('detailsName').textContent : summary.functions[pickedFunction].text;
    get<HTMLInputElement>('query').value = name ?? '';
    searchNow();
});
onClick('previous', () => jump(true));
get('search').addEventListener('submit', (event) => {
    event.preventDefault();
    void jump(false).catch(fail);
});
get('query').addEventListener('input', () => {
    searchNow();
    rememberSoon();
});
get('query').addEventListener('keydown', (event) => {
    if (event.key === 'Enter' && event.shiftKey) {
        event.preventDefault();
        void jump(true).catch(fail);
    } else if (event.key === 'Escape') {
        charts.timeline.canvas.focus();
    }
});
get('filter').addEventListener('input', refreshSoon);
get('markFilter').addEventListener('input', refreshSoon);
for (const id of ['merged', 'inTime']) get(id).addEventListener('change', refresh);
get('thread').addEventListener('change', (event) => {
    const { value } = event.target as HTMLSelectElement;
    state.thread = value === '' ? null : Number(value);
    refresh();
});
get('function').addEventListener('change', (event) => {
    state.function = Number((event.target as HTMLSelectElement).value);
    refresh();
});
for (const id of ['from', 'to']) {
    get(id).addEventListener('change', () => {
        if (!summary) return;
        const [from, to] = ['from', 'to'].map((its) =>
            ticksOf(get<HTMLInputElement>(its).value, summary?.frequency ?? 0),
        );
        const isNone = (text: string): boolean => get<HTMLInputElement>(text).value.trim() === '';
        if (isNone('from') && isNone('to')) select(null);
        else if ((from === null && !isNone('from')) || (to === null && !isNone('to')))
            tell('A time is written as 1.5s, 20ms, 3us, 400ns, or as a number of ticks, from the start.');
        else select({ from: from ?? summary.from, to: Math.max((from ?? summary.from) + 1, to ?? summary.to + 1) });
    });
}
for (const tab of kTabs) {
    const button = get(`tab-${tab}`);
    button.addEventListener('click', () => setTab(tab));
    button.addEventListener('keydown', (event) => {
        const by = event.key === 'ArrowRight' ? 1 : event.key === 'ArrowLeft' ? -1 : 0;
        if (by === 0) return;
        const next = kTabs[(kTabs.indexOf(tab) + by + kTabs.length) % kTabs.length];
        setTab(next);
        get(`tab-${next}`).focus();
    });
}
document.addEventListener('keydown', (event) => {
    if (event.key === '/' && !(event.target instanceof HTMLInputElement) && !event.ctrlKey) {
        event.preventDefault();
        get('query').focus();
    }
});
window.addEventListener('hashchange', () => summary && restore(summary));
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', applyTheme);
// A page without data was served, and the address tells the word by which to ask for them.
const token = new URLSearchParams(location.hash.slice(1)).get('t');
window.addEventListener('load', () => {
    if (hasBlocks || token === null || location.protocol !== 'http:') send({ do: 'end' });
    else send({ do: 'serve', origin: location.origin, token });
});
applyTheme();
