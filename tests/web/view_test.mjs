// The live view end to end: "tql mode4" on the real clock in a copy of the demo
// directory with the view on; the page in headless Chromium draws the booted
// arm at home in its workspace box like tests/web/reference.png, follows the
// program once it runs (its joints and its digital output), and reports the
// bus gone when tql has exited.
//
//   node tests/web/view_test.mjs TQL_HOST DEMO_DIR [--update]
//
// --update rewrites the reference screenshot instead of comparing with it.
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { openView, pixelDifference } from '../../web/screenshot.mjs';

const [host, demo] = process.argv.slice(2).filter((a) => !a.startsWith('--'));
const update = process.argv.includes('--update');
const reference = path.join(path.dirname(fileURLToPath(import.meta.url)), 'reference.png');
const MAX_DIFFERENT = 0.01;  // share of pixels that may differ from the reference
let failures = 0, passes = 0;
const check = (ok, what) => { ok ? ++passes : ++failures; console.log(`${ok ? 'ok  ' : 'FAIL'} ${what}`); };

// Origin of the demo arm's last link (m) at joint angles q (rad): its
// modified-DH chain as demo/arm.urdf's header gives it, frame i = frame(i-1)
// Rx(alpha) Tx(a) Rz(q + offset) Tz(d); rows alpha, a, d, offset.
const MDH = [[0, 0, 0.152, 0], [Math.PI / 2, 0, 0, Math.PI / 2], [0, 0.244, 0, 0],
  [0, 0.213, 0.112, -Math.PI / 2], [-Math.PI / 2, 0, 0.085, 0], [Math.PI / 2, 0, 0.082, 0]];
function flange(q) {
  let R = [[1, 0, 0], [0, 1, 0], [0, 0, 1]], p = [0, 0, 0];
  const mul = (A, B) => A.map((r) => [0, 1, 2].map((j) => r[0] * B[0][j] + r[1] * B[1][j] + r[2] * B[2][j]));
  MDH.forEach(([alpha, a, d, offset], i) => {
    const [ca, sa, ct, st] = [Math.cos(alpha), Math.sin(alpha), Math.cos(q[i] + offset), Math.sin(q[i] + offset)];
    R = mul(R, [[1, 0, 0], [0, ca, -sa], [0, sa, ca]]);
    p = p.map((v, k) => v + R[k][0] * a);
    R = mul(R, [[ct, -st, 0], [st, ct, 0], [0, 0, 1]]);
    p = p.map((v, k) => v + R[k][2] * d);
  });
  return p;
}

const freePort = () => new Promise((resolve, reject) => {
  const s = net.createServer().once('error', reject).listen(0, '127.0.0.1', () => {
    const { port } = s.address();
    s.close(() => resolve(port));
  });
});
const until = async (what, cond, ms) => {
  for (const end = Date.now() + ms; Date.now() < end; await new Promise((r) => setTimeout(r, 50)))
    if (await cond()) return;
  throw new Error(`timed out waiting for ${what}`);
};

const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'tql-view-test-'));
let tql, view, out = '', err = '', exitCode = null;
const cleanUp = async () => {
  if (view) await view.close();
  if (tql && exitCode === null) tql.kill('SIGKILL');
  fs.rmSync(dir, { recursive: true, force: true });
};
const watchdog = setTimeout(async () => {
  console.log('FAIL total time out\n--- tql stdout\n' + out + '\n--- tql stderr\n' + err);
  await cleanUp();
  process.exit(1);
}, 90000);

try {
  if (!host || !demo) throw new Error('usage: node tests/web/view_test.mjs TQL_HOST DEMO_DIR [--update]');
  fs.cpSync(demo, dir, { recursive: true, filter: (f) => !/sim_state\.txt$|\.csv$/.test(f) || f.endsWith('hand.csv') });
  const port = await freePort();
  tql = spawn(path.resolve(host), ['mode4'], { cwd: dir, stdio: ['pipe', 'pipe', 'pipe'],
    env: { ...process.env, TQL_SIM_VIEW: String(port), TQL_SIM_CLOCK: 'real' } });
  tql.stdout.on('data', (d) => { out += d; });
  tql.stderr.on('data', (d) => { err += d; });
  tql.on('exit', (code) => { exitCode = code; });
  tql.on('error', (e) => { err += e.message; exitCode = -1; });
  await until('the speed override prompt', () => out.includes('Input speed override'), 20000);

  view = await openView(port);
  const page = view.page;
  const table = () => page.$$eval('#joints tbody tr', (rows) => rows.map((r) => r.cells[1].textContent));
  const home = await table();
  check(home.length === 6 && home.every((t) => Math.abs(Number(t)) < 0.05), `6 joints at home in the table: ${home}`);
  check(await page.evaluate(() => viewState.joints) === 6, 'six moving joints in the URDF chain');
  const box = await page.evaluate(() => viewState.workspace);
  check(String(box) === '-0.7,0.7,-0.7,0.7,0,0.9', `the demo's workspace box drawn in metres: ${box}`);
  const before = await page.screenshot({ type: 'png' });
  if (update) {
    fs.writeFileSync(reference + '.part', before);
    fs.renameSync(reference + '.part', reference);
    console.log(`wrote ${reference}`);
  } else {
    const d = await pixelDifference(page, before, fs.readFileSync(reference));
    check(d < MAX_DIFFERENT, `screenshot matches the reference: ${(100 * d).toFixed(2)}% of pixels differ`);
  }

  tql.stdin.write('1\nCYCLE\nNO\n');
  await until('the arm to move', async () => (await table()).some((t) => Math.abs(Number(t)) > 5), 30000);
  check(true, `the table follows the move: ${await table()}`);
  const { state, drawn } = await page.evaluate(() => ({ state: viewState.state, drawn: viewState.flange }));
  const dh = flange(state.actuators.map((a) => a.angle));
  const miss = Math.hypot(...dh.map((v, k) => v - drawn[k]));
  check(miss < 1e-6, `the drawn flange ${drawn.map((v) => v.toFixed(4))} is the chain's (${(1e3 * miss).toFixed(4)} mm off)`);
  const moved = await pixelDifference(page, before, await page.screenshot({ type: 'png' }));
  check(moved > 0.005, `the drawing follows the move: ${(100 * moved).toFixed(2)}% of pixels changed`);
  // The program's DOUT 1 ON, later DOUT 1 OFF, while the arm still moves.
  for (const text of ['DO1 ON', 'DO1 OFF']) {
    await until(`"${text}" in the panel`, async () => (await page.textContent('#outputs')) === text, 30000);
    check(true, `the panel shows ${text}`);
  }

  tql.stdin.end();
  await until('tql to exit', () => exitCode !== null, 60000);
  check(exitCode === 0, `tql mode4 exits 0 (${exitCode})` +
    (exitCode === 0 ? '' : `\n--- tql stdout (end)\n${out.slice(-600)}\n--- tql stderr\n${err}`));
  await until('"disconnected"', async () => (await page.textContent('#link')) === 'disconnected', 5000);
  check(true, 'the page shows the bus gone');
} catch (e) {
  check(false, `${e.message || e}\n--- tql stdout\n${out}\n--- tql stderr\n${err}`);
}
clearTimeout(watchdog);
await cleanUp();
console.log(`${passes} passed, ${failures} failed`);
process.exit(failures === 0 ? 0 : 1);
