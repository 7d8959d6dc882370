// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/quality_control.h"

#include <algorithm>
#include <bitset>
#include <cmath>

#include "qora/client/motion_guess.h"
#include "qora/client/region_copies.h"

namespace qora::client {
namespace {

// Milliseconds of the link.
constexpr double kHold = 50;            // a change waits while more than this is queued
constexpr double kHoldSmall = 200;      // a small one: typing, the pointer
constexpr double kHoldCheap = 120;      // one that is cheap because it only moved
constexpr double kCheap = 35;           // a change that takes less than a tick of 40
constexpr double kQueueAfter = 100;     // what may be queued after a change
constexpr double kQueueRunning = 50;    // the same of what moves on: more would only show it later
constexpr double kLeastChange = 20;     // a change always gets that much
constexpr double kShareRefined = 0.25;  // of that, where something still is to be sharpened
constexpr double kQueueRefined = 40;    // what may be queued after still cells were sharpened
constexpr double kLeastRefined = 10;    // they get that much beside changes
constexpr double kRefineBelow = 20;     // and nothing while more than this is queued

constexpr int32_t kSmallChange = 200;  // cells
// Of what changes. A page of text takes a quarter less than at 44, and nothing more is to be saved.
constexpr int32_t kCoarsestChange = 46;
constexpr int32_t kFewCells = 64;
constexpr size_t kMostGuarded = 1024;
constexpr size_t kMostRefined = 1024;
constexpr int32_t kOffsetStep = 2;
constexpr int32_t kFinerAtOnce = 4;

// A cell further than this from the goal is first brought near it: two steps by area cost 2 % more
// than one, make a page readable in half the time, and many small steps cost 15 to 30 %.
constexpr int32_t kFarFromGoal = 16;
constexpr int32_t kNearGoal = 10;

constexpr uint32_t kStillFor = 100;    // milliseconds until a cell counts as still
constexpr uint32_t kWastedIn = 500;    // sharpened and changed in this time: in vain
constexpr uint32_t kCalmAfter = 2000;  // still for this long: forgotten
constexpr uint8_t kMostWasted = 4;
constexpr uint32_t kAllStill = 300;  // nothing changed anywhere: no more is wasted

constexpr uint32_t kRunsOn = 300;  // milliseconds from one change of a cell to the next

uint32_t milliseconds(QualityControl::Time time) {
  return static_cast<uint32_t>(time.count() / 1000);
}

// A cell changes: was it sharpened in vain? The next time it has to be still for twice as long.
template <typename Cell>
void countWasted(Cell& cell, uint32_t now) {
  const bool refined = static_cast<int32_t>(cell.refinedAt - cell.changedAt) > 0;
  if (refined && now - cell.refinedAt < kWastedIn) {
    cell.wasted = std::min<uint8_t>(cell.wasted + 1, kMostWasted);
  } else if (now - cell.changedAt > kCalmAfter) {
    cell.wasted = 0;
  }
}

// The largest is sharpened first: text before the rest, the oldest before the younger, from the
// top.
uint64_t stillKey(bool text, uint32_t age, size_t index) {
  return uint64_t{text} << 63 | uint64_t{age} << 31 | (0x7FFFFFFF - index);
}
size_t stillIndex(uint64_t key) {
  return 0x7FFFFFFF - static_cast<size_t>(key & 0x7FFFFFFF);
}

// The runs of a few cells one by one: a typed letter is not worth a look at every cell.
void listRuns(const Damage& cells, std::vector<service::Rectangle>& list) {
  list.clear();
  cells.forEachRun([&](int32_t row, int32_t first, int32_t end) {
    const int32_t x = first * kMacroblockSize;
    const int32_t y = row * kMacroblockSize;
    const int32_t right = std::min(end * kMacroblockSize, cells.width());
    const int32_t bottom = std::min(y + kMacroblockSize, cells.height());
    list.push_back({.quantizerOffset = 0,
                    .x = static_cast<uint16_t>(x),
                    .y = static_cast<uint16_t>(y),
                    .width = static_cast<uint16_t>(right - x),
                    .height = static_cast<uint16_t>(bottom - y)});
  });
}

}  // namespace

void QualityControl::reset(int32_t width, int32_t height) {
  for (Damage* cells : {&unfinished_, &sealed_, &copied_, &resting_, &changing_, &refined_,
                        &guarded_, &unsealed_}) {
    cells->resize(width, height);
  }
  const int32_t count = unfinished_.columns() * unfinished_.rows();
  cells_.assign(static_cast<size_t>(count), {0, 0, kNeverCoded, kNeverCoded, 0, {}, kNeverCoded});
  startAnew_ = true;
  debt_ = underWay_ = unacknowledged_ = 0;
  acknowledging_ = false;
  pending_.clear();
}

void QualityControl::setRate(int64_t bytesPerSecond) {
  rate_ = static_cast<double>(std::max<int64_t>(bytesPerSecond, 0));
}

void QualityControl::setQuality(int32_t offset) {
  goal_ = std::clamp(offset, kFinestOffset, kCoarsestOffset);
  for (int32_t row = 0; row < unfinished_.rows(); ++row) {
    for (int32_t column = 0; column < unfinished_.columns(); ++column) {
      if (offsetOf(column, row) > goal_) unfinished_.set(column, row);
    }
  }
}

void QualityControl::plan(Time now, const Damage& changed, const Picture& picture,
                          const Picture* before, std::span<const service::RegionCopy> copies,
                          bool keyFrame, QualityPlan& plan) {
  plan.step = QualityStep::silent;
  plan.rectangles.clear();
  plan.copies.clear();
  plan.keeping = 0;
  const bool whole = keyFrame || startAnew_;
  changing_ = changed;
  if (whole) changing_.addAll();
  drain(now);
  const int32_t count = changing_.count();
  const uint32_t ms = milliseconds(now);
  if (count >= kSmallChange && waitForLink(now, kHoldSmall, plan)) return;
  if (rate_ > 0) measure(picture, whole ? nullptr : before, ms);
  const double hold = count < kSmallChange ? kHoldSmall : isCheap(count) ? kHoldCheap : kHold;
  if (count > 0 && waitForLink(now, hold, plan)) return;
  findStill(ms);
  if (count == 0 && !mayGoOn(now, plan)) return;

  plan.step = QualityStep::encode;
  plan.keyFrame = keyFrame;
  if (!whole && before != nullptr) takeCopies(copies, *before, picture, plan);
  if (rate_ == 0) measure(picture, nullptr, ms);  // less: nothing hangs on what is copied
  int32_t offset = chooseOffset(changeBudget());
  // What runs on becomes finer little by little: much at once costs much, and the next frame pays.
  if (runsOn_ && rate_ > 0) offset = std::max(offset, offset_ - kFinerAtOnce);
  offset_ = offset;
  Bits bits = bitsOf(changing_, offset);
  const int32_t goal = chooseRefined(bits);

  if (changing_.isEmpty() && plan.copies.empty()) sealUnfinished(plan);
  if (!whole) restCopied(plan);
  if (!whole) sealCopied(plan);
  plan.keeping = static_cast<int32_t>(plan.rectangles.size());
  if (!whole) guardSealed(plan);
  list(refined_, goal, kMostRefined, plan);
  refined_.forEachCell([&](int32_t x, int32_t y) {
    markCoded(x, y, goal, goal);
    cell(x, y).refinedAt = ms;
  });
  list(changing_, offset, kDamageRectangles - plan.rectangles.size(), plan);
  changing_.forEachCell([&](int32_t x, int32_t y) {
    Cell& one = cell(x, y);
    if (!whole) countWasted(one, ms);
    // What moved keeps what it had, or nearly.
    markCoded(x, y, one.source < offset ? std::max<int32_t>(one.source, goal_ + 1) : offset,
              offset);
    one.changedAt = ms;
  });
  noteCopied(ms);
  if (plan.rectangles.empty()) plan.rectangles.push_back(nothingChanged());

  if (count > 0) changedAt_ = ms;
  startAnew_ = false;
  const Bits expected = prediction_.expected(bits);
  pending_.push_back({expected, (sumOf(expected) + kFrameBits) / 8, whole});
  underWay_ += pending_.back().bytes;
}

void QualityControl::encoded(Time now, int64_t bytes, bool keyFrame) {
  if (pending_.empty()) return;
  const Pending frame = pending_.front();
  pending_.pop_front();
  drain(now);
  underWay_ = pending_.empty() ? 0 : underWay_ - frame.bytes;
  debt_ += static_cast<double>(bytes);
  unacknowledged_ += static_cast<double>(bytes);
  prediction_.learn(frame.expected, static_cast<double>(bytes) * 8);
  // A key frame takes every cell's stored offset, and that of a sealed cell is rubbish.
  if (keyFrame && !frame.whole) startAnew_ = true;
}

void QualityControl::acknowledged(int64_t bytes, Time roundTrip) {
  acknowledging_ = true;
  unacknowledged_ = std::max(unacknowledged_ - static_cast<double>(bytes), 0.0);
  roundTrip_ = roundTrip;
}

int64_t QualityControl::debt(Time now) {
  drain(now);
  return static_cast<int64_t>(queued());
}

double QualityControl::queued() const {
  const double flying = bytesIn(static_cast<double>(roundTrip_.count()) / 1000);
  return (acknowledging_ ? std::max(unacknowledged_ - flying, 0.0) : debt_) + underWay_;
}

void QualityControl::drain(Time now) {
  const double elapsed = static_cast<double>((now - drainedAt_).count()) / 1000;
  debt_ = rate_ == 0 ? 0 : std::max(debt_ - bytesIn(elapsed), 0.0);
  drainedAt_ = now;
}

// Whether more is queued than the link carries in that time; the plan then says until when.
bool QualityControl::waitForLink(Time now, double milliseconds, QualityPlan& plan) const {
  const double excess = queued() - bytesIn(milliseconds);
  if (rate_ == 0 || excess <= 0) return false;
  plan.step = QualityStep::wait;
  // An hour is as good as for ever, and no rate is so small that this overflows.
  plan.until = now + Time(static_cast<int64_t>(std::min(excess / rate_, 3600.0) * 1e6) + 1);
  return true;
}

// Nothing has changed: whether something is to be sharpened or sealed now.
bool QualityControl::mayGoOn(Time now, QualityPlan& plan) const {
  if (!still_.heap.empty()) return !waitForLink(now, kRefineBelow, plan);
  if (still_.worthSealing) return true;
  if (still_.next == 0) return false;
  plan.step = QualityStep::wait;
  plan.until = now + std::chrono::milliseconds(still_.next);
  return false;
}

void QualityControl::findStill(uint32_t now) {
  still_.heap.clear();
  int32_t settled = 0;
  bool sharpened = false;
  still_.far = false;
  const bool allStill = now - changedAt_ >= kAllStill;
  uint32_t next = UINT32_MAX;
  unfinished_.forEachCell([&](int32_t column, int32_t row) {
    if (changing_.test(column, row)) return;
    const Cell& one = cell(column, row);
    const bool finished = one.offset <= goal_;
    const uint32_t age = now - one.changedAt;
    const uint32_t needed = allStill ? kStillFor : kStillFor << one.wasted;
    if (age < needed) {
      next = std::min(next, needed - age);
    } else if (finished) {
      ++settled;
      sharpened |= static_cast<int32_t>(one.refinedAt - one.changedAt) > 0;
    } else {
      still_.heap.push_back(stillKey(isText(one.features), age, index(column, row)));
      still_.far |= one.offset > goal_ + kFarFromGoal;
    }
  });
  // A typed letter is not worth a frame: it costs next to nothing as long as it is not sealed.
  still_.worthSealing = sharpened || settled > kSmallChange;
  still_.next = next == UINT32_MAX ? 0 : next;
  std::make_heap(still_.heap.begin(), still_.heap.end());
}

void QualityControl::measure(const Picture& picture, const Picture* before, uint32_t now) {
  const Motion motion = before != nullptr ? guessMotion(*before, picture, changing_) : Motion{};
  const bool moves = motion.dx != 0 || motion.dy != 0;
  int32_t running = 0;
  int32_t cells = 0;
  moved_ = 0;
  changing_.forEachCell([&](int32_t column, int32_t row) {
    Cell& one = cell(column, row);
    one.features = cellFeatures(picture, column, row);
    one.source = kNeverCoded;
    if (moves && hasMoved(*before, picture, column, row, motion)) {
      const Area source = {column * kMacroblockSize + motion.dx, row * kMacroblockSize + motion.dy,
                           kMacroblockSize, kMacroblockSize};
      one.source = worstIn(source).offset;
      ++moved_;
    }
    running += now - one.changedAt < kRunsOn ? 1 : 0;
    ++cells;
  });
  runsOn_ = running > cells / 2;
}

// What moved a little costs the encoder little. A tick later it will have moved too far to be
// found, so holding it makes it dear, and then it has to be held again.
bool QualityControl::isCheap(int32_t count) const {
  if (rate_ == 0 || moved_ <= count / 2) return false;
  return prediction_.isWithin(bitsOf(changing_, kCoarsestChange),
                              static_cast<float>(bytesIn(kCheap) * 8), runsOn_);
}

// Of all cells by kind. What moved is cheap as long as it is to become no finer than it was.
QualityControl::Bits QualityControl::bitsOf(const Damage& cells, int32_t offset) const {
  Bits bits = {};
  cells.forEachCell([&](int32_t column, int32_t row) {
    const Cell& one = cells_[index(column, row)];
    const Reason reason = one.source <= offset + kOffsetStep ? Reason::moved : Reason::changed;
    bits[prediction_.kindOf(one.features, reason)] +=
        prediction_.bitsOf(one.features, offset, reason);
  });
  return bits;
}

float QualityControl::changeBudget() const {
  if (rate_ == 0) return INFINITY;
  const double queue = runsOn_ ? kQueueRunning : kQueueAfter;
  const double bytes = std::max(bytesIn(queue) - queued(), bytesIn(kLeastChange));
  // What is still and coarse gets its share of a screen that never stops.
  return static_cast<float>(bytes * 8 * (still_.heap.empty() ? 1 : 1 - kShareRefined));
}

float QualityControl::refinementBudget(float spent) const {
  if (rate_ == 0) return INFINITY;
  if (queued() > bytesIn(kHold)) return 0;
  const double bytes = bytesIn(kQueueRefined) - queued() - spent / 8;
  return static_cast<float>(std::max(bytes, bytesIn(kLeastRefined)) * 8);
}

// The finest at which all that changes is within the budget.
int32_t QualityControl::chooseOffset(float budget) const {
  if (std::isinf(budget)) return goal_;
  int32_t fine = 0;
  int32_t coarse = (kCoarsestChange - goal_) / kOffsetStep;
  while (fine < coarse) {
    const int32_t middle = (fine + coarse) / 2;
    const Bits bits = bitsOf(changing_, goal_ + middle * kOffsetStep);
    if (prediction_.isWithin(bits, budget, runsOn_)) {
      coarse = middle;
    } else {
      fine = middle + 1;
    }
  }
  return goal_ + fine * kOffsetStep;
}

// Takes what is to be sharpened in this frame off the heap and adds its bits. Returns to which
// offset: near the goal as long as anything is far from it.
int32_t QualityControl::chooseRefined(Bits& bits) {
  const bool near = still_.far && rate_ > 0;
  const int32_t goal = near ? goal_ + kNearGoal : goal_;
  const int32_t enough = near ? goal_ + kFarFromGoal : goal_;
  float budget = refinementBudget(sumOf(prediction_.expected(bits)));
  bool mustTake = changing_.isEmpty();  // one at least
  refined_.clear();
  for (auto end = still_.heap.end(); end != still_.heap.begin() && (budget > 0 || mustTake);
       --end) {
    std::pop_heap(still_.heap.begin(), end);
    const size_t at = stillIndex(*(end - 1));
    const Cell& one = cells_[at];
    if (one.offset <= enough) continue;
    const size_t kind = prediction_.kindOf(one.features, Reason::sharpened);
    const float more = prediction_.bitsOf(one.features, goal, Reason::sharpened);
    budget -= prediction_.charge(kind, more, near);
    bits[kind] += more;
    const auto columns = static_cast<size_t>(refined_.columns());
    refined_.set(static_cast<int32_t>(at % columns), static_cast<int32_t>(at / columns));
    mustTake = false;
  }
  return goal;
}

// The coarsest of the cells that an area touches.
QualityControl::Coarseness QualityControl::worstIn(const Area& area) const {
  const int32_t right = (area.x + area.width - 1) / kMacroblockSize;
  const int32_t bottom = (area.y + area.height - 1) / kMacroblockSize;
  Coarseness worst = {INT8_MIN, INT8_MIN};
  for (int32_t row = area.y / kMacroblockSize; row <= bottom; ++row) {
    for (int32_t column = area.x / kMacroblockSize; column <= right; ++column) {
      const Cell& one = cells_[index(column, row)];
      worst = {std::max(worst.offset, one.offset), std::max(worst.coded, one.coded)};
    }
  }
  return worst;
}

// Appends rectangles that cover the cells. Where they would be too many they cover others as well,
// which then belong to the cells.
void QualityControl::list(Damage& cells, int32_t offset, size_t limit, QualityPlan& plan) {
  const int32_t count = cells.count();
  if (count == 0) return;
  if (count <= kFewCells) {
    listRuns(cells, listed_);
  } else {
    cells.list(listed_, static_cast<int32_t>(limit));
  }
  for (service::Rectangle& rectangle : listed_) {
    rectangle.quantizerOffset = static_cast<int8_t>(offset);
    cells.add({rectangle.x, rectangle.y, rectangle.width, rectangle.height});
  }
  resting_.subtract(cells);
  plan.rectangles.insert(plan.rectangles.end(), listed_.begin(), listed_.end());
}

// Appends rectangles that cover the cells, at so much above what each was coded at. All that were
// coded alike stand together; the cells become those covered.
void QualityControl::listAsCoded(Damage& cells, int32_t above, size_t limit, QualityPlan& plan) {
  std::bitset<kNeverCoded - kFinestOffset + 1> offsets;
  cells.forEachCell([&](int32_t x, int32_t y) {
    offsets.set(static_cast<size_t>(cell(x, y).coded - kFinestOffset));
  });
  const Damage wanted = cells;
  for (size_t at = 0; at < offsets.size(); ++at) {
    if (!offsets.test(at)) continue;
    const int32_t offset = static_cast<int32_t>(at) + kFinestOffset;
    alike_.resize(cells.width(), cells.height());
    wanted.forEachCell([&](int32_t x, int32_t y) {
      if (cell(x, y).coded == offset) alike_.set(x, y);
    });
    list(alike_, std::min<int32_t>(offset + above, INT8_MAX), limit / offsets.count(), plan);
    cells.add(alike_);
  }
}

// What is not to be coded in this frame must not be: the encoder codes a still cell once more, at
// will, as long as it is not sealed. To seal it is to list it far enough above what it was coded at
// that there is nothing to code. Above quantizer 51 the encoder would no longer take the cell for a
// still one: its neighbours' motion costs it less than none then, and it takes that.
void QualityControl::sealUnfinished(QualityPlan& plan) {
  unsealed_ = unfinished_;
  unsealed_.subtract(sealed_);
  unsealed_.subtract(refined_);
  listAsCoded(unsealed_, kSealedAbove, kMostSealed, plan);
  sealed_.add(unsealed_);
  unsealed_.forEachCell([this](int32_t column, int32_t row) {
    if (offsetOf(column, row) <= goal_) unfinished_.reset(column, row);
  });
}

void QualityControl::planRepeat(QualityPlan& plan) {
  plan.rectangles.clear();
  plan.copies.clear();
  plan.keyFrame = false;
  refined_.clear();
  sealUnfinished(plan);
  plan.keeping = static_cast<int32_t>(plan.rectangles.size());
}

// A sealed cell in the way of motion stands still by force, which costs the cells around it their
// prediction. Listed at what it was coded at it does not. That reaches from a changed cell along
// its row, below such cells of the row above: elsewhere the encoder predicts that the cell stands
// still.
void QualityControl::guardSealed(QualityPlan& plan) {
  const Damage& listed = changing_;
  Damage moving = listed;
  guarded_.clear();
  listed.forEachRun([&](int32_t row, int32_t, int32_t end) {
    for (int32_t at = end;
         row > 0 && at < listed.columns() && !listed.test(at, row) && moving.test(at, row - 1);
         ++at) {
      moving.set(at, row);
      if (sealed_.test(at, row)) guarded_.set(at, row);
    }
  });
  guarded_.subtract(refined_);
  Damage copied(guarded_.width(), guarded_.height());
  addDestinations(plan.copies, copied);
  guarded_.subtract(copied);
  listAsCoded(guarded_, 0, kMostGuarded, plan);
  guarded_.forEachCell([this](int32_t x, int32_t y) {
    markCoded(x, y, offsetOf(x, y), cell(x, y).coded);
    cell(x, y).refinedAt = cell(x, y).changedAt;  // not worth a frame that seals it again
  });
}

void QualityControl::markCoded(int32_t column, int32_t row, int32_t offset, int32_t coded) {
  cell(column, row).offset = static_cast<int8_t>(offset);
  cell(column, row).coded = static_cast<int8_t>(coded);
  unfinished_.set(column, row);
  sealed_.reset(column, row);
  copied_.reset(column, row);
}

}  // namespace qora::client
