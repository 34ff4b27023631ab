// The exception report: the report file's rules, the exception codes, faults that end a process (each such case runs
// in a forked child, whose end is checked), and the type walk over real debug information. This file is built
// without optimisation, so the locals the walk reads stay in memory.
#include "tavix/diag/exception_report.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <thread>

#include "tavix/core/trace_log.h"
#include "tavix/diag/exception_codes.h"
#include "tavix/diag/log_folder.h"
#include "tavix/platform/file.h"
#include "tavix/platform/process.h"
#include "tavix/testing/report_files.h"

// This program's file version, as a program names it for its reports.
extern "C" const char tavix_file_version[] = "1, 0, 0, 2";

namespace TAVIX {
namespace {

using namespace test_report;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers own the fault signals: a real fault is theirs to report.
constexpr bool kRealFaults = false;
#else
constexpr bool kRealFaults = true;
#endif

class ReportFileTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(m_dir); }
  void TearDown() override { std::filesystem::remove_all(m_dir); }
  // Runs `body` in a child process with no core dumps; returns the signal that ended the child, 0 when it exited.
  int SignalOfChild(const std::function<void()>& body) {
    const pid_t child = fork();
    if (child == 0) {
      const rlimit noCore{0, 0};
      setrlimit(RLIMIT_CORE, &noCore);
      ExceptionReport::SetPath(m_path);
      body();
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }
  const std::filesystem::path m_dir = std::filesystem::temp_directory_path() /
                                      ("tavix_diag_" + std::to_string(getpid()) + "_" +
                                       ::testing::UnitTest::GetInstance()->current_test_info()->name());
  std::string m_path = (m_dir / "app.RPT").string();
};

// A new file gets one byte-order mark, reports follow each other, and a file above 16 MiB is replaced.
TEST_F(ReportFileTest, NewFileGetsOneMarkReportsFollowAndLargeFilesAreReplaced) {
  { std::ofstream empty(m_path); }
  EXPECT_TRUE(ExceptionReport::WriteCurrent(m_path, false));
  const std::string first = Bytes(m_path);
  EXPECT_TRUE(ExceptionReport::WriteCurrent(m_path, false));
  const std::string both = Bytes(m_path);
  ASSERT_EQ("\xFF\xFE", first.substr(0, 2));
  EXPECT_EQ(first, both.substr(0, first.size()));
  EXPECT_EQ(std::string::npos, both.find("\xFF\xFE", 2));
  const std::string text = Text(m_path);
  EXPECT_EQ(0u, text.find("Exception report created by tavix_diag_test 1. 0. 0. 2 ["));
  EXPECT_NE(std::string::npos, text.find("Exception report created by", 10));
  EXPECT_TRUE(InOrder(text, {"System details:\r\n", "Vendor: ", "Number Of Processors: ", "Memory Used ",
                             "Exception code: E0000000 \r\n", "Fault address:  ", "Registers:\r\n", "RIP:",
                             "Call stack:\r\n", "WriteCurrent"}));
  EXPECT_EQ(std::string::npos, text.find("Local Variables And Parameters"));
  // A file above 16 MiB is replaced.
  std::filesystem::resize_file(m_path, 0x1000001);
  EXPECT_TRUE(ExceptionReport::WriteCurrent(m_path, false));
  EXPECT_LT(Bytes(m_path).size(), 0x100000u);
  EXPECT_EQ(0u, Text(m_path).find("Exception report created by"));
  // A report that could not be written says so.
  EXPECT_FALSE(ExceptionReport::WriteCurrent("", false));
  EXPECT_FALSE(ExceptionReport::WriteCurrent((m_dir / "missing" / "app.RPT").string(), false));
  EXPECT_FALSE(ExceptionReport::WriteCurrent(m_dir.string(), false)) << "a folder is no report file";
}

TEST(ExceptionReportNames, SignalsMapToTheNamedCodesAndPathsFollowThePrograms) {
  EXPECT_EQ(0xC0000005u, ExceptionCodeOf(SIGSEGV, SEGV_MAPERR, 0, 0x7FFF0000));
  EXPECT_EQ(0xC00000FDu, ExceptionCodeOf(SIGSEGV, SEGV_ACCERR, 0x7FFEFFF8, 0x7FFF0000));
  EXPECT_EQ(0xC0000094u, ExceptionCodeOf(SIGFPE, FPE_INTDIV, 0, 0));
  EXPECT_EQ(0xC000008Eu, ExceptionCodeOf(SIGFPE, FPE_FLTDIV, 0, 0));
  EXPECT_EQ(0xC0000096u, ExceptionCodeOf(SIGILL, ILL_PRVOPC, 0, 0));
  EXPECT_EQ(0x80000002u, ExceptionCodeOf(SIGBUS, BUS_ADRALN, 0, 0));
  EXPECT_EQ(0x80000004u, ExceptionCodeOf(SIGTRAP, TRAP_TRACE, 0, 0));
  EXPECT_EQ("ACCESS_VIOLATION", ExceptionName(0xC0000005));
  EXPECT_EQ("STACK_OVERFLOW", ExceptionName(0xC00000FD));
  EXPECT_EQ(0xE0000006u, ExceptionCodeOf(SIGABRT, SI_TKILL, 0, 0));
  EXPECT_EQ("Aborted", ExceptionName(0xE0000006));
  // A report's path replaces a long enough extension of the program's, and is appended otherwise.
  EXPECT_EQ("/srv/server.RPT", ExceptionReport::PathFor("/srv/server.exe"));
  EXPECT_EQ("/srv/my.RPT", ExceptionReport::PathFor("/srv/my.app/server"));
  EXPECT_EQ("/srv/server.ab.RPT", ExceptionReport::PathFor("/srv/server.ab"));
  EXPECT_EQ("/srv/server.RPT", ExceptionReport::PathFor("/srv/server"));
}

[[gnu::noinline]] void WriteThroughNull() {
  volatile int* volatile target = nullptr;
  *target = 1;
}

TEST_F(ReportFileTest, FaultOfAPlainThreadIsReportedAndEndsTheProcessByItsSignal) {
  if (!kRealFaults) GTEST_SKIP() << "needs the library's own fault handlers";
  EXPECT_EQ(SIGSEGV, SignalOfChild([] { std::thread(WriteThroughNull).join(); }));
  const std::string text = Text(m_path);
  EXPECT_TRUE(InOrder(text, {"Exception report created by", "Exception code: C0000005 ACCESS_VIOLATION\r\n",
                             "Fault address:  ", "Call stack:", "WriteThroughNull", "Local Variables"}))
      << text;
  EXPECT_EQ(SIGABRT, SignalOfChild([] { std::abort(); }));
  EXPECT_NE(std::string::npos, Text(m_path).find("Exception code: E0000006 Aborted\r\n"));
}

// A chosen folder takes the log's next lines and the reports under their usual names; a folder that cannot be
// written is refused and changes nothing; without a choice, an executable's folder that cannot be written sends
// both to the temporary folder.
TEST_F(ReportFileTest, AChosenLogFolderTakesLinesAndReportsAndUnwritableFoldersFallBack) {
  const std::string usualLog = LogFilePath(), usualReport = ReportFilePath();
  const std::string name = TraceLog::BaseName(platform::ExecutablePath());
  EXPECT_FALSE(SetLogFolder((m_dir / "missing").string()));
  EXPECT_EQ(usualLog, LogFilePath());
  ASSERT_TRUE(SetLogFolder(m_dir.string()));
  EXPECT_EQ((m_dir / TraceLog::LogPathFor(name)).string(), LogFilePath());
  EXPECT_EQ((m_dir / ExceptionReport::PathFor(name)).string(), ReportFilePath());
  TraceLog::Write(u"ERROR: into the chosen folder\n");
  const std::string log = Text(LogFilePath());
  EXPECT_NE(std::string::npos, log.find("ERROR: into the chosen folder\r\n")) << log;
  if (kRealFaults) {
    m_path = ReportFilePath();
    EXPECT_EQ(SIGSEGV, SignalOfChild([] { std::thread(WriteThroughNull).join(); }));
    EXPECT_NE(std::string::npos, Text(m_path).find("ACCESS_VIOLATION"));
  }
  ASSERT_TRUE(SetLogFolder(usualLog.substr(0, usualLog.rfind('/'))));
  ExceptionReport::SetPath(usualReport);
  EXPECT_EQ(usualLog, LogFilePath());
  EXPECT_EQ(platform::File::TemporaryDirectory(), TraceLog::FolderFor("/proc/no-such-folder/"));
  EXPECT_EQ(platform::File::TemporaryDirectory(), TraceLog::FolderFor(""));
  EXPECT_EQ(m_dir.string() + "/", TraceLog::FolderFor(m_dir.string() + "/"));
}

TEST_F(ReportFileTest, UnwritablePathGivesNoReportAndStillEndsTheProcess) {
  if (!kRealFaults) GTEST_SKIP() << "needs the library's own fault handlers";
  m_path = (m_dir / "missing" / "app.RPT").string();
  EXPECT_EQ(SIGFPE, SignalOfChild([] { raise(SIGFPE); }));
  EXPECT_FALSE(std::filesystem::exists(m_path));
}

TEST_F(ReportFileTest, RecoveryPointTakesBackOnlyInstructionFaultsOfItsBody) {
  if (!kRealFaults) GTEST_SKIP() << "needs the library's own fault handlers";
  const std::string usual = ExceptionReport::GetPath();
  ExceptionReport::SetPath(m_path);
  auto divide = [] {
    volatile int32_t zero = 0;
    volatile int32_t one = 1;  // both unknown, or the compiler finds a way around dividing
    volatile int32_t quotient = one / zero;
    (void)quotient;
  };
  const FaultRecord* fault = nullptr;
  EXPECT_FALSE(ExceptionReport::RunRecoverable(divide, fault));
  ExceptionReport::SetPath(usual);
  ASSERT_NE(nullptr, fault);
  EXPECT_EQ(SIGFPE, fault->signal);
  EXPECT_EQ(FPE_INTDIV, fault->code);
  EXPECT_NE(std::string::npos, Text(m_path).find("Exception code: C0000094 INT_DIVIDE_BY_ZERO\r\n"));
  // An exception of the body passes through, and takes the point with it:
  // a later fault is fatal, not a jump into a frame that has gone.
  auto fail = [] { throw std::runtime_error("servant"); };
  EXPECT_EQ(SIGSEGV, SignalOfChild([&fail] {
              const FaultRecord* ignored = nullptr;
              try {
                ExceptionReport::RunRecoverable(fail, ignored);
              } catch (const std::runtime_error&) {
              }
              WriteThroughNull();
            }));
  // abort() and a signal sent by someone are never taken back.
  for (const int signal : {SIGABRT, SIGSEGV}) {
    EXPECT_EQ(signal, SignalOfChild([signal] {
                auto send = [signal] { signal == SIGABRT ? std::abort() : static_cast<void>(raise(signal)); };
                const FaultRecord* ignored = nullptr;
                ExceptionReport::RunRecoverable(send, ignored);
              }));
  }
}

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
  const std::string report = Text(path);
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
