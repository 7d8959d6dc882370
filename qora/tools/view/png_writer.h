// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/view/png_writer.h -- A picture as a PNG file.
#pragma once

#include <cstdint>
#include <string>

#include "qora/client/picture.h"

namespace qora::tools {

// Colours are BT.709, limited range. 1, or -1 with one line in `problem`.
[[nodiscard]] int32_t writePng(const client::Picture& picture, const std::string& path,
                               std::string& problem);

}  // namespace qora::tools
