// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/error_reports.h"

#include <cerrno>

#include "qora/base/logger.h"

namespace qora {
namespace {

// Who rejected the call.
struct Caller {
  const char* className;
  const char* method;
  const char* context;
};

// How a line ends: after the context, or with a value after that.
struct PlainEnd {};
template <typename Value>
struct ValueEnd {
  Value value;
};

std::ostream& operator<<(std::ostream& stream, PlainEnd) {
  return stream << "].\n";
}

template <typename Value>
std::ostream& operator<<(std::ostream& stream, const ValueEnd<Value>& end) {
  return stream << "] value '" << end.value << "'.\n";
}

// Writes both lines, `text` piece by piece, and sets errno.
template <typename End, typename... Text>
void report(int32_t error, const Caller& caller, const End& end, const Text&... text) {
  const auto writeRest = [&](std::ostream& stream) {
    (stream << ... << text) << " in method '" << caller.className << "::" << caller.method
                            << "()' context [" << caller.context << end;
  };
  writeRest(logStream() << caller.className << ": ERROR! ");
  writeRest(errorStream());
  errno = error;
}

}  // namespace

void reportBadValue(const char* className, int32_t value, const char* method, const char* context) {
  report(EINVAL, {className, method, context}, PlainEnd{}, "Bad value '", value, "'");
}

void reportBadValue(const char* className, const void* value, const char* method,
                    const char* context) {
  report(EINVAL, {className, method, context}, PlainEnd{}, "Bad value '", value, "'");
}

void reportBadValue(const char* className, const char* value, const char* method,
                    const char* context) {
  report(EINVAL, {className, method, context}, PlainEnd{}, "Bad value '", value, "'");
}

void reportBadValueForType(const char* className, int32_t type, int32_t value, const char* method,
                           const char* context) {
  report(EINVAL, {className, method, context}, PlainEnd{}, "Bad value '", value, "' for type '",
         type, "'");
}

void reportBadPointer(const char* className, const void* pointer, const char* method,
                      const char* context) {
  report(EINVAL, {className, method, context}, PlainEnd{}, "Bad pointer '", pointer, "'");
}

void reportNotPermitted(const char* className, const char* method, const char* context) {
  report(EPERM, {className, method, context}, PlainEnd{}, "Operation not permitted");
}

void reportNotImplemented(const char* className, const char* method, const char* context) {
  report(ENOSYS, {className, method, context}, PlainEnd{}, "Not implemented");
}

void reportNotImplemented(const char* className, int32_t value, const char* method,
                          const char* context) {
  report(ENOSYS, {className, method, context}, ValueEnd<int32_t>{value}, "Not implemented");
}

void reportNotImplemented(const char* className, const void* value, const char* method,
                          const char* context) {
  report(ENOSYS, {className, method, context}, ValueEnd<const void*>{value}, "Not implemented");
}

void reportAllocationFailed(const char* className, const char* method, const char* context) {
  report(ENOMEM, {className, method, context}, PlainEnd{}, "Memory allocation failed");
}

void reportInvalidState(const char* className, const char* method, const char* context) {
  report(EACCES, {className, method, context}, PlainEnd{}, "Invalid state for object");
}

void reportBadDescriptorState(const char* className, const char* method, const char* context) {
  report(EBADF, {className, method, context}, PlainEnd{}, "Bad descriptor state");
}

void reportBufferNotFound(const char* className, const char* method, const char* context) {
  report(ENXIO, {className, method, context}, PlainEnd{}, "Buffer not found");
}

void reportInvalidBufferOwner(const char* className, const char* method, const char* context) {
  report(EDEADLK, {className, method, context}, PlainEnd{}, "Invalid buffer owner");
}

void reportBadEvent(const char* className, const char* event, const char* method,
                    const char* context) {
  report(EBADE, {className, method, context}, PlainEnd{}, "Bad event '", event, "'");
}

void reportInvalidOperationForType(const char* className, const char* type, const char* method,
                                   const char* context) {
  report(EOPNOTSUPP, {className, method, context}, PlainEnd{}, "Invalid operation for type '", type,
         "'");
}

void reportInvalidOperationForProto(const char* className, const char* protocol, const char* method,
                                    const char* context) {
  report(EPROTO, {className, method, context}, PlainEnd{}, "Invalid operation for proto '",
         protocol, "'");
}

}  // namespace qora
