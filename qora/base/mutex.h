// qora/base/mutex.h -- Recursive POSIX mutexes, owned by the object that embeds them.
//
// The operations that set a mutex up report their failures straight to std::clog behind the time
// prefix, never through the logger, since the logger itself stands on such a mutex.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace qora::mutex {

// Initialises `mutex` as a recursive one. On failure two lines tell it on std::clog.
void initMutex(pthread_mutex_t* mutex);

void destroyMutex(pthread_mutex_t* mutex);

// 1 when the lock was taken within `timeout` milliseconds, else 0. A timeout of 0 or less makes one
// attempt.
[[nodiscard]] int32_t lockMutexTimed(pthread_mutex_t* mutex, int32_t timeout);

// Takes the lock without ever sleeping: for locks that are held for a few instructions.
void lockMutexSpinning(pthread_mutex_t* mutex);

// Puts a fresh recursive mutex in the place of `mutex`, whatever its state was; only for a mutex
// that no live thread holds or waits for (a forked child's copy). On failure the mutex stays as it
// was and two lines tell it on std::clog.
void resetMutex(pthread_mutex_t* mutex);

}  // namespace qora::mutex
