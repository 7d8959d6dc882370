// SPDX-License-Identifier: BSD-2-Clause
// qora/base/signal.h -- The signal calls with a line on the log stream for a failure, and names.
// errno is that of the call. Old values are stored unless their pointer is null.
#pragma once

#include <signal.h>
#include <sys/time.h>

#include <cstdint>

namespace qora {
struct Logger;
}

namespace qora::signal {

using Handler = void (*)(int);

// 0, or the error number that pthread_sigmask(3) returned; that call leaves errno alone, so the
// line shows whatever errno was before.
int32_t setSignalMask(int32_t how, const sigset_t* newSet, sigset_t* oldSet);
// 0, or -1.
int32_t setSignalAction(int32_t number, const struct sigaction* action, struct sigaction* old);
int32_t setIntervalTimer(int32_t which, const itimerval* value, itimerval* old);
// The previous handler. A failure gives null, which is also the default handler: only errno (clear
// it before) and the line set them apart.
Handler setSignalHandler(int32_t number, Handler handler);

void clearSignalAction(struct sigaction& action);
void clearIntervalTimer(itimerval& timer);

// "SIGHUP" and so on; "None" for 0 and for what the table does not name.
const char* signalName(int32_t number);
// "SIG_DFL", "SIG_IGN" or "User defined".
const char* handlerName(Handler handler);

// One line on the log stream for each named signal: is it in the set? A null label reads "Signal",
// a null logger is the process's.
void dumpSignalSet(const sigset_t& set, const char* label, Logger* logger);

}  // namespace qora::signal
