// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/library.h"

#include <dlfcn.h>

#include <cassert>
#include <cerrno>

#include "qora/base/error_text.h"
#include "qora/base/logger.h"

namespace qora::library {

void* open(const char* path) {
  if (path == nullptr) {
    // "libary" is how this line has always been written: what filters our logs looks for it.
    logStream() << "Library: ERROR! Invalid libary path 'nil'.\n";
    errno = EINVAL;
    return nullptr;
  }
  void* const handle = dlopen(path, RTLD_LAZY);
  if (handle == nullptr) errno = ENOENT;
  return handle;
}

void* resolve(void* handle, const char* name) {
  assert(name != nullptr);
  void* const address = dlsym(handle, name);
  if (address != nullptr) return address;
  const char* const reason = dlerror();
  logStream() << "Library: WARNING! Could not resolve symbol '" << name << "'.\n";
  // No full stop here, unlike the line of close(): what filters our logs looks for both.
  logStream() << "Library: WARNING! Error is '" << orNil(reason) << "'\n";
  errno = ENOMSG;
  return nullptr;
}

int32_t close(void* handle) {
  if (dlclose(handle) == 0) return 0;
  const char* const reason = dlerror();
  logStream() << "Library: WARNING! Could not close library " << handle << ".\n";
  logStream() << "Library: WARNING! Error is '" << orNil(reason) << "'.\n";
  errno = ENOMSG;
  return -1;
}

}  // namespace qora::library
