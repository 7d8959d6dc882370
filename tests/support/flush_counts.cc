// SPDX-License-Identifier: BSD-2-Clause
// tests/support/flush_counts.cc -- For the coverage build alone: a process that ends without its
// exit handlers, or becomes another program, writes its counts first. Linked with --wrap for each
// function.

#include <unistd.h>

extern "C" {

void __gcov_dump();
void __gcov_reset();
[[noreturn]] void __real__exit(int status);
int __real_execve(const char* path, char* const arguments[], char* const environment[]);
int __real_execvp(const char* path, char* const arguments[]);

[[noreturn]] void __wrap__exit(int status) {
  __gcov_dump();
  __real__exit(status);
}

// An exec that fails comes back, and counts on from zero.
int __wrap_execve(const char* path, char* const arguments[], char* const environment[]) {
  __gcov_dump(), __gcov_reset();
  return __real_execve(path, arguments, environment);
}

int __wrap_execvp(const char* path, char* const arguments[]) {
  __gcov_dump(), __gcov_reset();
  return __real_execvp(path, arguments);
}

}  // extern "C"
