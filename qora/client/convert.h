// SPDX-License-Identifier: BSD-2-Clause
// qora/client/convert.h -- Pixels as screens hold them to what the encoder takes: BGRX to I420.
//
// BT.709. A chroma sample is the mean of its four pixels, of two or one at the end of an odd side.
// As fast as the memory with AVX2, which is looked for at run time; the result is the same without.
#pragma once

#include <cstdint>
#include <span>

#include "qora/client/damage.h"
#include "qora/client/picture.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

// Pixels of 4 bytes in memory: blue, green, red, and one that is not looked at.
struct BgrxPixels {
  const uint8_t* pixels;
  int32_t stride;  // bytes from one row to the next
  int32_t width;   // pixels
  int32_t height;
};

// What samples mean black and white.
enum class SampleRange {
  limited,  // 16 and 235: what players assume of an untagged HD picture
  full,     // 0 and 255: finer, where the stream can say so; browsers that convert on the processor
            // have no factor above 2, which blue of limited range needs
};

// The smallest rectangle around `area` whose edges are even or the picture's end, clipped to a
// picture of that size: what has to be read so that it can be converted on its own. Empty: {}.
Area evenArea(const Area& area, int32_t width, int32_t height);

// Converts what `piece` holds to the place (x, y) of the picture, where it fits. x and y are even;
// so are width and height, unless the piece ends with the picture. Gives the same samples as if
// the whole picture were converted.
void convertPiece(const BgrxPixels& piece, int32_t x, int32_t y, const Picture& picture,
                  SampleRange range = SampleRange::limited);

// Converts the rectangles, grown to even edges and clipped, of a whole screen to a picture of the
// same size. Returns the number of pixels converted; overlapping ones count again.
int64_t convertRectangles(const BgrxPixels& screen, std::span<const service::Rectangle> rectangles,
                          const Picture& picture);

// The rows. `pixels` and `below` are rows of 4 * width bytes; the same row twice where the picture
// ends with an odd one. Luma gives `width` samples, chroma (width + 1) / 2 in each plane. The plain
// ones are the measure.
void convertLumaRow(const uint8_t* pixels, int32_t width, SampleRange range, uint8_t* luma);
void convertLumaRowPlain(const uint8_t* pixels, int32_t width, SampleRange range, uint8_t* luma);
void convertChromaRow(const uint8_t* pixels, const uint8_t* below, int32_t width, SampleRange range,
                      uint8_t* u, uint8_t* v);
void convertChromaRowPlain(const uint8_t* pixels, const uint8_t* below, int32_t width,
                           SampleRange range, uint8_t* u, uint8_t* v);

}  // namespace qora::client
