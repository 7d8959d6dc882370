// SPDX-License-Identifier: GPL-2.0-or-later
// qora/bridge/diagnostics.h -- The bridge's own lines on standard error.
#pragma once

namespace qora::bridge {

// Writes "x264 bridge: <text>\n" with one write(2), so that it never mixes with the host's lines
// inside a line. At most 512 bytes, a longer text is cut. Leaves errno as it was.
[[gnu::format(printf, 1, 2)]] void complain(const char* format, ...);

}  // namespace qora::bridge
