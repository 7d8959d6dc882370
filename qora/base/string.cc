// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/string.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "qora/base/clog_line.h"
#include "qora/base/logger.h"

namespace qora::string {
namespace {

size_t lengthOf(const char* text) {
  return text != nullptr ? strlen(text) : 0;
}

// Puts `array` into the slot. Callers have copied what they need from the one that goes.
void store(char*& slot, char* array) {
  delete[] slot;
  slot = array;
}

// Copies `length` bytes and returns the place after them.
char* put(char* out, const char* from, size_t length) {
  if (length > 0) memcpy(out, from, length);
  return out + length;
}

#ifdef __SSE2__

constexpr size_t kBlock = sizeof(__m128i);
constexpr size_t kStride = 4 * kBlock;  // four counters hide the latency of one
constexpr size_t kMostRounds = 255;     // then a byte counter may be full

__m128i equalAt(const uint8_t* data, __m128i wanted) {
  return _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data)), wanted);
}

int32_t sumOfBytes(__m128i counters) {
  const __m128i halves = _mm_sad_epu8(counters, _mm_setzero_si128());
  return _mm_cvtsi128_si32(halves) + _mm_cvtsi128_si32(_mm_unpackhi_epi64(halves, halves));
}

// Counts `rounds` strides, at most kMostRounds. A match is -1 in its byte, so counting subtracts.
int32_t countStrides(const uint8_t* data, size_t rounds, __m128i wanted) {
  __m128i first = _mm_setzero_si128(), second = first, third = first, fourth = first;
  for (const uint8_t* end = data + rounds * kStride; data != end; data += kStride) {
    first = _mm_sub_epi8(first, equalAt(data, wanted));
    second = _mm_sub_epi8(second, equalAt(data + kBlock, wanted));
    third = _mm_sub_epi8(third, equalAt(data + 2 * kBlock, wanted));
    fourth = _mm_sub_epi8(fourth, equalAt(data + 3 * kBlock, wanted));
  }
  return sumOfBytes(first) + sumOfBytes(second) + sumOfBytes(third) + sumOfBytes(fourth);
}

// Counts in the whole blocks of [data, end) and moves `data` past them.
int32_t countBlocks(const uint8_t*& data, const uint8_t* end, uint8_t value) {
  const __m128i wanted = _mm_set1_epi8(static_cast<char>(value));
  int32_t count = 0;
  while (const size_t rounds = std::min((end - data) / kStride, kMostRounds)) {
    count += countStrides(data, rounds, wanted);
    data += rounds * kStride;
  }
  __m128i counters = _mm_setzero_si128();
  for (; end - data >= static_cast<ptrdiff_t>(kBlock); data += kBlock) {
    counters = _mm_sub_epi8(counters, equalAt(data, wanted));
  }
  return count + sumOfBytes(counters);
}

#else

int32_t countBlocks(const uint8_t*&, const uint8_t*, uint8_t) {
  return 0;  // all is left to the byte loop
}

#endif

}  // namespace

void newBuffer(char*& slot) {
  slot = nullptr;
  newSizedBuffer(slot, kBufferSize);
}

void newBufferFrom(char*& slot, const char* source) {
  newBuffer(slot);
  if (source != nullptr) *put(slot, source, strnlen(source, kBufferSize - 1)) = '\0';
  slot[kBufferSize - 1] = '\0';
}

void newSizedBuffer(char*& slot, int32_t size) {
  assert(size >= 1);
  char* array = new char[static_cast<size_t>(size)];
  array[0] = '\0';
  store(slot, array);
}

char* copyPrefix(const char* source, int32_t length) {
  assert(length >= 0);
  if (source == nullptr) return nullptr;
  const auto room = static_cast<size_t>(length);
  char* array = new char[room + 1];
  *put(array, source, strnlen(source, room)) = '\0';
  array[room] = '\0';
  return array;
}

void copyPrefix(char*& slot, const char* source, int32_t length) {
  store(slot, copyPrefix(source, length));
}

char* assign(const char* source) {
  if (source == nullptr) return nullptr;
  const size_t size = strlen(source) + 1;
  return static_cast<char*>(memcpy(new char[size], source, size));
}

void assign(char*& slot, const char* source) {
  if (slot != source) store(slot, assign(source));
}

void assignFirst(char*& slot, const char* source) {
  slot = assign(source);
}

void release(char*& slot) {
  store(slot, nullptr);
}

void append(char*& slot, const char* first, const char* second, const char* third,
            const char* fourth) {
  const char* const pieces[] = {slot, first, second, third, fourth};
  size_t length = 0;
  for (const char* piece : pieces) length += lengthOf(piece);
  if (length == 0) return;
  char* const array = new char[length + 1];
  char* out = array;
  for (const char* piece : pieces) out = put(out, piece, lengthOf(piece));
  *out = '\0';
  store(slot, array);
}

