// SPDX-License-Identifier: BSD-2-Clause
// qora/base/error_text.h -- What an error number is called, and how a message shows a text that is
// missing. Any thread.
#pragma once

#include <cstdint>

namespace qora {

// The C library's text in the process's language, "No error" for 0; valid until the thread's next
// call, never null. The second form is for the present errno.
const char* errorText(int32_t error);
const char* lastErrorText();

// The symbolic name: "EINVAL", "Success" for 0, "Unknown" for a number that the table in
// error_text.cc leaves out.
const char* errorName(int32_t error);
const char* lastErrorName();

// The text itself, "nil" for null.
inline const char* orNil(const char* text) {
  return text != nullptr ? text : "nil";
}

}  // namespace qora
