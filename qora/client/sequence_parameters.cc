// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/sequence_parameters.h"

#include <algorithm>
#include <bit>
#include <cerrno>

#include "qora/service/wire/byte_order.h"

namespace qora::client {
namespace {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

constexpr uint8_t kSequenceNal = 7;
constexpr uint32_t kOwnAspect = 255;  // not one of the table's
constexpr uint8_t kLastSliceNal = 5;

// --- bits ---

class BitReader {
 public:
  explicit BitReader(View bytes) : bytes_(bytes) {}

  // Behind the end everything is 0, and failed() says so.
  uint32_t bit() {
    const size_t byte = at_ / 8;
    const auto shift = static_cast<uint32_t>(7 - at_ % 8);
    ++at_;
    return byte < bytes_.size() ? bytes_[byte] >> shift & 1U : 0U;
  }
  uint32_t bits(int32_t count) {
    uint32_t value = 0;
    for (int32_t i = 0; i < count; ++i) value = value << 1 | bit();
    return value;
  }
  // An exponential Golomb code, as all numbers without a fixed width are.
  uint32_t golomb() {
    int32_t zeros = 0;
    while (zeros < 32 && !failed() && bit() == 0) ++zeros;
    if (zeros == 32) at_ = bytes_.size() * 8 + 1;
    return zeros == 32 ? 0 : (1U << zeros) - 1 + bits(zeros);
  }
  size_t position() const { return at_; }
  void moveTo(size_t position) { at_ = position; }
  bool failed() const { return at_ > bytes_.size() * 8; }

 private:
  View bytes_;
  size_t at_ = 0;  // bits
};

class BitWriter {
 public:
  void bit(uint32_t value) {
    if (used_ % 8 == 0) bytes_.push_back(0);
    bytes_.back() |= static_cast<uint8_t>((value & 1) << (7 - used_ % 8));
    ++used_;
  }
  void bits(uint32_t value, int32_t count) {
    for (int32_t i = count - 1; i >= 0; --i) bit(value >> i);
  }
  void golomb(uint32_t value) {
    const int32_t width = std::bit_width(value + 1);
    bits(0, width - 1);
    bits(value + 1, width);
  }
  void copy(View from, size_t first, size_t end) {
    BitReader reader(from);
    reader.moveTo(first);
    while (reader.position() < end) bit(reader.bit());
  }
  // A one and zeros up to a whole byte.
  const Bytes& finish() {
    bit(1);
    used_ = bytes_.size() * 8;
    return bytes_;
  }

