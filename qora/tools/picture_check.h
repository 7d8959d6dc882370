// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/picture_check.h -- How decoded pictures compare with their source, picture by picture.
//
// Besides the distance from the source it looks for drift: a macroblock in which the source stands
// still while what is decoded moves away from it. A decoder that does not have the encoder's
// pictures, for want of a copy for instance, shows it soon.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "qora/client/picture.h"

namespace qora::tools {

// A picture in memory of its own.
class PictureMemory {
 public:
  void resize(int32_t width, int32_t height);
  const client::Picture& picture() const { return picture_; }

 private:
  std::array<std::vector<uint8_t>, 3> planes_;
  client::Picture picture_{};
};

struct CheckFigures {
  int64_t frames = 0;
  double psnr = 0;  // decibels, all samples of all frames; infinite: all are equal
  int64_t worstFrame = -1;
  double worstPsnr = 0;
  int64_t driftFrame = -1;  // the first with drift; -1: none
  int32_t driftX = 0;       // its first macroblock, pixels
  int32_t driftY = 0;
};

class PictureCheck {
 public:
  // The next picture of each.
  //   decoded   at least as large as the source: an odd side is coded one longer.
  //   newStart  it need not be as good as those before: a key frame may be coarser.
  // Returns its PSNR.
  double add(const client::Picture& source, const client::Picture& decoded, bool newStart);
  CheckFigures figures() const;

 private:
  void start(const client::Picture& source);
  void checkDrift(const client::Picture& source, const client::Picture& decoded, bool newStart);
  void keep(const client::Picture& source);

  PictureMemory before_;      // the source's last picture
  std::vector<double> best_;  // a macroblock: the least error since the source changed in it
  CheckFigures figures_;
  double squares_ = 0;  // summed over all samples
  double samples_ = 0;
};

// Mean square to decibels.
double decibels(double meanSquare);
// "46.31 dB", or "equal".
std::string decibelText(double decibels);
// "from frame 12 on, at 64,32"; empty when there is none.
std::string driftText(const CheckFigures& figures);

}  // namespace qora::tools
