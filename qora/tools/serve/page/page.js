// SPDX-License-Identifier: BSD-2-Clause
// The page around the picture: what state it is in, how it is scaled, and what a viewer with the
// right to it types and points at.
const byId = (id) => document.getElementById(id);
const stage = byId('stage');
const frame = byId('frame');
const canvas = byId('screen');
const pointer = byId('pointer');

let worker = null;
let controls = false;
let size = [16, 16];
let at = [0, 0];        // of the pointer, on the screen
let hotSpot = [0, 0];
let roundTrip = null;

const say = (...words) => worker.postMessage({ kind: 'say', words });

function notice(text) {
  byId('notice').textContent = text;
  byId('notice').hidden = text === '';
}

const states = {
  connecting: 'connecting', live: 'live', lost: 'connection lost, trying again', refused: 'not let in',
};
function setState(state) {
  byId('state').dataset.state = state;
  byId('state').textContent = states[state];
  byId('again').hidden = state !== 'lost' && state !== 'refused';
  frame.classList.toggle('old', state !== 'live');
  if (state === 'refused') notice('This address is not valid any more: open the one that the server printed.');
}

// --- The pointer, which is sent apart ----------------------------------------------------------

function placePointer() {
  const scale = canvas.clientWidth / size[0] || 1;
  pointer.style.transform =
    `translate(${(at[0] - hotSpot[0]) * scale}px, ${(at[1] - hotSpot[1]) * scale}px) scale(${scale})`;
}

function shapePointer(text) {
  const [x, y, width, height, data] = text.split(' ');
  hotSpot = [Number(x), Number(y)];
  pointer.width = Number(width);
  pointer.height = Number(height);
  const pixels = Uint8ClampedArray.from(atob(data), (c) => c.charCodeAt(0));
  if (pixels.length > 0) pointer.getContext('2d').putImageData(new ImageData(pixels, pointer.width), 0, 0);
  pointer.hidden = pixels.length === 0;
  placePointer();
}

// --- What the worker reports -------------------------------------------------------------------

const reports = {
  state: setState,
  size: (value) => { size = value; placePointer(); },
  screen: (text) => {
    const [width, height, right] = text.split(' ');
    size = [Number(width), Number(height)];
    controls = right === 'control';
    stage.classList.toggle('control', controls);
    canvas.style.cursor = controls ? 'none' : '';
    notice('');
    setState('live');
  },
  late: (text) => { byId('late').hidden = text !== '1'; },
  cursor: shapePointer,
  pointer: (text) => { at = text.split(' ').map(Number); placePointer(); },
  line: (text) => { roundTrip = Number(text); },
  refused: () => setState('refused'),
  clip: (text) => { navigator.clipboard?.writeText(text).catch(() => {}); },
  figures: ({ frames, bytes }) => {
    const delay = roundTrip === null ? '' : `, ${roundTrip} ms`;
    byId('figures').textContent =
      `${size[0]}×${size[1]}, ${frames} frames/s, ${Math.round(bytes * 8 / 1000)} kbit/s${delay}`;
  },
};

// --- Keyboard and pointer of a viewer who may --------------------------------------------------

function pointAt(event) {
  const box = canvas.getBoundingClientRect();
  const x = Math.round((event.clientX - box.left) * size[0] / box.width);
  const y = Math.round((event.clientY - box.top) * size[1] / box.height);
  at = [Math.min(Math.max(x, 0), size[0] - 1), Math.min(Math.max(y, 0), size[1] - 1)];
  placePointer();
  return at;
}

let moved = false;  // a move is sent with the next animation frame
function move(event) {
  pointAt(event);
  if (moved) return;
  moved = true;
  requestAnimationFrame(() => { moved = false; say('move', ...at); });
}

const held = new Set();
function key(event, down) {
  if (!event.code) return;
  if (down && event.repeat) return event.preventDefault();
  if (down) held.add(event.code); else if (!held.delete(event.code)) return;
  say(down ? 'press' : 'release', event.code);
  event.preventDefault();
}
function releaseAll() {
  for (const code of held) say('release', code);
  held.clear();
}

let wheel = 0;
function turn(event) {
  event.preventDefault();
  wheel += event.deltaMode === 0 ? event.deltaY / 60 : event.deltaY / 3;
  const clicks = Math.trunc(wheel);
  wheel -= clicks;
  if (clicks !== 0) say('wheel', Math.max(-20, Math.min(20, clicks)));
}

function whenControlling(handler) {
  return (event) => { if (controls) handler(event); };
}
canvas.addEventListener('pointermove', whenControlling(move));
canvas.addEventListener('pointerdown', whenControlling((event) => {
  stage.focus();
  canvas.setPointerCapture(event.pointerId);
  say('move', ...pointAt(event));
  say('button', event.button + 1, 1);
  event.preventDefault();
}));
canvas.addEventListener('pointerup', whenControlling((event) => say('button', event.button + 1, 0)));
canvas.addEventListener('wheel', whenControlling(turn), { passive: false });
canvas.addEventListener('contextmenu', whenControlling((event) => event.preventDefault()));
stage.addEventListener('keydown', whenControlling((event) => key(event, true)));
stage.addEventListener('keyup', whenControlling((event) => key(event, false)));
stage.addEventListener('blur', releaseAll);
stage.addEventListener('paste', whenControlling((event) => {
  const text = event.clipboardData.getData('text').slice(0, 1000);
  if (text) say('text', text);
}));

// --- The page's own buttons --------------------------------------------------------------------

byId('fit').addEventListener('click', () => {
  const fits = stage.classList.toggle('fit');
  byId('fit').setAttribute('aria-pressed', String(fits));
  placePointer();
});
byId('full').addEventListener('click', () => {
  if (document.fullscreenElement) document.exitFullscreen(); else stage.requestFullscreen?.();
});
byId('again').addEventListener('click', () => worker.postMessage({ kind: 'again' }));
new ResizeObserver(placePointer).observe(canvas);

// A page that is reloaded is hidden first: only one that stays hidden stops the pictures.
let hiding = 0;
document.addEventListener('visibilitychange', () => {
  clearTimeout(hiding);
  if (document.hidden) hiding = setTimeout(() => say('pause'), 250); else say('resume');
});

function start() {
  if (!('VideoDecoder' in window)) {
    setState('refused');
    return notice(window.isSecureContext
      ? 'This browser cannot decode video by itself (WebCodecs): use a current one.'
      : 'A browser decodes only what comes from this machine or with a certificate: ' +
        'open the address through "ssh -L", or start the server with --cert and --key.');
  }
  const token = location.hash.slice(1);
  const offscreen = canvas.transferControlToOffscreen();
  worker = new Worker('/worker.js', { type: 'module' });
  worker.onmessage = ({ data }) => reports[data.kind]?.(data.value);
  const address = `${location.protocol === 'https:' ? 'wss' : 'ws'}://${location.host}/`;
  worker.postMessage({ kind: 'start', address, token, canvas: offscreen }, [offscreen]);
}
start();
