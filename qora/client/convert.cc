// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/convert.h"

#include <algorithm>
#include <cassert>
#include <cstddef>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qora::client {
namespace {

// Shares of a pixel's bytes in 1/2^15. Green is what is left of the sum, so that grey stays grey.
constexpr int32_t kShift = 15;
constexpr int32_t share(double value) {
  const double scaled = value * (1 << kShift);
  return static_cast<int32_t>(scaled < 0 ? scaled - 0.5 : scaled + 0.5);
}
constexpr double kRed = 0.2126, kBlue = 0.0722;  // of the luma, BT.709

struct Weights {
  int16_t blue, green, red;
};
constexpr Weights weights(double blue, double red, double sum) {
  return {static_cast<int16_t>(share(blue)),
          static_cast<int16_t>(share(sum) - share(blue) - share(red)),
          static_cast<int16_t>(share(red))};
}
struct Scheme {
  Weights luma, u, v;
  int32_t lumaBase;
};
constexpr Scheme scheme(double luma, double chroma, int32_t black) {
  return {weights(kBlue * luma, kRed * luma, luma),
          weights(chroma / 2, -chroma / 2 * kRed / (1 - kBlue), 0),
          weights(-chroma / 2 * kBlue / (1 - kRed), chroma / 2, 0),
          (black << kShift) + (1 << (kShift - 1))};
}
constexpr Scheme kLimited = scheme(219.0 / 255, 224.0 / 255, 16);
constexpr Scheme kFull = scheme(1, 1, 0);

constexpr const Scheme& schemeOf(SampleRange range) {
  return range == SampleRange::full ? kFull : kLimited;
}

// Of the sum of four pixels.
constexpr int32_t kChromaShift = kShift + 2;
constexpr int32_t kChromaBase = (128 << kChromaShift) + (1 << (kChromaShift - 1));

constexpr int32_t weigh(const Weights& by, int32_t blue, int32_t green, int32_t red) {
  return by.blue * blue + by.green * green + by.red * red;
}

#if defined(__x86_64__)

// The pixels come from the screen's process, so they are far from this processor: they are asked
// for so many bytes before they are needed, further than it looks ahead by itself.
constexpr ptrdiff_t kAhead = 4096;

// A pixel's four words times the weights, added by pairs: two numbers a pixel.
[[gnu::target("avx2")]] __m256i weightsOf(const Weights& by) {
  return _mm256_set1_epi64x(static_cast<int64_t>(static_cast<uint16_t>(by.red)) << 32 |
                            static_cast<int64_t>(static_cast<uint16_t>(by.green)) << 16 |
                            static_cast<uint16_t>(by.blue));
}

// 8 pixels -> 8 sums, in the order 0 1 2 3 | 4 5 6 7.
[[gnu::target("avx2")]] __m256i lumaSums(const uint8_t* pixels, __m256i by, __m256i base) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i eight = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pixels));
  const __m256i low = _mm256_madd_epi16(_mm256_unpacklo_epi8(eight, zero), by);
  const __m256i high = _mm256_madd_epi16(_mm256_unpackhi_epi8(eight, zero), by);
  const __m256i sums = _mm256_hadd_epi32(low, high);
  return _mm256_srai_epi32(_mm256_add_epi32(sums, base), kShift);
}

[[gnu::target("avx2")]] int32_t convertLumaWide(const uint8_t* pixels, int32_t width,
                                                const Scheme& scheme, uint8_t* luma) {
  const __m256i by = weightsOf(scheme.luma);
  const __m256i base = _mm256_set1_epi32(scheme.lumaBase);
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  int32_t x = 0;
  for (; x + 32 <= width; x += 32) {
    const uint8_t* from = pixels + ptrdiff_t{4} * x;
    __builtin_prefetch(from + kAhead);
    __builtin_prefetch(from + kAhead + 64);
    const __m256i first =
        _mm256_packs_epi32(lumaSums(from, by, base), lumaSums(from + 32, by, base));
    const __m256i second =
        _mm256_packs_epi32(lumaSums(from + 64, by, base), lumaSums(from + 96, by, base));
    const __m256i mixed = _mm256_packus_epi16(first, second);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(luma + x),
                        _mm256_permutevar8x32_epi32(mixed, order));
  }
  return x;
}

