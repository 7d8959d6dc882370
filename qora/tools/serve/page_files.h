// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/page_files.h -- The files of the page, which stand in the program itself.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qora::serve {

struct PageFile {
  const char* path;  // as a browser asks for it
  const char* type;  // its media type
  const uint8_t* bytes;
  size_t size;
};

// Ends with a row whose path is null. Made from page/ by the build.
extern const PageFile kPageFiles[];

}  // namespace qora::serve
