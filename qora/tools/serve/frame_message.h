// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/frame_message.h -- A coded frame as pages get it. Pure.
#pragma once

#include "qora/capture/screen.h"
#include "qora/client/screen_session.h"
#include "qora/tools/serve/web_server.h"

namespace qora::serve {

// A frame of docs/stream_format.md whose access unit says what its colours are and is followed by
// the box in which the picture is another than before.
SharedMessage frameMessage(const client::CodedFrame& frame, const capture::ScreenSize& size);

}  // namespace qora::serve
