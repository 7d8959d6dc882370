// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/fatal.h"

#include <cerrno>
#include <cstdlib>

#include "qora/base/error_text.h"
#include "qora/base/logger.h"

namespace qora::service {
namespace {

constexpr int32_t kAllocationStatus = 12;
constexpr int32_t kInvalidStatus = 22;
constexpr int32_t kCommandStatus = 42;

void writeErrorLine(int32_t error) {
  errorStream() << "Error is " << error << ", '" << orNil(errorText(error)) << "'.\n";
}

}  // namespace

void fatalAllocation(int64_t bytes, const char* context) {
  const int32_t error = errno;
  errorStream() << "Can't allocate " << bytes << " bytes of memory in context [" << orNil(context)
                << "].\n";
  writeErrorLine(error);
  exit(kAllocationStatus);
}

void fatalMessageSize(int64_t size, const char* context) {
  errorStream() << "Invalid message size " << size << " in context [" << orNil(context) << "].\n";
  exit(kInvalidStatus);
}

void fatalCommand(int32_t type, const char* context) {
  errorStream() << "Invalid command '" << type << "' in context [" << orNil(context) << "].\n";
  exit(kCommandStatus);
}

void fatalOperation(const char* what, const char* name, const char* context) {
  const int32_t error = errno;
  errorStream() << "Can't " << orNil(what) << " '" << orNil(name) << "' in context ["
                << orNil(context) << "].\n";
  writeErrorLine(error);
  exit(error);
}

void fatalOption(const char* option, const char* value, const char* context) {
  // Quotes inside the brackets, here alone: what searches the log for option lines matches them.
  errorStream() << "Invalid option '" << orNil(option) << "' value '" << orNil(value)
                << "' in context ['" << orNil(context) << "'].\n";
  exit(kInvalidStatus);
}

void fatalOptionValue(const char* option, const char* value) {
  errorStream() << "Invalid option '" << orNil(option) << "' '" << orNil(value) << "'.\n";
  exit(kInvalidStatus);
}

}  // namespace qora::service
