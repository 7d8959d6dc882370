#include "base/library.h"

#include <gtest/gtest.h>
#include <link.h>

#include <sstream>

#include "tests/support/captured_log.h"

namespace qora::library {
namespace {

TEST(Library, OpensResolvesAndCloses) {
  const test::CapturedLog log;
  void* const handle = open("libm.so.6");
  ASSERT_NE(handle, nullptr);
  auto* const root = reinterpret_cast<double (*)(double)>(resolve(handle, "sqrt"));
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root(9), 3);
  EXPECT_EQ(close(handle), 0);
  EXPECT_EQ(log.text(), "");
}

TEST(Library, RefusesWhatCannotBeOpened) {
  const test::CapturedLog log;
  EXPECT_EQ(open("/nowhere/lib.so"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(open("/proc/self/maps"), nullptr);  // there, but no library
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(open(nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(log.withoutPrefixes(), "Library: ERROR! Invalid libary path 'nil'.\n");
}

TEST(Library, TellsWhatTheLoaderRefuses) {
  void* const handle = open("libc.so.6");  // stays loaded, so a close too many is refused
  const std::string path = static_cast<link_map*>(handle)->l_name;
  std::ostringstream address;
  address << handle;
  const test::CapturedLog log;
  EXPECT_EQ(resolve(handle, "no_such_symbol"), nullptr);
  EXPECT_EQ(errno, ENOMSG);
  EXPECT_EQ(close(handle), 0);
  errno = 0;
  EXPECT_EQ(close(handle), -1);
  EXPECT_EQ(errno, ENOMSG);
  EXPECT_EQ(log.withoutPrefixes(),
            "Library: WARNING! Could not resolve symbol 'no_such_symbol'.\n"
            "Library: WARNING! Error is '" +
                path +
                ": undefined symbol: no_such_symbol'\n"
                "Library: WARNING! Could not close library " +
                address.str() +
                ".\n"
                "Library: WARNING! Error is '" +
                path + ": shared object not open'.\n");
}

}  // namespace
}  // namespace qora::library
