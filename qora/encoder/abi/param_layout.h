// SPDX-License-Identifier: BSD-2-Clause
// qora/encoder/abi/param_layout.h -- Where the fields that we set lie in the encoder's parameter
// block.
//
// The block's layout changes between API builds. Each row says which builds share a layout, how
// many bytes a block of it takes, and the byte offset of each field. Facts only, no policy.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace qora::encoder {

// The fields that we set, all 32 bits wide. The comment names each field of x264_param_t.
enum class ParamField : uint8_t {
  threads,            // i_threads
  width,              // i_width
  height,             // i_height
  colourSpace,        // i_csp
  keyintMax,          // i_keyint_max
  scenecutThreshold,  // i_scenecut_threshold
  logLevel,           // i_log_level
  mbInfo,             // analyse.b_mb_info
  rateMethod,         // rc.i_rc_method
  qpMin,              // rc.i_qp_min
  qpMax,              // rc.i_qp_max
  bitrate,            // rc.i_bitrate
  rateFactor,         // rc.f_rf_constant
  rateTolerance,      // rc.f_rate_tolerance
  aqMode,             // rc.i_aq_mode
  qcompress,          // rc.f_qcompress
  annexB,             // b_annexb
  fpsNum,             // i_fps_num
  fpsDen,             // i_fps_den
};
inline constexpr size_t kParamFieldCount = 19;

struct ParamLayout {
  int32_t firstBuild, lastBuild;                  // inclusive
  int32_t blockSize;                              // bytes of its block
  std::array<uint16_t, kParamFieldCount> offset;  // bytes from the block's start, by ParamField

  constexpr uint16_t at(ParamField field) const { return offset[static_cast<size_t>(field)]; }
};

inline constexpr size_t kParamLayoutCount = 6;
// clang-format off
inline constexpr ParamLayout kParamLayouts[kParamLayoutCount] = {
    //            threads width height csp keyint scenecut log mbInfo rc qpMin qpMax bitrate crf tolerance aq qcomp annexB fps
    {128, 130, 896, {4, 28, 32, 36,  96, 104, 512, 620, 648, 656, 660, 668, 672, 680, 704, 752, 820, 836, 840}},
    {132, 133, 928, {4, 28, 32, 36,  96, 104, 512, 620, 648, 656, 660, 668, 672, 680, 704, 752, 820, 836, 840}},
    {135, 135, 936, {4, 28, 32, 36,  96, 104, 512, 620, 648, 656, 660, 668, 672, 680, 704, 752, 820, 836, 840}},
    {138, 138, 944, {4, 28, 32, 36,  96, 104, 520, 628, 656, 664, 668, 676, 680, 688, 712, 760, 828, 844, 848}},
    {142, 142, 936, {4, 28, 32, 36,  96, 104, 520, 620, 648, 656, 660, 668, 672, 680, 708, 752, 820, 836, 840}},
    {161, 161, 952, {4, 28, 32, 36, 100, 108, 528, 628, 656, 664, 668, 676, 680, 688, 716, 760, 832, 848, 852}},
};
// clang-format on

// Bytes of all blocks in a row, and where the block of a layout begins among them.
constexpr size_t paramBlockStart(size_t layout) {
  size_t start = 0;
  for (size_t row = 0; row < layout; ++row) start += kParamLayouts[row].blockSize;
  return start;
}
inline constexpr size_t kParamStorageSize = paramBlockStart(kParamLayoutCount);

constexpr bool paramLayoutsFit() {
  for (const ParamLayout& layout : kParamLayouts) {
    if (layout.blockSize % alignof(void*) != 0) return false;
    for (size_t field = 0; field < kParamFieldCount; ++field) {
      if (layout.offset[field] % 4 != 0 || layout.offset[field] + 4 > layout.blockSize)
        return false;
      if (field > 0 && layout.offset[field] <= layout.offset[field - 1]) return false;
    }
    if (layout.at(ParamField::fpsDen) != layout.at(ParamField::fpsNum) + 4) return false;
  }
  return true;
}
static_assert(paramLayoutsFit());

// Row of the layout that serves `build`; -1 when none does.
constexpr int32_t paramLayoutFor(int32_t build) {
  for (size_t row = 0; row < kParamLayoutCount; ++row) {
    if (build >= kParamLayouts[row].firstBuild && build <= kParamLayouts[row].lastBuild) {
      return static_cast<int32_t>(row);
    }
  }
  return -1;
}

}  // namespace qora::encoder
