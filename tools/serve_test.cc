// `tavix serve` as a process: what it prints, that it answers, that it
// ends cleanly on SIGTERM and SIGINT, and how it reports a bad endpoint.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tavix/core/host_info.h"
#include "tavix/invoke/wire_test_util.h"

extern char** environ;

namespace TAVIX {
namespace {

using namespace test_wire;

// The tool running as a child process, its standard output and error on
// pipes.
class ToolProcess {
 public:
  explicit ToolProcess(std::vector<std::string> args) {
    args.insert(args.begin(), TAVIX_TOOL_PATH);
    int out[2];
    int err[2];
    EXPECT_EQ(0, pipe(out));
    EXPECT_EQ(0, pipe(err));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addclose(&actions, err[0]);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    EXPECT_EQ(0, posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ));
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    m_out = fdopen(out[0], "r");
    m_err = fdopen(err[0], "r");
  }
  ~ToolProcess() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      Wait();
    }
    if (m_out != nullptr) fclose(m_out);
    if (m_err != nullptr) fclose(m_err);
  }

  std::string OutLine() { return Line(m_out); }
  std::string ErrLine() { return Line(m_err); }
  void Signal(int signal) { kill(m_pid, signal); }
  // The exit status, or -1 when the process did not exit normally.
  int Wait() {
    int status = 0;
    if (waitpid(m_pid, &status, 0) != m_pid) return -1;
    m_pid = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  static std::string Line(FILE* stream) {
    char buffer[512];
    if (std::fgets(buffer, sizeof buffer, stream) == nullptr) return {};
    std::string line(buffer);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    return line;
  }

  pid_t m_pid = 0;
  FILE* m_out = nullptr;
  FILE* m_err = nullptr;
};

Bytes EchoArgument(const std::u16string& text) { return Writer().wstr(text).get(); }

void ExpectEchoes(uint16_t port, const std::u16string& object) {
  RawClient client;
  ASSERT_TRUE(client.Connect(port));
  EXPECT_EQ(Header(MSG_VALIDATE, 20), client.ReceiveValidation());
  ASSERT_TRUE(client.Send(Request(7, object, u"Echo", EchoArgument(u"hello"))));
  const Reply reply = ParseReply(client.ReceiveMessage());
  EXPECT_EQ(MSG_REPLY, reply.type);
  EXPECT_EQ(7, reply.requestId);
  EXPECT_EQ(0u, reply.status);
  EXPECT_EQ(EchoArgument(u"hello"), reply.results);
}

TEST(TavixServe, PrintsProxiesServesEchoAndStopsOnSignals) {
  for (const int signal : {SIGTERM, SIGINT}) {
    const uint16_t first = FreePort();
    const uint16_t second = FreePort();
    ToolProcess tool({"serve", "--endpoint", "tcp -h #any -p " + std::to_string(first), "--endpoint",
                      "tcp -h #any -p " + std::to_string(second), "--name", "Box"});
    const std::string a = tool.OutLine();
    const std::string b = tool.OutLine();
    const std::string host = NarrowString(GetLocalHostName());
    std::vector<std::string> lines{a, b};
    std::sort(lines.begin(), lines.end());
    std::vector<std::string> expected{"Box:tcp -h " + host + " -p " + std::to_string(first) + " -t 0",
                                      "Box:tcp -h " + host + " -p " + std::to_string(second) + " -t 0"};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, lines);
    ExpectEchoes(first, u"Box");
    ExpectEchoes(second, u"Box");
    tool.Signal(signal);
    EXPECT_EQ(0, tool.Wait()) << "signal " << signal;
  }
}

TEST(TavixServe, DefaultNameIsEcho) {
  const uint16_t port = FreePort();
  ToolProcess tool({"serve", "--endpoint", "tcp -h #any -p " + std::to_string(port)});
  EXPECT_EQ(0u, tool.OutLine().rfind("Echo:tcp -h ", 0));
  ExpectEchoes(port, u"Echo");
  tool.Signal(SIGTERM);
  EXPECT_EQ(0, tool.Wait());
}

TEST(TavixServe, BadEndpointsExitWithTheirCode) {
  {
    ToolProcess tool({"serve", "--endpoint", "tcp -h #any"});
    EXPECT_NE(std::string::npos, tool.ErrLine().find("0x20000003 Error passport string."));
    EXPECT_EQ(1, tool.Wait());
  }
  {
    // A port that is already being listened on.
    const uint16_t port = FreePort();
    ToolProcess holder({"serve", "--endpoint", "tcp -h #any -p " + std::to_string(port)});
    ASSERT_FALSE(holder.OutLine().empty());
    ToolProcess tool({"serve", "--endpoint", "tcp -h #any -p " + std::to_string(port)});
    const std::string error = tool.ErrLine();
    EXPECT_NE(std::string::npos, error.find("0x00000062")) << error;  // EADDRINUSE
    EXPECT_EQ(1, tool.Wait());
    holder.Signal(SIGTERM);
    EXPECT_EQ(0, holder.Wait());
  }
}

TEST(TavixServe, UsageErrors) {
  ToolProcess unknown({"frobnicate"});
  EXPECT_EQ(2, unknown.Wait());
  ToolProcess missing({"serve", "--endpoint"});
  EXPECT_EQ(2, missing.Wait());
}

}  // namespace
}  // namespace TAVIX
