// qora/tools/service_paths.h -- Where the service and its encoder library are, when nobody says.
//
// A build folder has both beside the tool; an installation has the tool in bin/, the service in
// libexec/qora/ and the codec root in lib/qora/.
#pragma once

#include <string>

namespace qora::tools {

// The folder of the running program; empty when the system does not tell.
std::string programFolder();

// The first place below `folder` that has it; the first place at all when none has.
std::string findService(const std::string& folder);
std::string findCodecRoot(const std::string& folder);

// The program that runs the service under its system call filter.
std::string sandboxBeside(const std::string& service);

// Whether the service would find a library below `root`.
bool hasEncoderLibrary(const std::string& root);

}  // namespace qora::tools
