// SPDX-License-Identifier: BSD-2-Clause
// What stands in for the service: the test program itself, started as a service, does what a row of
// a table says. Everything between it and the client is real.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "qora/client/codec_client.h"

namespace qora::client::peer {

using Bytes = std::vector<uint8_t>;

// Adds a way to serve under its name, at namespace scope. The service ends with what it returns.
bool addPeer(const std::string& name, std::function<int()> serve);
int32_t startPeer(CodecClient& client, const std::string& name, ServiceOptions options = {});
bool noChildIsLeft();

// For ways to serve.
void put(const Bytes& bytes, int descriptor = 1);
Bytes head(uint32_t frameSize);   // of a reply
Bytes reply(uint32_t frameSize);  // with a frame of zeros
Bytes replyWith(const Bytes& frame);
Bytes nextCommand();  // whole; empty at the end of input
int hang();

}  // namespace qora::client::peer
