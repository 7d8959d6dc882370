// SPDX-License-Identifier: BSD-2-Clause
// qora/base/process.h -- This process and others: status, priority, identity, start.
//
// A failure is reported in two lines on the log stream, what failed and errno, and leaves errno as
// the failing call set it. Texts are not null unless null is named. Where memory runs out the
// program is aborted.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>

#include <cstdint>

#include "qora/base/options.h"

namespace qora::process {

// --- status (process_status.cc) ---

// Sends SIGKILL to this process and waits for its end.
[[noreturn]] void killSelf();

// 1 when the process takes signals from this one, 0 when there is none of that id, or -1 (EPERM: it
// is another user's). The second name is the same.
[[nodiscard]] int32_t isProcessAlive(pid_t process);
[[nodiscard]] int32_t isAlive(pid_t process);

// What a status of the wait calls means. Tests give 1 or 0; an exit status and a signal's number or
// name mean something only when their test gives 1.
int32_t exitedNormally(int32_t status);
int32_t exitStatus(int32_t status);
int32_t killedBySignal(int32_t status);
int32_t terminationSignal(int32_t status);
const char* terminationSignalName(int32_t status);
int32_t stoppedBySignal(int32_t status);
int32_t stopSignal(int32_t status);
const char* stopSignalName(int32_t status);

// One number for how a process ended: its exit status, or 4 when a signal killed it. Any other
// status comes back unchanged after a warning.
int32_t exitCode(int32_t status);

// Priority classes, understood wherever a niceness value is.
constexpr int32_t kLowestPriority = 100;   // niceness 19
constexpr int32_t kNormalPriority = 101;   // 0
constexpr int32_t kHighPriority = 102;     // -10
constexpr int32_t kHighestPriority = 103;  // -20

// The niceness of a priority class; any other value is a niceness already.
int32_t mapPriority(int32_t value);

// Gives this process the niceness or priority class. 1, or -1.
int32_t setPriority(int32_t value);

// Adds to the niceness of this process. 1, or -1.
int32_t changePriority(int32_t increment);

// --- names (process_status.cc) ---

const char* defaultHostName();  // "localhost"
// The variable HOSTNAME itself, not a copy, even when empty; the default name when it is not set.
const char* hostName();
// 1 for one of the names of the loopback host, else 0; names compare byte for byte.
int32_t isLocalHostName(const char* name);

// The variable TEMP, else TMP, whichever is set and not empty, else "/tmp". Not a copy.
const char* temporaryDirectory();

// A name out of the thread's id and the clock's microseconds; no file is made or looked for. A null
// directory means temporaryDirectory(), a null prefix "T-". An empty directory gives the bare name,
// after a warning. The name without its directory is cut at 1023 bytes. Released with free; null
// when there is no memory.
[[nodiscard]] char* temporaryName(const char* directory, const char* prefix);

// --- identity (process_identity.cc) ---

// Changes the user or group id as setuid and setgid do. 1, or -1.
[[nodiscard]] int32_t setUserId(uid_t user);
[[nodiscard]] int32_t setGroupId(gid_t group);

// Looks a user or group up by name or id. 1: the record is filled and its texts stand in `scratch`,
// an array that the caller deletes. -1: `scratch` is null; ENOENT: unknown.
// The array has the size that sysconf(3) names and does not grow: an entry that needs more, such as
// a group with many members, is never found (ERANGE).
[[nodiscard]] int32_t lookupUser(const char* name, passwd& record, char*& scratch);
[[nodiscard]] int32_t lookupGroup(const char* name, group& record, char*& scratch);
[[nodiscard]] int32_t lookupUserById(uid_t id, passwd& record, char*& scratch);
[[nodiscard]] int32_t lookupGroupById(gid_t id, group& record, char*& scratch);

// The id of a name, or -1. An id of 2^31 or more comes back negative; lookupUser and lookupGroup
// give it whole.
[[nodiscard]] int32_t userIdOf(const char* name);
[[nodiscard]] int32_t groupIdOf(const char* name);
// Puts the name of an id into the string slot. 1, or -1 with the slot as it was.
[[nodiscard]] int32_t userNameOf(char*& slot, uid_t id);
[[nodiscard]] int32_t groupNameOf(char*& slot, gid_t id);

using options::parseOption;

// --- start (process_start.cc) ---

// Forks while no other thread is inside an accessor of the logger; the child gets a fresh logger
// mutex, so both may log on. 0 in the child, the child's process id in the parent, or -1 (nothing
// is logged).
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
//   error           old numbers. One descriptor may serve several roles when each of them names it.
//                   -1 or the role's own number keeps the parent's, but not a number that serves
//                   another role: input 1 and output -1 leave the child without an output.
//   priority        niceness or priority class of the child. It is always set: there is no value
//                   that keeps the parent's, and -1 is niceness -1.
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
