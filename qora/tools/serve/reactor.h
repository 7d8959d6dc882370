// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/reactor.h -- Our own descriptors and the one timer, behind one descriptor that
// somebody else's event loop can watch. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include "qora/base/descriptor.h"

namespace qora::serve {

class Reactor {
 public:
  using Handler = std::function<void()>;

  // 1, or -1 with errno.
  [[nodiscard]] int32_t open();
  // Readable when a handler is due.
  int32_t descriptor() const { return poll_.get(); }

  // Calls `readable` whenever the descriptor is readable or at its end. The descriptor stays the
  // caller's; unwatch() before closing it. 1, or -1 with errno.
  int32_t watch(int32_t descriptor, Handler readable);
  // Whether `writable` is called as well, see watch().
  int32_t watchWrites(int32_t descriptor, Handler writable);
  void unwatch(int32_t descriptor);

  // The timer's handler, and when it is called next: a time of the monotonic clock in microseconds;
  // one that is over is due at once.
  void onTimer(Handler handler) { timed_ = std::move(handler); }
  void callAt(int64_t time);

  // Calls the handlers that are due; waits for none.
  void dispatch();

  // The monotonic clock in microseconds.
  static int64_t now();

 private:
  struct Watch {
    Handler readable;
    Handler writable;
  };

  Descriptor poll_;
  Descriptor timer_;
  Handler timed_;
  std::map<int32_t, Watch> watches_;
};

}  // namespace qora::serve
