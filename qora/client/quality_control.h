// SPDX-License-Identifier: BSD-2-Clause
// qora/client/quality_control.h -- Which quantizer offset each part of a picture gets, and when a
// picture is worth encoding at all, so that a stream in constant-quality mode (bitrate 0) holds a
// rate that may change at any moment: no key frame, no stream added again.
//
// What changes is coded as finely as the rate allows, chosen from the picture itself before it is
// encoded. What then stays still is sharpened in two steps, text first, and sealed; after that
// nothing is sent. With rate 0 everything is coded at the goal at once, by the same path.
//
//     QualityControl control;
//     control.reset(1920, 1080);
//     control.setRate(500'000);                          // bytes a second: 4 Mbit/s
//     at every tick (a new picture, or plan.until):
//       control.plan(now, damage, picture, &lastEncoded, {}, false, plan);
//       if (plan.step == QualityStep::encode) {
//         client.encode(request, plan.rectangles, plan.copies);     // of this very picture
//         clear the damage
//       }
//     at its reply:
//       control.encoded(now, frameBytes, keyFrame);
//
// "Offset" is a rectangle's quantizer offset as the wire has it: a macroblock's quantizer is the
// offset plus the encoder's own term for it, which is -15 where the picture is flat and about +9 in
// text. All streams of a service have to be in constant-quality mode. Cells are macroblocks.
//
// Pure: no clock, no input or output. A time is any monotonic clock's. One thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "qora/client/damage.h"
#include "qora/client/picture.h"
#include "qora/client/size_prediction.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

inline constexpr int32_t kDefaultQuality = 8;  // at least 46.9 dB in the worst 1 % of the cells
inline constexpr int32_t kFinestOffset = -12;
inline constexpr int32_t kCoarsestOffset = 44;    // of what stays: beyond it text is gone
inline constexpr int32_t kSealedAbove = 14;       // a still cell is sealed that far above its own
inline constexpr int32_t kRestingOffset = 42;     // of what copies go to: quantizer 51 in text
inline constexpr size_t kMostSealed = 1024;       // rectangles, so that there is room for changes
inline constexpr int32_t kRectangleLimit = 4096;  // 48 KiB: the service's first buffer holds them

enum class QualityStep {
  silent,  // nothing is to be sent before something changes or a setting does
  wait,    // nothing now; ask again at `until`, or when something changes
  encode,  // send this picture with these lists, now
};

// What to do with one picture. Use the same record for every frame: its memory is kept.
struct QualityPlan {
  QualityStep step = QualityStep::silent;
  std::chrono::microseconds until{};           // wait: when
  std::vector<service::Rectangle> rectangles;  // encode: never empty
  int32_t keeping = 0;                         // so many of them, the first, only seal
  std::vector<service::RegionCopy> copies;     // encode: those of the candidates that are worth it
  bool keyFrame = false;  // encode: the frame starts anew; set the request's `invalidate`
};

class QualityControl {
 public:
  using Time = std::chrono::microseconds;

  // A new stream: nothing of the picture is coded yet, so the next plan takes all of it, whatever
  // changed. Rate and quality stay as they are, what was learned as well.
  // Also after the service died, or whenever a planned frame was not encoded after all.
  void reset(int32_t width, int32_t height);

  // The rate to hold, bytes a second; 0: none, constant quality. From the next plan on.
  void setRate(int64_t bytesPerSecond);
  // The offset that still parts end at, -12 to 44. Finer than before: what is coarser is sharpened.
  void setQuality(int32_t offset);

  // What to do with a picture.
  //   changed   the cells that may differ from the last picture encoded, a superset does no harm.
  //             Of the picture's columns and rows. Stays the caller's until `encode`, then all of
  //             it is in the plan: clear it.
  //   picture   of the size given to reset().
  //   before    the last picture encoded, where it is still there. What only moved from it is
  //             cheap, and is then not coded coarsely for fear that it were not. Null: not known.
  //   copies    what moved, exactly, from the last picture encoded; not without `before`. Some may
  //             be left out of the plan: what would copy a coarse part is coded instead. For what
  //             to encode then see showWithoutCopies().
  //   keyFrame  a frame that stands alone is wanted; ask until plan.keyFrame.
  // Costs microseconds for a typed letter, about a millisecond for all of 1920x1080.
  void plan(Time now, const Damage& changed, const Picture& picture, const Picture* before,
            std::span<const service::RegionCopy> copies, bool keyFrame, QualityPlan& plan);

  // Lists what a frame besides the planned ones, of the last picture encoded, must seal. With
  // nothing listed it is sealed already.
  void planRepeat(QualityPlan& plan);

  // The reply to the oldest planned frame that has none yet: coded bytes, the reply's key flag.
  void encoded(Time now, int64_t bytes, bool keyFrame);
  // For a parent that learns what arrived: from the first call on, the debt is what was sent and
  // not acknowledged, less what a link of this rate carries in `roundTrip` (the link's least one).
  // So from then on all that is sent has to be acknowledged, or nothing more is planned; until
  // reset().
  void acknowledged(int64_t bytes, Time roundTrip);

