// qora/service/loop.h -- The life of the service: start, one message after another, orderly
// shutdown.
#pragma once

#include <cstdint>

namespace qora::service {

// Runs the service on descriptors 0, 1 and 2 until the input ends or a handler fails. Returns the
// exit status: 0 after end of input, else errno of what ended it. Fatal reporters do not return.
int32_t runService();

}  // namespace qora::service
