// The pendant end to end: tql-pendant on the real clock in a copy of the demo
// directory with the flight recorder on, its page in headless Chromium.
// The page draws the booted arm like tests/web/reference.png; a jog button
// held for 1 s moves the joint by its jog speed over the time it ran and
// brakes to rest; a page closed while holding brakes within the renewal
// timeout; three taught points are the program's three exact lines; a bad
// line shows the decoder's message at that line and nothing runs; a run's
// highlighted line follows the program to its end pose; a second page cannot
// move the arm; a listener on another address refuses requests without the
// token.
//
//   node tests/web/pendant_test.mjs TQL_PENDANT DEMO_DIR [--update] [--smoke]
//
// --update rewrites the reference screenshot; --smoke (the board's build
// under emulation) only loads the page and jogs once. TQL_HOST_LAUNCHER,
// when set, starts the pendant (e.g. "qemu-arm -L /usr/arm-linux-gnueabihf").
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { openView, drawn, pixelDifference } from '../../web/screenshot.mjs';

const [pendantPath, demo] = process.argv.slice(2).filter((a) => !a.startsWith('--'));
const update = process.argv.includes('--update');
const smoke = process.argv.includes('--smoke');
const reference = path.join(path.dirname(fileURLToPath(import.meta.url)), 'reference.png');
const MAX_DIFFERENT = 0.01;  // share of pixels that may differ from the reference
const PERIOD = 0.004;        // s, the control period
const RATIO = 36;            // the demo's reduction ratio: joint deg = rev * 360 / 36
let failures = 0, passes = 0;
const check = (ok, what) => { ok ? ++passes : ++failures; console.log(`${ok ? 'ok  ' : 'FAIL'} ${what}`); };
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const until = async (what, cond, ms) => {
  for (const end = Date.now() + ms; Date.now() < end; await sleep(25))
    if (await cond()) return;
  throw new Error(`timed out waiting for ${what}`);
};

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

// A pendant in a scratch copy of the demo directory; resolves with its URL.
const started = [];
function startPendant(args, env = {}) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'tql-pendant-test-'));
  fs.cpSync(demo, dir, { recursive: true, filter: (f) => !/sim_state\.txt$|\.csv$/.test(f) || f.endsWith('hand.csv') });
  const launcher = (process.env.TQL_HOST_LAUNCHER || '').split(' ').filter(Boolean);
  const command = [...launcher, path.resolve(pendantPath), '--port', '0', ...args];
  const p = { dir, out: '', err: '', exit: null };
  p.child = spawn(command[0], command.slice(1), { cwd: dir, stdio: ['ignore', 'pipe', 'pipe'],
    env: { ...process.env, TQL_SIM_CLOCK: 'real', TQL_SIM_RECORD: 'rec.csv', ...env } });
  p.child.stdout.on('data', (d) => { p.out += d; });
  p.child.stderr.on('data', (d) => { p.err += d; });
  p.child.on('exit', (code) => { p.exit = code; });
  started.push(p);
  return until('the pendant\'s URL', () => /Pendant: (\S+)/.test(p.err) || p.exit !== null, smoke ? 120000 : 20000)
    .then(() => { p.url = (p.err.match(/Pendant: (\S+)/) || [])[1]; return p; });
}
async function stopPendant(p) {
  if (p.exit === null) p.child.kill('SIGTERM');
  await until('the pendant to exit', () => p.exit !== null, 20000);
}

// Joint `joint`'s set-points (deg) with their times from a flight recording.
function setPoints(dir, joint) {
  return fs.readFileSync(path.join(dir, 'rec.csv'), 'utf8').split('\n')
    .map((l) => l.split(',')).filter((c) => c[3] === 'setPosition' && Number(c[1]) === joint + 1)
    .map((c) => ({ t: Number(c[0]), deg: (Number(c[4]) * 360) / RATIO }));
}
// The streams of set-points that move the joint by more than half a degree:
// a stream ends where the set-points stop coming for 0.1 s (nothing is sent at rest)
// or stop changing.
function motions(points) {
  const runs = [];
  let run = [];
  const close = () => {
    if (run.length > 1 && Math.abs(run[run.length - 1].deg - run[0].deg) > 0.5) runs.push(run);
    run = [];
  };
  for (const p of points) {
    const last = run[run.length - 1];
    if (last && (p.t - last.t > 0.1 || p.deg === last.deg)) close();
    run.push(p);
  }
  close();
  return runs;
}

