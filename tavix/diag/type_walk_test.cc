// The type walk over real debug information: this file is built without
// optimisation, so every local below stays in memory, and the test reads
// the report of its own frame.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "tavix/diag/exception_report.h"
#include "tavix/diag/report_test_util.h"

namespace TAVIX {
namespace {

struct Level9 { int32_t value9 = 9; };
struct Level8 { Level9 inner; int32_t value8 = 8; };
struct Level7 { Level8 inner; int32_t value7 = 7; };
struct Level6 { Level7 inner; int32_t value6 = 6; };
struct Level5 { Level6 inner; int32_t value5 = 5; };
struct Level4 { Level5 inner; int32_t value4 = 4; };
struct Level3 { Level4 inner; int32_t value3 = 3; };
struct Level2 { Level3 inner; int32_t value2 = 2; };
struct Level1 { Level2 inner; int32_t value1 = 1; };

// The entries of this function's frame in a report of it.
[[gnu::noinline]] std::string ReportOfTheseLocals(const std::string& path) {
  Level1 nested;
  int32_t numbers[20];
  for (int32_t i = 0; i < 20; ++i) numbers[i] = i * 10;
  std::string digits;
  for (int i = 0; i < 10; ++i) digits += "0123456789";
  const char* text = digits.c_str();
  const int32_t* unreadable = reinterpret_cast<const int32_t*>(16);
  ExceptionReport::WriteCurrent(path, true);

  const std::string report = test_report::Text(path);
  const size_t variables = report.find("Local Variables And Parameters:");
  const size_t frame = report.find("ReportOfTheseLocals", variables);
  const size_t next = report.find("\r\n\r\n0000", frame);
  (void)nested, (void)numbers, (void)text, (void)unreadable;
  return frame == std::string::npos ? std::string() : report.substr(frame, next - frame);
}

TEST(TypeWalk, StopsAtItsLimitsAndNamesUnreadableMemory) {
  const std::string path = std::filesystem::temp_directory_path() / ("tavix_walk_" + std::to_string(getpid()) + ".RPT");
  const std::string frame = ReportOfTheseLocals(path);
  std::filesystem::remove(path);
  ASSERT_FALSE(frame.empty());

  // Nine levels: the eighth level's members are the last shown.
  EXPECT_NE(std::string::npos, frame.find("Local 'nested' Level1\r\n")) << frame;
  EXPECT_NE(std::string::npos, frame.find(std::string(32, ' ') + " value8 int32_t = 8\r\n")) << frame;
  EXPECT_NE(std::string::npos, frame.find(" inner Level9\r\n")) << frame;
  EXPECT_EQ(std::string::npos, frame.find("value9")) << frame;
  // Twenty elements: sixteen shown.
  EXPECT_NE(std::string::npos, frame.find("[15] int32_t = 150\r\n")) << frame;
  EXPECT_EQ(std::string::npos, frame.find("[16]")) << frame;
  // A hundred characters: the first 63.
  std::string shown;
  for (int i = 0; i < 7; ++i) shown += "0123456789";
  shown.resize(63);
  EXPECT_NE(std::string::npos, frame.find("Local 'text'\t(*[")) << frame;
  EXPECT_NE(std::string::npos, frame.find("\t= \"" + shown + "\"\r\n")) << frame;
  // A pointer into nothing.
  EXPECT_NE(std::string::npos, frame.find(" int32_t(E_ADDR:0000000000000010)\n")) << frame;
}

}  // namespace
}  // namespace TAVIX