 private:
  Bytes bytes_;
  size_t used_ = 0;
};

// Inside a NAL unit two zero bytes are followed by a 3 where another one up to 3 would follow.
Bytes withoutEmulation(View nal) {
  Bytes plain;
  plain.reserve(nal.size());
  int32_t zeros = 0;
  for (const uint8_t byte : nal) {
    const bool inserted = zeros >= 2 && byte == 3;
    zeros = byte == 0 ? zeros + 1 : 0;
    if (!inserted) plain.push_back(byte);
  }
  return plain;
}

void appendWithEmulation(const Bytes& plain, Bytes& nal) {
  int32_t zeros = 0;
  for (const uint8_t byte : plain) {
    if (zeros == 2 && byte <= 3) {
      nal.push_back(3);
      zeros = 0;
    }
    nal.push_back(byte);
    zeros = byte == 0 ? zeros + 1 : 0;
  }
}

// --- the set ---

// Bits [first, end) of the set.
struct Range {
  size_t first = 0, end = 0;
};

// What of a set stays as it is. An empty range stands for flags that are 0.
struct Kept {
  Range beforeUsability;
  Range overscan;
  Range decoderModels;  // up to the flag for picture structure, that one too
  uint32_t references = 0;
  // The restrictions that are not ours: vectors over the edges, bytes a picture, bits a macroblock,
  // length of vectors across and down.
  uint32_t overEdges = 1;
  uint32_t limits[4] = {0, 0, 15, 15};
};

void skipScalingList(BitReader& set, int32_t size) {
  int32_t last = 8;
  int32_t next = 8;
  for (int32_t i = 0; i < size && !set.failed(); ++i) {
    if (next != 0) {
      const uint32_t code = set.golomb();
      // Signed: 1, -1, 2, -2...
      const uint32_t magnitude = code / 2 + code % 2;
      const uint32_t change = code % 2 != 0 ? magnitude : 0U - magnitude;
      next = static_cast<int32_t>((static_cast<uint32_t>(last) + change) & 0xFF);
    }
    if (next != 0) last = next;
  }
}

// What profiles above Main have in addition.
void skipChroma(BitReader& set) {
  const uint32_t format = set.golomb();
  if (format == 3) set.bit();
  set.golomb();  // depth of luma, of chroma
  set.golomb();
  set.bit();
  if (set.bit() == 0) return;
  for (int32_t list = 0; list < (format == 3 ? 12 : 8); ++list) {
    if (set.bit() == 1) skipScalingList(set, list < 6 ? 16 : 64);
  }
}

constexpr uint32_t kProfilesWithChroma[] = {100, 110, 122, 244, 44,  83, 86,
                                            118, 128, 138, 139, 134, 135};

void skipPictureOrder(BitReader& set) {
  const uint32_t type = set.golomb();
  if (type == 0) set.golomb();
  if (type != 1) return;
  set.bit();
  set.golomb();
  set.golomb();
  for (uint32_t left = set.golomb(); left > 0 && !set.failed(); --left) set.golomb();
}

void skipDecoderModel(BitReader& set) {
  const uint32_t schedules = set.golomb() + 1;
  set.bits(8);
  for (uint32_t i = 0; i < schedules && !set.failed(); ++i) {
    set.golomb();
    set.golomb();
    set.bit();
  }
  set.bits(20);
}

void readUsability(BitReader& set, Kept& kept) {
  if (set.bit() == 1 && set.bits(8) == kOwnAspect) set.bits(32);
  kept.overscan.first = set.position();
  if (set.bit() == 1) set.bit();
  kept.overscan.end = set.position();
  if (set.bit() == 1) {  // format, range and, if there are any, colours
    set.bits(4);
    if (set.bit() == 1) set.bits(24);
  }
  if (set.bit() == 1) {  // chroma location
    set.golomb();
    set.golomb();
  }
  if (set.bit() == 1) set.bits(32 + 32 + 1);  // timing
  kept.decoderModels.first = set.position();
  const bool forNalUnits = set.bit() == 1;
  if (forNalUnits) skipDecoderModel(set);
  const bool forSlices = set.bit() == 1;
  if (forSlices) skipDecoderModel(set);
  if (forNalUnits || forSlices) set.bit();  // low delay
  set.bit();                                // picture structure
  kept.decoderModels.end = set.position();
  if (set.bit() == 0) return;
  kept.overEdges = set.bit();
  for (uint32_t& limit : kept.limits) limit = set.golomb();
}

Kept readSet(BitReader& set) {
  Kept kept;
  const uint32_t profile = set.bits(8);
  set.bits(16);  // constraints, level
  set.golomb();  // its number
  if (std::ranges::count(kProfilesWithChroma, profile) > 0) skipChroma(set);
  set.golomb();  // frame numbers
  skipPictureOrder(set);
  kept.references = set.golomb();
  set.bit();     // gaps in frame numbers
  set.golomb();  // width, height
  set.golomb();
  if (set.bit() == 0) set.bit();  // fields
  set.bit();                      // direct inference
  if (set.bit() == 1) {           // cropping
    for (int32_t side = 0; side < 4; ++side) set.golomb();
  }
  kept.beforeUsability.end = set.position();
  if (set.bit() == 1) readUsability(set, kept);
  return kept;
}

void copyOr(View from, const Range& range, int32_t zeros, BitWriter& set) {
  if (range.end == 0) {
    set.bits(0, zeros);
  } else {
    set.copy(from, range.first, range.end);
  }
}

void writeUsability(View from, const Kept& kept, const SequenceFacts& facts, BitWriter& set) {
  set.bit(1);
  if (facts.aspectWidth == facts.aspectHeight) {
    set.bits(1, 8);
  } else {
    set.bits(kOwnAspect, 8);
    set.bits(facts.aspectWidth, 16);
    set.bits(facts.aspectHeight, 16);
  }
  copyOr(from, kept.overscan, 1, set);
  set.bit(1);
  set.bits(5, 3);  // a video format is not known
  set.bit(facts.fullRange ? 1 : 0);
  set.bit(1);
  for (const uint8_t colour : {facts.primaries, facts.transfer, facts.matrix}) set.bits(colour, 8);
  set.bit(facts.chromaLocation >= 0 ? 1 : 0);
  if (facts.chromaLocation >= 0) {  // of both fields
    set.golomb(static_cast<uint32_t>(facts.chromaLocation));
    set.golomb(static_cast<uint32_t>(facts.chromaLocation));
  }
  set.bit(facts.rateNumerator > 0 ? 1 : 0);
  if (facts.rateNumerator > 0) {  // ticks are fields, two a frame
    set.bits(facts.rateDenominator, 32);
    set.bits(facts.rateNumerator * 2, 32);
    set.bit(facts.fixedRate ? 1 : 0);
  }
  copyOr(from, kept.decoderModels, 3, set);
  set.bit(1);
  set.bit(kept.overEdges);
  for (const uint32_t limit : kept.limits) set.golomb(limit);
  set.golomb(0);                                       // pictures that are shown out of order
  set.golomb(std::max(kept.references, uint32_t{1}));  // that are held
}

// --- the access unit ---

bool isSlice(uint8_t header) {
  const int32_t type = header & 0x1F;
  return type >= 1 && type <= kLastSliceNal;
}

// Where the next start code of three bytes is; the end if there is none.
size_t startCode(View unit, size_t from) {
  constexpr uint8_t kCode[] = {0, 0, 1};
  const auto at = unit.begin() + static_cast<ptrdiff_t>(from);
  return static_cast<size_t>(std::search(at, unit.end(), std::begin(kCode), std::end(kCode)) -
                             unit.begin());
}

// The first byte of the NAL unit that comes next; the access unit's end, or more, if there is none.
size_t nalStart(View unit, NalFraming framing, size_t from) {
  return (framing == NalFraming::lengths ? from + 1 : startCode(unit, from)) + 3;
}

// Where it ends; more than the access unit's end when it is cut off.
size_t nalEnd(View unit, NalFraming framing, size_t first) {
  if (framing == NalFraming::lengths) return first + service::readUint32(&unit[first - 4], 1);
  size_t end = startCode(unit, first);
  while (end > first && unit[end - 1] == 0) --end;
  return end;
}

}  // namespace

int32_t rewriteSequenceNal(std::span<const uint8_t> nal, const SequenceFacts& facts,
                           std::vector<uint8_t>& rewritten) {
  const Bytes plain = withoutEmulation(nal);
  BitReader reader(plain);
  reader.bits(8);
  const Kept kept = readSet(reader);
  if (reader.failed()) {
    errno = EBADMSG;
    return -1;
  }
  BitWriter writer;
  writer.copy(plain, 0, kept.beforeUsability.end);
  writer.bit(1);
  writeUsability(plain, kept, facts, writer);
  appendWithEmulation(writer.finish(), rewritten);
  return 1;
}

int32_t rewriteSequenceParameters(std::span<const uint8_t> accessUnit, NalFraming framing,
                                  const SequenceFacts& facts, std::vector<uint8_t>& rewritten) {
  Bytes out;
  size_t copied = 0;
  size_t end = 0;
  for (size_t first = nalStart(accessUnit, framing, 0); first < accessUnit.size();
       first = nalStart(accessUnit, framing, end)) {
    if (isSlice(accessUnit[first])) break;
    end = nalEnd(accessUnit, framing, first);
    if (end > accessUnit.size()) break;
    if (first == end || (accessUnit[first] & 0x1F) != kSequenceNal) continue;
    out.insert(out.end(), &accessUnit[copied], &accessUnit[first]);
    const size_t begin = out.size();
    if (rewriteSequenceNal(accessUnit.subspan(first, end - first), facts, out) == -1) return -1;
    if (framing == NalFraming::lengths) {
      service::writeUint32(static_cast<uint32_t>(out.size() - begin), &out[begin - 4], 1);
    }
    copied = end;
  }
  if (copied == 0) return 0;
  const auto rest = accessUnit.subspan(copied);
  out.insert(out.end(), rest.begin(), rest.end());
  rewritten.swap(out);
  return 1;
}

std::span<const uint8_t> findNalUnit(std::span<const uint8_t> accessUnit, NalFraming framing,
                                     uint8_t type) {
  size_t end = 0;
  for (size_t first = nalStart(accessUnit, framing, 0); first < accessUnit.size();
       first = nalStart(accessUnit, framing, end)) {
    const bool found = (accessUnit[first] & 0x1F) == type;
    if (!found && isSlice(accessUnit[first])) break;
    end = nalEnd(accessUnit, framing, first);
    if (end > accessUnit.size()) break;
    if (found && end > first) return accessUnit.subspan(first, end - first);
  }
  return {};
}

}  // namespace qora::client
