// Times as people and qvx tell them.

import type { Report } from './model';

const kNano = 1e9;

/** Ticks in nanoseconds, rounded down as everywhere in Quorvex; of an unknown clock, the ticks. */
export function nanosecondsOf(ticks: number, frequency: number): number {
    if (frequency === kNano || frequency === 0) return ticks;
    const whole = Math.floor(ticks / frequency);
    const rest = ticks - whole * frequency;
    const part = rest * kNano;
    const below =
        part <= Number.MAX_SAFE_INTEGER
            ? Math.floor(part / frequency)
            : Number((BigInt(rest) * BigInt(kNano)) / BigInt(frequency));
    return whole * kNano + below;
}

/** A length of time as qvx shows it; without a clock, ticks. */
export function durationText(value: number, hasClock = true): string {
    if (!hasClock) return `${value} ticks`;
    let unit = kNano;
    let name = 's';
    for (const smaller of ['ms', 'us', 'ns']) {
        if (value >= unit) break;
        unit /= 1000;
        name = smaller;
    }
    if (unit === 1) return `${value} ns`;
    // Cut, not rounded: nothing looks longer than it was.
    const below = Math.floor((value % unit) / (unit / 1000));
    return `${Math.floor(value / unit)}.${String(below).padStart(3, '0')} ${name}`;
}

/** A moment since the report's base, in seconds with as many digits as a step needs; without a clock, in ticks. */
export function momentText(ticks: number, frequency: number, step = 0): string {
    if (frequency === 0) return String(Math.round(ticks));
    const digits = step <= 0 ? 9 : Math.min(12, Math.max(0, Math.ceil(-Math.log10(step / frequency) - 1e-9)));
    return `${(ticks / frequency).toFixed(digits)} s`;
}

/** The ticks of a moment as a person writes it: 1.5s, 20us, or a number of ticks; null where it is none. */
export function ticksOf(text: string, frequency: number): number | null {
    const parts = /^\s*(-?\d+(?:\.\d+)?)\s*(s|ms|us|µs|ns|)\s*$/.exec(text);
    if (!parts) return null;
    const amount = Number(parts[1]);
    const unit = parts[2];
    if (unit === '' || frequency === 0) return unit === '' ? amount : null;
    const perSecond = unit === 's' ? 1 : unit === 'ms' ? 1e3 : unit === 'ns' ? 1e9 : 1e6;
    return (amount * frequency) / perSecond;
}

/** A moment as the tick that the trace has. */
export function tickText(report: Pick<Report, 'base'>, ticks: number): string {
    return (BigInt(report.base) + BigInt(Math.round(ticks))).toString();
}

/** Steps of an axis: round, and as many as fit. */
export function stepOf(span: number, frequency: number, most: number): number {
    const unit = frequency === 0 ? 1 : frequency;
    const least = span / unit / Math.max(1, most);
    if (!(least > 0)) return unit;
    const power = 10 ** Math.floor(Math.log10(least));
    for (const factor of [1, 2, 5, 10]) if (power * factor >= least * (1 - 1e-9)) return power * factor * unit;
    return power * 10 * unit;
}
