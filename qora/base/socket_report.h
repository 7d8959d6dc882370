// SPDX-License-Identifier: BSD-2-Clause
// qora/base/socket_report.h -- How the socket family reports its failures; for its own sources
// only.
#pragma once

#include <ostream>

#include "qora/base/error_text.h"
#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"

namespace qora::socket {

// "Error is <errno> '<text>'." for the errno of the moment this is built.
struct ErrorIs {
  const int32_t error = errno;
};
inline std::ostream& operator<<(std::ostream& stream, const ErrorIs& is) {
  return stream << "Error is " << is.error << " '" << errorText(is.error) << "'.";
}

// One line made of `pieces`, on the log stream after "Socket: ERROR! " and bare on the error
// stream. errno stays.
template <typename... Pieces>
void reportError(const Pieces&... pieces) {
  KeepErrno keep;
  ((logStream() << "Socket: ERROR! ") << ... << pieces) << "\n";
  (errorStream() << ... << pieces) << "\n";
}

// The same, and ErrorIs as a line of its own.
template <typename... Pieces>
void reportErrorInTwoLines(const Pieces&... pieces) {
  const ErrorIs reason;
  reportError(pieces...);
  reportError(reason);
}

// One line with "Socket: WARNING! " and the warning stream.
template <typename... Pieces>
void reportWarning(const Pieces&... pieces) {
  KeepErrno keep;
  ((logStream() << "Socket: WARNING! ") << ... << pieces) << "\n";
  (warningStream() << ... << pieces) << "\n";
}

}  // namespace qora::socket
