// bench_echo -- The least that a service could be: reads a command, writes a reply, both of fixed
// sizes, QORA_ECHO=COMMAND_BYTES,REPLY_BYTES. Ends at the end of its input.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

int main() {
  const char* sizes = getenv("QORA_ECHO");
  size_t commandBytes = 0;
  size_t replyBytes = 0;
  if (sizes == nullptr || sscanf(sizes, "%zu,%zu", &commandBytes, &replyBytes) != 2) return 2;
  std::vector<char> command(commandBytes);
  std::vector<char> reply(replyBytes);
  while (true) {
    for (size_t done = 0; done < commandBytes;) {
      const ssize_t count = read(STDIN_FILENO, command.data() + done, commandBytes - done);
      if (count <= 0) return 0;
      done += static_cast<size_t>(count);
    }
    for (size_t done = 0; done < replyBytes;) {
      const ssize_t count = write(STDOUT_FILENO, reply.data() + done, replyBytes - done);
      if (count <= 0) return 0;
      done += static_cast<size_t>(count);
    }
  }
}
