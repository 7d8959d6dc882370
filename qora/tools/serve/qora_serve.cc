// SPDX-License-Identifier: BSD-2-Clause
// qora-serve -- Shows a live screen in browsers.

#include <sys/signalfd.h>

#include <csignal>
#include <cstdio>

#include "qora/base/descriptor.h"
#include "qora/tools/option_table.h"
#include "qora/tools/serve/broadcast.h"
#include "qora/tools/serve/reactor.h"
#include "qora/tools/serve/serve_options.h"
#include "qora/tools/serve/tokens.h"
#include "qora/tools/serve/web_server.h"

namespace {

using namespace qora;

int fail(const std::string& problem) {
  std::fprintf(stderr, "qora-serve: %s\n", problem.c_str());
  return 1;
}

// SIGINT and SIGTERM as a readable descriptor. The service's child starts with no signal blocked.
Descriptor stopSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  return Descriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

void printAddress(const char* what, const serve::ServeOptions& options, int32_t port,
                  const std::string& token) {
  const bool safe = !options.web.certificate.empty();
  const bool any = options.web.address == "0.0.0.0" || options.web.address == "::";
  const std::string host = any ? "<this machine>" : options.web.address;
  std::printf("%s http%s://%s:%d/#%s\n", what, safe ? "s" : "", host.c_str(), port, token.c_str());
}

int serveScreen(const serve::ServeOptions& options) {
  serve::Tokens tokens;
  std::string problem;
  const int32_t have = options.tokens.empty() ? serve::makeTokens(tokens, problem)
                                              : serve::keepTokens(options.tokens, tokens, problem);
  if (have == -1) return fail(problem);

  serve::Reactor reactor;
  bool stopping = false;
  const Descriptor stop = stopSignals();
  if (reactor.open() == -1 || reactor.watch(stop.get(), [&] { stopping = true; }) == -1) {
    return fail("cannot set up the event loop");
  }
  serve::Broadcast broadcast(options, tokens, reactor);
  serve::WebServer server(broadcast);  // goes first, and takes its connections along
  if (server.open(options.web, problem) == -1) return fail(problem);
  const auto dispatch = [](void* watched) { static_cast<serve::Reactor*>(watched)->dispatch(); };
  if (server.watch(reactor.descriptor(), dispatch, &reactor) == -1) {
    return fail("cannot set up the event loop");
  }
  if (broadcast.open() == -1) return fail(broadcast.problem());

  printAddress("view:   ", options, server.port(), tokens.view);
  if (options.control) printAddress("control:", options, server.port(), tokens.control);
  std::fflush(stdout);
  while (!stopping && !broadcast.isOver()) {
    if (server.run() == -1) return fail("the event loop failed");
  }
  return stopping ? 0 : fail(broadcast.problem());
}

}  // namespace

int main(int argc, char* argv[]) {
  serve::ServeOptions options;
  std::string text;
  const int32_t parsed = serve::parseServeOptions(argc, argv, options, text);
  const int32_t status = tools::beginProgram("qora-serve", parsed, text);
  return status != -1 ? status : serveScreen(options);
}
