// SPDX-License-Identifier: BSD-2-Clause
// qora/base/library.h -- Shared libraries through the dynamic loader. No state, any thread. "Lines"
// are lines on the log stream.
#pragma once

#include <cstdint>

namespace qora::library {

// The loader's own handle, to be closed once; symbols are bound when first used. Null with ENOENT
// when the loader refuses, whatever its reason; null with EINVAL and a line for a null path.
[[nodiscard]] void* open(const char* path);

// The address of `name`; null with ENOMSG and two lines when there is none. A symbol whose value
// is null counts as missing.
[[nodiscard]] void* resolve(void* handle, const char* name);

// 0; -1 with ENOMSG and two lines when the loader refuses.
int32_t close(void* handle);

}  // namespace qora::library
