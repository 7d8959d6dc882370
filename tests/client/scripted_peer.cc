// Stands in for the service. PEER_SCRIPT in its environment tells what it does:
//   exit N, signal N   ends at once
//   echo               answers an encode with all command bytes since its last answer
//   size N             answers with N bytes of the stream's number
//   tell               answers with its QORA_SYSTEM and its open descriptors
//   half N             begins an answer, then ends with status N
//   garbage            answers with something else
//   hang               answers nothing, and does not end with its input
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "qora/service/wire/messages.h"

static std::string tellSurroundings() {
  std::string text = getenv("QORA_SYSTEM");
  for (int fd = 0; fd < 64; ++fd) {
    if (fcntl(fd, F_GETFD) != -1) text.append(1, ' ').append(std::to_string(fd));
  }
  return text;
}

int main() {
  const std::string script = getenv("PEER_SCRIPT");
  const std::string verb = script.substr(0, script.find(' '));
  const int number = atoi(script.c_str() + verb.size());
  if (verb == "exit") return number;
  if (verb == "signal") raise(number);

  std::string received;
  for (uint8_t head[6]; fread(head, 1, 6, stdin) == 6;) {
    std::string body(static_cast<size_t>(head[0] + head[1] * 256 + head[2] * 65536 - 6), '\0');
    if (fread(body.data(), 1, body.size(), stdin) != body.size()) break;
    received.append(head, head + 6).append(body);
    if (head[4] != 2 || verb == "hang") continue;

    const std::string frame = verb == "echo"   ? received
                              : verb == "tell" ? tellSurroundings()
                                               : std::string(static_cast<size_t>(number), body[0]);
    const auto answer =
        qora::service::buildReplyHead({1, 255, static_cast<uint32_t>(frame.size()), 0xFFFFFFFE, 3});
    received.assign(answer.begin(), answer.end()).append(frame);
    if (verb == "half") received.resize(received.size() / 2);
    if (verb == "garbage") received.assign(20, 'x');
    fwrite(received.data(), 1, received.size(), stdout);
    fflush(stdout);
    if (verb == "half") return number;
    received.clear();
  }
  if (verb == "hang") pause();
  return 0;
}
