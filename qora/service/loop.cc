// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/loop.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iterator>

#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"
#include "qora/encoder/encoder_api.h"
#include "qora/service/channel.h"
#include "qora/service/fatal.h"
#include "qora/service/frame.h"
#include "qora/service/segment.h"
#include "qora/service/streams.h"
#include "qora/service/wire/byte_order.h"
#include "qora/service/wire/messages.h"

namespace qora::service {
namespace {

using Handler = int32_t (*)(uint8_t* message, int32_t size);

constexpr Handler kHandlers[] = {addStream, removeStream, encodeFrame, attachSegment,
                                 removeSegment};  // by CommandType

char errorBuffer[8192];

// Standard error line by line: our lines and the encoder library's leave whole, in one write each.
// SIGPIPE off: a parent that closed the reply end is met as a failed write.
void startDiagnostics() {
  setvbuf(stderr, errorBuffer, _IOLBF, sizeof errorBuffer);
  ::signal(SIGPIPE, SIG_IGN);
}

int32_t dispatch(uint8_t* message) {
  const int32_t size = static_cast<int32_t>(readUint32(message, 0));
  const uint8_t type = message[4];
  if (type >= std::size(kHandlers)) fatalCommand(type, "A");
  return kHandlers[type](message, size);
}

void serveMessages() {
  uint8_t* message = nullptr;
  while (nextMessage(message) != -1 && dispatch(message) >= 0) {
  }
}

int32_t shutDown() {
  releaseSegment();
  encoder::unloadEncoderLibrary();
  closeChannel();
  return errno == EIO ? 0 : errno;
}

}  // namespace

int32_t runService() {
  startDiagnostics();
  openChannel();
  if (encoder::loadEncoderLibrary() != -1) {
    serveMessages();
  } else {
    KeepErrno keep;
    warningStream() << "Can't load H.264 codec library.\n";
  }
  return shutDown();
}

}  // namespace qora::service
