// SPDX-License-Identifier: BSD-2-Clause
// qora/base/clog_line.h -- How a diagnostic line begins, and lines on std::clog without a logger:
// what the logger and the mutex that it locks both write with. Any thread; errno stays.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <ostream>

namespace qora {

// "HH:MM:SS mmm.mmm" in local time into `text` of `size` bytes, cut where it does not fit; 17 bytes
// hold it with its NUL.
void formatClock(const timeval& time, char* text, size_t size);

// Inserts "<process id> <thread id> <HH:MM:SS mmm.mmm> " in one piece.
std::ostream& writeTimePrefix(std::ostream& stream);

// std::clog, flushed, for code that may run before there is a logger: after the time prefix, after
// the time prefix and "Error: ", and bare.
std::ostream& standardErrorLog();
std::ostream& standardErrorError();
std::ostream& standardErrorPlain();

}  // namespace qora
