// SPDX-License-Identifier: BSD-2-Clause
// qora/service/fatal.h -- The reporters that end the process at once.
//
// Each writes its line to the error stream, with the context between brackets, and leaves through
// exit(3), so the exit handlers run but no shutdown step does. Null texts print as "nil". No
// command of the service leads to the two reporters of options.
#pragma once

#include <cstdint>

namespace qora::service {

[[noreturn]] void fatalAllocation(int64_t bytes, const char* context);  // status 12
[[noreturn]] void fatalMessageSize(int64_t size, const char* context);  // status 22
[[noreturn]] void fatalCommand(int32_t type, const char* context);      // status 42
[[noreturn]] void fatalOperation(const char* what, const char* name,    // status errno
                                 const char* context);
[[noreturn]] void fatalOption(const char* option, const char* value,  // status 22
                              const char* context);
[[noreturn]] void fatalOptionValue(const char* option, const char* value);  // status 22

}  // namespace qora::service
