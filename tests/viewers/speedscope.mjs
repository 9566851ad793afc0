// Has speedscope read what qvx export makes for it and as trace events, and compares what it then saves, event by event:
//
//     node speedscope.mjs QVX CHROMIUM TRACES...
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { pathToFileURL } from 'node:url';
import { chromium } from 'playwright-core';

const [qvx, executablePath, ...traces] = process.argv.slice(2);
const viewer = join(dirname(createRequire(import.meta.url).resolve('speedscope/package.json')), 'dist/release/index.html');
const work = mkdtempSync(join(tmpdir(), 'speedscope-'));
const browser = await chromium.launch({ executablePath, args: ['--no-sandbox'] });

/** What qvx makes of the traces, whole or with losses. */
function exported(name) {
    const file = join(work, name);
    const { status, stderr } = spawnSync(qvx, ['export', ...traces, '-o', file], { encoding: 'utf8' });
    assert.ok(status === 0 || status === 3, stderr);
    return file;
}
/** What stands in a file. */
const contents = (file) => JSON.parse(readFileSync(file, 'utf8'));

/** What speedscope makes of a file. */
async function imported(file) {
    const page = await browser.newPage();
    await page.goto(pathToFileURL(viewer).href);
    const choosing = page.waitForEvent('filechooser');
    await page.getByText('Browse', { exact: true }).click();
    await (await choosing).setFiles(file);
    await page.waitForFunction(() => document.title !== 'speedscope');
    const saving = page.waitForEvent('download');
    await page.keyboard.press('Control+s');
    const saved = contents(await (await saving).path());
    await page.close();
    return profiles(saved);
}

/** The events of each profile, by its name. */
function profiles({ profiles, shared: { frames } }) {
    return profiles.map(({ name, unit, events }) => ({
        name,
        events: events.map(({ type, at, frame }) => [type, unit === 'microseconds' ? Math.round(at * 1000) : at, frames[frame].name]),
    }));
}

/** What stands in trace events, by threads: as it makes profiles of them, which begin with their first event. */
function threads({ traceEvents }) {
    const all = new Map();
    for (const { ph, name, pid, tid, ts } of traceEvents) {
        const key = `${pid} ${tid}`;
        if (ph === 'B' || ph === 'E') all.set(key, [...(all.get(key) ?? []), [ph === 'B' ? 'O' : 'C', Math.round(ts * 1000), name]]);
    }
    return new Map([...all].map(([key, events]) => [key, events.map(([type, at, name]) => [type, at - events[0][1], name])]));
}

try {
    const file = exported('run.speedscope.json');
    const ours = profiles(contents(file));
    assert.deepEqual(await imported(file), ours);
    const events = exported('run.trace.json');
    const theirs = (await imported(events)).map(({ name, events }) => {
        const [, pid, tid] = /\(pid (\d+)\).*\(tid (\d+)\)/.exec(name);
        return [`${pid} ${tid}`, events];
    });
    assert.deepEqual(new Map(theirs), threads(contents(events)));
    console.log(`speedscope: ok (${ours.length} profiles)`);
} finally {
    await browser.close();
    rmSync(work, { recursive: true });
}
