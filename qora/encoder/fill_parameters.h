// qora/encoder/fill_parameters.h -- Fills the encoder's parameter block for a new stream.
//
// One policy for all builds: a low-latency baseline encoder with an unbounded keyframe interval at
// a nominal 25 frames a second. Builds differ only in where the fields lie (param_layout.h). So the
// values are chosen by one function, stored by another, and every layout row gets its own entry
// point from one template.
#pragma once

#include <cstdint>

#include "qora/encoder/abi/param_layout.h"
#include "qora/encoder/stream.h"

namespace qora::encoder {

// What an add-stream command asks for. Bitrate in kbit/s; bitrate and quantizer limits count only
// in bitrate mode. Bit 2 of the argument byte asks for start codes (Annex B).
struct FillArguments {
  int32_t threads, width, height, bitrate, qpMin, qpMax, argumentByte;
};

struct ParamValue {
  ParamField field;
  uint32_t bits;  // all fields are 32 bits wide; floats as bit patterns
};

// Policy: which fields get which value. Knows no offset. `out` has room for kParamFieldCount;
// returns the count put there.
int32_t chooseParamValues(const FillArguments& arguments, int32_t bitrateMode, ParamValue out[]);

// Mechanism: puts values at their offsets. Knows no meaning.
void storeParamValues(const ParamLayout& layout, const ParamValue values[], int32_t count,
                      uint8_t* block);

// Fills the stream's block for one layout, through the encoder library's preset and profile calls,
// and points stream->param at it. Reads bitrateMode(). Returns 1; -1 after a log line when the
// library refuses, then param is left as it was.
using FillParameters = int32_t (*)(EncoderStream* stream, int32_t threads, int32_t width,
                                   int32_t height, int32_t bitrate, int32_t qpMin, int32_t qpMax,
                                   int32_t argumentByte);

// The filler for an API build; null when no layout serves it.
FillParameters fillParametersFor(int32_t build);

}  // namespace qora::encoder
