// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/service_choice.h -- Which service a program starts, and with which encoder library.
//
// A build folder has both beside the tool; an installation has the tool in bin/, the service in
// libexec/qora/ and the codec root in lib/qora/.
#pragma once

#include <cstdint>
#include <string>

#include "qora/client/service_process.h"
#include "qora/tools/option_table.h"

namespace qora::tools {

// As a command line has it.
struct ServiceChoice {
  std::string path;       // of the program; empty: found beside our own
  std::string codecRoot;  // empty: $QORA_SYSTEM, or found beside our own program
  bool sandbox = false;   // it gets the system calls that it needs and no others
};

// --service and --codec-root.
void addServiceOptions(OptionTable& table, ServiceChoice& choice);

// Fills in the paths, with what was left empty. 1, or -1 with a phrase in `problem` when there is
// no encoder library.
[[nodiscard]] int32_t findService(const ServiceChoice& choice, client::ServiceOptions& options,
                                  std::string& problem);

}  // namespace qora::tools
