// Screenshot of the live view of the simulated arm.
//
//   node web/screenshot.mjs PORT OUT.png [WIDTHxHEIGHT]
//
// Opens http://127.0.0.1:PORT/ (a tql run with TQL_SIM_VIEW=PORT) in Debian's
// headless Chromium, waits until the arm is drawn with a state from the bus,
// and writes a PNG of the page (960x600 unless given). WebGL renders in
// software (SwiftShader), so no GPU or display is needed. Exit status 0 on
// success, 1 with a message on standard error otherwise.
//
// Also a module: openView() and the helpers below serve tests/web/view_test.mjs.
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { chromium } from 'playwright-core';

export const CHROMIUM = '/usr/bin/chromium';
const ARGS = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync',
  '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--hide-scrollbars'];

// A browser on a fresh profile with the view of `port` loaded and drawn.
// Returns { page, close() }; close() ends the browser and removes the profile.
export async function openView(port, { width = 960, height = 600, timeout = 30000 } = {}) {
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
    await page.goto(`http://127.0.0.1:${port}/`, { timeout });
    await drawn(page, timeout);
    return { page, close };
  } catch (e) {
    await close();
    throw e;
  }
}

// Waits until the page has built the arm, taken two states and drawn a frame
// after the latest, then for two more animation frames.
export async function drawn(page, timeout = 30000) {
  await page.waitForFunction(() => {
    const v = window.viewState;
    if (v && v.error) throw new Error(v.error);
    return v && v.ready && v.states >= 2 && v.frames >= 1;
  }, null, { timeout, polling: 50 });
  await page.evaluate(() => new Promise((r) => requestAnimationFrame(() => requestAnimationFrame(r))));
}

// Share of the pixels of two PNGs (same size) that differ by more than
// `threshold` in any channel; 1 when the sizes differ. Compared in the page.
export async function pixelDifference(page, pngA, pngB, threshold = 48) {
  return page.evaluate(async ([a, b, t]) => {
    const load = async (b64) => createImageBitmap(await (await fetch(`data:image/png;base64,${b64}`)).blob());
    const [ia, ib] = await Promise.all([load(a), load(b)]);
    if (ia.width !== ib.width || ia.height !== ib.height) return 1;
    const pixels = (img) => {
      const c = new OffscreenCanvas(img.width, img.height).getContext('2d');
      c.drawImage(img, 0, 0);
      return c.getImageData(0, 0, img.width, img.height).data;
    };
    const pa = pixels(ia), pb = pixels(ib);
    let differing = 0;
    for (let i = 0; i < pa.length; i += 4)
      if (Math.abs(pa[i] - pb[i]) > t || Math.abs(pa[i + 1] - pb[i + 1]) > t || Math.abs(pa[i + 2] - pb[i + 2]) > t)
        ++differing;
    return differing / (pa.length / 4);
  }, [pngA.toString('base64'), pngB.toString('base64'), threshold]);
}

async function main(argv) {
  const [port, out, size] = argv;
  const [width, height] = (size || '960x600').split('x').map(Number);
  if (!/^\d+$/.test(port || '') || !out || !(width > 0 && height > 0)) {
    console.error('usage: node web/screenshot.mjs PORT OUT.png [WIDTHxHEIGHT]');
    return 1;
  }
  const view = await openView(Number(port), { width, height });
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
