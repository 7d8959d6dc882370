// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/reactor.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace qora::serve {

int32_t Reactor::open() {
  poll_ = Descriptor(::epoll_create1(EPOLL_CLOEXEC));
  timer_ = Descriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  if (poll_.get() == -1 || timer_.get() == -1) return -1;
  return watch(timer_.get(), [this] {
    uint64_t expirations;
    if (::read(timer_.get(), &expirations, sizeof expirations) > 0 && timed_) timed_();
  });
}

int32_t Reactor::watch(int32_t descriptor, Handler readable) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = descriptor;
  if (::epoll_ctl(poll_.get(), EPOLL_CTL_ADD, descriptor, &event) == -1) return -1;
  watches_[descriptor] = {std::move(readable), nullptr};
  return 1;
}

int32_t Reactor::watchWrites(int32_t descriptor, Handler writable) {
  const auto found = watches_.find(descriptor);
  if (found == watches_.end()) return 0;
  epoll_event event{};
  event.events = writable ? EPOLLIN | EPOLLOUT : EPOLLIN;
  event.data.fd = descriptor;
  found->second.writable = std::move(writable);
  return ::epoll_ctl(poll_.get(), EPOLL_CTL_MOD, descriptor, &event) == -1 ? -1 : 1;
}

void Reactor::unwatch(int32_t descriptor) {
  if (watches_.erase(descriptor) == 0) return;
  ::epoll_ctl(poll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
}

void Reactor::callAt(int64_t time) {
  const int64_t due = std::max<int64_t>(time, 1);  // 0 would stop the timer
  itimerspec when{};
  when.it_value = {due / 1000000, due % 1000000 * 1000};
  ::timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &when, nullptr);
}

void Reactor::dispatch() {
  epoll_event events[16];
  const int count = ::epoll_wait(poll_.get(), events, 16, 0);
  for (int i = 0; i < count; ++i) {
    // A handler may have taken away this watch or its neighbours: a copy is called, if it is there.
    const auto found = watches_.find(events[i].data.fd);
    if (found == watches_.end()) continue;
    const Watch watch = found->second;
    if ((events[i].events & EPOLLOUT) != 0 && watch.writable) watch.writable();
    if ((events[i].events & ~EPOLLOUT) != 0) watch.readable();
  }
}

int64_t Reactor::now() {
  timespec time;
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
}

}  // namespace qora::serve
