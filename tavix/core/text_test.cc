// Text helpers and error texts: conversions, trimming, time spans, addresses, formatting, the texts of codes and
// the per-thread last error.
#include "tavix/core/text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "tavix/core/errors.h"
#include "tavix/core/format.h"
#include "tavix/core/inet_addr.h"
#include "tavix/platform/last_error.h"

namespace TAVIX {
namespace {

TEST(ConversionTest, RoundTripsAndStopsAtZero) {
  EXPECT_EQ("", NarrowString(u""));
  EXPECT_EQ("ab", NarrowString(std::u16string(u"ab\0cd", 5)));
  EXPECT_EQ(u"ab", WiddenString(std::string("ab\0cd", 5)));
  const std::u16string mixed = u"Gr\u00fc\u00dfe \u4e16\U0001F600";
  EXPECT_EQ("Gr\xc3\xbc\xc3\x9f" "e \xe4\xb8\x96\xf0\x9f\x98\x80", NarrowString(mixed));
  EXPECT_EQ(mixed, WiddenString(NarrowString(mixed)));
}

TEST(ConversionTest, UnconvertibleUnitsBecomeReplacementCharacter) {
  EXPECT_EQ("a\xEF\xBF\xBD" "b", NarrowString(std::u16string{u'a', char16_t(0xD800), u'b'}));
  EXPECT_EQ(u"a\uFFFDb", WiddenString("a\xFF" "b"));
  EXPECT_EQ(u"\uFFFD", WiddenString("\xE4\xB8"));  // cut-off sequence
}

TEST(TrimTest, RemovesSetFromBothEnds) {
  std::string s = "  abc  ", only = " \t ", unchanged = " x ";
  std::u16string w = u"--a-b--";
  EXPECT_EQ("abc", trim(s, " "));
  EXPECT_EQ("", trim(only, " \t"));
  EXPECT_EQ(" x ", trim(unchanged, ""));
  EXPECT_EQ(u"a-b", trim(w, u"-"));
}

TEST(ElapsedMsTest, ConvertsHundredNanosecondUnits) {
  const FILETIME start = 1000000, end = 1010000;
  EXPECT_DOUBLE_EQ(1.0, ElapsedMs(&start, &end));
  EXPECT_DOUBLE_EQ(-1.0, ElapsedMs(&end, &start));
  EXPECT_THROW(ElapsedMs(nullptr, &end), std::runtime_error);
}

TEST(InetAddrTest, AddressesLayOutSockaddrAndPrint) {
  InetAddr a;
  ASSERT_TRUE(a.Set("127.0.0.1", 80));
  const uint8_t expected[16] = {2, 0, 0x00, 0x50, 0x7F, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(expected, a.SockAddr(), 16));
  EXPECT_EQ(80, a.Port());
  EXPECT_TRUE(a.Set(u"10.0.0.1", 9));
  char narrow[9] = "zzzzzzzz";
  EXPECT_EQ(nullptr, a.ToString(narrow, 8));  // no room for the terminator
  EXPECT_EQ('\0', narrow[0]);
  EXPECT_STREQ("10.0.0.1", a.ToString(narrow, 9));
  char16_t wide[9];
  EXPECT_EQ(nullptr, a.ToString(wide, 8));
  EXPECT_EQ(u"10.0.0.1", std::u16string(a.ToString(wide, 9)));
  ASSERT_TRUE(a.Set("localhost", 1));
  char text[16];
  EXPECT_STREQ("127.0.0.1", a.ToString(text, sizeof text));

  EXPECT_TRUE(a.Set("", 1));
  EXPECT_TRUE(a.IsAny());
  EXPECT_TRUE(a.SetBroadcast(7));
  EXPECT_TRUE(a.IsBroadcast());
  EXPECT_EQ(7, a.Port());
  // An unresolvable host leaves a zero address behind.
  EXPECT_FALSE(a.Set("no-such-host.invalid", 5));
  EXPECT_EQ(static_cast<uint32_t>(EINVAL), TavixGetLastError());
  const uint8_t zero[16] = {};
  EXPECT_EQ(0, std::memcmp(zero, a.SockAddr(), 16));
}

TEST(FormatTest, FollowsPrintfFlagsWidthAndPrecision) {
  EXPECT_EQ(u"[00042-00007]", FormatString(u"[%05d-%05d]", 42, 7u));
  EXPECT_EQ(u"0x20000402", FormatString(u"0x%08X", 0x20000402u));
  EXPECT_EQ(u"-5|5    |   +5|ab", FormatString(u"%d|%-5d|%+5d|%.2s", -5, 5, 5, "abc"));
  EXPECT_EQ(u"4294967295 -1", FormatString(u"%u %d", -1, 0xFFFFFFFFu));
  EXPECT_EQ(u"9000000000", FormatString(u"%lld", int64_t{9000000000}));
  EXPECT_EQ(u"3.142 | x|\u00e9", FormatString(u"%.3f |%2c|%hs", 3.14159, u'x', "\xc3\xa9"));
  EXPECT_EQ(u"a%", FormatString(u"a%%"));
  EXPECT_EQ(u"only ", FormatString(u"only %d"));  // a missing argument renders nothing
}

TEST(FormatTest, ReportsOverflowInsteadOfCutting) {
  std::array<char16_t, 4> small{};
  EXPECT_EQ(4, Format(small, u"abcd"));
  EXPECT_EQ(-1, Format(small, u"%s", std::u16string(u"abcde")));
}

std::string Narrow(uint32_t code) {
  std::string out = "stale";
  return GetErrMsg(code, out);
}

std::u16string Wide(uint32_t code) {
  std::u16string out = u"stale";
  return GetErrMsg(code, out);
}

// The table's own texts are checked where they surface: log lines and the tools' output.
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
