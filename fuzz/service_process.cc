#include "fuzz/service_process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "tests/support/captured_log.h"

namespace qora::test {
namespace {

void closeDescriptor(int& fd) {
  if (fd != -1) ::close(fd);
  fd = -1;
}

std::string contentOf(int fd) {
  std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
  text.resize(static_cast<size_t>(pread(fd, text.data(), text.size(), 0)));
  return text;
}

}  // namespace

ServiceProcess::ServiceProcess(const std::string& program,
                               const std::vector<std::string>& environment) {
  ::signal(SIGPIPE, SIG_IGN);
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) abort();
  log_ = memfd_create("log", MFD_CLOEXEC);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(log_, 2);
    ::signal(SIGPIPE, SIG_DFL);
    for (const std::string& entry : environment) {
      const size_t equals = entry.find('=');
      setenv(entry.substr(0, equals).c_str(), entry.c_str() + equals + 1, 1);
    }
    execl(program.c_str(), program.c_str(), nullptr);
    _exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  input_ = in[1];
  output_ = out[0];
}

ServiceProcess::~ServiceProcess() {
  if (pid_ != -1) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  for (int* fd : {&input_, &output_, &log_}) closeDescriptor(*fd);
}

void ServiceProcess::write(const Bytes& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t count = ::write(input_, bytes.data() + done, bytes.size() - done);
    if (count <= 0) return;  // the service has ended; the test sees it in the ending
    done += static_cast<size_t>(count);
  }
}

Bytes ServiceProcess::read(size_t count) {
  Bytes bytes(count);
  size_t done = 0;
  while (done < count) {
    const ssize_t got = ::read(output_, bytes.data() + done, count - done);
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  bytes.resize(done);
  return bytes;
}

void ServiceProcess::closeInput() {
  closeDescriptor(input_);
}
void ServiceProcess::closeOutput() {
  closeDescriptor(output_);
}

Ending ServiceProcess::finish() {
  closeInput();
  Ending ending{};
  while (output_ != -1) {
    const Bytes more = read(65536);
    if (more.empty()) break;
    ending.output.insert(ending.output.end(), more.begin(), more.end());
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  ending.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  ending.log = stripTimePrefixes(contentOf(log_));
  return ending;
}

Ending runService(const std::string& program, const std::vector<std::string>& environment,
                  const Bytes& input) {
  ServiceProcess service(program, environment);
  service.write(input);
  return service.finish();
}

}  // namespace qora::test
