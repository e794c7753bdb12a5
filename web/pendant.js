// The operator's pendant: the arm in 3D (its URDF through urdf-loader, orbit
// and zoom with three.js's OrbitControls), its state from tql-pendant's
// WebSocket about 20 times a second, hold-to-run jog buttons, hand guiding,
// teaching, the program editor and program runs.
//
// Frames: the scene is the URDF's base frame, z up, metres; poses shown in
// mm and degrees as the controller gives them. The actuators drive the moving
// joints in chain order, the first joint the first of the chain.
import * as THREE from 'three';
import { OrbitControls } from 'three/examples/jsm/controls/OrbitControls.js';
import URDFLoader from 'urdf-loader';

const HEARTBEAT_MS = 100;  // while a jog button is held
const STALE_MS = 1000;     // no state for this long: disconnected
const TRAIL = 400;         // flange positions kept (20 s at 20 Hz)
const MOVING = new Set(['revolute', 'continuous', 'prismatic']);
const AXES = ['x', 'y', 'z', 'rx', 'ry', 'rz'];

// What tests and the screenshot tool read.
const pendant = { hello: null, state: null, states: 0, frames: 0, ready: false, error: null, joints: 0, flange: null,
  replies: [], workspace: null, send: null, linesShown: [], pressedAt: null, heldMs: null };
window.pendant = pendant;

const $ = (id) => document.getElementById(id);
const canvas = $('scene');
const renderer = new THREE.WebGLRenderer({ canvas, antialias: true, preserveDrawingBuffer: true });
renderer.setPixelRatio(1);
renderer.shadowMap.enabled = true;
renderer.shadowMap.type = THREE.PCFSoftShadowMap;
const scene = new THREE.Scene();
scene.background = new THREE.Color(0xdde3ea);
const camera = new THREE.PerspectiveCamera(35, 1, 0.01, 50);
camera.up.set(0, 0, 1);
const controls = new OrbitControls(camera, canvas);
controls.addEventListener('change', () => { dirty = true; });

const materials = {
  link: new THREE.MeshStandardMaterial({ color: 0xe8ebee, roughness: 0.45, metalness: 0.1 }),
  joint: new THREE.MeshStandardMaterial({ color: 0x2f6fae, roughness: 0.4, metalness: 0.2 }),
  near: new THREE.MeshStandardMaterial({ color: 0xe0621c, roughness: 0.4, metalness: 0.2, emissive: 0x5a1a00 }),
  base: new THREE.MeshStandardMaterial({ color: 0x3b4450, roughness: 0.6, metalness: 0.3 }),
  flange: new THREE.MeshStandardMaterial({ color: 0xc9a227, roughness: 0.35, metalness: 0.5 }),
};
const joints = [];  // moving joints in chain order: { joint (URDFJoint), axis, housing }
let flangeLink = null;
let dirty = true;

// A cylinder of radius r from a to b (vectors in the parent's frame).
function rod(parent, a, b, r, material) {
  const d = new THREE.Vector3().subVectors(b, a);
  const length = d.length();
  if (length < 1e-6) return;
  const mesh = new THREE.Mesh(new THREE.CylinderGeometry(r, r, length, 32), material);
  mesh.position.copy(a).addScaledVector(d, 0.5);
  mesh.quaternion.setFromUnitVectors(new THREE.Vector3(0, 1, 0), d.normalize());
  mesh.castShadow = mesh.receiveShadow = true;
  parent.add(mesh);
}

