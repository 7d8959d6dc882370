#include "base/mutex.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "tests/support/captured_log.h"

namespace {
bool refuseMutexType = false;
}

// Stands in front of the C library's, so that making a mutex can fail.
extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t* attributes, int type) noexcept {
  if (refuseMutexType) return ENOMEM;
  using SetType = int (*)(pthread_mutexattr_t*, int);
  return reinterpret_cast<SetType>(dlsym(RTLD_NEXT, "pthread_mutexattr_settype"))(attributes, type);
}

namespace qora::mutex {
namespace {

class Mutex : public testing::Test {
 protected:
  Mutex() { initMutex(&mutex_); }
  ~Mutex() override { destroyMutex(&mutex_); }
  // Whether another thread gets the lock; it gives it back.
  int32_t otherThreadLocks(int32_t timeout) {
    int32_t locked = 0;
    std::thread([&] {
      locked = lockMutexTimed(&mutex_, timeout);
      if (locked == 1) pthread_mutex_unlock(&mutex_);
    }).join();
    return locked;
  }
  pthread_mutex_t mutex_;
};

TEST_F(Mutex, TakesAsManyUnlocksAsLocks) {
  ASSERT_EQ(lockMutexTimed(&mutex_, 0), 1);
  ASSERT_EQ(lockMutexTimed(&mutex_, 1500), 1);
  for (const int32_t timeout : {0, -5, 1, 20}) EXPECT_EQ(otherThreadLocks(timeout), 0);
  pthread_mutex_unlock(&mutex_);
  EXPECT_EQ(otherThreadLocks(0), 0);
  pthread_mutex_unlock(&mutex_);
  EXPECT_EQ(otherThreadLocks(0), 1);
}

TEST_F(Mutex, SpinsUntilTheLockIsFree) {
  pthread_mutex_lock(&mutex_);
  std::atomic<bool> started = false;
  int guarded = 1;
  std::thread spinner([&] {
    started = true;
    lockMutexSpinning(&mutex_);
    EXPECT_EQ(guarded, 2);
    pthread_mutex_unlock(&mutex_);
  });
  while (!started) std::this_thread::yield();
  guarded = 2;
  pthread_mutex_unlock(&mutex_);
  spinner.join();
}

TEST_F(Mutex, ResetFreesAHeldMutex) {
  pthread_mutex_lock(&mutex_);
  resetMutex(&mutex_);
  EXPECT_EQ(otherThreadLocks(0), 1);
  EXPECT_EQ(lockMutexTimed(&mutex_, 0), 1);
  EXPECT_EQ(lockMutexTimed(&mutex_, 0), 1);  // still a recursive one
  pthread_mutex_unlock(&mutex_);
  pthread_mutex_unlock(&mutex_);
}

TEST_F(Mutex, TellsFailuresWithoutTheLogger) {
  pthread_mutex_lock(&mutex_);
  const test::CapturedLog log;
  refuseMutexType = true;
  pthread_mutex_t other;
  initMutex(&other);
  resetMutex(&mutex_);
  refuseMutexType = false;
  EXPECT_EQ(log.withoutPrefixes(),
            "Mutex: ERROR! Failed to initialize the mutex.\nFailed to initialize the mutex.\n"
            "Mutex: ERROR! Failed to reset the mutex.\nFailed to reset the mutex.\n");
  const std::string text = log.text();
  EXPECT_EQ(std::count(text.begin(), text.end(), ':'), 10);  // two in each line's time
  EXPECT_EQ(otherThreadLocks(0), 0);
  pthread_mutex_unlock(&mutex_);
}

}  // namespace
}  // namespace qora::mutex
