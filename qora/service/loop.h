// SPDX-License-Identifier: BSD-2-Clause
// qora/service/loop.h -- The life of the service: start, one message after another, orderly
// shutdown.
#pragma once

#include <cstdint>

namespace qora::service {

// Runs the service on descriptors 0, 1 and 2 until the input ends or a handler fails. Returns the
// exit status: 0 after end of input (EIO), else errno as it stands after the shutdown. That is the
// errno of what failed, or, where the failure sets none, of the last call that did: 0 as a rule.
// Fatal reporters do not return.
int32_t runService();

}  // namespace qora::service
