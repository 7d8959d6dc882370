// base/process.h -- This process and others: status, priority, identity, start.
//
// Failures stand on the log stream, one line telling what failed and one telling errno, and leave
// errno as the failing call set it.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace qora::process {

// --- priority (process_status.cc) ---

// Priority classes, understood wherever a niceness value is.
constexpr int32_t kLowestPriority = 100;   // niceness 19
constexpr int32_t kNormalPriority = 101;   // 0
constexpr int32_t kHighPriority = 102;     // -10
constexpr int32_t kHighestPriority = 103;  // -20

// The niceness of a priority class; any other value is a niceness already.
int32_t mapPriority(int32_t value);

// Gives this process the niceness or priority class. 1, or -1.
int32_t setPriority(int32_t value);

// --- identity (process_identity.cc) ---

// Changes the user or group id as setuid and setgid do. 1, or -1.
[[nodiscard]] int32_t setUserId(uid_t user);
[[nodiscard]] int32_t setGroupId(gid_t group);

// --- start (process_start.cc) ---

// fork, while no other thread is inside an accessor of the logger; the child gets a fresh logger
// mutex. 0 in the child, the child's process id in the parent, or -1 (nothing is logged).
[[nodiscard]] pid_t forkProcess();

// Runs the program at `path` in this process: with an environment exactly that file and those
// variables, without (null) searched for in PATH and with the present variables. The count is not
// used; `arguments` ends with null. Returns only on failure: -1.
int32_t execProgram(const char* path, int32_t count, const char* const arguments[],
                    const char* const environment[]);

// Starts a program in a child process.
//   unused          read by nobody.
//   program         the path as execProgram takes it, then the arguments from the program's name
//                   on, then null. Fewer than two entries: -1 with EINVAL.
//   environment     as execProgram takes it.
//   input, output,  become the child's descriptors 0, 1 and 2 and are closed there under their
//   error           old numbers; -1 keeps the parent's. One descriptor may serve several roles.
//   priority        niceness or priority class of the child.
//   keepPrivileges  0: the child gives up set-user and set-group privileges.
// Returns the child's process id, to be waited for, or -1. The child logs nothing: a program that
// cannot be run shows only in the exit status, which is then the errno of the exec.
[[nodiscard]] pid_t createProcess(const void* unused, const char* const program[],
                                  const char* const environment[], int32_t input, int32_t output,
                                  int32_t error, int32_t priority, int32_t keepPrivileges);

// Goes on as a daemon, in a new session without a terminal, with the same working directory and
// descriptors. 1, or -1.
[[nodiscard]] int32_t detachFromTerminal();

// Ends a process that must not run the exit handlers, such as a forked child: those belong to the
// parent, whose unwritten buffers the child shares.
[[noreturn]] void endProcess(int32_t status);

}  // namespace qora::process
