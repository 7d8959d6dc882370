// SPDX-License-Identifier: GPL-2.0-or-later
// qora/bridge/legacy_params.h -- The caller's parameter block, in the layout of API build 142.
//
// Callers fill the block by byte offset and know 19 fields of it. Nothing else in the block is ever
// read by them, so the bytes after the last field remember how the block was set up: which preset,
// tune and profile the installed library has to apply when the encoder is opened. A copied block
// stays as good as the original. Pure functions; blocks are raw bytes, 936 of them, of any
// alignment, and not null unless a function says so.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qora/encoder/abi/param_layout.h"

namespace qora::bridge {

inline constexpr encoder::ParamLayout kLegacyLayout =
    encoder::kParamLayouts[encoder::paramLayoutFor(142)];
inline constexpr size_t kLegacyBlockSize = kLegacyLayout.blockSize;

// A name as the caller gave it, null included.
template <size_t Size>
struct KeptName {
  uint8_t given = 0;  // 0: null
  char text[Size - 1] = {};

  const char* get() const { return given != 0 ? text : nullptr; }
  // 1, or -1 when the name is too long; then nothing changes.
  [[nodiscard]] int32_t set(const char* name) {
    const size_t length = name != nullptr ? strlen(name) : 0;
    if (length >= sizeof(text)) return -1;
    *this = {};
    given = name != nullptr;
    if (length > 0) memcpy(text, name, length);
    return 1;
  }
};

// What the installed library applies around the caller's values. Several tunes may be joined.
struct Recipe {
  KeptName<16> preset;
  KeptName<56> tune;
  KeptName<16> profile;
};

// By ParamField; floats as bit patterns, the colour space as build 142 numbers it.
using ParamValues = std::array<uint32_t, encoder::kParamFieldCount>;

struct LegacyParams {
  Recipe recipe;
  ParamValues values = {};
};

// Makes `block` a set-up block: all its bytes are rewritten, those without a meaning with 0.
void storeLegacyParams(const LegacyParams& params, void* block);
// 1, or 0 when the block is null or was never set up; then `params` is left alone.
[[nodiscard]] int32_t loadLegacyParams(const void* block, LegacyParams& params);
// Makes `block` one that was never set up.
void clearLegacyParams(void* block);

}  // namespace qora::bridge
