// SPDX-License-Identifier: BSD-2-Clause
#include "qora/sandbox/call_filter.h"

#include <fcntl.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace qora::sandbox {
namespace {

// Allowed with any arguments.
constexpr int kCalls[] = {
    // commands, replies, diagnostics, pictures
    SCMP_SYS(read),
    SCMP_SYS(write),
    SCMP_SYS(writev),
    SCMP_SYS(shmat),
    SCMP_SYS(shmdt),
    // memory
    SCMP_SYS(brk),
    SCMP_SYS(munmap),
    SCMP_SYS(mremap),
    SCMP_SYS(madvise),
    // the encoder's threads
    SCMP_SYS(futex),
    SCMP_SYS(set_robust_list),
    SCMP_SYS(rseq),
    SCMP_SYS(sched_getaffinity),
    SCMP_SYS(sched_yield),
    SCMP_SYS(exit),
    // signals, identity, time
    SCMP_SYS(rt_sigaction),
    SCMP_SYS(rt_sigprocmask),
    SCMP_SYS(rt_sigreturn),
    SCMP_SYS(restart_syscall),
    SCMP_SYS(getpid),
    SCMP_SYS(gettid),
    SCMP_SYS(gettimeofday),
    SCMP_SYS(clock_gettime),
    // libraries and the time zone
    SCMP_SYS(access),
    SCMP_SYS(newfstatat),
    SCMP_SYS(fstat),
    SCMP_SYS(pread64),
    SCMP_SYS(lseek),
    SCMP_SYS(close),
    SCMP_SYS(getrandom),
    // start and end
    SCMP_SYS(arch_prctl),
    SCMP_SYS(set_tid_address),
    SCMP_SYS(exit_group),
};

// What an argument has to be: `argument & mask == value`.
scmp_arg_cmp masked(unsigned argument, uint64_t mask, uint64_t value) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}
scmp_arg_cmp equal(unsigned argument, uint64_t value) {
  return {argument, SCMP_CMP_EQ, value, 0};
}
uint64_t addressOf(const void* pointer) {
  return reinterpret_cast<uintptr_t>(pointer);
}

// The filter being built. Remembers the first failure.
struct Filter {
  scmp_filter_ctx context = seccomp_init(SCMP_ACT_KILL_PROCESS);
  int32_t error = context == nullptr ? ENOMEM : 0;  // errno of the failure

  Filter() = default;
  ~Filter() { seccomp_release(context); }
  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;

  void add(uint32_t action, int call, std::initializer_list<scmp_arg_cmp> arguments) {
    if (error != 0) return;
    error = -seccomp_rule_add_array(context, action, call, static_cast<unsigned>(arguments.size()),
                                    arguments.begin());
  }
  void allow(int call, std::initializer_list<scmp_arg_cmp> arguments = {}) {
    add(SCMP_ACT_ALLOW, call, arguments);
  }
  void load() {
    if (error == 0) error = -seccomp_load(context);
  }
};

// Rules for one call add up: it is allowed where one of them fits.
void allowWithConditions(Filter& filter, const ProgramStart& start) {
  // Files are read, never written or made.
  filter.allow(SCMP_SYS(openat), {masked(2, O_ACCMODE | O_CREAT | O_TRUNC, O_RDONLY)});
  // Memory is written or executed, never both.
  for (const int call : {SCMP_SYS(mmap), SCMP_SYS(mprotect)}) {
    filter.allow(call, {masked(2, PROT_EXEC, 0)});
    filter.allow(call, {masked(2, PROT_EXEC | PROT_WRITE, PROT_EXEC)});
  }
  // Threads, no processes. The newer call keeps its flags in memory, where no filter sees them; the
  // C library falls back to the older one.
  filter.allow(SCMP_SYS(clone), {masked(0, CLONE_THREAD | CLONE_VM, CLONE_THREAD | CLONE_VM)});
  filter.add(SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), {});
  // Limits are asked for, not set.
  filter.allow(SCMP_SYS(prlimit64), {equal(0, 0), equal(2, 0)});
  // abort(): a signal to itself.
  filter.allow(SCMP_SYS(tgkill), {equal(0, static_cast<uint64_t>(::getpid()))});
  filter.allow(SCMP_SYS(execve),
               {equal(0, addressOf(start.path)), equal(1, addressOf(start.arguments)),
                equal(2, addressOf(start.environment))});
}

}  // namespace

int32_t installCallFilter(const ProgramStart& start) {
  Filter filter;
  for (const int call : kCalls) filter.allow(call);
  allowWithConditions(filter, start);
  filter.load();
  if (filter.error == 0) return 1;
  errno = filter.error;
  return -1;
}

}  // namespace qora::sandbox
