// SPDX-License-Identifier: BSD-2-Clause
#include "qora/encoder/fill_parameters.h"

#include <array>
#include <bit>
#include <cstring>
#include <utility>

#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"
#include "qora/encoder/abi/param_layout.h"
#include "qora/encoder/encoder_api.h"

namespace qora::encoder {
namespace {

constexpr int32_t kKeyintInfinite = 1 << 30;
constexpr int32_t kLogWarning = 1;
constexpr int32_t kRateConstantQuality = 1;
constexpr int32_t kRateAverageBitrate = 2;
constexpr int32_t kAqVariance = 1;
constexpr int32_t kFramesPerSecond = 25;
constexpr float kBestRateFactor = 1.0F;
constexpr float kRateTolerance = 0.01F;
constexpr float kFlatQcompress = 1.0F;

// What an add-stream command asks for.
struct FillArguments {
  int32_t threads, width, height, bitrate, qpMin, qpMax, argumentByte;
};

struct ParamValue {
  ParamField field;
  uint32_t bits;  // all fields are 32 bits wide; floats as bit patterns
};

ParamValue integer(ParamField field, int32_t value) {
  return {field, static_cast<uint32_t>(value)};
}

ParamValue real(ParamField field, float value) {
  return {field, std::bit_cast<uint32_t>(value)};
}

// Policy: which fields get which value. Knows no offset. `out` has room for kParamFieldCount;
// returns the count put there.
int32_t chooseParamValues(const FillArguments& arguments, int32_t bitrateMode, ParamValue out[]) {
  int32_t count = 0;
  const auto put = [&](ParamValue value) { out[count++] = value; };
  put(integer(ParamField::threads, arguments.threads));
  put(integer(ParamField::width, arguments.width));
  put(integer(ParamField::height, arguments.height));
  put(integer(ParamField::colourSpace, kCspI420));
  put(integer(ParamField::keyintMax, kKeyintInfinite));
  put(integer(ParamField::scenecutThreshold, 0));
  put(integer(ParamField::logLevel, kLogWarning));
  put(integer(ParamField::mbInfo, 1));
  put(integer(ParamField::aqMode, kAqVariance));
  put(integer(ParamField::annexB, arguments.argumentByte >> 2 & 1));
  put(integer(ParamField::fpsNum, kFramesPerSecond));
  put(integer(ParamField::fpsDen, 1));
  if (bitrateMode == 1) {
    put(integer(ParamField::rateMethod, kRateAverageBitrate));
    put(integer(ParamField::qpMin, arguments.qpMin));
    put(integer(ParamField::qpMax, arguments.qpMax));
    put(integer(ParamField::bitrate, arguments.bitrate));
    put(real(ParamField::rateTolerance, kRateTolerance));
  } else {
    put(integer(ParamField::rateMethod, kRateConstantQuality));
    put(real(ParamField::rateFactor, kBestRateFactor));
    put(real(ParamField::qcompress, kFlatQcompress));
  }
  return count;
}

// Mechanism: puts values at their offsets. Knows no meaning.
void storeParamValues(const ParamLayout& layout, const ParamValue values[], int32_t count,
                      uint8_t* block) {
  for (int32_t i = 0; i < count; ++i) {
    memcpy(block + layout.at(values[i].field), &values[i].bits, sizeof values[i].bits);
  }
}

int32_t refuse(const char* line) {
  KeepErrno keep;
  logStream() << line;
  return -1;
}

int32_t fillWithLayout(const ParamLayout& layout, size_t blockStart, EncoderStream& stream,
                       const FillArguments& arguments) {
  const EncoderApi& api = encoderApi();
  uint8_t* block = stream.param_storage + blockStart;
  auto* param = reinterpret_cast<x264_param_t*>(block);
  if (api.x264_param_default_preset(param, "ultrafast", "zerolatency") == -1) {
    return refuse("CodecFrame: ERROR! Failed to get default parameters.\n");
  }
  ParamValue values[kParamFieldCount];
  const int32_t count = chooseParamValues(arguments, bitrateMode(), values);
  storeParamValues(layout, values, count, block);
  // Last, so that the profile overrules what does not fit it.
  if (api.x264_param_apply_profile(param, "baseline") == -1) {
    return refuse("CodecFrame: ERROR! Failed to set encoder parameters.\n");
  }
  stream.param = param;
  return 1;
}

template <size_t Row>
int32_t fillParameters(EncoderStream* stream, int32_t threads, int32_t width, int32_t height,
                       int32_t bitrate, int32_t qpMin, int32_t qpMax, int32_t argumentByte) {
  return fillWithLayout(kParamLayouts[Row], paramBlockStart(Row), *stream,
                        {threads, width, height, bitrate, qpMin, qpMax, argumentByte});
}

template <size_t... Rows>
constexpr std::array<FillParameters, sizeof...(Rows)> allFillers(std::index_sequence<Rows...>) {
  return {fillParameters<Rows>...};
}

constexpr auto kFillers = allFillers(std::make_index_sequence<kParamLayoutCount>());

}  // namespace

FillParameters fillParametersFor(int32_t build) {
  const int32_t row = paramLayoutFor(build);
  return row == -1 ? nullptr : kFillers[static_cast<size_t>(row)];
}

}  // namespace qora::encoder