void appendBytes(char*& slot, const void* data, int32_t count) {
  assert(count >= 0);
  if (data == nullptr || count <= 0) return;
  const size_t length = lengthOf(slot), added = static_cast<size_t>(count);
  char* const array = new char[length + added + 1];
  *put(put(array, slot, length), static_cast<const char*>(data), added) = '\0';
  store(slot, array);
}

int32_t replaceAll(char*& slot, const char* pattern, const char* replacement) {
  assert(pattern != nullptr && replacement != nullptr);
  const size_t length = lengthOf(slot), removed = strlen(pattern), added = strlen(replacement);
  if (length == 0 || removed == 0) return 0;
  size_t count = 0;
  for (const char* at = slot; (at = strstr(at, pattern)) != nullptr; at += removed) ++count;
  if (count == 0) return 0;
  char* const array = new char[length - removed * count + added * count + 1];
  char* out = array;
  const char* from = slot;
  while (const char* match = strstr(from, pattern)) {
    out = put(put(out, from, static_cast<size_t>(match - from)), replacement, added);
    from = match + removed;
  }
  put(out, from, strlen(from) + 1);
  store(slot, array);
  return static_cast<int32_t>(count);
}

int32_t replacePrefix(char*& slot, const char* prefix, const char* replacement) {
  assert(prefix != nullptr && replacement != nullptr);
  if (slot == nullptr || startsWith(slot, prefix) == nullptr) return 0;
  const char* const rest = slot + strlen(prefix);
  const size_t added = strlen(replacement), kept = strlen(rest) + 1;
  char* const array = new char[added + kept];
  put(put(array, replacement, added), rest, kept);
  store(slot, array);
  return 1;
}

void dottedQuadText(char*& slot, uint32_t address) {
  store(slot, dottedQuad(new char[kDottedQuadSize], address));
}

void calendarText(char*& slot, time_t time) {
  store(slot, calendarTime(new char[kCalendarSize], time));
}

void clockText(char*& slot, const timeval& time) {
  newSizedBuffer(slot, kClockSize);
  formatClock(time, slot, kClockSize);
}

char* dottedQuad(char* buffer, uint32_t address) {
  assert(buffer != nullptr);
  snprintf(buffer, kDottedQuadSize, "%d.%d.%d.%d", static_cast<uint8_t>(address),
           static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address >> 16),
           static_cast<uint8_t>(address >> 24));
  return buffer;
}

char* calendarTime(char* buffer, time_t time) {
  assert(buffer != nullptr);
  if (ctime_r(&time, buffer) == nullptr) buffer[0] = '\0';
  buffer[24] = '\0';  // where the newline is
  return buffer;
}

char* cutAtUnprintable(char* text) {
  if (text == nullptr) return nullptr;
  char* end = text;
  while (*end >= 0x1D && *end <= '~') ++end;  // the separators and the printables are one range
  if (*end != '\0') *end = '\0';
  return text;
}

const char* startsWith(const char* text, const char* prefix) {
  assert(text != nullptr && prefix != nullptr);
  return strncmp(text, prefix, strlen(prefix)) == 0 ? text : nullptr;
}

const char* endsWith(const char* text, const char* suffix) {
  assert(text != nullptr && suffix != nullptr);
  const size_t length = strlen(text), suffixLength = strlen(suffix);
  if (suffixLength > length) return nullptr;
  const char* const tail = text + length - suffixLength;
  return strcmp(tail, suffix) == 0 ? tail : nullptr;
}

int32_t isAbsolutePath(const char* path) {
  assert(path != nullptr);
  return path[0] == '/';
}

int32_t hasParentReference(const char* path) {
  assert(path != nullptr);
  if (strlen(path) < 3) return 0;
  if (startsWith(path, "../") != nullptr) return 1;
  // From index 3 on, so that "a/../b" is not found: callers let such paths pass.
  return strstr(path + 3, "/../") != nullptr;
}

int32_t parseVersion(const char* text, int32_t* major, int32_t* minor, int32_t* patch,
                     int32_t* build) {
  assert(text != nullptr);
  *major = *minor = *patch = *build = -1;
  return std::max(sscanf(text, "%i.%i.%i_%i", major, minor, patch, build), 0);
}

int32_t countSeparators(const void* data, int32_t length, uint8_t separator) {
  assert(data != nullptr);
  const auto* from = static_cast<const uint8_t*>(data);
  // One byte is looked at even for a length of 0 or less: callers count on the first byte.
  const uint8_t* const end = from + std::max(length, 1);
  int32_t count = countBlocks(from, end, separator);
  count += static_cast<int32_t>(std::count(from, end, separator));
  logStream() << "String: Found " << count << " lines with separator " << int32_t{separator}
              << ".\n";
  return count;
}

}  // namespace qora::string
