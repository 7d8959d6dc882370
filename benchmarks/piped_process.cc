// SPDX-License-Identifier: BSD-2-Clause
#include "benchmarks/piped_process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "benchmarks/give_up.h"

namespace qora::bench {

bool readAll(int fd, void* bytes, size_t size) {
  for (ssize_t count; size > 0; size -= static_cast<size_t>(count)) {
    count = ::read(fd, bytes, size);
    if (count <= 0) return false;
    bytes = static_cast<uint8_t*>(bytes) + count;
  }
  return true;
}

bool writeAll(int fd, const void* bytes, size_t size) {
  for (ssize_t count; size > 0; size -= static_cast<size_t>(count)) {
    count = ::write(fd, bytes, size);
    if (count <= 0) return false;
    bytes = static_cast<const uint8_t*>(bytes) + count;
  }
  return true;
}

PipedProcess::PipedProcess(const std::function<void()>& body) {
  constexpr int kPipeSize = 256 << 10;  // as the client has it
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) == -1 || pipe2(out, O_CLOEXEC) == -1) giveUp("no pipe");
  for (const int end : {in[0], out[0]}) fcntl(end, F_SETPIPE_SZ, kPipeSize);
  process_ = fork();
  if (process_ == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    for (const int end : {in[0], in[1], out[0], out[1]}) close(end);
    body();
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  input_.reset(in[1]);
  output_.reset(out[0]);
}

PipedProcess::PipedProcess(const std::string& program, const std::vector<std::string>& environment)
    : PipedProcess([&] {
        for (const std::string& entry : environment) putenv(strdup(entry.c_str()));
        execl(program.c_str(), program.c_str(), nullptr);
      }) {}

PipedProcess::~PipedProcess() {
  input_.reset();
  output_.reset();
  waitpid(process_, nullptr, 0);
}

void PipedProcess::write(const void* bytes, size_t size) {
  if (!writeAll(input_.get(), bytes, size)) giveUp("a process takes no command");
}

void PipedProcess::read(void* bytes, size_t size) {
  if (!readAll(output_.get(), bytes, size)) giveUp("a process gives no reply");
}

}  // namespace qora::bench
