// fuzz/service_process.h -- The built service as a child process, over real pipes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qora::test {

using Bytes = std::vector<uint8_t>;

// How a run ended: wait status, all of standard output, standard error without time prefixes.
struct Ending {
  int32_t status;  // exit status; -signal when one killed it
  Bytes output;
  std::string log;
};

// Starts `program` with extra environment entries ("NAME=value"). Reads and writes are the test's;
// the log is collected in a file, so the service never waits for it.
class ServiceProcess {
 public:
  ServiceProcess(const std::string& program, const std::vector<std::string>& environment);
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  void write(const Bytes& bytes);
  Bytes read(size_t count);  // fewer at end of output
  void closeInput();
  void closeOutput();
  pid_t pid() const { return pid_; }
  Ending finish();  // closes the input, reads what is left, waits

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int log_ = -1;
};

// One run: all of `input` at once, then end of input.
Ending runService(const std::string& program, const std::vector<std::string>& environment,
                  const Bytes& input);

}  // namespace qora::test
