// SPDX-License-Identifier: BSD-2-Clause
// The connection, the decoder and the canvas, off the page's own thread: what the page does never
// delays a picture. Talks to page.js by messages.
import { codecOf, readFrame } from '/stream.js';

const waitBetween = [500, 1000, 2000, 4000];  // ms between attempts to connect
const longestQueue = 8;                       // frames in the decoder before it is told to skip
const decoderPatience = 500;                  // ms that a decoder may take for a key frame
const stillAfter = 250;                       // ms without a picture

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
let pending = [];    // the boxes of the frames in the decoder
let patience = 0;
let latest = null;   // the picture that was decoded last, while not all of it is on the canvas
let stillness = 0;
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

// Only what is another than before, so that converting and composing it cost little. Not every
// picture of every decoder can be cut.
function drawPart(picture, [x, y, width, height]) {
  if (width === 0) return;
  let part = null;
  try {
    part = new VideoFrame(picture, {
      visibleRect: { x, y, width, height }, displayWidth: width, displayHeight: height,
    });
    context.drawImage(part, x, y);
  } catch {
    context.drawImage(picture, 0, 0);
  }
  part?.close();
}

// What the encoder chose to code once more around the parts may wait until the screen stands still.
function drawRest() {
  clearTimeout(stillness);
  if (latest) context.drawImage(latest, 0, 0);
  forgetLatest();
}

function forgetLatest() {
  clearTimeout(stillness);
  latest?.close();
  latest = null;
}

// A picture is drawn as soon as it is decoded and closed when the next one comes: a few unclosed
// ones stall a decoder.
function show(picture) {
  clearTimeout(patience);
  const box = pending.shift();
  forgetLatest();
  latest = picture;
  if (canvas.width !== picture.displayWidth || canvas.height !== picture.displayHeight) {
    canvas.width = picture.displayWidth;
    canvas.height = picture.displayHeight;
    tell('size', [canvas.width, canvas.height]);
    drawRest();
  } else {
    drawPart(picture, box);
    stillness = setTimeout(drawRest, stillAfter);
  }
  drawn += 1;
  done();
}

function forgetPending() {
  for (const box of pending) done();
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
    colorSpace: { primaries: 'bt709', transfer: 'bt709', matrix: 'bt709', fullRange: true },
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
  pending.push(frame.box);
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