// The arm from its URDF. Links the URDF draws (visual shapes) show as it
// draws them; links without one (a physics-only model) get rods along the
// joint offsets and a housing on each moving joint.
function buildArm(xml) {
  const robot = new URDFLoader().parse(xml);
  const children = (link) => link.children.filter((c) => c.isURDFJoint);
  let reach = 0;
  Object.values(robot.joints).forEach((j) => { reach += j.position.length(); });
  reach = Math.max(reach, 0.2);
  const rLink = 0.045 * reach, rJoint = 0.07 * reach, lJoint = 0.16 * reach;
  const drawn = (link) => link.children.some((c) => c.isURDFVisual);
  const walk = (link) => {
    for (const j of children(link)) {
      if (!drawn(link)) {
        // Along the parent's x, then y, then z: the offsets show as elbows.
        const corner = [new THREE.Vector3()];
        for (let k = 0; k < 3; ++k) {
          const next = corner[corner.length - 1].clone();
          next.setComponent(k, j.position.getComponent(k));
          if (next.distanceTo(corner[corner.length - 1]) > 1e-6) corner.push(next);
        }
        for (let k = 1; k < corner.length; ++k) rod(link, corner[k - 1], corner[k], rLink, materials.link);
      }
      const axis = j.axis.clone().normalize();
      if (MOVING.has(j.jointType)) {
        const housing = new THREE.Mesh(new THREE.CylinderGeometry(rJoint, rJoint, lJoint, 40), materials.joint);
        housing.quaternion.setFromUnitVectors(new THREE.Vector3(0, 1, 0), axis);
        housing.castShadow = housing.receiveShadow = true;
        j.add(housing);
        joints.push({ joint: j, axis, housing });
      }
      const child = j.children.find((c) => c.isURDFLink);
      if (child) {
        flangeLink = child;
        walk(child);
      }
    }
  };
  walk(robot);
  const plate = new THREE.Mesh(new THREE.CylinderGeometry(0.16 * reach, 0.18 * reach, 0.03 * reach, 48), materials.base);
  plate.rotation.x = Math.PI / 2;
  plate.position.z = 0.015 * reach;
  plate.castShadow = plate.receiveShadow = true;
  robot.add(plate);
  if (flangeLink) {
    const axis = joints.length > 0 ? joints[joints.length - 1].axis : new THREE.Vector3(0, 0, 1);
    const at = (d) => axis.clone().multiplyScalar(d);
    rod(flangeLink, at(0.5 * lJoint), at(0.5 * lJoint + 0.015 * reach), 0.05 * reach, materials.flange);
    rod(flangeLink, at(0.5 * lJoint), at(0.5 * lJoint + 0.09 * reach), 0.008 * reach, materials.flange);
  }
  robot.traverse((o) => { if (o.isMesh) o.castShadow = o.receiveShadow = true; });
  scene.add(robot);
  return reach;
}

// The workspace box (mm, base frame), translucent.
function drawWorkspace(box) {
  if (!box) return;
  const [x0, x1, y0, y1, z0, z1] = box.map((v) => v / 1000);
  const geometry = new THREE.BoxGeometry(x1 - x0, y1 - y0, z1 - z0);
  const faces = new THREE.Mesh(geometry, new THREE.MeshBasicMaterial({
    color: 0x2f6fae, transparent: true, opacity: 0.05, depthWrite: false, side: THREE.DoubleSide }));
  const edges = new THREE.LineSegments(new THREE.EdgesGeometry(geometry),
    new THREE.LineBasicMaterial({ color: 0x2f6fae, transparent: true, opacity: 0.45 }));
  for (const o of [faces, edges]) {
    o.position.set((x0 + x1) / 2, (y0 + y1) / 2, (z0 + z1) / 2);
    scene.add(o);
  }
  pendant.workspace = [x0, x1, y0, y1, z0, z1];
}

// The flange's recent path.
const trail = { points: [], line: null };
function setUpTrail() {
  const geometry = new THREE.BufferGeometry();
  geometry.setAttribute('position', new THREE.BufferAttribute(new Float32Array(3 * TRAIL), 3));
  geometry.setDrawRange(0, 0);
  trail.line = new THREE.Line(geometry, new THREE.LineBasicMaterial({ color: 0xc9a227 }));
  trail.line.frustumCulled = false;
  scene.add(trail.line);
}
function extendTrail(p) {
  const last = trail.points[trail.points.length - 1];
  if (last && last.distanceToSquared(p) < 1e-8) return;
  trail.points.push(p.clone());
  if (trail.points.length > TRAIL) trail.points.shift();
  const position = trail.line.geometry.attributes.position;
  trail.points.forEach((q, k) => position.setXYZ(k, q.x, q.y, q.z));
  position.needsUpdate = true;
  trail.line.geometry.setDrawRange(0, trail.points.length);
}

