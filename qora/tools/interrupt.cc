#include "qora/tools/interrupt.h"

#include <csignal>
#include <cstddef>
#include <iterator>

namespace qora::tools {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM};

struct InterruptState {
  struct sigaction before[std::size(kSignals)];
  volatile std::sig_atomic_t noted = 0;
};
InterruptState state;

void note(int) {
  state.noted = 1;
}

}  // namespace

void ignoreInterrupts() {
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  for (size_t i = 0; i < std::size(kSignals); ++i) {
    ::sigaction(kSignals[i], &ignore, &state.before[i]);
  }
}

void noteInterrupts() {
  struct sigaction handler {};
  handler.sa_handler = note;
  handler.sa_flags = SA_RESETHAND;
  for (size_t i = 0; i < std::size(kSignals); ++i) {
    if (state.before[i].sa_handler != SIG_IGN) ::sigaction(kSignals[i], &handler, nullptr);
  }
}

bool wasInterrupted() {
  return state.noted != 0;
}

}  // namespace qora::tools
