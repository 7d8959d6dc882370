// Preloaded into the service: makes chosen calls fail or fall short, sets the clock, counts blocks.
// The environment variable FAULTS is a list of
//   NAME=NUMBER:ERROR  the call of that number, from 1, fails with that errno; NAME as in kNames
//   allocations=NUMBER:ERROR  that allocation and all after it
//   size=BYTES         every allocation of exactly so many bytes fails
//   short=BYTES        reads and gathered writes move at most so many bytes
//   clock=MICROSECONDS the time of day, which goes on by a second with each look at it
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
#include <iterator>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}

namespace {

enum Call { kAllocation, kRead, kWritev, kShmat, kShmdt, kStat, kDlopen, kDlclose };
constexpr const char* kNames[] = {
    "allocation=", "read=", "writev=", "shmat=", "shmdt=", "stat=", "dlopen=", "dlclose="};

struct Fault {
  uint64_t at = 0;  // 0: none
  int error = 0;
  uint64_t seen = 0;
};

bool ready = false;
Fault faults[std::size(kNames)];
Fault allocations;
uint64_t failingSize, shortLength, clockStart, looks;
uint64_t privateCounts[3];
uint64_t* counts = privateCounts;

// The number after `name` in the list, and what follows it.
uint64_t numberOf(const char* list, const char* name, int* error = nullptr) {
  const char* entry = strstr(list, name);
  if (entry == nullptr) return 0;
  char* end;
  const uint64_t number = strtoull(entry + strlen(name), &end, 10);
  if (error != nullptr) *error = atoi(end + 1);
  return number;
}

// On first use, which may come before this library's own initialisers, but not before the
// environment is there.
void prepare() {
  if (ready || environ == nullptr) return;
  ready = true;
  if (const char* path = getenv("FAULT_COUNTS")) {
    const int file = open(path, O_RDWR | O_CLOEXEC);
    void* memory = mmap(nullptr, sizeof privateCounts, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (memory != MAP_FAILED) counts = static_cast<uint64_t*>(memory);
  }
  const char* list = getenv("FAULTS");
  if (list == nullptr) return;
  for (size_t i = 0; i < std::size(kNames); ++i) {
    faults[i].at = numberOf(list, kNames[i], &faults[i].error);
  }
  allocations.at = numberOf(list, "allocations=", &allocations.error);
  failingSize = numberOf(list, "size=");
  shortLength = numberOf(list, "short=");
  clockStart = numberOf(list, "clock=");
}

bool fail(int error) {
  __atomic_add_fetch(&counts[2], 1, __ATOMIC_RELAXED);
  errno = error;
  return true;
}

bool fails(Call call) {
  prepare();
  Fault& fault = faults[call];
  return __atomic_add_fetch(&fault.seen, 1, __ATOMIC_RELAXED) == fault.at && fail(fault.error);
}

bool allocationFails(size_t size) {
  if (fails(kAllocation)) return true;
  const uint64_t number = __atomic_add_fetch(&counts[0], 1, __ATOMIC_RELAXED);
  if (allocations.at != 0 && number >= allocations.at) return fail(allocations.error);
  return failingSize != 0 && size == failingSize && fail(ENOMEM);
}

// Counts a new block.
void* held(void* block) {
  if (block != nullptr) __atomic_add_fetch(&counts[1], 1, __ATOMIC_RELAXED);
  return block;
}

size_t shortened(size_t length) {
  return shortLength == 0 ? length : std::min<size_t>(length, shortLength);
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
  if (block != nullptr) __atomic_sub_fetch(&counts[1], 1, __ATOMIC_RELAXED);
  __libc_free(block);
}

ssize_t read(int descriptor, void* destination, size_t length) {
  return fails(kRead) ? -1 : syscall(SYS_read, descriptor, destination, shortened(length));
}
ssize_t writev(int descriptor, const iovec* entries, int count) {
  if (fails(kWritev)) return -1;
  iovec cut[2] = {entries[0], count > 1 ? entries[1] : iovec{}};
  cut[0].iov_len = shortened(cut[0].iov_len);
  if (shortLength != 0) cut[1].iov_len = std::min(cut[1].iov_len, shortLength - cut[0].iov_len);
  return syscall(SYS_writev, descriptor, cut, std::min(count, 2));
}
void* shmat(int id, const void* address, int flags) {
  return reinterpret_cast<void*>(fails(kShmat) ? -1 : syscall(SYS_shmat, id, address, flags));
}
int shmdt(const void* address) {
  return fails(kShmdt) ? -1 : static_cast<int>(syscall(SYS_shmdt, address));
}
int stat(const char* path, struct stat* status) {
  return fails(kStat) ? -1 : fstatat(AT_FDCWD, path, status, 0);
}
void* dlopen(const char* path, int flags) {
  static const auto next = reinterpret_cast<decltype(&dlopen)>(dlsym(RTLD_NEXT, "dlopen"));
  return fails(kDlopen) ? nullptr : next(path, flags);
}
int dlclose(void* handle) {
  static const auto next = reinterpret_cast<decltype(&dlclose)>(dlsym(RTLD_NEXT, "dlclose"));
  return fails(kDlclose) ? -1 : next(handle);
}
int gettimeofday(timeval* now, void*) {
  prepare();
  timespec real;
  clock_gettime(CLOCK_REALTIME, &real);
  *now = {real.tv_sec, real.tv_nsec / 1000};
  if (clockStart == 0) return 0;
  const uint64_t time = clockStart + 1000000 * looks++;
  *now = {static_cast<time_t>(time / 1000000), static_cast<suseconds_t>(time % 1000000)};
  return 0;
}

}  // extern "C"
