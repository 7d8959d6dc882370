// SPDX-License-Identifier: BSD-2-Clause
// qora/client/size_prediction.h -- How many bits a frame will take, before it is encoded: a formula
// for each macroblock, and factors that are learned from what frames then took.
//
// Without the factors it is within two times the truth for text, desktops, photographs and grain.
// Pure; one thread at a time.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "qora/client/cell_features.h"

namespace qora::client {

// Whether a macroblock has the contrast of text: above 2.5 quantizer steps.
inline bool isText(const CellFeatures& features) {
  return features.term > 5;
}

class SizePrediction {
 public:
  // Why a macroblock is coded. What moved a little the encoder finds where it was.
  enum class Reason { changed, moved, sharpened };
  static constexpr size_t kKinds = 6;  // each reason, for text and for the rest
  using Bits = std::array<float, kKinds>;

  SizePrediction();

  static size_t kindOf(const CellFeatures& features, Reason reason) {
    return 2 * static_cast<size_t>(reason) + (isText(features) ? 0 : 1);
  }
  // By the formula alone.
  float bitsOf(const CellFeatures& features, int32_t offset, Reason reason) const {
    const int32_t quantizer = std::clamp(2 * offset + features.term, 0, kLargestQuantizer);
    const auto step = static_cast<size_t>(features.texture - quantizer + kLargestQuantizer);
    return bitsByStep_[step] * (reason == Reason::sharpened ? kResidual : 1);
  }
  // By the formula and what was learned.
  Bits expected(const Bits& bits) const;

  // The next two do not rely on what was learned where it makes bits cheap: grain teaches that, and
  // the next page of text breaks it.
  // Whether bits by the formula stay within a budget. What changed just before as well may be
  // expected to be as cheap again.
  bool isWithin(const Bits& bits, float budget, bool runsOn) const;
  // What to take off a budget for sharpening. The second step is cheaper than the first, which has
  // taught the factor.
  float charge(size_t kind, float bits, bool isFirstStep) const;

  // A frame of which that was expected took so many bits.
  void learn(const Bits& expected, double actual);

 private:
  // Quantizers are halves of a step here, as CellFeatures::term is.
  static constexpr int32_t kLargestQuantizer = 102;
  static constexpr int32_t kLargestTexture = 204;
  static constexpr float kResidual = 0.8F;  // a sharpening's bits over those of a first coding

  std::vector<float> bitsByStep_;
  Bits factors_ = {1.0F, 1.3F, 0.15F, 0.15F, 1.3F, 1.3F};
};

// Bits that a frame takes in which everything is skipped.
inline constexpr float kFrameBits = 100;
float sumOf(const SizePrediction::Bits& bits);

}  // namespace qora::client