  // Bytes that are not through the link yet by our reckoning, frames under way included.
  int64_t debt(Time now);
  // The offset that a cell was last really coded at; 127: never.
  int32_t offsetOf(int32_t column, int32_t row) const { return cells_[index(column, row)].offset; }

 private:
  static constexpr int8_t kNeverCoded = 127;
  using Bits = SizePrediction::Bits;
  using Reason = SizePrediction::Reason;

  struct Coarseness {
    int8_t offset, coded;  // as those of a cell
  };
  // What a copy leaves in a cell, or in a part of it.
  struct Copied {
    size_t at;
    bool whole;
    Coarseness source;
  };
  // Times are in milliseconds and wrap round.
  struct Cell {
    uint32_t changedAt;
    uint32_t refinedAt;
    int8_t offset;   // how fine it is: what it was last coded at, or what moved here was
    int8_t coded;    // what the encoder was given; what moves may be finer than that
    uint8_t wasted;  // 0 to 4: how often it changed soon after it was sharpened
    CellFeatures features;
    int8_t source;  // moved: the offset of what it was; kNeverCoded: it did not
  };
  struct Pending {
    Bits expected;  // see SizePrediction
    double bytes;   // the same in all
    bool whole;     // every cell is listed with a real offset
  };
  // The unfinished cells that have not changed.
  struct Still {
    bool worthSealing = false;   // those at the goal are many, or were sharpened
    std::vector<uint64_t> heap;  // coarser than the goal and still for long enough, by stillKey()
    bool far = false;            // one of those is far from the goal
    uint32_t next = 0;           // in so many milliseconds another one will be; 0: none
  };

  size_t index(int32_t column, int32_t row) const {
    return static_cast<size_t>(row) * static_cast<size_t>(unfinished_.columns()) +
           static_cast<size_t>(column);
  }
  Cell& cell(int32_t column, int32_t row) { return cells_[index(column, row)]; }

  // The queue.
  double bytesIn(double milliseconds) const { return rate_ * milliseconds / 1000; }
  double queued() const;
  void drain(Time now);
  bool waitForLink(Time now, double milliseconds, QualityPlan& plan) const;
  // What a picture will cost.
  void measure(const Picture& picture, const Picture* before, uint32_t now);
  bool isCheap(int32_t count) const;
  Bits bitsOf(const Damage& cells, int32_t offset) const;
  // The plan.
  bool mayGoOn(Time now, QualityPlan& plan) const;
  void findStill(uint32_t now);
  float changeBudget() const;
  float refinementBudget(float spent) const;
  int32_t chooseOffset(float budget) const;
  int32_t chooseRefined(Bits& bits);
  Coarseness worstIn(const Area& area) const;
  bool takeCopy(const service::RegionCopy& copy, int32_t offset);
  void takeCopies(std::span<const service::RegionCopy> candidates, const Picture& before,
                  const Picture& picture, QualityPlan& plan);
  void restCopied(QualityPlan& plan);
  void noteCopied(uint32_t now);
  void list(Damage& cells, int32_t offset, size_t limit, QualityPlan& plan);
  void listAsCoded(Damage& cells, int32_t above, size_t limit, QualityPlan& plan);
  void sealUnfinished(QualityPlan& plan);
  void sealCopied(QualityPlan& plan);
  void guardSealed(QualityPlan& plan);
  void markCoded(int32_t column, int32_t row, int32_t offset, int32_t coded);

  int32_t goal_ = kDefaultQuality;
  double rate_ = 0;  // bytes a second
  double debt_ = 0;  // bytes
  Time drainedAt_{};
  double underWay_ = 0;  // bytes, predicted, of the frames without a reply
  bool acknowledging_ = false;
  double unacknowledged_ = 0;
  Time roundTrip_{};
  std::deque<Pending> pending_;
  SizePrediction prediction_;

  std::vector<Cell> cells_;
  Damage unfinished_;  // coarser than the goal, or not sealed
  Damage sealed_;
  Damage copied_;           // made by copies, and not listed since
  Damage resting_;          // listed at kRestingOffset last
  uint32_t changedAt_ = 0;  // the last change of any cell
  int32_t moved_ = 0;       // of what changes now, the cells that only moved
  bool runsOn_ = false;     // most of what changes did so just before
  int32_t offset_ = 0;      // of what changed in the last frame
  bool startAnew_ = true;
  // Of the picture being planned; members for their memory.
  Damage changing_;
  Damage refined_;
  Damage guarded_;
  Damage alike_;
  Damage unsealed_;
  std::vector<Copied> newlyCopied_;
  Damage rest_;
  Damage coarse_;
  Still still_;
  std::vector<service::Rectangle> listed_;
};

}  // namespace qora::client
