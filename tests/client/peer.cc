// SPDX-License-Identifier: BSD-2-Clause
#include "tests/client/peer.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>

namespace qora::client::peer {
namespace {

std::map<std::string, std::function<int()>>& peers() {
  static std::map<std::string, std::function<int()>> all;
  return all;
}

bool fill(Bytes& bytes, size_t from) {
  for (ssize_t count = 0; from < bytes.size(); from += static_cast<size_t>(count)) {
    count = ::read(0, &bytes[from], bytes.size() - from);
    if (count <= 0) return false;
  }
  return true;
}

}  // namespace

bool addPeer(const std::string& name, std::function<int()> serve) {
  return peers().emplace(name, std::move(serve)).second;
}

int32_t startPeer(CodecClient& client, const std::string& name, ServiceOptions options) {
  setenv("PEER", name.c_str(), 1);
  options.servicePath = "/proc/self/exe";
  const int32_t started = client.start(options);
  unsetenv("PEER");
  return started;
}

bool noChildIsLeft() {
  return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

void put(const Bytes& bytes, int descriptor) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t count = ::write(descriptor, &bytes[done], bytes.size() - done);
    if (count <= 0) _exit(77);
    done += static_cast<size_t>(count);
  }
}

Bytes head(uint32_t frameSize) {
  const auto fields = service::buildReplyHead({1, 255, frameSize, 0xFFFFFFFE, 3});
  Bytes bytes(fields.size());
  std::copy(fields.begin(), fields.end(), bytes.begin());
  return bytes;
}

Bytes replyWith(const Bytes& frame) {
  Bytes bytes = head(static_cast<uint32_t>(frame.size()));
  bytes.resize(bytes.size() + frame.size());
  std::copy(frame.rbegin(), frame.rend(), bytes.rbegin());
  return bytes;
}

Bytes reply(uint32_t frameSize) {
  return replyWith(Bytes(frameSize));
}

Bytes nextCommand() {
  Bytes command(service::kHeaderSize);
  if (!fill(command, 0)) return {};
  command.resize(service::readUint32(command.data(), 0));
  return fill(command, service::kHeaderSize) ? command : Bytes{};
}

int hang() {
  while (true) pause();
}

}  // namespace qora::client::peer

int main(int argc, char* argv[]) {
  if (const char* name = getenv("PEER")) _exit(qora::client::peer::peers().at(name)());
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
