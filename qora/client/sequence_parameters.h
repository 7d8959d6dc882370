// SPDX-License-Identifier: BSD-2-Clause
// qora/client/sequence_parameters.h -- Makes the sequence parameter set of an access unit say what
// is true of the stream.
//
// The encoder's own set promises 25 frames a second at a fixed rate and is silent on colour, so
// players guess: the duration of a file, red as orange. Nothing of the pictures is changed, nor of
// what they are decoded by. Pure; the access unit may be anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace qora::client {

// How the NAL units of an access unit are told apart.
enum class NalFraming {
  startCodes,  // Annex B
  lengths,     // 4 bytes before each, big-endian
};

// What the stream says of itself. The numbers for colour are those of the H.264 tables.
struct SequenceFacts {
  // Frames a second, numerator over denominator; numerator 0: nothing is said.
  uint32_t rateNumerator = 0;
  uint32_t rateDenominator = 1;
  bool fixedRate = false;    // each frame lasts equally long; otherwise the rate is the highest
  uint16_t aspectWidth = 1;  // of a sample
  uint16_t aspectHeight = 1;
  bool fullRange = false;
  uint8_t primaries = 1;  // 1: BT.709
  uint8_t transfer = 1;   // 1: BT.709, 13: sRGB
  uint8_t matrix = 1;     // 1: BT.709
  // Where chroma samples lie. 0: left, 1: in the middle of their four pixels, which is what
  // convertPiece() makes; -1: nothing is said.
  int32_t chromaLocation = -1;
};

// The access unit with its sets rewritten, to `rewritten` (earlier content is dropped): 1. 0: it
// has none, as every frame that is no key frame; `rewritten` is left alone. -1 with EBADMSG: a set
// is damaged, or has what H.264 does not allow. Also says that pictures come in the order they are
// shown and that the decoder holds back none.
int32_t rewriteSequenceParameters(std::span<const uint8_t> accessUnit, NalFraming framing,
                                  const SequenceFacts& facts, std::vector<uint8_t>& rewritten);

// The first NAL unit of a type (5: key frame's slice, 7: sequence parameters, 8: picture
// parameters), without start code or length; empty: none. Slices end the search for others.
std::span<const uint8_t> findNalUnit(std::span<const uint8_t> accessUnit, NalFraming framing,
                                     uint8_t type);

// The step for one set: a whole NAL unit of type 7 with its emulation bytes. 1, or -1 with EBADMSG.
// `rewritten` is appended to.
int32_t rewriteSequenceNal(std::span<const uint8_t> nal, const SequenceFacts& facts,
                           std::vector<uint8_t>& rewritten);

}  // namespace qora::client
