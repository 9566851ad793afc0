// Makes report.html, the page without a trace, of the sources; with --tests the tests, which node runs, in build/.
//
//     node build.mjs [--tests | --check]
import { createHash } from 'node:crypto';
import { mkdirSync, readdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { buildSync } from 'esbuild';

const here = fileURLToPath(new URL('.', import.meta.url));
process.chdir(here);

const common = {
    absWorkingDir: here, // esbuild has taken that of before
    bundle: true,
    target: 'es2022',
    charset: 'ascii',
    // Nothing outside of this directory has a say in what comes out.
    tsconfigRaw: '{}',
    legalComments: 'none',
    logLevel: 'warning',
};

function program(entry, define = {}) {
    const options = { ...common, entryPoints: [entry], minify: true, format: 'iife', platform: 'browser', write: false };
    const text = buildSync({ ...options, define }).outputFiles[0].text.trimEnd();
    if (/<!--|<\/script/i.test(text)) throw new Error(`${entry} has what ends a script`);
    return text;
}
const hashOf = (text) => `'sha256-${createHash('sha256').update(text).digest('base64')}'`;

function page() {
    const script = program('src/main.ts', { WORKER_SOURCE: JSON.stringify(program('src/worker.ts')) });
    const style = readFileSync('src/page.css', 'utf8').replace(/\s*\n\s*/g, ' ').trim();
    const body = readFileSync('src/page.html', 'utf8').trimEnd();
    const policy =
        `default-src 'none'; script-src ${hashOf(script)} ${hashOf('q()')}; worker-src blob:; ` +
        `style-src ${hashOf(style)}; img-src data: blob:; base-uri 'none'; form-action 'none'`;
    return `<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="${policy}">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Trace</title>
<style>${style}</style>
</head>
<body>
${body}
<script>${script}</script>
`;
}

if (process.argv.includes('--tests')) {
    rmSync('build', { recursive: true, force: true });
    mkdirSync('build');
    buildSync({
        ...common,
        entryPoints: [...readdirSync('test').filter((name) => name.endsWith('.test.ts')), 'browser.ts'].map((name) => `test/${name}`),
        packages: 'external',
        outdir: 'build',
        outExtension: { '.js': '.mjs' },
        format: 'esm',
        platform: 'node',
    });
} else if (process.argv.includes('--check')) {
    if (page() !== readFileSync('report.html', 'utf8')) {
        console.error('tools/report/report.html is not what the sources make: run ./dev report');
        process.exit(1);
    }
} else {
    writeFileSync('report.html', page());
}
