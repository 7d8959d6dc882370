// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/mutex.h"

#include <cassert>
#include <ctime>

#include "qora/base/clog_line.h"

namespace qora::mutex {
namespace {

int32_t initRecursive(pthread_mutex_t* mutex) {
  pthread_mutexattr_t attributes;
  if (pthread_mutexattr_init(&attributes) != 0) return -1;
  const bool ready = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0 &&
                     pthread_mutex_init(mutex, &attributes) == 0;
  pthread_mutexattr_destroy(&attributes);
  return ready ? 1 : -1;
}

constexpr int32_t kNanosecondsInSecond = 1000000000;

// The wall clock's time in `timeout` milliseconds, now for one of 0 or less.
timespec deadlineIn(int32_t timeout) {
  timespec time;
  clock_gettime(CLOCK_REALTIME, &time);
  if (timeout <= 0) return time;
  time.tv_sec += timeout / 1000;
  time.tv_nsec += (timeout % 1000) * 1000000;
  if (time.tv_nsec >= kNanosecondsInSecond) {
    time.tv_sec += 1;
    time.tv_nsec -= kNanosecondsInSecond;
  }
  return time;
}

}  // namespace

void initMutex(pthread_mutex_t* mutex) {
  assert(mutex != nullptr);
  if (initRecursive(mutex) != -1) return;
  standardErrorLog() << "Mutex: ERROR! Failed to initialize the mutex.\n";
  standardErrorLog() << "Failed to initialize the mutex.\n";
}

void destroyMutex(pthread_mutex_t* mutex) {
  assert(mutex != nullptr);
  pthread_mutex_destroy(mutex);
}

int32_t lockMutexTimed(pthread_mutex_t* mutex, int32_t timeout) {
  assert(mutex != nullptr);
  const timespec deadline = deadlineIn(timeout);
  return pthread_mutex_timedlock(mutex, &deadline) == 0;
}

void lockMutexSpinning(pthread_mutex_t* mutex) {
  assert(mutex != nullptr);
  while (pthread_mutex_trylock(mutex) != 0) {
  }
}

void resetMutex(pthread_mutex_t* mutex) {
  assert(mutex != nullptr);
  pthread_mutex_t fresh;
  if (initRecursive(&fresh) == -1) {
    standardErrorLog() << "Mutex: ERROR! Failed to reset the mutex.\n";
    standardErrorLog() << "Failed to reset the mutex.\n";
    return;
  }
  pthread_mutex_t previous = *mutex;
  *mutex = fresh;
  pthread_mutex_destroy(&previous);
}

}  // namespace qora::mutex
