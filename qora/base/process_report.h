// SPDX-License-Identifier: BSD-2-Clause
// qora/base/process_report.h -- How the process family reports its failures; for its own sources
// only.
#pragma once

#include "qora/base/error_text.h"
#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"

namespace qora::process {

// What differs between the parts of the family: the level of both lines, and what stands around the
// text of the error. Log readers match the three forms as they are.
struct ReportForm {
  const char* level;
  const char* beforeText;
  const char* afterText;
};
constexpr ReportForm kStatusError = {"ERROR", " '", "'.\n"};
constexpr ReportForm kIdentityError = {"ERROR", ", ", ".\n"};
constexpr ReportForm kStartWarning = {"WARNING", " '", "'.\n"};

// Two lines on the log stream: one made of `pieces`, and errno with its text. Returns -1; errno
// stays.
template <typename... Pieces>
int32_t failed(const ReportForm& form, const Pieces&... pieces) {
  const KeepErrno keep;
  ((logStream() << "Process: " << form.level << "! ") << ... << pieces) << "\n";
  logStream() << "Process: " << form.level << "! Error is " << keep.value << form.beforeText
              << errorText(keep.value) << form.afterText;
  return -1;
}

}  // namespace qora::process
