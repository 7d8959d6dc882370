// SPDX-License-Identifier: BSD-2-Clause
// qora/base/mutex.h -- Recursive POSIX mutexes, owned by the object that embeds them.
//
// The operations that set a mutex up report a failure in two lines on std::clog, each after the
// time prefix, never through the logger: it locks such a mutex itself. No argument may be null.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace qora::mutex {

// Initialises `mutex` as a recursive one. After a failure, which only the lines show, it must not
// be used.
void initMutex(pthread_mutex_t* mutex);

void destroyMutex(pthread_mutex_t* mutex);

// 1 when the lock was taken within `timeout` milliseconds, else 0, whatever kept it away. A timeout
// of 0 or less makes one attempt. The wall clock counts: setting it moves the deadline.
[[nodiscard]] int32_t lockMutexTimed(pthread_mutex_t* mutex, int32_t timeout);

// Takes the lock without ever sleeping: for locks that are held for a few instructions.
void lockMutexSpinning(pthread_mutex_t* mutex);

// Puts a fresh recursive mutex in the place of `mutex`, whatever its state was; only for a mutex
// that no live thread holds or waits for (a forked child's copy). After a failure the mutex is as
// it was.
void resetMutex(pthread_mutex_t* mutex);

}  // namespace qora::mutex