function setUpStage(reach) {
  scene.add(new THREE.HemisphereLight(0xf4f7fb, 0x8a8f96, 1.6));
  const sun = new THREE.DirectionalLight(0xffffff, 1.8);
  sun.position.set(1.2 * reach, -0.9 * reach, 2.2 * reach);
  sun.castShadow = true;
  sun.shadow.mapSize.set(1024, 1024);
  const s = 1.3 * reach;
  Object.assign(sun.shadow.camera, { left: -s, right: s, top: s, bottom: -s, near: 0.1, far: 6 * reach });
  sun.shadow.radius = 4;
  scene.add(sun);
  scene.fog = new THREE.Fog(scene.background, 4 * reach, 12 * reach);
  const ground = new THREE.Mesh(new THREE.PlaneGeometry(20 * reach, 20 * reach),
    new THREE.MeshStandardMaterial({ color: 0xc9d1da, roughness: 0.95 }));
  ground.receiveShadow = true;
  scene.add(ground);
  const grid = new THREE.GridHelper(10 * reach, 50, 0x7d8a99, 0x98a4b1);
  grid.rotation.x = Math.PI / 2;  // into the base's x-y plane
  grid.position.z = 0.001;
  scene.add(grid);
  // From the front right, framing the arm's upright reach.
  const target = new THREE.Vector3(-0.22 * reach, -0.3 * reach, 0.36 * reach);
  camera.position.copy(target).add(new THREE.Vector3(1.45, -1.05, 0.62).multiplyScalar(1.3 * reach));
  controls.target.copy(target);
  controls.update();
}

function resize() {
  const w = canvas.clientWidth, h = canvas.clientHeight;
  if (canvas.width !== w || canvas.height !== h) {
    renderer.setSize(w, h, false);
    camera.aspect = w / Math.max(h, 1);
    camera.updateProjectionMatrix();
    dirty = true;
  }
}

function draw() {
  resize();
  if (dirty && pendant.ready) {
    renderer.render(scene, camera);
    ++pendant.frames;
    dirty = false;
  }
  requestAnimationFrame(draw);
}

// ---- the connection

let socket = null;
let nextId = 1;
const waiting = new Map();  // id -> resolve

function send(op, fields = {}) {
  if (!socket || socket.readyState !== WebSocket.OPEN) return Promise.resolve({ ok: false, error: 'not connected' });
  const id = nextId++;
  socket.send(JSON.stringify({ op, id, ...fields }));
  return new Promise((resolve) => waiting.set(id, resolve));
}
pendant.send = send;

function say(reply) {
  if (!reply.ok && reply.error) $('error').textContent = reply.error;
  return reply;
}

// ---- hold-to-run

let held = null;  // { timer } while a jog button is held
function press(kind, index, direction) {
  if (held) return;
  pendant.pressedAt = performance.now();
  const speed = Number($('speed').value);
  held = { timer: setInterval(() => socket?.readyState === WebSocket.OPEN &&
    socket.send(JSON.stringify({ op: 'heartbeat' })), HEARTBEAT_MS) };
  send('jog', { kind, index, direction, speed }).then(say);
}
function letGo() {
  if (!held) return;
  pendant.heldMs = performance.now() - pendant.pressedAt;  // how long the button was held
  clearInterval(held.timer);
  held = null;
  send('release');
}
function holdButton(label, kind, index, direction) {
  const b = document.createElement('button');
  b.textContent = label;
  b.className = 'jog';
  b.dataset.jog = `${kind}:${index}:${direction}`;
  b.addEventListener('pointerdown', (e) => { b.setPointerCapture(e.pointerId); press(kind, index, direction); });
  for (const end of ['pointerup', 'pointercancel', 'lostpointercapture']) b.addEventListener(end, letGo);
  return b;
}
window.addEventListener('blur', letGo);
document.addEventListener('visibilitychange', () => { if (document.hidden) letGo(); });

// ---- the panel

const fmt = (v, d = 1) => (v === null || v === undefined ? '–' : v.toFixed(d));

