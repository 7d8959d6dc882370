// SPDX-License-Identifier: BSD-2-Clause
// qora/base/logger.h -- Diagnostics for the whole process, one line per call:
//     logStream() << "CodecSegment: ERROR! Failed to attach to segment id " << id << ".\n";
// An accessor flushes its stream, writes the prefix and returns the stream; the caller writes the
// rest and the newline. The logger's recursive mutex covers flush and prefix only: two threads'
// lines may mix after their prefixes. The accessors leave errno as it was; what the caller inserts
// may still change it, so a function whose errno matters holds a KeepErrno around its lines.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <fstream>
#include <ostream>

namespace qora {

// One output of the logger: where it goes now (std::clog, or a stream that the logger owns), the
// stream it replaced last (kept for whoever still holds it: what is written to it goes to standard
// error; deleted at the next replacement), and the file's name when it is a file (array, owned).
struct LogSlot {
  std::ostream* stream;
  std::ostream* retired = nullptr;
  char* fileName = nullptr;
};

struct Logger {
  LogSlot log;
  LogSlot error;
  LogSlot third;
  std::ofstream nullStream;          // never opened: swallows everything
  std::streambuf* savedErrorBuffer;  // std::clog's own, given back at destruction
  int32_t configurable = 0;          // the log and error setters act only when non-zero
  int32_t mode = 1;                  // 0 off, 1 normal, other: the log stream alone is silent
  int32_t writeText = 1;             // logText() writes its text only when non-zero
  int32_t buffered = 1;              // 0: a log file that is opened from now on is unbuffered
  int32_t lockLogPrefix = 1;         // 1: logStream() takes the mutex

  Logger();   // all three outputs on std::clog
  ~Logger();  // outputs back to std::clog, std::clog back to its own buffer
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  std::ostream& logStream();         // "<process id> <thread id> <HH:MM:SS mmm.mmm> "
  std::ostream& errorStream();       // "Error: "
  std::ostream& warningStream();     // "Warning: "
  std::ostream& infoStream();        // "Info: "
  std::ostream& sessionStream();     // "Session: "
  std::ostream& plainErrorStream();  // error stream, no prefix
  std::ostream& plainLogStream();    // log stream, no prefix
  void flushAll();
  // Writes the log prefix, `text` and a "/"; a null text makes the stream bad.
  void logText(const char* text);

  // Where the outputs go. Results: 1 done; 0 nothing to do: no name, no stream, or, for log and
  // error, not `configurable`; -1 with errno when the file cannot be opened, and the output stays
  // as it was. The mutex is not taken: configure while one thread logs.
  //
  // A file is appended to and, when it is new, readable by its owner only. Opening is tried five
  // times. `dir` may be null or empty.
  int32_t setLogFile(const char* dir, const char* name);
  int32_t setErrorFile(const char* dir, const char* name);  // std::clog goes along
  int32_t setThirdFile(const char* dir, const char* name);
  // The stream, made by new, passes to the logger and serves one output only; &std::clog puts the
  // output back.
  int32_t setLogStream(std::ostream* stream);
  int32_t setErrorStream(std::ostream* stream);  // std::clog goes along
  int32_t setThirdStream(std::ostream* stream);
  // Empties the output's file once it holds `limit` bytes or more; never for a negative limit or an
  // output that is no file. -1: it could not be opened again, the output is back on std::clog.
  int32_t truncateLogFile(int64_t limit);
  int32_t truncateErrorFile(int64_t limit);
  int32_t truncateThirdFile(int64_t limit);

 private:
  void replaceStream(LogSlot& slot, std::ostream* stream);
  int32_t setFile(LogSlot& slot, const char* dir, const char* name);
  int32_t setStream(LogSlot& slot, std::ostream* stream);
  int32_t truncateFile(LogSlot& slot, int64_t limit);
};

// The process's logger, built before main and destroyed at exit, and the one mutex of all loggers.
Logger& logger();
pthread_mutex_t& loggerMutex();

// The accessors of the process's logger.
std::ostream& logStream();
std::ostream& errorStream();
std::ostream& warningStream();
std::ostream& infoStream();
std::ostream& sessionStream();
std::ostream& plainErrorStream();
std::ostream& plainLogStream();

}  // namespace qora
