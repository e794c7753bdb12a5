// Live view of the simulated arm: builds the kinematic chain of /arm.urdf as
// three.js objects, draws the controller's workspace (/workspace), polls the
// bus's /state, turns the joints and lists the digital outputs.
//
// Frames: the scene is the URDF's base frame, z up, metres. A joint's origin
// (xyz, rpy with R = Rz(yaw) Ry(pitch) Rx(roll)) places it in its parent link's
// frame; its angle turns the child link about the joint's axis. The actuators
// drive the moving joints in chain order, the lowest id the first joint.
import * as THREE from 'three';

const POLL_MS = 50;         // ~20 states a second
const STALE_MS = 1000;      // no state for this long: disconnected
const MOVING = new Set(['revolute', 'continuous', 'prismatic']);

const view = { state: null, frames: 0, states: 0, connected: false, joints: 0, ready: false, error: null, flange: null,
  workspace: null };
window.viewState = view;

const canvas = document.getElementById('scene');
const renderer = new THREE.WebGLRenderer({ canvas, antialias: true, preserveDrawingBuffer: true });
renderer.setPixelRatio(1);
renderer.shadowMap.enabled = true;
renderer.shadowMap.type = THREE.PCFSoftShadowMap;
const scene = new THREE.Scene();
scene.background = new THREE.Color(0xdde3ea);
const camera = new THREE.PerspectiveCamera(35, 1, 0.01, 50);
camera.up.set(0, 0, 1);

const materials = {
  link: new THREE.MeshStandardMaterial({ color: 0xe8ebee, roughness: 0.45, metalness: 0.1 }),
  joint: new THREE.MeshStandardMaterial({ color: 0x2f6fae, roughness: 0.4, metalness: 0.2 }),
  near: new THREE.MeshStandardMaterial({ color: 0xe0621c, roughness: 0.4, metalness: 0.2, emissive: 0x5a1a00 }),
  // The joint the collision monitor stopped the arm for.
  collided: new THREE.MeshStandardMaterial({ color: 0xd0142c, roughness: 0.3, metalness: 0.1, emissive: 0x8a0010 }),
  base: new THREE.MeshStandardMaterial({ color: 0x3b4450, roughness: 0.6, metalness: 0.3 }),
  flange: new THREE.MeshStandardMaterial({ color: 0xc9a227, roughness: 0.35, metalness: 0.5 }),
};
const joints = [];  // moving joints in chain order: { name, type, axis, pivot, housing }
let flangeLink = null;  // the chain's last link
let dirty = true;

const linkOf = (joint, tag) => joint.getElementsByTagName(tag)[0]?.getAttribute('link');

function numbers(text, count) {
  const v = (text || '').trim().split(/\s+/).filter((s) => s !== '').map(Number);
  return v.length === count && v.every(Number.isFinite) ? v : new Array(count).fill(0);
}

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

