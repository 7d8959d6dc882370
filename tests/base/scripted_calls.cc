// SPDX-License-Identifier: BSD-2-Clause
// The functions of the C library that a Script can answer for: those that cannot be made to fail,
// or not on every machine and for every user. The linker leads their callers in base/ here.
#include <dlfcn.h>
#include <netdb.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include "tests/base/calls.h"

using qora::test::Answer;
using qora::test::Script;

Script* Script::current = nullptr;

bool Script::next(std::string_view function, Answer& answer) {
  if (current == nullptr || current->answers_.empty()) return false;
  if (current->answers_.front().function != function) return false;
  answer = current->answers_.front();
  current->answers_.pop_front();
  if (answer.error != 0) errno = h_errno = answer.error;
  return true;
}

// The function's stand-in: the statement when there is an answer, else the call.
#define SCRIPTED_BY(statement, Result, function, parameters, ...)                \
  extern "C" Result __real_##function parameters;                                \
  extern "C" Result __wrap_##function parameters {                               \
    Answer answer;                                                               \
    if (!Script::next(#function, answer)) return __real_##function(__VA_ARGS__); \
    statement;                                                                   \
    return Result(answer.result);                                                \
  }
#define SCRIPTED(...) SCRIPTED_BY(, __VA_ARGS__)

// clang-format off
using Text = const char*;
using Memory = void*;
using Host = hostent*;
SCRIPTED(int, daemon, (int a, int b), a, b)
SCRIPTED(int, getpwnam_r, (Text a, passwd* b, char* c, size_t d, passwd** e), a, b, c, d, e)
SCRIPTED(int, getsockopt, (int a, int b, int c, void* d, socklen_t* e), a, b, c, d, e)
SCRIPTED(int, kill, (pid_t a, int b), a, b)
SCRIPTED(int, nice, (int a), a)
SCRIPTED(int, pthread_mutexattr_settype, (pthread_mutexattr_t* a, int b), a, b)
SCRIPTED(int, setgid, (gid_t a), a)
SCRIPTED(int, setpriority, (int a, id_t b, int c), a, b, c)
SCRIPTED(int, setuid, (uid_t a), a)
SCRIPTED(int, socketpair, (int a, int b, int c, int* d), a, b, c, d)
SCRIPTED(int, uname, (utsname* a), a)
SCRIPTED(long, sysconf, (int a), a)
SCRIPTED(pid_t, fork, ())
SCRIPTED(ssize_t, read, (int a, void* b, size_t c), a, b, c)
SCRIPTED(Host, gethostbyaddr, (const void* a, socklen_t b, int c), a, b, c)
SCRIPTED(Host, gethostbyname, (Text a), a)
SCRIPTED(Memory, malloc, (size_t a), a)
SCRIPTED_BY(if (answer.result > 0) Script::current->written.append(Text(b), size_t(answer.result)),
            ssize_t, write, (int a, const void* b, size_t c), a, b, c)
// The clock's answer is its time in nanoseconds.
constexpr int64_t kSecond = 1000000000;
SCRIPTED_BY((*b = {answer.result / kSecond, answer.result % kSecond}, answer.result = 0),
            int, clock_gettime, (clockid_t a, timespec* b), a, b)
SCRIPTED_BY(if (b->tv_nsec < kSecond) Script::current->deadline = b->tv_sec * kSecond + b->tv_nsec,
            int, pthread_mutex_timedlock, (pthread_mutex_t* a, const timespec* b), a, b)
// clang-format on

// The C++ library opens files, where the linker does not lead here: in front of the C library's.
extern "C" FILE* fopen64(const char* path, const char* mode) {
  Answer answer;
  if (Script::next("fopen64", answer)) return nullptr;
  return reinterpret_cast<decltype(&fopen64)>(dlsym(RTLD_NEXT, "fopen64"))(path, mode);
}
