// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/size_prediction.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

namespace qora::client {
namespace {

constexpr float kLeastLearned = 0.02F;
constexpr float kMostLearned = 4;

// By kind: the reason, text before the rest. A factor counts for no less when an offset is chosen.
constexpr float kLeastFactor[] = {0.8F, 0.5F, 0.03F, 0.03F, 0.8F, 1.2F};
constexpr float kLeastOfNew = 1.0F;  // a new picture's
constexpr size_t kEndOfChanged = 2;  // kinds

}  // namespace

float sumOf(const SizePrediction::Bits& bits) {
  return std::accumulate(bits.begin(), bits.end(), 0.0F);
}

SizePrediction::SizePrediction() {
  for (int32_t step = -kLargestQuantizer; step <= kLargestTexture; ++step) {
    const float differences = std::exp2(static_cast<float>(step) / 12);
    bitsByStep_.push_back(175 * std::log2(1 + differences / 62.5F) + 6);
  }
}

SizePrediction::Bits SizePrediction::expected(const Bits& bits) const {
  Bits all;
  std::transform(bits.begin(), bits.end(), factors_.begin(), all.begin(), std::multiplies<>());
  return all;
}

bool SizePrediction::isWithin(const Bits& bits, float budget, bool runsOn) const {
  float sum = 0;
  for (size_t kind = 0; kind < kKinds; ++kind) {
    const float least = kind < kEndOfChanged && !runsOn ? kLeastOfNew : kLeastFactor[kind];
    sum += bits[kind] * std::max(factors_[kind], least);
  }
  return sum <= budget;
}

float SizePrediction::charge(size_t kind, float bits, bool isFirstStep) const {
  return bits * std::max(factors_[kind], kLeastFactor[kind] / (isFirstStep ? 1 : 2));
}

void SizePrediction::learn(const Bits& expected, double actual) {
  const double sum = sumOf(expected) + kFrameBits;
  const double error = std::clamp(std::log(std::max(actual, 1.0) / sum), -1.6, 1.6);
  // What was too cheap is put right at once, what was too dear by halves.
  const double step = error > 0 ? 1.0 : 0.5;
  for (size_t kind = 0; kind < kKinds; ++kind) {
    factors_[kind] *= static_cast<float>(std::exp(step * expected[kind] / sum * error));
    factors_[kind] = std::clamp(factors_[kind], kLeastLearned, kMostLearned);
  }
}

}  // namespace qora::client
