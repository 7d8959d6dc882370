#include "base/mutex.h"

#include "base/logger.h"

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

}  // namespace

void initMutex(pthread_mutex_t* mutex) {
  if (initRecursive(mutex) != -1) return;
  standardErrorLog() << "Mutex: ERROR! Failed to initialize the mutex.\n";
  standardErrorLog() << "Failed to initialize the mutex.\n";
}

void destroyMutex(pthread_mutex_t* mutex) {
  pthread_mutex_destroy(mutex);
}

void resetMutex(pthread_mutex_t* mutex) {
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
