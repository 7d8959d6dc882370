// SPDX-License-Identifier: BSD-2-Clause
// The bytes of a message that carries a frame, and what a decoder has to know of its access unit.

const headSize = 32;  // see docs/stream_format.md; the connection itself guards the bytes
const boxSize = 8;

export function readFrame(buffer) {
  if (buffer.byteLength <= headSize) return null;
  const head = new DataView(buffer);
  const end = headSize + head.getUint32(20, true);
  if (buffer.byteLength < end + boxSize) return null;
  return {
    key: (head.getUint16(4, true) & 1) === 1,
    time: Number(head.getBigInt64(8, true)),
    data: new Uint8Array(buffer, headSize, end - headSize),
    box: [0, 2, 4, 6].map((at) => head.getUint16(end + at, true)),  // what to draw: x, y, width, height
  };
}

// "avc1.PPCCLL" from the sequence parameter set of a key frame; '' when there is none.
export function codecOf(data) {
  for (let at = 0; at + 7 < data.length; ++at) {
    if (data[at] === 0 && data[at + 1] === 0 && data[at + 2] === 1 && (data[at + 3] & 31) === 7) {
      const hex = (byte) => byte.toString(16).padStart(2, '0');
      return `avc1.${hex(data[at + 4])}${hex(data[at + 5])}${hex(data[at + 6])}`;
    }
  }
  return '';
}
