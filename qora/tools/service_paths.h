// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/service_paths.h -- Where the service and its encoder library are, when nobody says.
//
// A build folder has both beside the tool; an installation has the tool in bin/, the service in
// libexec/qora/ and the codec root in lib/qora/.
#pragma once

#include <cstdint>
#include <string>

namespace qora::tools {

// The folder of the running program; empty when the system does not tell.
std::string programFolder();

// The first place below `folder` that has it; the first place at all when none has.
std::string findService(const std::string& folder);
std::string findCodecRoot(const std::string& folder);

// The program that runs the service under its system call filter.
std::string sandboxBeside(const std::string& service);

// Fills in what a command line left empty: the service's program, and the codec root from
// $QORA_SYSTEM or beside us. 1, or -1 with a phrase in `problem` when there is no encoder library.
int32_t completePaths(std::string& service, std::string& codecRoot, std::string& problem);

// Whether the service would find a library below `root`.
bool hasEncoderLibrary(const std::string& root);

}  // namespace qora::tools
