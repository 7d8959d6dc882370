// SPDX-License-Identifier: BSD-2-Clause
// Preloaded into the service: makes one call fail or fall short, or sets the clock; counts blocks.
// The environment variable FAULT is one of
//   CALL=NUMBER:ERROR         that call, counted from 1, fails with that errno: allocation, read,
//                             writev, shmat, shmdt, stat, dlopen, dlclose
//   allocations=NUMBER:ERROR  that allocation and all after it
//   size=BYTES:ERROR          every allocation of exactly so many bytes
//   short=BYTES               reads and gathered writes move at most so many bytes
//   clock=MICROSECONDS        the time of day, which goes on by a second with each look at it
// FAULT_COUNTS names a file of three uint64_t that is mapped: allocations, blocks held, faults met.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
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

struct Fault {
  bool ready = false;
  char name[16] = "";
  uint64_t number = 0, seen = 0;
  int error = 0;
};

Fault fault;
uint64_t privateCounts[3];
uint64_t* counts = privateCounts;

// On first use, which may come before this library's own initialisers, but not before the
// environment is there.
void prepare() {
  if (fault.ready || environ == nullptr) return;
  fault.ready = true;
  if (const char* path = getenv("FAULT_COUNTS")) {
    const int file = open(path, O_RDWR | O_CLOEXEC);
    void* memory = mmap(nullptr, sizeof privateCounts, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (memory != MAP_FAILED) counts = static_cast<uint64_t*>(memory);
  }
  const char* text = getenv("FAULT");
  const char* number = text == nullptr ? nullptr : strchr(text, '=');
  if (number == nullptr) return;
  strncat(fault.name, text, std::min<size_t>(number - text, sizeof fault.name - 1));
  char* end;
  fault.number = strtoull(number + 1, &end, 10);
  if (*end == ':') fault.error = atoi(end + 1);
}

bool chosen(const char* name) {
  prepare();
  return strcmp(fault.name, name) == 0;
}

bool fail() {
  __atomic_add_fetch(&counts[2], 1, __ATOMIC_RELAXED);
  errno = fault.error;
  return true;
}

bool fails(const char* call) {
  return chosen(call) && __atomic_add_fetch(&fault.seen, 1, __ATOMIC_RELAXED) == fault.number &&
         fail();
}

bool allocationFails(size_t size) {
  prepare();
  const uint64_t number = __atomic_add_fetch(&counts[0], 1, __ATOMIC_RELAXED);
  const bool fits = (chosen("allocation") && number == fault.number) ||
                    (chosen("allocations") && number >= fault.number) ||
                    (chosen("size") && size == fault.number);
  return fits && fail();
}

// Counts a new block.
void* held(void* block) {
  if (block != nullptr) __atomic_add_fetch(&counts[1], 1, __ATOMIC_RELAXED);
  return block;
}

size_t shortened(size_t length) {
  return chosen("short") ? std::min<size_t>(length, fault.number) : length;
}

template <typename Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
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
void free(void* block) {
  if (block != nullptr) __atomic_sub_fetch(&counts[1], 1, __ATOMIC_RELAXED);
  __libc_free(block);
}

ssize_t read(int descriptor, void* destination, size_t length) {
  return fails("read") ? -1 : syscall(SYS_read, descriptor, destination, shortened(length));
}
ssize_t writev(int descriptor, const iovec* entries, int count) {
  iovec cut[2] = {entries[0], count > 1 ? entries[1] : iovec{}};
  cut[0].iov_len = shortened(cut[0].iov_len);
  cut[1].iov_len = std::min(cut[1].iov_len, shortened(SIZE_MAX) - cut[0].iov_len);
  return fails("writev") ? -1 : syscall(SYS_writev, descriptor, cut, std::min(count, 2));
}
void* shmat(int id, const void* address, int flags) {
  return reinterpret_cast<void*>(fails("shmat") ? -1 : syscall(SYS_shmat, id, address, flags));
}
int shmdt(const void* address) {
  return fails("shmdt") ? -1 : static_cast<int>(syscall(SYS_shmdt, address));
}
int stat(const char* path, struct stat* status) {
  return fails("stat") ? -1 : fstatat(AT_FDCWD, path, status, 0);
}
void* dlopen(const char* path, int flags) {
  return fails("dlopen") ? nullptr : next(&dlopen, "dlopen")(path, flags);
}
int dlclose(void* handle) {
  return fails("dlclose") ? -1 : next(&dlclose, "dlclose")(handle);
}
int gettimeofday(timeval* now, void* zone) {
  if (!chosen("clock")) return static_cast<int>(syscall(SYS_gettimeofday, now, zone));
  const uint64_t time = fault.number + 1000000 * fault.seen++;
  *now = {static_cast<time_t>(time / 1000000), static_cast<suseconds_t>(time % 1000000)};
  return 0;
}

}  // extern "C"
