// SPDX-License-Identifier: BSD-2-Clause
// qora/client/quality_copies.cc -- QualityControl: the copies of a frame, and what they go to.
#include <algorithm>

#include "qora/client/move_detector.h"
#include "qora/client/quality_control.h"
#include "qora/client/region_copies.h"

namespace qora::client {
namespace {

constexpr int32_t kMudTolerance = 6;      // a copy's source may be that much coarser than coding it
constexpr int32_t kSkippingOffset = 100;  // next to no byte is spent, whatever is there
constexpr int32_t kCellPixels = kMacroblockSize * kMacroblockSize;

// Calls take(cell column, cell row, area of the source) for each cell that the copy goes to.
template <typename Take>
void forEachPart(const service::RegionCopy& copy, Take&& take) {
  const Area to = destinationOf(copy);
  const int32_t right = to.x + to.width;
  const int32_t bottom = to.y + to.height;
  for (int32_t y = to.y; y < bottom; y = (y / kMacroblockSize + 1) * kMacroblockSize) {
    const int32_t height = std::min((y / kMacroblockSize + 1) * kMacroblockSize, bottom) - y;
    for (int32_t x = to.x; x < right; x = (x / kMacroblockSize + 1) * kMacroblockSize) {
      const int32_t width = std::min((x / kMacroblockSize + 1) * kMacroblockSize, right) - x;
      take(x / kMacroblockSize, y / kMacroblockSize,
           Area{x - to.x + copy.sourceX, y - to.y + copy.sourceY, width, height});
    }
  }
}

}  // namespace

// Whether a copy is worth it: copying what is much coarser than coding it anew would be spreads
// mud.
bool QualityControl::takeCopy(const service::RegionCopy& copy, int32_t offset) {
  const size_t before = newlyCopied_.size();
  size_t coarse = 0;
  forEachPart(copy, [&](int32_t column, int32_t row, const Area& source) {
    newlyCopied_.push_back({.at = index(column, row),
                            .whole = source.width * source.height == kCellPixels,
                            .source = worstIn(source)});
    coarse += newlyCopied_.back().source.offset > offset + kMudTolerance ? 1 : 0;
  });
  const bool isWorth = coarse <= (newlyCopied_.size() - before) / 2;
  if (!isWorth) newlyCopied_.resize(before);
  return isWorth;
}

// Takes the copies that are worth it. The cells that they make right no longer count as changing.
void QualityControl::takeCopies(std::span<const service::RegionCopy> candidates,
                                const Picture& before, const Picture& picture, QualityPlan& plan) {
  candidates = candidates.first(std::min(candidates.size(), size_t{kMostCopies}));
  if (candidates.empty()) return;
  const int32_t offset = chooseOffset(changeBudget());  // of all without copies
  std::copy_if(candidates.begin(), candidates.end(), std::back_inserter(plan.copies),
               [&](const service::RegionCopy& copy) {
                 return faultOf(copy, changing_.width(), changing_.height()) == nullptr &&
                        takeCopy(copy, offset);
               });
  removeCopied(before, picture, plan.copies, changing_);
}

// What is copied to as a whole rests: it is listed once, so far up that nothing is coded there any
// more. What is too coarse for that is listed further up, and each time.
void QualityControl::restCopied(QualityPlan& plan) {
  const auto columns = static_cast<size_t>(unfinished_.columns());
  rest_.resize(changing_.width(), changing_.height());
  coarse_ = rest_;
  for (const Copied& copied : newlyCopied_) {
    if (!copied.whole) continue;
    const bool isFine = cells_[copied.at].offset <= kRestingOffset - kSealedAbove;
    (isFine ? rest_ : coarse_)
        .set(static_cast<int32_t>(copied.at % columns), static_cast<int32_t>(copied.at / columns));
  }
  rest_.subtract(resting_);
  list(coarse_, kSkippingOffset, kMostSealed, plan);
  list(rest_, kRestingOffset, kMostSealed, plan);
  resting_.add(rest_);
}

// What the copies leave when the frame is coded. A part beside others is as coarse as the coarsest.
void QualityControl::noteCopied(uint32_t now) {
  const auto columns = static_cast<size_t>(unfinished_.columns());
  for (const Copied& copied : newlyCopied_) {
    Cell& one = cells_[copied.at];
    const auto& [offset, coded] = copied.whole
                                      ? copied.source
                                      : Coarseness{std::max(copied.source.offset, one.offset),
                                                   std::max(copied.source.coded, one.coded)};
    const auto column = static_cast<int32_t>(copied.at % columns);
    const auto row = static_cast<int32_t>(copied.at / columns);
    markCoded(column, row, offset, coded);
    one.changedAt = now;
    sealed_.set(column, row);  // once it stays: see sealCopied()
    copied_.set(column, row);
    if (offset <= goal_) unfinished_.reset(column, row);
  }
  newlyCopied_.clear();
}

// What copies went to before, and stays now, is sealed like the rest.
void QualityControl::sealCopied(QualityPlan& plan) {
  Damage moving(copied_.width(), copied_.height());
  addDestinations(plan.copies, moving);
  moving.subtract(resting_);  // only in part: what stays beside is not to be coded as coarsely
  for (const service::RegionCopy& copy : plan.copies) moving.add(wholeMacroblocks(copy));
  Damage staying = copied_;
  staying.add(resting_);
  staying.subtract(changing_);
  staying.subtract(moving);
  listAsCoded(staying, kSealedAbove, kMostSealed, plan);
  copied_.subtract(staying);
}

}  // namespace qora::client
