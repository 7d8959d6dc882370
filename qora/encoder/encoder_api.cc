// SPDX-License-Identifier: BSD-2-Clause
#include "qora/encoder/encoder_api.h"

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "qora/base/error_text.h"
#include "qora/base/file.h"
#include "qora/base/keep_errno.h"
#include "qora/base/library.h"
#include "qora/base/logger.h"

namespace qora::encoder {
namespace {

EncoderApi api;

struct OpenFunction {
  const char* name;
  int32_t build;
};

// Newest first, the rest ascending. 161 is not probed although a filler for it exists:
// installations with such a library at the first place count on the one at the second.
constexpr OpenFunction kOpenFunctions[] = {
    {"x264_encoder_open_142", 142}, {"x264_encoder_open_128", 128}, {"x264_encoder_open_129", 129},
    {"x264_encoder_open_130", 130}, {"x264_encoder_open_132", 132}, {"x264_encoder_open_133", 133},
    {"x264_encoder_open_135", 135}, {"x264_encoder_open_138", 138},
};

template <auto Slot>
void storeSymbol(void* symbol) {
  api.*Slot = reinterpret_cast<std::remove_reference_t<decltype(api.*Slot)>>(symbol);
}

struct RequiredFunction {
  const char* name;
  void (*store)(void* symbol);
};

constexpr RequiredFunction kRequiredFunctions[] = {
    {"x264_encoder_reconfig", storeSymbol<&EncoderApi::x264_encoder_reconfig>},
    {"x264_encoder_close", storeSymbol<&EncoderApi::x264_encoder_close>},
    {"x264_encoder_encode", storeSymbol<&EncoderApi::x264_encoder_encode>},
    {"x264_encoder_invalidate_reference",
     storeSymbol<&EncoderApi::x264_encoder_invalidate_reference>},
    {"x264_encoder_get_last_quantizer", storeSymbol<&EncoderApi::x264_encoder_get_last_quantizer>},
    {"x264_picture_init", storeSymbol<&EncoderApi::x264_picture_init>},
    {"x264_param_default_preset", storeSymbol<&EncoderApi::x264_param_default_preset>},
    {"x264_encoder_parameters", storeSymbol<&EncoderApi::x264_encoder_parameters>},
    {"x264_param_apply_profile", storeSymbol<&EncoderApi::x264_param_apply_profile>},
};

void freeLibraryPath() {
  free(api.libraryPath);
  api.libraryPath = nullptr;
}

// Closes the library and forgets everything but the resolved functions. errno changes only when
// the close fails.
void forgetLibrary() {
  if (api.libraryHandle != nullptr) {
    keepErrnoUnlessFailed([] { return library::close(api.libraryHandle); });
  }
  api.libraryHandle = nullptr;
  freeLibraryPath();
  api.fillParameters = nullptr;
  api.buildNumber = 0;
}

void warnMissingFunction(const char* name) {
  KeepErrno keep;
  logStream() << "CodecLoad: WARNING! Can't load '" << name << "' function.\n";
}

void warnNoEnvironment() {
  KeepErrno keep;
  logStream() << "CodecLoad: WARNING! Can't find QORA_SYSTEM environment.\n";
}

int32_t resolveOpenFunction() {
  for (const OpenFunction& function : kOpenFunctions) {
    storeSymbol<&EncoderApi::x264_encoder_open>(library::resolve(api.libraryHandle, function.name));
    if (api.x264_encoder_open != nullptr) {
      api.buildNumber = function.build;
      return 1;
    }
  }
  warnMissingFunction("x264_encoder_open");
  return -1;
}

int32_t resolveRequiredFunctions() {
  for (const RequiredFunction& function : kRequiredFunctions) {
    void* symbol = library::resolve(api.libraryHandle, function.name);
    function.store(symbol);
    if (symbol == nullptr) {
      warnMissingFunction(function.name);
      return -1;
    }
  }
  return 1;
}

int32_t chooseFiller() {
  api.fillParameters = fillParametersFor(api.buildNumber);
  if (api.fillParameters != nullptr) return 1;
  KeepErrno keep;
  // Kept with this prefix: parents match the line. Every probed build has a filler, so only a new
  // probe could lead here.
  logStream() << "Function: ERROR! Unknown library version " << api.buildNumber << ".\n";
  return -1;
}

int32_t composeLibraryPath(const char* root, const char* suffix) {
  const auto rootLength = static_cast<uint32_t>(strlen(root));
  const auto suffixSize = static_cast<uint32_t>(strlen(suffix)) + 1;
  auto* path = static_cast<char*>(realloc(api.libraryPath, size_t{rootLength} + suffixSize));
  api.libraryPath = path;
  if (path == nullptr) {
    KeepErrno keep;
    logStream() << "CodecLoad: WARNING! Can't allocate " << rootLength + suffixSize
                << " bytes for the library path.\n";
    return -1;
  }
  memcpy(path, root, rootLength);
  memcpy(path + rootLength, suffix, suffixSize);
  return 1;
}

// Opens api.libraryPath and fills the table. 1, or -1 with the library closed again.
int32_t resolveEncoderApi() {
  api.libraryHandle = library::open(api.libraryPath);
  if (api.libraryHandle == nullptr) {
    KeepErrno keep;
    logStream() << "CodecLoad: WARNING! Can't load '" << orNil(api.libraryPath) << "' library.\n";
    return -1;
  }
  if (resolveOpenFunction() == 1 && resolveRequiredFunctions() == 1 && chooseFiller() == 1) {
    return 1;
  }
  forgetLibrary();
  return -1;
}

// 1 when the library at root + suffix is loaded, else -1 with the path freed.
int32_t tryCandidate(const char* root, const char* suffix) {
  if (composeLibraryPath(root, suffix) == 1 && file::exists(nullptr, api.libraryPath) == 1 &&
      resolveEncoderApi() == 1) {
    return 1;
  }
  freeLibraryPath();
  return -1;
}

int32_t locateEncoderLibrary() {
  if (const char* root = getenv("QORA_SYSTEM"); root != nullptr) {
    if (tryCandidate(root, "/lib/libx264.so") == 1) return 1;
  } else {
    warnNoEnvironment();
  }
  // Read afresh for the second place, so without the variable the warning comes twice: parents that
  // watch the log know the pair.
  const char* root = getenv("QORA_SYSTEM");
  if (root == nullptr) {
    warnNoEnvironment();
    return -1;
  }
  return tryCandidate(root, "/codec/lib/libx264.so");
}

}  // namespace

EncoderApi& encoderApi() {
  return api;
}

int32_t loadEncoderLibrary() {
  if (api.libraryHandle != nullptr) return 0;
  return locateEncoderLibrary();
}

int32_t unloadEncoderLibrary() {
  forgetLibrary();
  return 1;
}

}  // namespace qora::encoder
