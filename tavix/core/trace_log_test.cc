// The trace log: its byte-order mark and line header, line ends, the size limit, failures and lines from many threads.
#include "tavix/core/trace_log.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

namespace fs = std::filesystem;

class TraceLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = fs::temp_directory_path() /
            ("tavix_log_" + std::to_string(platform::ProcessId()) + "_" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(m_dir);
    fs::create_directories(m_dir);
    m_path = (m_dir / "server_tavix.log").string();
  }
  void TearDown() override { fs::remove_all(m_dir); }

  std::string Bytes() const {
    std::ifstream in(m_path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    // The text after the byte-order mark, UTF-16 little-endian.
    const std::string bytes = Bytes();
    std::u16string wide(bytes.size() < 2 ? 0 : bytes.size() / 2 - 1, u'\0');
    std::memcpy(wide.data(), bytes.data() + 2, wide.size() * 2);
    const std::string text = NarrowString(wide);
    size_t start = 0;
    for (size_t end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2) {
      lines.push_back(text.substr(start, end - start));
    }
    EXPECT_EQ(start, text.size()) << "text after the last CR LF";
    return lines;
  }

  fs::path m_dir;
  std::string m_path;
};

TEST_F(TraceLogTest, FirstLineGetsByteOrderMarkAndExactHeader) {
  TraceLog log(m_path);
  const int written = log.Append(u"DNS Error:%hs\n", "no.such.host");
  const std::string bytes = Bytes();
  ASSERT_GE(bytes.size(), 2u);
  EXPECT_EQ('\xFF', bytes[0]);
  EXPECT_EQ('\xFE', bytes[1]);
  const auto lines = Lines();
  ASSERT_EQ(1u, lines.size());
  const std::regex header(R"(\[(\d{5})-(\d{5})\] \d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}:\d{3} DNS Error:no\.such\.host)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, header)) << lines[0];
  EXPECT_EQ(static_cast<int>(platform::ProcessId()), std::stoi(m[1]));
  EXPECT_EQ(static_cast<int>(platform::ThreadId() % 100000), std::stoi(m[2]) % 100000);
  EXPECT_EQ(static_cast<int>(lines[0].size() + 2), written);
  EXPECT_EQ(bytes.size(), 2 + 2 * static_cast<size_t>(written));

  log.Append(u"second");
  EXPECT_EQ(2u, Lines().size());
  EXPECT_EQ(std::string::npos, Bytes().find("\xFF\xFE", 2)) << "mark written twice";
}

TEST_F(TraceLogTest, EveryLineEndsInExactlyOneCrLf) {
  TraceLog log(m_path);
  const std::pair<const char16_t*, const char*> sent[] = {{u"lf\n", "lf"}, {u"crlf\r\n", "crlf"}, {u"none", "none"},
                                                           {u"ab\nc", "ab"}};  // a break and what follows go
  for (const auto& c : sent) log.Append(c.first);
  const auto lines = Lines();
  ASSERT_EQ(4u, lines.size());
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(sent[i].second, lines[i].substr(38));
}

TEST_F(TraceLogTest, FileAtSizeLimitIsEmptiedBeforeNextLine) {
  std::ofstream(m_path, std::ios::binary) << std::string(0x200000, 'x');
  TraceLog log(m_path);
  const int written = log.Append(u"after");
  EXPECT_EQ(2 + 2 * static_cast<size_t>(written), Bytes().size());
  ASSERT_EQ(1u, Lines().size());
}

TEST_F(TraceLogTest, FailuresDropTheLineAndKeepCallersLastError) {
  TraceLog unopenable((m_dir / "missing" / "x.log").string());
  TavixSetLastError(0x20000021);
  EXPECT_EQ(-1, unopenable.Append(u"lost"));
  EXPECT_EQ(0x20000021u, TavixGetLastError());

  TraceLog log(m_path);
  const std::u16string fits(541 - 38, u'a');
  EXPECT_GT(log.Append(u"%s", fits), 0);
  EXPECT_LT(log.Append(u"%s", fits + u"a"), 0) << "an over-long message must be dropped, not cut";
  EXPECT_EQ(0x20000021u, TavixGetLastError());
  EXPECT_EQ(1u, Lines().size());
}

TEST_F(TraceLogTest, LinesFromManyThreadsNeverInterleave) {
  TraceLog log(m_path);
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&log, t] {
      for (int i = 0; i < 50; ++i) log.Append(u"thread %d line %03d with some padding text\n", t, i);
    });
  }
  for (auto& t : threads) t.join();
  const auto lines = Lines();
  ASSERT_EQ(300u, lines.size());
  const std::regex shape(R"(\[\d{5}-\d{5}\] .{23} thread \d line \d{3} with some padding text)");
  for (const auto& line : lines) EXPECT_TRUE(std::regex_match(line, shape)) << line;
}

TEST(TraceLogPathTest, ReplacesFromLastDotOfWholePath) {
  EXPECT_EQ("/opt/app/server_tavix.log", TraceLog::LogPathFor("/opt/app/server"));
  EXPECT_EQ("/opt/app/server_tavix.log", TraceLog::LogPathFor("/opt/app/server.bin"));
  EXPECT_EQ("/opt/my_tavix.log", TraceLog::LogPathFor("/opt/my.app/server"));
}

}  // namespace
}  // namespace TAVIX
