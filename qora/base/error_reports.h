// qora/base/error_reports.h -- How a class rejects a call: one line on the log stream behind
// "<class>: ERROR! ", the same without that on the error stream, and errno for the caller to return
// with. The line names the method and, as `context`, the circumstances:
//     reportBadValue("File", 7, "open", "flags");
//     -> Bad value '7' in method 'File::open()' context [flags].
// A null text is inserted as it is, on purpose: the stream goes bad and swallows what follows until
// its state is cleared. errno is set all the same.
#pragma once

#include <cstdint>

namespace qora {

// EINVAL.
void reportBadValue(const char* className, int32_t value, const char* method, const char* context);
void reportBadValue(const char* className, const void* value, const char* method,
                    const char* context);
void reportBadValue(const char* className, const char* value, const char* method,
                    const char* context);
// The type comes first here, the line tells the value first.
void reportBadValueForType(const char* className, int32_t type, int32_t value, const char* method,
                           const char* context);
void reportBadPointer(const char* className, const void* pointer, const char* method,
                      const char* context);
// EPERM.
void reportNotPermitted(const char* className, const char* method, const char* context);
// ENOSYS. A value is told behind the context.
void reportNotImplemented(const char* className, const char* method, const char* context);
void reportNotImplemented(const char* className, int32_t value, const char* method,
                          const char* context);
void reportNotImplemented(const char* className, const void* value, const char* method,
                          const char* context);
// ENOMEM, EACCES, EBADF, ENXIO, EDEADLK.
void reportAllocationFailed(const char* className, const char* method, const char* context);
void reportInvalidState(const char* className, const char* method, const char* context);
void reportBadDescriptorState(const char* className, const char* method, const char* context);
void reportBufferNotFound(const char* className, const char* method, const char* context);
void reportInvalidBufferOwner(const char* className, const char* method, const char* context);
// EBADE, EOPNOTSUPP, EPROTO.
void reportBadEvent(const char* className, const char* event, const char* method,
                    const char* context);
void reportInvalidOperationForType(const char* className, const char* type, const char* method,
                                   const char* context);
void reportInvalidOperationForProto(const char* className, const char* protocol, const char* method,
                                    const char* context);

}  // namespace qora
