#include "tavix/core/errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "tavix/platform/last_error.h"

namespace TAVIX {
namespace {

std::string Narrow(uint32_t code) {
  std::string out = "stale";
  return GetErrMsg(code, out);
}

std::u16string Wide(uint32_t code) {
  std::u16string out = u"stale";
  return GetErrMsg(code, out);
}

// The table's own texts are checked where they surface: log lines and the
// tools' output.
TEST(ErrorTextTest, GapsAreUnknownAndOtherCodesArePlatformCodes) {
  EXPECT_EQ("Broadcast transfers can be only used with oneway mode.", Narrow(0x20000019));
  EXPECT_EQ(u"Unknown Error", Wide(0x2000001A));
  EXPECT_EQ(u"Unknown Error", Wide(0x20000022));
  EXPECT_EQ("Unknown Error", Narrow(0x200003FF));
  EXPECT_EQ(std::strerror(EINVAL), Narrow(EINVAL));
  EXPECT_EQ(std::u16string(u"Connection refused"), Wide(ECONNREFUSED));
  EXPECT_EQ("", Narrow(0x20000409));  // unknown to the C library: empty, not "Unknown Error"
  EXPECT_EQ(u"", Wide(99999));
}

TEST(LastErrorTest, IsPerThreadAndSurvivesScopesThatFail) {
  TavixSetLastError(0x20000009);
  {
    EnsureLastError keep;
    errno = ENOENT;
    platform::SaveErrno();
    EXPECT_EQ(static_cast<uint32_t>(ENOENT), TavixGetLastError());
  }
  EXPECT_EQ(0x20000009u, TavixGetLastError());
  uint32_t seenElsewhere = 1;
  std::thread([&] { seenElsewhere = TavixGetLastError(); }).join();
  EXPECT_EQ(0u, seenElsewhere);
}

}  // namespace
}  // namespace TAVIX
