// A picture that can be zoomed, moved and pointed at; the worker paints it.

import type { Range } from './model';

export interface ChartEvents {
    /** The range or the size has changed: paint. */
    changed(): void;
    /** A place has been clicked, in pixels of the canvas. */
    clicked(x: number, y: number): void;
    hovered(x: number, y: number): void;
    left(): void;
    /** A range has been marked by dragging; not for charts that have none. */
    selected?(range: Range): void;
    /** Keys that are not for zooming and moving; true if it was one. */
    key(event: KeyboardEvent): boolean;
}

/** The shortest range that is shown, in ticks: part of a nanosecond of fast clocks. */
const kShortest = 1e-3;

export class Chart {
    range: Range = { from: 0, to: 1 };
    private limits: Range = { from: 0, to: 1 };
    private drag: { x: number; y: number; scroll: number; range: Range; isSelecting: boolean; hasMoved: boolean } | null =
        null;

    constructor(
        readonly scroll: HTMLElement,
        readonly canvas: HTMLCanvasElement,
        private readonly spacer: HTMLElement,
        private readonly rulerHeight: number,
        private readonly events: ChartEvents,
    ) {
        canvas.addEventListener('pointerdown', (event) => this.down(event));
        canvas.addEventListener('pointermove', (event) => this.moved(event));
        canvas.addEventListener('pointerup', (event) => this.up(event));
        canvas.addEventListener('pointercancel', () => (this.drag = null));
        canvas.addEventListener('pointerleave', () => events.left());
        canvas.addEventListener('dblclick', () => this.showAll());
        canvas.addEventListener('keydown', (event) => {
            if (event.ctrlKey || event.metaKey || event.altKey) return;
            if (events.key(event) || this.key(event)) event.preventDefault();
        });
        scroll.addEventListener('wheel', (event) => this.wheel(event), { passive: false });
        scroll.addEventListener('scroll', () => events.changed());
        new ResizeObserver(() => this.resize()).observe(scroll);
    }

    get width(): number {
        return Math.max(1, this.scroll.clientWidth);
    }
    get height(): number {
        return Math.max(1, this.scroll.clientHeight);
    }

    /** What there is to see, and how high all of it is. */
    setLimits(limits: Range): void {
        const room = Math.max(1, limits.to - limits.from) * 0.02;
        this.limits = { from: limits.from - room, to: limits.to + room };
    }
    setContentHeight(height: number): void {
        this.spacer.style.height = `${Math.max(0, height - this.height)}px`;
    }
    showAll(): void {
        this.show(this.limits);
    }
    /** Shows a range, as far as that makes sense. */
    show(range: Range): void {
        const whole = this.limits.to - this.limits.from;
        const length = Math.min(whole, Math.max(kShortest, range.to - range.from));
        let from = (range.from + range.to - length) / 2;
        from = Math.min(Math.max(from, this.limits.from), this.limits.to - length);
        this.range = { from, to: from + length };
        this.events.changed();
    }
    /** Shows a range with some room on both sides. */
    fit(range: Range): void {
        const room = Math.max((range.to - range.from) * 0.25, 2 * kShortest);
        this.show({ from: range.from - room, to: range.to + room });
    }
    /** Makes the range shorter by a factor, or longer, around a place from 0 to 1. */
    zoom(factor: number, at = 0.5): void {
        const { from, to } = this.range;
        const whole = this.limits.to - this.limits.from;
        const length = Math.min(whole, Math.max(kShortest, (to - from) * factor));
        const middle = from + (to - from) * at;
        this.show({ from: middle - length * at, to: middle + length * (1 - at) });
    }
    pan(share: number): void {
        const { from, to } = this.range;
        const by = (to - from) * share;
        this.show({ from: from + by, to: to + by });
    }
    timeAt(x: number): number {
        return this.range.from + ((this.range.to - this.range.from) * x) / this.width;
    }

    private resize(): void {
        this.canvas.style.height = `${this.height}px`;
        this.events.changed();
    }
    private place(event: MouseEvent): { x: number; y: number } {
        const box = this.canvas.getBoundingClientRect();
        return { x: event.clientX - box.left, y: event.clientY - box.top };
    }
    private down(event: PointerEvent): void {
        if (event.button !== 0) return;
        const { x, y } = this.place(event);
        this.canvas.setPointerCapture(event.pointerId);
        const isSelecting = this.events.selected !== undefined && (event.shiftKey || y < this.rulerHeight);
        this.drag = { x, y, scroll: this.scroll.scrollTop, range: this.range, isSelecting, hasMoved: false };
    }
    private moved(event: PointerEvent): void {
        const { x, y } = this.place(event);
        const { drag } = this;
        if (!drag) {
            this.events.hovered(x, y);
            return;
        }
        if (Math.hypot(x - drag.x, y - drag.y) > 3) drag.hasMoved = true;
        if (!drag.hasMoved) return;
        if (drag.isSelecting) {
            const [from, to] = [Math.min(x, drag.x), Math.max(x, drag.x)];
            this.events.selected?.({ from: this.timeAt(from), to: this.timeAt(to) });
            return;
        }
        const by = ((drag.x - x) * (drag.range.to - drag.range.from)) / this.width;
        this.scroll.scrollTop = drag.scroll + drag.y - y;
        this.show({ from: drag.range.from + by, to: drag.range.to + by });
    }
    private up(event: PointerEvent): void {
        const { drag } = this;
        this.drag = null;
        if (!drag || drag.hasMoved) return;
        const { x, y } = this.place(event);
        this.events.clicked(x, y);
    }
    private wheel(event: WheelEvent): void {
        const { x, y } = this.place(event);
        const isAcross = Math.abs(event.deltaX) > Math.abs(event.deltaY) || event.shiftKey;
        const canScroll = this.scroll.scrollHeight > this.scroll.clientHeight + 1;
        if (isAcross) {
            this.pan((event.deltaX || event.deltaY) / this.width);
        } else if (event.ctrlKey || event.metaKey || !canScroll || y < this.rulerHeight) {
            const lines = event.deltaMode === WheelEvent.DOM_DELTA_LINE ? 30 : 1;
            this.zoom(Math.exp(Math.max(-1, Math.min(1, event.deltaY * lines * 0.004))), x / this.width);
        } else {
            return; // the page scrolls the tracks
        }
        event.preventDefault();
    }
    private key(event: KeyboardEvent): boolean {
        switch (event.code) {
            case 'KeyW':
            case 'Equal':
            case 'NumpadAdd':
                this.zoom(1 / 1.4);
                return true;
            case 'KeyS':
            case 'Minus':
            case 'NumpadSubtract':
                this.zoom(1.4);
                return true;
            case 'KeyA':
            case 'ArrowLeft':
                this.pan(-0.15);
                return true;
            case 'KeyD':
            case 'ArrowRight':
                this.pan(0.15);
                return true;
            case 'ArrowUp':
                this.scroll.scrollTop -= 40;
                return true;
            case 'ArrowDown':
                this.scroll.scrollTop += 40;
                return true;
            case 'Digit0':
            case 'Numpad0':
            case 'Home':
                this.showAll();
                return true;
        }
        return false;
    }
}