const views = [];
const watchdog = setTimeout(async () => {
  console.log('FAIL total time out');
  for (const p of started) console.log(`--- pendant stderr\n${p.err}\n--- stdout (end)\n${p.out.slice(-1500)}`);
  process.exit(1);
}, smoke ? 400000 : 150000);

const state = (page) => page.evaluate(() => window.pendant.state);
const idle = (page) => until('the arm at rest', async () => (await state(page)).activity === 'idle', 20000);
async function hold(page, selector, ms) {
  await page.locator(selector).scrollIntoViewIfNeeded();
  const box = await page.locator(selector).boundingBox();
  await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
  await page.mouse.down();
  await sleep(ms);
  await page.mouse.up();
}

let main;
try {
  if (!pendantPath || !demo) throw new Error('usage: node tests/web/pendant_test.mjs TQL_PENDANT DEMO_DIR [--update] [--smoke]');
  main = await startPendant([]);
  check(/^http:\/\/127\.0\.0\.1:\d+\/$/.test(main.url || ''), `the pendant prints its URL: ${main.url}`);
  const view = await openView(main.url, { timeout: smoke ? 120000 : 30000 });
  views.push(view);
  const page = view.page;
  const hello = await page.evaluate(() => window.pendant.hello);
  const home = (await state(page)).joints_deg;
  check(home.length === 6 && home.every((v) => Math.abs(v) < 0.05), `6 joints at home: ${home}`);
  check(await page.evaluate(() => window.pendant.joints) === 6, 'six moving joints in the URDF chain');
  if (!smoke) {
    const box = await page.evaluate(() => window.pendant.workspace);
    check(String(box) === '-0.7,0.7,-0.7,0.7,0,0.9', `the demo's workspace box drawn in metres: ${box}`);
    const shot = await page.screenshot({ type: 'png' });
    if (update) {
      fs.writeFileSync(reference + '.part', shot);
      fs.renameSync(reference + '.part', reference);
      console.log(`wrote ${reference}`);
    } else {
      const d = pixelDifference(shot, fs.readFileSync(reference));
      check(d < MAX_DIFFERENT, `screenshot matches the reference: ${(100 * d).toFixed(2)}% of pixels differ`);
    }
  }

  if (!smoke) {
    // A page of another site reaching the pendant by DNS rebinding names its own host.
    const status = await new Promise((resolve) => http.get(main.url, { headers: { Host: 'evil.example:80' } },
      (r) => { r.resume(); resolve(r.statusCode); }).on('error', () => resolve(0)));
    check(status === 403, `a request naming another host is refused (${status})`);
  }

  // Control, then joint 1 held for 1 s at half speed.
  await page.click('#control');
  await until('control', async () => (await state(page)).control, 5000);
  const speed = 0.5;
  await page.$eval('#speed', (e, v) => { e.value = String(v); }, speed);
  const start = Date.now();
  // Under emulation the pre-flight before the first set-point takes a
  // good part of a second: the button is held longer there.
  const held = smoke ? 3000 : 1000;
  await hold(page, '[data-jog="joint:0:1"]', held);
  const heldMs = await page.evaluate(() => window.pendant.heldMs);
  await idle(page);
  const after = await state(page);
  const v = hello.joints[0].jog_deg_s * speed;
  check(after.joints_deg[0] > 0.5 * v, `joint 1 jogged ${after.joints_deg[0].toFixed(3)} deg (${Date.now() - start} ms)`);
  const drawnFlange = await page.evaluate(() => window.pendant.flange);
  const dh = flange(after.joints_deg.map((d) => (d * Math.PI) / 180));
  check(Math.hypot(...dh.map((x, k) => x - drawnFlange[k])) < 1e-6, 'the drawn flange is the chain\'s');

  if (!smoke) {
    // A second page watches and cannot move the arm.
    const other = await view.context.newPage();
    await other.goto(main.url);
    await drawn(other);
    const refused = await other.evaluate(() => window.pendant.send('jog', { kind: 'joint', index: 1, direction: 1, speed: 1 }));
    check(!refused.ok && /watches/.test(refused.error), `a second page's jog is refused: ${refused.error}`);
    await sleep(300);
    check(Math.abs((await state(page)).joints_deg[1]) < 1e-9, 'joint 2 did not move');
    await other.close();

    // The page closed while a button is held: braked without its release.
    const closing = await view.context.newPage();
    await page.click('#control');  // (already held: a no-op reply)
    await page.evaluate(() => window.pendant.send('release_control'));
    await closing.goto(main.url);
    await drawn(closing);
    await closing.click('#control');
    await until('control', async () => (await state(closing)).control, 5000);
    await closing.locator('[data-jog="joint:1:1"]').scrollIntoViewIfNeeded();
    const box = await closing.locator('[data-jog="joint:1:1"]').boundingBox();
    await closing.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
    await closing.mouse.down();
    await sleep(500);
    await closing.close();
    const closedAt = Date.now();
    await idle(page);
    check(true, `the jog braked to rest ${Date.now() - closedAt} ms after the page closed`);
    await page.click('#control');
    await until('control', async () => (await state(page)).control, 5000);

    // Three taught points: the program is exactly their three lines.
    await page.fill('#editor', '');
    await page.click('#save');
    await until('the empty program saved', () => fs.readFileSync(path.join(main.dir, 'file/data.txt'), 'utf8') === '', 5000);
    const taught = [];
    for (const [joint, ms] of [[2, 400], [0, 500], [3, 400]]) {
      await hold(page, `[data-jog="joint:${joint}:-1"]`, ms);
      await idle(page);
      const reply = await page.evaluate(() => window.pendant.send('teach', { move: 'MOVJ' }));
      const q = (await state(page)).joints_deg;
      const written = reply.line.replace(/^MOVJ VJ=100 z5 /, '').split(',').map(Number);
      check(reply.ok && written.every((d, k) => Math.abs(d - q[k]) < 1e-3), `taught ${reply.line}`);
      taught.push(reply.line);
    }
    const file = fs.readFileSync(path.join(main.dir, 'file/data.txt'), 'utf8');
    check(file === taught.join('\n') + '\n', `file/data.txt holds the three lines exactly:\n${file}`);

    // A bad line: the decoder's message at that line, and nothing runs.
    const good = file;
    await page.fill('#editor', `${taught[0]}\nMOVQ V=200 z5 1,2,3,4,5,6\n${taught[2]}\n`);
    await page.click('#save');
    // The listing shows the saved program once the save's reply is in.
    const second = () => page.evaluate(() => document.querySelector('#listing li:nth-child(2)')?.dataset.message || '');
    await until('the message at line 2', async () => (await second()) !== '', 5000);
    const message = await second();
    check(/Format error/.test(message), `line 2 shows the decoder's message: "${message}"`);
    const before = (await state(page)).joints_deg;
    await page.click('#run');
    await sleep(500);
    const unmoved = (await state(page)).joints_deg;
    check(unmoved.every((d, k) => d === before[k]) && /does not decode/.test(await page.textContent('#error')),
      `the bad program does not run: ${await page.textContent('#error')}`);

    // The good program runs; the highlighted line follows it to its end.
    await page.fill('#editor', good);
    const replies = await page.evaluate(() => window.pendant.replies.length);
    await page.click('#save');
    // Saved and checked: the save's reply has come (the file is written first).
    await until('the save\'s reply', () => page.evaluate((n) => window.pendant.replies.slice(n).some((r) => r.saved), replies), 5000);
    check(fs.readFileSync(path.join(main.dir, 'file/data.txt'), 'utf8') === good, 'the program saved whole');
    check((await page.evaluate(() => window.pendant.send('home'))).ok, 'home');  // replies at rest
    await page.evaluate(() => { window.pendant.linesShown = []; });
    await page.click('#run');
    await until('the run to start', async () => (await state(page)).activity === 'program', 5000)
      .catch(async (e) => { throw new Error(`${e.message}: ${await page.textContent('#error')}`); });
    await until('the run to end', async () => (await state(page)).activity === 'idle', 60000);
    const seen = await page.evaluate(() => window.pendant.linesShown.filter((l) => l > 0));
    check(String(seen) === '1,2,3', `the highlighted line followed the program: ${seen}`);
    const end = (await state(page)).joints_deg;
    const last = taught[2].replace(/^MOVJ VJ=100 z5 /, '').split(',').map(Number);
    check(end.every((d, k) => Math.abs(d - last[k]) < 1e-3), `the arm ends on the program's last point: ${end}`);
  }
  await view.close();
  views.pop();
  await stopPendant(main);

  // The flight recorder: the held jog ran at its speed and braked to rest.
  const runs = motions(setPoints(main.dir, 0));
  const jog = runs[0] || [];
  if (jog.length < 2) throw new Error('the flight recorder holds no jog');
  const rate = (k) => (jog[k].deg - jog[k - 1].deg) / PERIOD;
  const rates = jog.slice(1).map((_, k) => rate(k + 1));
  const cruise = Math.max(...rates);
  let cruiseEnd = rates.length;
  while (cruiseEnd > 1 && rates[cruiseEnd - 1] < cruise * (1 - 1e-4)) --cruiseEnd;
  // From the first set-point to the brake's start, a period per set-point
  // (the recorder's times are when each arrived, jitter included).
  const ran = cruiseEnd * PERIOD;
  const moved = jog[jog.length - 1].deg - jog[0].deg;
  check(Math.abs(cruise - v) < 1e-3 * v, `the jog held the jog speed: ${cruise.toFixed(4)} deg/s`);
  // Jerk-limited ramps alike at both ends: what the start lags the brake overruns.
  // Under emulation a late tick can split the stream: the page load and the
  // jog at its speed are what the board's run checks.
  if (!smoke) check(Math.abs(moved - cruise * ran) <= cruise * PERIOD,
    `the held jog moved ${moved.toFixed(3)} deg = ${cruise.toFixed(3)} deg/s x ${ran.toFixed(3)} s within a period's worth`);
  // Within the press's and the release's way to the controller and a period.
  if (!smoke) check(Math.abs(ran - heldMs / 1000) < 0.1, `it ran ${ran.toFixed(3)} s for the ${heldMs.toFixed(0)} ms the button was held`);
  const tail = setPoints(main.dir, 0).filter((p) => p.t > jog[jog.length - 1].t && p.t < jog[jog.length - 1].t + 0.2);
  if (!smoke) check(tail.every((p) => p.deg === jog[jog.length - 1].deg), `braked to rest at ${jog[jog.length - 1].deg.toFixed(3)} deg`);
  if (!smoke) {
    const closed = motions(setPoints(main.dir, 1))[0];
    const lasted = closed[closed.length - 1].t - closed[0].t;
    check(lasted < 0.5 + 0.3 + 0.5, `the jog of the closed page lasted ${lasted.toFixed(3)} s (held 0.5 s, lapse 0.3 s, braking)`);
    check(/sim: \d+ commands, 0 beyond limits/.test(main.err), `no set-point beyond the limits: ${main.err.match(/sim: .*/)}`);

    // Another address: a token, and nothing without it.
    const open = await startPendant(['--listen', '0.0.0.0']);
    const token = (open.url.match(/token=([0-9a-f]+)/) || [])[1];
    const port = open.url.match(/:(\d+)\//)[1];
    const bare = await fetch(`http://127.0.0.1:${port}/`);
    const withToken = await fetch(`http://127.0.0.1:${port}/?token=${token}`);
    check(token && bare.status === 401 && withToken.status === 200,
      `a listener on 0.0.0.0 answers 401 without its token, 200 with it (${bare.status}, ${withToken.status})`);
    await stopPendant(open);
  }
} catch (e) {
  check(false, `${e.stack || e}`);
  for (const p of started) console.log(`--- pendant stderr\n${p.err}\n--- stdout (end)\n${p.out.slice(-1500)}`);
}
clearTimeout(watchdog);
for (const v of views) await v.close();
for (const p of started) {
  if (p.exit === null) p.child.kill('SIGKILL');
  fs.rmSync(p.dir, { recursive: true, force: true });
}
console.log(`${passes} passed, ${failures} failed`);
process.exit(failures === 0 ? 0 : 1);
