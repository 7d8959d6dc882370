#include "base/error_reports.h"

#include <gtest/gtest.h>

#include <iostream>

#include "tests/support/captured_log.h"

namespace qora {
namespace {

struct ReportCase {
  void (*report)();
  const char* text;
  int error;
  const char* end = ".\n";
};
void* const kPointer = reinterpret_cast<void*>(0x1f0);
#define REPORT(name, ...) [] { report##name("File", __VA_ARGS__ "open", "flags"); }
#define WITH(value) value,

const ReportCase kReportCases[] = {
    {REPORT(BadValue, WITH(-7)), "Bad value '-7'", EINVAL},
    {REPORT(BadValue, WITH(kPointer)), "Bad value '0x1f0'", EINVAL},
    {REPORT(BadValue, WITH("text")), "Bad value 'text'", EINVAL},
    {REPORT(BadValueForType, WITH(3) WITH(9)), "Bad value '9' for type '3'", EINVAL},
    {REPORT(BadPointer, WITH(kPointer)), "Bad pointer '0x1f0'", EINVAL},
    {REPORT(NotPermitted, ), "Operation not permitted", EPERM},
    {REPORT(NotImplemented, ), "Not implemented", ENOSYS},
    {REPORT(NotImplemented, WITH(-1)), "Not implemented", ENOSYS, " value '-1'.\n"},
    {REPORT(NotImplemented, WITH(kPointer)), "Not implemented", ENOSYS, " value '0x1f0'.\n"},
    {REPORT(AllocationFailed, ), "Memory allocation failed", ENOMEM},
    {REPORT(InvalidState, ), "Invalid state for object", EACCES},
    {REPORT(BadDescriptorState, ), "Bad descriptor state", EBADF},
    {REPORT(BufferNotFound, ), "Buffer not found", ENXIO},
    {REPORT(InvalidBufferOwner, ), "Invalid buffer owner", EDEADLK},
    {REPORT(BadEvent, WITH("closed")), "Bad event 'closed'", EBADE},
    {REPORT(InvalidOperationForType, WITH("pipe")), "Invalid operation for type 'pipe'",
     EOPNOTSUPP},
    {REPORT(InvalidOperationForProto, WITH("udp")), "Invalid operation for proto 'udp'", EPROTO},
};

TEST(ErrorReports, TellTheCallOnBothStreamsAndSetErrno) {
  for (const ReportCase& c : kReportCases) {
    const test::CapturedLog log;
    c.report();
    EXPECT_EQ(errno, c.error) << c.text;
    const std::string line =
        std::string(c.text) + " in method 'File::open()' context [flags]" + c.end;
    EXPECT_EQ(log.withoutPrefixes(), "File: ERROR! " + line + "Error: " + line);
  }
}

TEST(ErrorReports, ANullTextSilencesTheStream) {
  const test::CapturedLog log;
  reportInvalidState("File", "open", nullptr);
  EXPECT_EQ(errno, EACCES);
  EXPECT_TRUE(std::clog.bad());
  EXPECT_EQ(log.withoutPrefixes(),
            "File: ERROR! Invalid state for object in method 'File::open()' context [");
}

}  // namespace
}  // namespace qora
