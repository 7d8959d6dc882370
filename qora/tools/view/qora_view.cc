// SPDX-License-Identifier: BSD-2-Clause
// qora-view -- Plays a stream with moves or a plain H.264 stream, or compares it with its source.

#include <cstdio>

#include "qora/tools/option_table.h"
#include "qora/tools/view/view_options.h"
#include "qora/tools/view/view_session.h"

int main(int argc, char* argv[]) {
  qora::tools::ViewOptions options;
  std::string text;
  const int32_t parsed = qora::tools::parseViewOptions(argc, argv, options, text);
  const int32_t status = qora::tools::beginProgram("qora-view", parsed, text);
  if (status != -1) return status;
  qora::tools::ViewSession session(options);
  const int32_t viewed = session.run();
  if (viewed == 1) return 0;
  std::fflush(stdout);
  std::fprintf(stderr, "qora-view: %s\n", session.problem().c_str());
  return viewed == 0 ? 3 : 1;
}
