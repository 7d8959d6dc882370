// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/interrupt.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <iterator>

#include "qora/base/keep_errno.h"

namespace qora::tools {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM};

struct InterruptState {
  struct sigaction before[std::size(kSignals)];
  volatile std::sig_atomic_t noted = 0;
  volatile std::sig_atomic_t event = -1;  // the descriptor
};
InterruptState state;

void note(int) {
  const KeepErrno keep;
  const uint64_t one = 1;
  state.noted = 1;
  // The counter is far from full, and without a descriptor there is nobody to wake.
  [[maybe_unused]] const ssize_t written = ::write(state.event, &one, sizeof one);
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
  if (state.event == -1) state.event = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
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

int32_t interruptDescriptor() {
  return state.event;
}

}  // namespace qora::tools