// The words of 8 pixels of both rows added, then those of neighbouring pixels: 4 sums of four
// pixels, 0 1 | 2 3.
[[gnu::target("avx2")]] __m256i foursOf(const uint8_t* pixels, const uint8_t* below) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pixels));
  const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(below));
  const __m256i low =
      _mm256_add_epi16(_mm256_unpacklo_epi8(a, zero), _mm256_unpacklo_epi8(b, zero));
  const __m256i high =
      _mm256_add_epi16(_mm256_unpackhi_epi8(a, zero), _mm256_unpackhi_epi8(b, zero));
  return _mm256_add_epi16(_mm256_unpacklo_epi64(low, high), _mm256_unpackhi_epi64(low, high));
}

// Sums of four pixels -> samples: 0 1 4 5 | 2 3 6 7 of both arguments.
[[gnu::target("avx2")]] __m256i chromaOf(__m256i first, __m256i second, __m256i by) {
  const __m256i sums =
      _mm256_hadd_epi32(_mm256_madd_epi16(first, by), _mm256_madd_epi16(second, by));
  return _mm256_srai_epi32(_mm256_add_epi32(sums, _mm256_set1_epi32(kChromaBase)), kChromaShift);
}

// 16 samples from their four groups, in order.
[[gnu::target("avx2")]] __m128i orderedChroma(const __m256i fours[4], __m256i by) {
  const __m256i words =
      _mm256_packs_epi32(chromaOf(fours[0], fours[1], by), chromaOf(fours[2], fours[3], by));
  // Pairs of samples 0 2 4 6 | 1 3 5 7.
  const __m128i bytes =
      _mm_packus_epi16(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1));
  return _mm_shuffle_epi8(bytes,
                          _mm_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15));
}

[[gnu::target("avx2")]] int32_t convertChromaWide(const uint8_t* pixels, const uint8_t* below,
                                                  int32_t width, const Scheme& scheme, uint8_t* u,
                                                  uint8_t* v) {
  const __m256i byU = weightsOf(scheme.u);
  const __m256i byV = weightsOf(scheme.v);
  int32_t x = 0;
  for (; x + 32 <= width; x += 32) {
    __m256i fours[4];
    for (int32_t i = 0; i < 4; ++i) {
      const ptrdiff_t at = ptrdiff_t{4} * x + ptrdiff_t{32} * i;
      fours[i] = foursOf(pixels + at, below + at);
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x / 2), orderedChroma(fours, byU));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(v + x / 2), orderedChroma(fours, byV));
  }
  return x;
}

bool hasAvx2() {
  return __builtin_cpu_supports("avx2") != 0;
}

#endif

}  // namespace

Area evenArea(const Area& area, int32_t width, int32_t height) {
  // 64 bits: an area may begin and end anywhere.
  const int64_t left = std::max<int64_t>(area.x, 0) & ~int64_t{1};
  const int64_t top = std::max<int64_t>(area.y, 0) & ~int64_t{1};
  const int64_t right = std::min<int64_t>((int64_t{area.x} + area.width + 1) & ~int64_t{1}, width);
  const int64_t bottom =
      std::min<int64_t>((int64_t{area.y} + area.height + 1) & ~int64_t{1}, height);
  if (area.width <= 0 || area.height <= 0 || right <= left || bottom <= top) return {};
  return {static_cast<int32_t>(left), static_cast<int32_t>(top), static_cast<int32_t>(right - left),
          static_cast<int32_t>(bottom - top)};
}

void convertLumaRowPlain(const uint8_t* pixels, int32_t width, SampleRange range, uint8_t* luma) {
  const Scheme& by = schemeOf(range);
  for (int32_t x = 0; x < width; ++x) {
    const uint8_t* pixel = pixels + ptrdiff_t{4} * x;
    luma[x] = static_cast<uint8_t>((weigh(by.luma, pixel[0], pixel[1], pixel[2]) + by.lumaBase) >>
                                   kShift);
  }
}

