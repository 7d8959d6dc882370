// SPDX-License-Identifier: BSD-2-Clause
// The connection, the decoder and the canvas, off the page's own thread: what the page does never
// delays a picture. Talks to page.js by messages.
import { codecOf, readFrame } from '/stream.js';

const waitBetween = [500, 1000, 2000, 4000];  // ms between attempts to connect
const longestQueue = 8;                       // frames in the decoder before it is told to skip
const decoderPatience = 500;                  // ms that a decoder may take for a key frame

let address, token, canvas, context;
let socket = null;
let attempts = 0;
let retry = 0;
let decoder = null;
let hardware = 'prefer-software';  // hardware decoders may hold pictures back
let configured = '';
let needsKey = true;
let asked = 0;       // frames given to the decoder since it was made
let decoded = 0;     // frames of this connection that are done with, decoded or not
let pending = [];    // for each frame in the decoder: whether it still counts
let patience = 0;
let newest = null;
let drawn = 0;
let bytes = 0;

const tell = (kind, value) => postMessage({ kind, value });
const say = (...words) => { if (socket?.readyState === WebSocket.OPEN) socket.send(words.join(' ')); };

function done() {
  decoded += 1;
  say('ack', decoded);
}

function askForKey() {
  needsKey = true;
  say('key');
}

// A picture is drawn as soon as it is decoded, only the newest, and closed whatever happens: a few
// unclosed ones stall a decoder.
function show(picture) {
  clearTimeout(patience);
  const counts = pending.shift();
  try {
    if (canvas.width !== picture.displayWidth || canvas.height !== picture.displayHeight) {
      canvas.width = picture.displayWidth;
      canvas.height = picture.displayHeight;
      tell('size', [canvas.width, canvas.height]);
    }
    context.drawImage(picture, 0, 0);
    drawn += 1;
  } finally {
    picture.close();
  }
  if (counts) done();
}

function forgetPending() {
  for (const counts of pending) if (counts) done();
  pending = [];
}

function closeDecoder() {
  clearTimeout(patience);
  if (decoder && decoder.state !== 'closed') decoder.close();
  decoder = null;
  configured = '';
}

function decoderFailed(error) {
  closeDecoder();
  forgetPending();
  if (error?.name !== 'QuotaExceededError') hardware = 'prefer-software';
  askForKey();
}

function otherDecoder() {
  hardware = hardware === 'prefer-software' ? 'no-preference' : 'prefer-software';
  closeDecoder();
  forgetPending();
  askForKey();
}

function configure(codec) {
  closeDecoder();
  decoder = new VideoDecoder({ output: show, error: decoderFailed });
  decoder.configure({
    codec,
    optimizeForLatency: true,
    hardwareAcceleration: hardware,
    colorSpace: { primaries: 'bt709', transfer: 'bt709', matrix: 'bt709', fullRange: false },
  });
  configured = codec;
}

function decode(frame) {
  if (frame.key) {
    const codec = codecOf(frame.data);
    if (!decoder || codec !== configured) configure(codec);
    needsKey = false;
    clearTimeout(patience);
    patience = setTimeout(otherDecoder, decoderPatience);
  } else if (needsKey || !decoder) {
    return done();
  } else if (decoder.decodeQueueSize > longestQueue) {
    askForKey();
    return done();
  }
  pending.push(true);
  decoder.decode(new EncodedVideoChunk({
    type: frame.key ? 'key' : 'delta',
    timestamp: frame.time,
    data: frame.data,
  }));
}

function received(message) {
  if (typeof message.data === 'string') {
    const space = message.data.indexOf(' ');
    const word = space < 0 ? message.data : message.data.slice(0, space);
    if (word === 'line') say('ack', decoded);  // how long an answer takes without a picture
    tell(word, space < 0 ? '' : message.data.slice(space + 1));
    if (word === 'screen') attempts = 0;
    if (word === 'refused') retry = -1;
    return;
  }
  bytes += message.data.byteLength;
  const frame = readFrame(message.data);
  if (!frame) return done();
  try {
    decode(frame);
  } catch (error) {
    done();
    decoderFailed(error);
  }
}

function connect() {
  clearTimeout(retry);
  tell('state', 'connecting');
  const opening = new WebSocket(address, 'qora-screen');
  opening.binaryType = 'arraybuffer';
  opening.onopen = () => {
    socket = opening;
    closeDecoder();
    pending = [];
    needsKey = true;
    decoded = 0;
    say('token', token);
  };
  opening.onmessage = received;
  opening.onclose = () => {
    socket = null;
    if (retry === -1) return tell('state', 'refused');
    tell('state', 'lost');
    const wait = waitBetween[Math.min(attempts, waitBetween.length - 1)];
    attempts += 1;
    retry = setTimeout(connect, wait * (0.75 + Math.random() / 2));
  };
}

setInterval(() => {
  tell('figures', { frames: drawn, bytes });
  drawn = 0;
  bytes = 0;
}, 1000);

onmessage = ({ data }) => {
  if (data.kind === 'start') {
    ({ address, token, canvas } = data);
    context = canvas.getContext('2d', { alpha: false });
    connect();
  } else if (data.kind === 'again') {
    attempts = 0;
    retry = 0;
    socket?.close();
    if (!socket) connect();
  } else {
    say(...data.words);
  }
};
