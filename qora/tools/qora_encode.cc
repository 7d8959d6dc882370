// SPDX-License-Identifier: BSD-2-Clause
// qora-encode -- Encodes a clip through the codec service.

#include <cstdio>

#include "qora/tools/encode_options.h"
#include "qora/tools/encode_session.h"
#include "qora/tools/option_table.h"

int main(int argc, char* argv[]) {
  qora::tools::EncodeOptions options;
  std::string text;
  const int32_t parsed = qora::tools::parseEncodeOptions(argc, argv, options, text);
  const int32_t status = qora::tools::beginProgram("qora-encode", parsed, text);
  if (status != -1) return status;
  qora::tools::EncodeSession session(options);
  const int32_t encoded = session.run();
  if (encoded == 1) return 0;
  std::fprintf(stderr, "qora-encode: %s\n", session.problem().c_str());
  return encoded == 0 ? 3 : 1;
}
