// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/service_paths.h"

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

}  // namespace

std::string programFolder() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0 || length == sizeof path) return "";
  const std::string program(path, static_cast<size_t>(length));
  return program.substr(0, program.rfind('/'));
}

std::string findService(const std::string& folder) {
  for (const char* place : kServicePlaces) {
    if (isThere(folder + place)) return folder + place;
  }
  return folder + kServicePlaces[0];
}

std::string findCodecRoot(const std::string& folder) {
  for (const char* place : kRootPlaces) {
    if (hasEncoderLibrary(folder + place)) return folder + place;
  }
  return folder + kRootPlaces[0];
}

std::string sandboxBeside(const std::string& service) {
  const size_t slash = service.rfind('/');
  return service.substr(0, slash == std::string::npos ? 0 : slash + 1) + "qora-sandbox";
}

int32_t completePaths(std::string& service, std::string& codecRoot, std::string& problem) {
  const std::string folder = programFolder();
  if (service.empty()) service = findService(folder);
  const char* root = std::getenv("QORA_SYSTEM");
  if (codecRoot.empty()) codecRoot = root != nullptr ? root : findCodecRoot(folder);
  if (hasEncoderLibrary(codecRoot)) return 1;
  problem = "no encoder library in codec root '" + codecRoot +
            "': neither lib/libx264.so nor codec/lib/libx264.so is there";
  return -1;
}

bool hasEncoderLibrary(const std::string& root) {
  for (const char* place : kLibraryPlaces) {
    if (isThere(root + place)) return true;
  }
  return false;
}

}  // namespace qora::tools