void convertChromaRowPlain(const uint8_t* pixels, const uint8_t* below, int32_t width,
                           SampleRange range, uint8_t* u, uint8_t* v) {
  const auto sample = [](const Weights& by, const int32_t sum[3]) {
    const int32_t value = (weigh(by, sum[0], sum[1], sum[2]) + kChromaBase) >> kChromaShift;
    return static_cast<uint8_t>(std::min(value, 255));  // full range: pure blue and red are 255.5
  };
  for (int32_t x = 0; x < width; x += 2) {
    const ptrdiff_t left = ptrdiff_t{4} * x;
    const ptrdiff_t right = x + 1 < width ? left + 4 : left;
    int32_t sum[3];
    for (int32_t i = 0; i < 3; ++i) {
      sum[i] = pixels[left + i] + pixels[right + i] + below[left + i] + below[right + i];
    }
    u[x / 2] = sample(schemeOf(range).u, sum);
    v[x / 2] = sample(schemeOf(range).v, sum);
  }
}

void convertLumaRow(const uint8_t* pixels, int32_t width, SampleRange range, uint8_t* luma) {
  int32_t done = 0;
#if defined(__x86_64__)
  if (hasAvx2()) done = convertLumaWide(pixels, width, schemeOf(range), luma);
#endif
  convertLumaRowPlain(pixels + ptrdiff_t{4} * done, width - done, range, luma + done);
}

void convertChromaRow(const uint8_t* pixels, const uint8_t* below, int32_t width, SampleRange range,
                      uint8_t* u, uint8_t* v) {
  int32_t done = 0;
#if defined(__x86_64__)
  if (hasAvx2()) done = convertChromaWide(pixels, below, width, schemeOf(range), u, v);
#endif
  const ptrdiff_t at = ptrdiff_t{4} * done;
  convertChromaRowPlain(pixels + at, below + at, width - done, range, u + done / 2, v + done / 2);
}

void convertPiece(const BgrxPixels& piece, int32_t x, int32_t y, const Picture& picture,
                  SampleRange range) {
  assert(x % 2 == 0 && y % 2 == 0);
  assert(piece.width % 2 == 0 || x + piece.width == picture.width);
  assert(piece.height % 2 == 0 || y + piece.height == picture.height);
  const auto sample = [&](int32_t plane, int32_t column, int32_t row) {
    return picture.plane[plane] + ptrdiff_t{row} * picture.stride[plane] + column;
  };
  for (int32_t row = 0; row < piece.height; row += 2) {
    const uint8_t* upper = piece.pixels + ptrdiff_t{row} * piece.stride;
    const uint8_t* lower = row + 1 < piece.height ? upper + piece.stride : upper;
    convertLumaRow(upper, piece.width, range, sample(0, x, y + row));
    if (lower != upper) convertLumaRow(lower, piece.width, range, sample(0, x, y + row + 1));
    convertChromaRow(upper, lower, piece.width, range, sample(1, x / 2, (y + row) / 2),
                     sample(2, x / 2, (y + row) / 2));
  }
}

int64_t convertRectangles(const BgrxPixels& screen, std::span<const service::Rectangle> rectangles,
                          const Picture& picture) {
  assert(screen.width == picture.width && screen.height == picture.height);
  int64_t pixels = 0;
  for (const service::Rectangle& rectangle : rectangles) {
    const Area area = evenArea({rectangle.x, rectangle.y, rectangle.width, rectangle.height},
                               screen.width, screen.height);
    const BgrxPixels piece = {
        screen.pixels + ptrdiff_t{area.y} * screen.stride + ptrdiff_t{4} * area.x, screen.stride,
        area.width, area.height};
    convertPiece(piece, area.x, area.y, picture);
    pixels += int64_t{area.width} * area.height;
  }
  return pixels;
}

}  // namespace qora::client
