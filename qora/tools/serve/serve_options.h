// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/serve_options.h -- The command line of qora-serve.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qora/capture/screen.h"
#include "qora/client/quality_control.h"
#include "qora/tools/serve/web_server.h"
#include "qora/tools/service_choice.h"

namespace qora::serve {

struct ServeOptions {
  capture::ScreenOptions screen;
  WebOptions web;
  std::string tokens;  // a file; empty: new tokens at each start
  bool control = false;
  bool plain = false;        // other addresses than this machine's without a certificate
  int32_t fps = 30;          // pictures a second at most
  int32_t maxRate = 50'000;  // kbit/s a viewer
  int32_t quality = client::kDefaultQuality;
  int32_t threads = 1;
  tools::ServiceChoice service;
};

// 1: go on with `options`. 0: the user asked for `text`, the help or the version. -1: `text` says
// what is wrong with the command line.
int32_t parseServeOptions(int argc, char* const argv[], ServeOptions& options, std::string& text);

}  // namespace qora::serve
