// SPDX-License-Identifier: BSD-2-Clause
// qora/base/error_reports.h -- How a class rejects a call: one line on the log stream after
// "<class>: ERROR! ", the same without that on the error stream, and errno for the caller to return
// with. The line names the method and, as `context`, the circumstances:
//     reportBadValue("File", 7, "open", "flags");
//     -> Bad value '7' in method 'File::open()' context [flags].
// Any thread. No text should be null: one that is makes its stream bad, and everything that is
// written there is lost from then on until somebody clears the stream's state. errno is set all the
// same.
#pragma once

#include <cstdint>

namespace qora {

// errno: EINVAL, all five. The line shows the value: decimal, as an address, or as text.
void reportBadValue(const char* className, int32_t value, const char* method, const char* context);
void reportBadValue(const char* className, const void* value, const char* method,
                    const char* context);
void reportBadValue(const char* className, const char* value, const char* method,
                    const char* context);
// The type comes first here; the line names the value first.
void reportBadValueForType(const char* className, int32_t type, int32_t value, const char* method,
                           const char* context);
void reportBadPointer(const char* className, const void* pointer, const char* method,
                      const char* context);

// errno: EPERM.
void reportNotPermitted(const char* className, const char* method, const char* context);

// errno: ENOSYS, all three. The line ends with the value, after the context.
void reportNotImplemented(const char* className, const char* method, const char* context);
void reportNotImplemented(const char* className, int32_t value, const char* method,
                          const char* context);
void reportNotImplemented(const char* className, const void* value, const char* method,
                          const char* context);

// errno: ENOMEM.
void reportAllocationFailed(const char* className, const char* method, const char* context);
// errno: EACCES.
void reportInvalidState(const char* className, const char* method, const char* context);
// errno: EBADF.
void reportBadDescriptorState(const char* className, const char* method, const char* context);
// errno: ENXIO.
void reportBufferNotFound(const char* className, const char* method, const char* context);
// errno: EDEADLK.
void reportInvalidBufferOwner(const char* className, const char* method, const char* context);

// errno: EBADE.
void reportBadEvent(const char* className, const char* event, const char* method,
                    const char* context);
// errno: EOPNOTSUPP.
void reportInvalidOperationForType(const char* className, const char* type, const char* method,
                                   const char* context);
// errno: EPROTO.
void reportInvalidOperationForProto(const char* className, const char* protocol, const char* method,
                                    const char* context);

}  // namespace qora