function buildPanel(hello) {
  const body = document.querySelector('#joints tbody');
  body.replaceChildren();
  hello.joints.forEach((j, k) => {
    const row = body.insertRow();
    row.insertCell().textContent = `${k + 1}`;
    row.insertCell();
    row.insertCell().textContent = `${fmt(j.min_deg, 0)} … ${fmt(j.max_deg, 0)}`;
    const jog = row.insertCell();
    jog.append(holdButton('−', 'joint', k, -1), holdButton('+', 'joint', k, 1));
  });
  const cart = $('cartesian');
  cart.replaceChildren();
  AXES.forEach((a, k) => {
    const group = document.createElement('span');
    group.append(holdButton(`${a}−`, 'cartesian', k, -1), holdButton(`${a}+`, 'cartesian', k, 1));
    cart.append(group);
  });
  $('program-name').textContent = hello.program;
}

let program = { text: '', messages: [] };
function showListing(line) {
  const list = $('listing');
  const lines = program.text.split('\n');
  if (lines[lines.length - 1] === '') lines.pop();
  if (list.children.length !== lines.length || list.dataset.text !== program.text) {
    list.replaceChildren(...lines.map((text) => {
      const item = document.createElement('li');
      item.textContent = text;
      return item;
    }));
    list.dataset.text = program.text;
  }
  [...list.children].forEach((item, k) => {
    const note = program.messages.filter((m) => m.line === k + 1).map((m) => m.text).join(' ');
    item.dataset.message = note;
    item.className = (k + 1 === line ? 'running ' : '') + (note ? 'bad' : '');
  });
  const general = program.messages.filter((m) => !(m.line >= 1 && m.line <= lines.length)).map((m) => m.text);
  list.dataset.general = general.join(' ');
  $('check').title = general.join('\n');
}

async function loadProgram() {
  const reply = await send('load_program');
  if (reply.ok || reply.text !== undefined) {
    program = { text: reply.text || '', messages: [] };
    $('editor').value = program.text;
    showListing(0);
  }
}

function showChecked(reply, text) {
  program = { text, messages: reply.messages || [] };
  showListing(0);
  $('error').textContent = reply.ok ? '' : (reply.messages || []).map((m) => (m.line ? `line ${m.line}: ` : '') + m.text).join(' · ') || reply.error || '';
}

function show(state) {
  joints.forEach((j, k) => {
    const deg = state.joints_deg[k];
    if (deg === undefined) return;
    j.joint.setJointValue(j.joint.jointType === 'prismatic' ? deg / 1000 : (deg * Math.PI) / 180);
    const limits = pendant.hello?.joints[k];
    const near = limits && (deg - limits.min_deg < 5 || limits.max_deg - deg < 5);
    j.housing.material = near ? materials.near : materials.joint;
  });
  if (flangeLink) {
    flangeLink.updateWorldMatrix(true, false);
    const p = flangeLink.getWorldPosition(new THREE.Vector3());
    pendant.flange = p.toArray();
    extendTrail(p);
  }
  const rows = document.querySelector('#joints tbody').rows;
  state.joints_deg.forEach((deg, k) => { if (rows[k]) rows[k].cells[1].textContent = fmt(deg, 2); });
  const [x, y, z, rx, ry, rz] = state.pose;
  $('pose').textContent = `flange ${fmt(x)} ${fmt(y)} ${fmt(z)} mm · ${fmt(rx)} ${fmt(ry)} ${fmt(rz)} deg`;
  $('activity').textContent = `${state.activity}${state.recording ? ' · recording' : ''}${state.line ? ` · line ${state.line}` : ''}` +
    `${state.status ? '' : ' · fault'}`;
  $('control').textContent = state.control ? 'You have control' : (state.controlled ? 'Watching (another page has control)' : 'Take control');
  $('control').className = state.control ? 'mine' : '';
  document.body.classList.toggle('watching', !state.control);
  $('free').textContent = state.activity === 'free' ? 'Hold arm' : 'Free arm';
  $('record').textContent = state.recording ? 'Stop recording' : 'Record trajectory';
  if (state.error && !$('error').textContent) $('error').textContent = state.error;
  $('outputs').replaceChildren(...state.outputs.map((o) => {
    const item = document.createElement('span');
    item.className = 'on';
    item.textContent = `DO${o} ON`;
    return item;
  }));
  $('messages').textContent = state.messages.join('\n');
  showListing(state.line);
  // The running lines highlighted, in order (for tests).
  if (state.line && pendant.linesShown[pendant.linesShown.length - 1] !== state.line) pendant.linesShown.push(state.line);
  if (!state.line && pendant.linesShown.length && pendant.linesShown[pendant.linesShown.length - 1] !== 0) pendant.linesShown.push(0);
  dirty = true;
}

