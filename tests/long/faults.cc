// Preloaded into the service: makes chosen calls fail or fall short, and counts allocations.
// Environment:
//   FAULT_ALLOCATION  n: the n-th allocation fails once; n+: from the n-th on. Counted from 1.
//   FAULT_SIZE        n: every allocation of exactly n bytes fails
//   FAULT_COUNT       a file of 16 bytes, mapped: allocations and frees so far, for a script to
//   read FAULT_SHORT       n: every read and gathered write of the channel moves at most n bytes
//   FAULT_CALL        name of one call that always fails: dlclose, pthread_mutex_init
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}

namespace {

struct Faults {
  bool ready = false;
  uint64_t allocation = 0;  // 0: none fails
  bool fromThenOn = false;
  size_t size = 0;         // 0: none fails
  size_t shortLength = 0;  // 0: whole
  const char* call = "";
  uint64_t privateCounts[2] = {};
  uint64_t* counts = privateCounts;
};

Faults faults;

// On first use, which may come before this library's own initialisers, but not before the
// environment is there.
void prepare() {
  if (faults.ready || environ == nullptr) return;
  faults.ready = true;
  if (const char* text = getenv("FAULT_ALLOCATION")) {
    faults.allocation = strtoull(text, nullptr, 10);
    faults.fromThenOn = strchr(text, '+') != nullptr;
  }
  if (const char* text = getenv("FAULT_SIZE")) faults.size = strtoull(text, nullptr, 10);
  if (const char* text = getenv("FAULT_SHORT")) faults.shortLength = strtoull(text, nullptr, 10);
  if (const char* text = getenv("FAULT_CALL")) faults.call = text;
  if (const char* path = getenv("FAULT_COUNT")) {
    const int file = open(path, O_RDWR | O_CLOEXEC);
    void* memory = mmap(nullptr, 16, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (memory != MAP_FAILED) faults.counts = static_cast<uint64_t*>(memory);
  }
}

bool allocationFails(size_t size) {
  prepare();
  const uint64_t number = __atomic_add_fetch(&faults.counts[0], 1, __ATOMIC_RELAXED);
  const bool counted =
      faults.allocation != 0 &&
      (number == faults.allocation || (faults.fromThenOn && number > faults.allocation));
  const bool fails = counted || (faults.size != 0 && size == faults.size);
  if (fails) errno = ENOMEM;
  return fails;
}

// Counts a new block.
void* held(void* block) {
  if (block != nullptr) __atomic_add_fetch(&faults.counts[1], 1, __ATOMIC_RELAXED);
  return block;
}

size_t shortened(size_t length) {
  return faults.shortLength == 0 ? length : std::min(length, faults.shortLength);
}

bool callFails(const char* name) {
  prepare();
  return strcmp(faults.call, name) == 0;
}

}  // namespace

extern "C" {

void* malloc(size_t size) {
  return allocationFails(size) ? nullptr : held(__libc_malloc(size));
}
void* calloc(size_t count, size_t size) {
  return allocationFails(count * size) ? nullptr : held(__libc_calloc(count, size));
}
void* realloc(void* block, size_t size) {
  if (allocationFails(size)) return nullptr;
  void* moved = __libc_realloc(block, size);
  return block == nullptr ? held(moved) : moved;
}
void* memalign(size_t alignment, size_t size) {
  return allocationFails(size) ? nullptr : held(__libc_memalign(alignment, size));
}
void* aligned_alloc(size_t alignment, size_t size) {
  return memalign(alignment, size);
}
int posix_memalign(void** block, size_t alignment, size_t size) {
  *block = memalign(alignment, size);
  return *block == nullptr ? ENOMEM : 0;
}
void free(void* block) {
  if (block != nullptr) __atomic_sub_fetch(&faults.counts[1], 1, __ATOMIC_RELAXED);
  __libc_free(block);
}

ssize_t read(int descriptor, void* destination, size_t length) {
  prepare();
  return syscall(SYS_read, descriptor, destination, shortened(length));
}

ssize_t writev(int descriptor, const iovec* entries, int count) {
  prepare();
  if (faults.shortLength == 0 || count == 0) {
    return syscall(SYS_writev, descriptor, entries, count);
  }
  // Two entries at most, cut where the limit falls.
  iovec cut[2] = {entries[0], count > 1 ? entries[1] : iovec{}};
  cut[0].iov_len = shortened(cut[0].iov_len);
  cut[1].iov_len = std::min(cut[1].iov_len, faults.shortLength - cut[0].iov_len);
  return syscall(SYS_writev, descriptor, cut, 2);
}

int dlclose(void* handle) {
  static const auto next = reinterpret_cast<int (*)(void*)>(dlsym(RTLD_NEXT, "dlclose"));
  return callFails("dlclose") ? -1 : next(handle);
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  using Function = int (*)(pthread_mutex_t*, const pthread_mutexattr_t*);
  static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_mutex_init"));
  return callFails("pthread_mutex_init") ? ENOMEM : next(mutex, attributes);
}

}  // extern "C"
