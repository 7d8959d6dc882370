// SPDX-License-Identifier: BSD-2-Clause
// benchmarks/piped_process.h -- A child behind two plain pipes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "qora/base/descriptor.h"

namespace qora::bench {

// Reads or writes all of `size` bytes. False at the end of the input or after a failure.
bool readAll(int fd, void* bytes, size_t size);
bool writeAll(int fd, const void* bytes, size_t size);

class PipedProcess {
 public:
  // Runs `body` with the pipes as standard input and output.
  explicit PipedProcess(const std::function<void()>& body);
  // A program, with extra environment entries ("NAME=value").
  PipedProcess(const std::string& program, const std::vector<std::string>& environment);
  ~PipedProcess();
  PipedProcess(const PipedProcess&) = delete;
  PipedProcess& operator=(const PipedProcess&) = delete;

  void write(const void* bytes, size_t size);
  void read(void* bytes, size_t size);

 private:
  pid_t process_;
  Descriptor input_, output_;
};

}  // namespace qora::bench
