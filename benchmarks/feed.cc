// bench_feed CLIP.y4m OUTPUT COMMAND... -- Runs an encoder with a clip on its standard input and
// measures it from outside, so that every program is measured in the same way. Prints one CSV line:
// frames, seconds, p50 and p99 milliseconds a frame, CPU seconds, MiB of memory, bytes of OUTPUT.
//
// The pipe holds less than a picture, so an encoder takes the last bytes of one only after it is
// done with the one before: the times between those are its times a frame. The pipe is given the
// clip's own pages, so that filling it takes no CPU from the encoder. Memory is the highest
// of the program and its children together, shared pictures counted once.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPipeSize = 1 << 20;
constexpr std::string_view kFrame = "FRAME\n";

[[noreturn]] void giveUp(const char* what) {
  perror(what);
  exit(1);
}

double milliseconds(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

std::string_view contentOf(const char* path) {
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (file == -1 || fstat(file, &status) == -1) giveUp(path);
  const auto size = static_cast<size_t>(status.st_size);
  void* data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file, 0);
  if (data == MAP_FAILED) giveUp(path);
  return {static_cast<const char*>(data), size};
}

// The clip's header with its first frame, then every other frame.
std::vector<std::string_view> framesOf(std::string_view clip) {
  const size_t first = clip.find('\n') + 1;
  // Frames are of one size: as far as from the first to the end of the last, by their number.
  const std::string_view header = clip.substr(0, first);
  const auto number = [&header](const char* tag) {
    return static_cast<size_t>(atoi(header.data() + header.find(tag) + 2));
  };
  const size_t width = number(" W"), height = number(" H");
  const size_t size = kFrame.size() + width * height * 3 / 2;
  std::vector<std::string_view> frames = {clip.substr(0, first + size)};
  for (size_t at = first + size; at + size <= clip.size(); at += size) {
    frames.push_back(clip.substr(at, size));
  }
  return frames;
}

pid_t start(char* command[], int& input) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) == -1) giveUp("pipe");
  fcntl(ends[1], F_SETPIPE_SZ, kPipeSize);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[0], STDIN_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    execvp(command[0], command);
    perror(command[0]);
    _exit(127);
  }
  close(ends[0]);
  input = ends[1];
  return child;
}

bool giveAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const iovec part = {const_cast<char*>(bytes.data()), bytes.size()};
    const ssize_t count = vmsplice(fd, &part, 1, 0);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

struct Memory {
  long own = 0, shared = 0;  // KiB
};

void addMemory(pid_t process, Memory& sum) {
  const std::string folder = "/proc/" + std::to_string(process);
  std::ifstream status(folder + "/status");
  long peak = 0, shared = 0;
  for (std::string line; std::getline(status, line);) {
    const char* value = line.c_str() + line.find(':') + 1;
    if (line.starts_with("VmHWM:")) peak = atol(value);
    if (line.starts_with("RssShmem:")) shared = atol(value);
  }
  sum.own += peak - shared;
  sum.shared = std::max(sum.shared, shared);
  std::ifstream children(folder + "/task/" + std::to_string(process) + "/children");
  for (pid_t child; children >> child;) addMemory(child, sum);
}

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc < 4) {
    fprintf(stderr, "usage: bench_feed CLIP.y4m OUTPUT COMMAND...\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  const std::vector<std::string_view> frames = framesOf(contentOf(argv[1]));
  int input;
  const auto begin = Clock::now();
  const pid_t child = start(argv + 3, input);
  std::vector<double> times;
  auto last = begin;
  for (const std::string_view frame : frames) {
    if (!giveAll(input, frame)) break;
    const auto now = Clock::now();
    times.push_back(milliseconds(now - last));
    last = now;
  }
  Memory memory;
  addMemory(child, memory);
  close(input);
  int status = 0;
  rusage usage;
  wait4(child, &status, 0, &usage);
  const double wall = milliseconds(Clock::now() - begin) / 1000;
  if (status != 0) {
    fprintf(stderr, "bench_feed: %s failed\n", argv[3]);
    return 1;
  }
  struct stat output;
  if (stat(argv[2], &output) == -1) giveUp(argv[2]);
  std::sort(times.begin(), times.end());
  printf("%zu,%.3f,%.3f,%.3f,%.3f,%.1f,%lld\n", times.size(), wall, times[times.size() / 2],
         times[times.size() * 99 / 100], seconds(usage.ru_utime) + seconds(usage.ru_stime),
         static_cast<double>(memory.own + memory.shared) / 1024,
         static_cast<long long>(output.st_size));
  return 0;
}
