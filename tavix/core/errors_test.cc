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

TEST(ErrorTableTest, HoldsThirtySevenRowsInOrderWithExactTexts) {
  const auto table = ErrorTable();
  ASSERT_EQ(37u, table.size());
  for (size_t i = 1; i < table.size(); ++i) EXPECT_LT(table[i - 1].code, table[i].code);
  EXPECT_EQ(u"Object Adapter Name already exist", Wide(0x20000016));
  EXPECT_EQ(u"Error Prxoy String.", Wide(0x2000000A));
  EXPECT_EQ(u"Unsupported funtion.", Wide(0x20000002));
  EXPECT_EQ(u"Commucation has been closed", Wide(0x20000015));
  EXPECT_EQ(u"Unmatched upd transceiver mode", Wide(0x20000017));
  EXPECT_EQ(u"Error when read or write blob", Wide(0x20000408));
  EXPECT_EQ(u"Connection has been closed.", Wide(0x20000000));
  EXPECT_EQ("Broadcast transfers can be only used with oneway mode.", Narrow(0x20000019));
}

TEST(ErrorTableTest, CodesInsideRangeButMissingAreUnknown) {
  EXPECT_EQ(u"Unknown Error", Wide(0x2000001A));
  EXPECT_EQ(u"Unknown Error", Wide(0x20000022));
  EXPECT_EQ("Unknown Error", Narrow(0x200003FF));
}

TEST(ErrorTableTest, CodesOutsideRangeArePlatformCodes) {
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
