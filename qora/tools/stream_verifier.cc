// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/stream_verifier.h"

#include <algorithm>
#include <cmath>

#include "qora/client/quality_control.h"
#include "qora/tools/ssim.h"

namespace qora::tools {
namespace {

constexpr int32_t kCoarsestQuantizer = 51;

}  // namespace

// A coefficient is off by one and a half quantizer steps where the encoder leaves out the last,
// lone ones, and by less otherwise.
double lowestPsnr(int32_t quantizer) {
  const double step = 0.625 * std::exp2(quantizer / 6.0);
  return decibels(2.25 * step * step);
}

int32_t StreamVerifier::add(const client::CodedFrame& frame, const client::Picture& source,
                            bool isOf) {
  const int32_t decoded = decoder_.decode(frame.bytes, frame.copies);
  if (decoded == -1) return -1;
  noteQuantizers(frame);
  if (decoded == 1) {
    compare(frame, source, isOf);
  } else if (mismatch_.empty()) {
    mismatch_ = "frame " + std::to_string(frames_) + " does not decode";
  }
  ++frames_;
  return 1;
}

void StreamVerifier::noteQuantizers(const client::CodedFrame& frame) {
  const int32_t base = frame.quantizer == -1 ? kCoarsestQuantizer : frame.quantizer;
  if (frame.keyFrame) coarsest_ = 0;
  const std::span all(frame.rectangles);
  for (const service::Rectangle& rectangle : all.subspan(static_cast<size_t>(frame.keeping))) {
    coarsest_ = std::clamp(base + rectangle.quantizerOffset, coarsest_, kCoarsestQuantizer);
  }
}

void StreamVerifier::compare(const client::CodedFrame& frame, const client::Picture& source,
                             bool isOf) {
  const double psnr = check_.add(source, decoder_.picture(), frame.keyFrame);
  if (measuresSimilarity_) similarities_ += structuralSimilarity(source, decoder_.picture());
  if (!isOf || !mismatch_.empty() || psnr >= lowestPsnr(coarsest_)) return;
  mismatch_ = "frame " + std::to_string(frames_) + " has " + decibelText(psnr) +
              ", its quantizers allow " + decibelText(lowestPsnr(coarsest_));
}

double StreamVerifier::similarity() const {
  const int64_t frames = figures().frames;
  return frames == 0 ? 0 : similarities_ / static_cast<double>(frames);
}

std::string StreamVerifier::mismatch() const {
  const std::string drift = driftText(check_.figures());
  return mismatch_.empty() && !drift.empty() ? "some pictures drift " + drift : mismatch_;
}

}  // namespace qora::tools
