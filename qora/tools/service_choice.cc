// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/service_choice.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "qora/base/file.h"

namespace qora::tools {
namespace {

// Beside the program in a build folder; installed, below QORA_LIBEXEC and QORA_LIB, which the build
// names as seen from the program's folder.
constexpr const char* kServicePlaces[] = {"/qora-codec", "/" QORA_LIBEXEC "/qora/qora-codec"};
constexpr const char* kRootPlaces[] = {"/codec-root", "/" QORA_LIB "/qora/codec-root"};
constexpr const char* kLibraryPlaces[] = {"/lib/libx264.so", "/codec/lib/libx264.so"};

bool isThere(const std::string& path) {
  return file::exists(nullptr, path.c_str()) == 1;
}

bool hasEncoderLibrary(const std::string& root) {
  for (const char* place : kLibraryPlaces) {
    if (isThere(root + place)) return true;
  }
  return false;
}

// The folder of the running program; empty when the system does not tell.
std::string programFolder() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0 || length == sizeof path) return "";
  const std::string program(path, static_cast<size_t>(length));
  return program.substr(0, program.rfind('/'));
}

// The first place below the folder that has it; the first place at all when none has.
std::string serviceBelow(const std::string& folder) {
  for (const char* place : kServicePlaces) {
    if (isThere(folder + place)) return folder + place;
  }
  return folder + kServicePlaces[0];
}

std::string codecRootBelow(const std::string& folder) {
  for (const char* place : kRootPlaces) {
    if (hasEncoderLibrary(folder + place)) return folder + place;
  }
  return folder + kRootPlaces[0];
}

// The program that runs the service under its system call filter.
std::string sandboxBeside(const std::string& service) {
  const size_t slash = service.rfind('/');
  return service.substr(0, slash == std::string::npos ? 0 : slash + 1) + "qora-sandbox";
}

}  // namespace

void addServiceOptions(OptionTable& table, ServiceChoice& choice) {
  const std::string beside = "beside " + table.program() + ")";
  table.string(choice.path, {"service", 0, "PATH", "the service's program (default: " + beside});
  table.string(choice.codecRoot, {"codec-root", 0, "DIR",
                                  "where lib/libx264.so or codec/lib/libx264.so is\n"
                                  "(default: $QORA_SYSTEM, then " +
                                      beside});
}

int32_t findService(const ServiceChoice& choice, client::ServiceOptions& options,
                    std::string& problem) {
  const std::string folder = programFolder();
  const char* const system = std::getenv("QORA_SYSTEM");
  options.servicePath = choice.path.empty() ? serviceBelow(folder) : choice.path;
  options.codecRoot = !choice.codecRoot.empty() ? choice.codecRoot
                      : system != nullptr       ? system
                                                : codecRootBelow(folder);
  options.sandboxPath = choice.sandbox ? sandboxBeside(options.servicePath) : "";
  if (hasEncoderLibrary(options.codecRoot)) return 1;
  problem = "no encoder library in codec root '" + options.codecRoot +
            "': neither lib/libx264.so nor codec/lib/libx264.so is there";
  return -1;
}

}  // namespace qora::tools