// The chain of an URDF document: link groups joined by origin and pivot groups.
function buildArm(xml) {
  const doc = new DOMParser().parseFromString(xml, 'application/xml');
  if (doc.getElementsByTagName('parsererror').length > 0) throw new Error('arm.urdf is not valid XML');
  const robot = doc.documentElement;
  const links = new Map();
  for (const l of robot.getElementsByTagName('link')) links.set(l.getAttribute('name'), new THREE.Group());
  const children = new Map();  // parent link name -> joint elements
  const childLinks = new Set();
  for (const j of robot.children) {
    if (j.tagName !== 'joint') continue;
    const parent = linkOf(j, 'parent'), child = linkOf(j, 'child');
    if (!links.has(parent) || !links.has(child)) throw new Error(`joint ${j.getAttribute('name')}: unknown link`);
    if (!children.has(parent)) children.set(parent, []);
    children.get(parent).push(j);
    childLinks.add(child);
  }
  const roots = [...links.keys()].filter((n) => !childLinks.has(n));
  if (roots.length !== 1) throw new Error('arm.urdf has no single root link');

  // Size of the drawing: the summed joint offsets (the arm's reach).
  let reach = 0;
  for (const list of children.values())
    for (const j of list) reach += new THREE.Vector3(...numbers(j.getElementsByTagName('origin')[0]?.getAttribute('xyz'), 3)).length();
  reach = Math.max(reach, 0.2);
  const rLink = 0.045 * reach, rJoint = 0.07 * reach, lJoint = 0.16 * reach;

  const walk = (name) => {
    for (const j of children.get(name) || []) {
      const origin = j.getElementsByTagName('origin')[0];
      const xyz = numbers(origin?.getAttribute('xyz'), 3);
      const rpy = numbers(origin?.getAttribute('rpy'), 3);
      const axisEl = j.getElementsByTagName('axis')[0];
      const axis = new THREE.Vector3(...(axisEl ? numbers(axisEl.getAttribute('xyz'), 3) : [1, 0, 0]));
      if (axis.lengthSq() < 1e-12) axis.set(1, 0, 0);
      axis.normalize();
      // The link between the joints, along the parent's x, then y, then z:
      // the offsets show as the elbows a diagonal would hide.
      const parent = links.get(name);
      const corner = [new THREE.Vector3()];
      for (let k = 0; k < 3; ++k) {
        const next = corner[corner.length - 1].clone();
        next.setComponent(k, xyz[k]);
        if (next.distanceTo(corner[corner.length - 1]) > 1e-6) corner.push(next);
      }
      for (let k = 1; k < corner.length; ++k) rod(parent, corner[k - 1], corner[k], rLink, materials.link);
      const frame = new THREE.Group();
      frame.position.set(...xyz);
      frame.rotation.set(rpy[0], rpy[1], rpy[2], 'ZYX');
      parent.add(frame);
      const pivot = new THREE.Group();
      frame.add(pivot);
      pivot.add(links.get(linkOf(j, 'child')));
      const type = j.getAttribute('type');
      if (MOVING.has(type)) {
        // The actuator's housing, along the joint's axis, in the joint's frame.
        const housing = new THREE.Mesh(new THREE.CylinderGeometry(rJoint, rJoint, lJoint, 40), materials.joint);
        housing.quaternion.setFromUnitVectors(new THREE.Vector3(0, 1, 0), axis);
        housing.castShadow = housing.receiveShadow = true;
        frame.add(housing);
        joints.push({ name: j.getAttribute('name'), type, axis, pivot, housing });
      }
      walk(linkOf(j, 'child'));
    }
  };
  walk(roots[0]);

  const base = links.get(roots[0]);
  const plate = new THREE.Mesh(new THREE.CylinderGeometry(0.16 * reach, 0.18 * reach, 0.03 * reach, 48), materials.base);
  plate.rotation.x = Math.PI / 2;
  plate.position.z = 0.015 * reach;
  plate.castShadow = plate.receiveShadow = true;
  base.add(plate);
  // The flange: a disc at the end of the last joint's housing and a short
  // tool axis beyond it, along that joint's axis.
  let last = roots[0];
  for (let list; (list = children.get(last)) && list.length > 0;) last = linkOf(list[0], 'child');
  flangeLink = links.get(last);
  const axis = joints.length > 0 ? joints[joints.length - 1].axis : new THREE.Vector3(0, 0, 1);
  const at = (d) => axis.clone().multiplyScalar(d);
  rod(links.get(last), at(0.5 * lJoint), at(0.5 * lJoint + 0.015 * reach), 0.05 * reach, materials.flange);
  rod(links.get(last), at(0.5 * lJoint), at(0.5 * lJoint + 0.09 * reach), 0.008 * reach, materials.flange);
  scene.add(base);
  return reach;
}

// The workspace box (mm in the base frame, drawn in m) as translucent faces
// and edges, cut to the side n . p <= d of each half-space. Sets view.workspace
// to the box drawn (m), null without one.
function drawWorkspace(ws) {
  if (!ws || !ws.box_mm) return;
  const [x0, x1, y0, y1, z0, z1] = ws.box_mm.map((v) => v / 1000);
  // three.js keeps where normal . p + constant >= 0: normal -n/|n|, constant d/|n|.
  const clippingPlanes = (ws.half_spaces || []).map(([nx, ny, nz, d]) => {
    const n = new THREE.Vector3(nx, ny, nz);
    const length = n.length();
    return new THREE.Plane(n.negate().divideScalar(length), d / 1000 / length);
  });
  renderer.localClippingEnabled = clippingPlanes.length > 0;
  const geometry = new THREE.BoxGeometry(x1 - x0, y1 - y0, z1 - z0);
  const faces = new THREE.Mesh(geometry, new THREE.MeshBasicMaterial({
    color: 0x2f6fae, transparent: true, opacity: 0.05, depthWrite: false, side: THREE.DoubleSide, clippingPlanes }));
  const edges = new THREE.LineSegments(new THREE.EdgesGeometry(geometry), new THREE.LineBasicMaterial({
    color: 0x2f6fae, transparent: true, opacity: 0.45, clippingPlanes }));
  for (const o of [faces, edges]) {
    o.position.set((x0 + x1) / 2, (y0 + y1) / 2, (z0 + z1) / 2);
    scene.add(o);
  }
  view.workspace = [x0, x1, y0, y1, z0, z1];
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
  // A fixed camera from the front right, framing the arm's upright reach.
  const target = new THREE.Vector3(-0.22 * reach, -0.3 * reach, 0.36 * reach);
  camera.position.copy(target).add(new THREE.Vector3(1.45, -1.05, 0.62).multiplyScalar(1.3 * reach));
  camera.lookAt(target);
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
  if (dirty && view.ready) {
    renderer.render(scene, camera);
    ++view.frames;
    dirty = false;
  }
  requestAnimationFrame(draw);
}

