// Screenshot of the pendant's page.
//
//   node web/screenshot.mjs URL OUT.png [WIDTHxHEIGHT]
//
// Opens URL (a running tql-pendant's, as it printed it) in Debian's headless
// Chromium, waits until the arm is drawn with a state from the pendant, and
// writes a PNG of the page (960x600 unless given). WebGL renders in
// software (SwiftShader), so no GPU or display is needed. Exit status 0 on
// success, 1 with a message on standard error otherwise.
//
// Also a module: openView() and the helpers below serve tests/web/pendant_test.mjs.
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import pixelmatch from 'pixelmatch';
import { PNG } from 'pngjs';
import { chromium } from 'playwright-core';

export const CHROMIUM = '/usr/bin/chromium';
const ARGS = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync',
  '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--hide-scrollbars'];

// A browser on a fresh profile with the page at `url` loaded and drawn.
// Returns { page, context, close() }; close() ends the browser and removes
// the profile. More pages of the same browser: context.newPage().
export async function openView(url, { width = 960, height = 600, timeout = 30000 } = {}) {
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'tql-view-chromium-'));
  let context;
  const close = async () => {
    if (context) await context.close().catch(() => {});
    fs.rmSync(profile, { recursive: true, force: true });
  };
  try {
    context = await chromium.launchPersistentContext(profile, {
      executablePath: CHROMIUM, headless: true, args: ARGS, viewport: { width, height }, timeout,
    });
    const page = context.pages()[0] || await context.newPage();
    await page.goto(url, { timeout });
    await drawn(page, timeout);
    return { page, context, close };
  } catch (e) {
    await close();
    throw e;
  }
}

// Waits until the page has built the arm, taken two states and drawn a frame
// after the latest, then for two more animation frames.
export async function drawn(page, timeout = 30000) {
  await page.waitForFunction(() => {
    const v = window.pendant;
    if (v && v.error) throw new Error(v.error);
    return v && v.ready && v.states >= 2 && v.frames >= 1;
  }, null, { timeout, polling: 50 });
  await page.evaluate(() => new Promise((r) => requestAnimationFrame(() => requestAnimationFrame(r))));
}

// Share of the pixels of two PNGs that differ (pixelmatch's YIQ distance
// beyond `threshold`, anti-aliased edges not counted); 1 when the sizes differ.
export function pixelDifference(pngA, pngB, threshold = 0.2) {
  const a = PNG.sync.read(pngA), b = PNG.sync.read(pngB);
  if (a.width !== b.width || a.height !== b.height) return 1;
  return pixelmatch(a.data, b.data, null, a.width, a.height, { threshold }) / (a.width * a.height);
}

async function main(argv) {
  const [url, out, size] = argv;
  const [width, height] = (size || '960x600').split('x').map(Number);
  if (!/^http:\/\//.test(url || '') || !out || !(width > 0 && height > 0)) {
    console.error('usage: node web/screenshot.mjs URL OUT.png [WIDTHxHEIGHT]');
    return 1;
  }
  const view = await openView(url, { width, height });
  try {
    const part = `${out}.part`;
    await view.page.screenshot({ path: part, type: 'png' });
    fs.renameSync(part, out);
  } finally {
    await view.close();
  }
  return 0;
}

if (process.argv[1] && path.resolve(process.argv[1]) === fileURLToPath(import.meta.url)) {
  main(process.argv.slice(2)).then((code) => process.exit(code), (e) => {
    console.error(`screenshot: ${e.message || e}`);
    process.exit(1);
  });
}
