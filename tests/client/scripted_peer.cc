// Stands in for the service. PEER_SCRIPT in its environment tells what it does:
//   exit N, signal N   ends at once
//   echo               answers an encode with all command bytes since its last answer
//   size N             answers with N bytes of the stream's number
//   tell               answers with its QORA_SYSTEM and its open descriptors
//   half N             begins an answer, then ends with status N
//   garbage            answers with something else
//   hang               does not end with its input
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "service/byte_order.h"
#include "service/messages.h"

namespace {

// False at the end of input.
bool readAll(char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t count = ::read(0, bytes, size);
    if (count <= 0) return false;
    bytes += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

void writeAll(const std::string& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t count = ::write(1, bytes.data() + done, bytes.size() - done);
    if (count <= 0) _exit(32);
    done += static_cast<size_t>(count);
  }
}

std::string tellSurroundings() {
  std::string text = getenv("QORA_SYSTEM");
  for (int fd = 0; fd < 64; ++fd) {
    if (fcntl(fd, F_GETFD) != -1) text.append(1, ' ').append(std::to_string(fd));
  }
  return text;
}

}  // namespace

int main() {
  const std::string script = getenv("PEER_SCRIPT");
  const std::string verb = script.substr(0, script.find(' '));
  const int number = atoi(script.c_str() + verb.size());
  if (verb == "exit") return number;
  if (verb == "signal") raise(number);

  std::string received;
  for (std::string command(6, '\0'); readAll(command.data(), 6); command.resize(6)) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(command.data());
    command.resize(qora::service::readUint32(bytes, 0));
    if (!readAll(command.data() + 6, command.size() - 6)) break;
    received += command;
    if (command[4] != 2) continue;

    std::string frame = verb == "echo"   ? received
                        : verb == "tell" ? tellSurroundings()
                                         : std::string(static_cast<size_t>(number), command[6]);
    const auto head =
        qora::service::buildReplyHead({.keyFrame = 1,
                                       .quantizer = 255,
                                       .frameSize = static_cast<uint32_t>(frame.size()),
                                       .startTime = 0xFFFFFFFE,
                                       .endTime = 3});
    const std::string answer = std::string(head.begin(), head.end()) + frame;
    if (verb == "half") {
      writeAll(answer.substr(0, answer.size() / 2));
      return number;
    }
    writeAll(verb == "garbage" ? std::string(20, 'x') : answer);
    received.clear();
  }
  if (verb == "hang") pause();
  return 0;
}
