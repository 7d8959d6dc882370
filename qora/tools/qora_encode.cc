// qora-encode -- Encodes a clip through the codec service.

#include <cstdio>

#include "qora/tools/encode_options.h"
#include "qora/tools/encode_session.h"

int main(int argc, char* argv[]) {
  qora::tools::EncodeOptions options;
  std::string text;
  const int32_t parsed = qora::tools::parseEncodeOptions(argc, argv, options, text);
  if (parsed == 0) return std::fputs(text.c_str(), stdout) == EOF ? 1 : 0;
  if (parsed == -1) {
    std::fprintf(stderr, "qora-encode: %s\n", text.c_str());
    return 2;
  }
  qora::tools::EncodeSession session(options);
  if (session.run() == 1) return 0;
  std::fprintf(stderr, "qora-encode: %s\n", session.problem().c_str());
  return 1;
}
