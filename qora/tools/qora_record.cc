// SPDX-License-Identifier: BSD-2-Clause
// qora-record -- Records a live screen through the codec service.

#include <cstdio>

#include "qora/tools/option_table.h"
#include "qora/tools/record_options.h"
#include "qora/tools/record_session.h"

int main(int argc, char* argv[]) {
  qora::tools::RecordOptions options;
  std::string text;
  const int32_t parsed = qora::tools::parseRecordOptions(argc, argv, options, text);
  const int32_t status = qora::tools::beginProgram("qora-record", parsed, text);
  if (status != -1) return status;
  qora::tools::RecordSession session(options);
  const int32_t recorded = session.run();
  if (recorded == 1) return 0;
  std::fprintf(stderr, "qora-record: %s\n", session.problem().c_str());
  return recorded == 0 ? 3 : 1;
}