const fmt = (v) => (v === null || v === undefined ? '–' : v.toFixed(1));

function show(state) {
  const acts = [...state.actuators].sort((a, b) => a.id - b.id);
  acts.forEach((a, k) => {
    const j = joints[k];
    if (!j || a.angle === null) return;
    if (j.type === 'prismatic') j.pivot.position.copy(j.axis).multiplyScalar(a.angle);
    else j.pivot.quaternion.setFromAxisAngle(j.axis, a.angle);
    j.housing.material = state.collision_joint === k + 1 ? materials.collided
      : (a.near_limit ? materials.near : materials.joint);
  });
  // Where the drawing puts the last link's origin (base frame, m), for tests.
  if (flangeLink) view.flange = flangeLink.getWorldPosition(new THREE.Vector3()).toArray();
  const body = document.querySelector('#joints tbody');
  while (body.rows.length > acts.length) body.deleteRow(-1);
  while (body.rows.length < acts.length) body.insertRow().innerHTML = '<td></td><td></td><td></td><td></td>';
  acts.forEach((a, k) => {
    const row = body.rows[k];
    row.className = state.collision_joint === k + 1 ? 'collided' : (a.near_limit ? 'near' : '');
    row.cells[0].textContent = `${k + 1} (id ${a.id})`;
    row.cells[1].textContent = fmt(a.angle_deg);
    row.cells[2].textContent = fmt(a.setpoint_deg);
    row.cells[3].textContent = a.lower_deg === null ? '–' : `${fmt(a.lower_deg)} … ${fmt(a.upper_deg)}`;
  });
  const modes = new Set(acts.map((a) => a.mode_name));
  document.getElementById('mode').textContent = modes.size === 1 ? [...modes][0] : (modes.size ? 'mixed modes' : 'no actuators');
  document.getElementById('time').textContent = `t = ${state.time.toFixed(2)} s`;
  // The collision monitor, while armed: each joint's residual over its threshold.
  document.getElementById('residual').textContent = state.collision_residual
    ? (state.collision_joint ? `collision at joint ${state.collision_joint} · ` : '') + 'residual / threshold [N·m]: ' +
      state.collision_residual.map((r, i) => `${r.toFixed(2)}/${state.collision_threshold[i].toFixed(2)}`).join(' ')
    : '';
  view.collisionJoint = state.collision_joint || 0;
  document.getElementById('outputs').replaceChildren(...(state.digital_outputs || []).map(({ output, on }) => {
    const item = document.createElement('span');
    item.className = on ? 'on' : '';
    item.textContent = `DO${output} ${on ? 'ON' : 'OFF'}`;
    return item;
  }));
  dirty = true;
}

function setConnected(on) {
  view.connected = on;
  const link = document.getElementById('link');
  link.textContent = on ? 'live' : 'disconnected';
  link.className = on ? '' : 'off';
}

async function poll() {
  let lastOk = performance.now();
  for (;;) {
    const started = performance.now();
    try {
      const reply = await fetch('/state', { cache: 'no-store', signal: AbortSignal.timeout(STALE_MS) });
      if (!reply.ok) throw new Error(`state: HTTP ${reply.status}`);
      const state = await reply.json();
      view.state = state;
      ++view.states;
      lastOk = performance.now();
      setConnected(true);
      show(state);
    } catch (e) {
      if (performance.now() - lastOk >= STALE_MS) setConnected(false);
    }
    await new Promise((r) => setTimeout(r, Math.max(0, POLL_MS - (performance.now() - started))));
  }
}

async function main() {
  try {
    const reply = await fetch('/arm.urdf', { cache: 'no-store' });
    if (!reply.ok) throw new Error(`arm.urdf: HTTP ${reply.status}`);
    setUpStage(buildArm(await reply.text()));
    // The workspace is optional: without it (or its reply) the arm stands alone.
    const ws = await fetch('/workspace', { cache: 'no-store' }).then((r) => (r.ok ? r.json() : null)).catch(() => null);
    drawWorkspace(ws);
    view.joints = joints.length;
    view.ready = true;
  } catch (e) {
    view.error = String(e.message || e);
    document.getElementById('status').textContent = view.error;
  }
  requestAnimationFrame(draw);
  poll();
}

main();