function wire() {
  $('stop').addEventListener('click', () => { letGo(); send('stop'); });
  $('control').addEventListener('click', () => send('control').then(say));
  $('free').addEventListener('click', () => send(pendant.state?.activity === 'free' ? 'hold' : 'free').then(say));
  for (const b of document.querySelectorAll('[data-teach]'))
    b.addEventListener('click', async () => {
      const reply = say(await send('teach', { move: b.dataset.teach }));
      if (reply.ok && reply.line) await loadProgram();
    });
  $('record').addEventListener('click', () => send(pendant.state?.recording ? 'record_stop' : 'record_start').then(say));
  $('replay').addEventListener('click', () => send('replay').then(say));
  $('home').addEventListener('click', () => send('home').then(say));
  $('check').addEventListener('click', async () => {
    const text = $('editor').value;
    showChecked(await send('check_program', { text }), text);
  });
  $('save').addEventListener('click', async () => {
    const text = $('editor').value;
    showChecked(say(await send('save_program', { text })), text);
  });
  $('run').addEventListener('click', async () => {
    $('error').textContent = '';
    const reply = await send('run', { cycle: $('cycle').value, override: Number($('override').value),
      blend: $('blend').checked });
    if (reply.messages) showChecked(reply, program.text);
    say(reply);
  });
  $('forward').addEventListener('click', () => send('step', { direction: 'forward' }));
  $('back').addEventListener('click', () => send('step', { direction: 'backward' }));
  $('speed').addEventListener('input', () => { $('speed-value').textContent = `${Math.round($('speed').value * 100)} %`; });
}

function connect() {
  const token = new URLSearchParams(location.search).get('token');
  socket = new WebSocket(`ws://${location.host}/ws${token ? `?token=${encodeURIComponent(token)}` : ''}`);
  let lastState = performance.now();
  const link = $('link');
  const watchdog = setInterval(() => {
    if (performance.now() - lastState > STALE_MS) { link.textContent = 'disconnected'; link.className = 'off'; }
  }, 250);
  socket.addEventListener('message', (event) => {
    const m = JSON.parse(event.data);
    if (m.type === 'hello') {
      pendant.hello = m;
      buildPanel(m);
      drawWorkspace(m.workspace_box_mm);
      loadProgram();
    } else if (m.type === 'state') {
      pendant.state = m;
      ++pendant.states;
      lastState = performance.now();
      link.textContent = 'live';
      link.className = '';
      show(m);
    } else if (m.type === 'reply') {
      pendant.replies.push(m);
      if (pendant.replies.length > 50) pendant.replies.shift();
      waiting.get(m.id)?.(m);
      waiting.delete(m.id);
    }
  });
  socket.addEventListener('close', () => {
    clearInterval(watchdog);
    link.textContent = 'disconnected';
    link.className = 'off';
    letGo();
    setTimeout(connect, 1000);
  });
}

async function main() {
  wire();
  try {
    const reply = await fetch('arm.urdf', { cache: 'no-store' });
    if (!reply.ok) throw new Error(`arm.urdf: HTTP ${reply.status}`);
    setUpStage(buildArm(await reply.text()));
    setUpTrail();
    pendant.joints = joints.length;
    pendant.ready = true;
  } catch (e) {
    pendant.error = String(e.message || e);
    $('error').textContent = pendant.error;
  }
  requestAnimationFrame(draw);
  connect();
}

main();
