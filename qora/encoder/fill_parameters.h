// SPDX-License-Identifier: BSD-2-Clause
// qora/encoder/fill_parameters.h -- Fills the encoder's parameter block for a new stream.
//
// One policy for all builds: a low-latency baseline encoder with an unbounded keyframe interval at
// a nominal 25 frames a second. Builds differ only in where the fields lie (param_layout.h). So the
// values are chosen by one function, stored by another, and every layout row gets its own entry
// point from one template.
#pragma once

#include <cstdint>

#include "qora/encoder/stream.h"

namespace qora::encoder {

// Fills the stream's block for one layout, through the encoder library's preset and profile calls,
// and points stream->param at it. Bitrate in kbit/s; bitrate and quantizer limits count only while
// bitrateMode() is 1. Bit 2 of the argument byte asks for start codes (Annex B). Returns 1; -1
// after a log line when the library refuses, then param is left as it was.
using FillParameters = int32_t (*)(EncoderStream* stream, int32_t threads, int32_t width,
                                   int32_t height, int32_t bitrate, int32_t qpMin, int32_t qpMax,
                                   int32_t argumentByte);

// The filler for an API build; null when no layout serves it.
FillParameters fillParametersFor(int32_t build);

}  // namespace qora::encoder
