// `tavix serve` as a process: the proxy strings it prints, that it answers, that it ends cleanly on SIGTERM and SIGINT,
// and how it reports a bad endpoint or command line.
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "tavix/core/host_info.h"
#include "tavix/invoke/wire_test_util.h"
#include "tools/echo_proxy.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// The tool as a child process; its standard output and error are read
// together. The shell prints its pid, then becomes the tool.
class ToolProcess {
 public:
  explicit ToolProcess(const std::string& args)
      : m_pipe(popen(("echo $$; exec " TAVIX_TOOL_PATH " " + args + " 2>&1").c_str(), "r")),
        m_pid(std::atoi(Line().c_str())) {}
  ~ToolProcess() {
    if (m_pipe == nullptr) return;
    Signal(SIGKILL);
    Wait();
  }

  std::string Line() {
    char buffer[512];
    if (std::fgets(buffer, sizeof buffer, m_pipe) == nullptr) return {};
    std::string line(buffer);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    return line;
  }
  void Signal(int signal) { kill(m_pid, signal); }
  // The exit status, or -1 when the process did not exit normally. What
  // is left of its output is read first: it must not die writing it.
  int Wait() {
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, m_pipe) != nullptr) {
    }
    const int status = pclose(m_pipe);
    m_pipe = nullptr;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  FILE* m_pipe;
  pid_t m_pid;
};

std::string Endpoint(uint16_t port) { return "--endpoint 'tcp -h #any -p " + std::to_string(port) + "'"; }

void ExpectEcho(uint16_t port, const std::string& object, const std::string& protocol = "tcp") {
  SmartPtr<EchoPrx> proxy =
      CreateProxy<EchoPrx>(Initialize(), object + ":" + protocol + " -h 127.0.0.1 -p " + std::to_string(port));
  std::u16string out;
  EXPECT_EQ(0u, proxy->Echo(u"hello", out));
  EXPECT_EQ(u"hello", out);
}

TEST(TavixServe, PrintsProxiesServesEchoAndStopsOnSignals) {
  const std::string host = NarrowString(GetLocalHostName());
  // SIGTERM: two endpoints and a name; SIGINT: one endpoint, the default name.
  for (const int signal : {SIGTERM, SIGINT}) {
    const std::string name = signal == SIGTERM ? "Box" : "Echo";
    std::vector<uint16_t> ports{FreePort()};
    std::string args = "serve " + Endpoint(ports[0]);
    // A UDP endpoint beside them (UDP ports are free when TCP ones are, as
    // far as this test's luck goes: a clash only fails the start).
    const uint16_t udp = FreePort();
    if (signal == SIGTERM) {
      ports.push_back(FreePort());
      args += " " + Endpoint(ports[1]) + " --name Box --endpoint 'udp -h #any -p " + std::to_string(udp) + "'";
    }
    ToolProcess tool(args);
    std::vector<std::string> expected;
    std::vector<std::string> lines;
    for (const uint16_t port : ports) {
      expected.push_back(name + ":tcp -h " + host + " -p " + std::to_string(port) + " -t 0");
      lines.push_back(tool.Line());
    }
    if (signal == SIGTERM) {
      expected.push_back(name + ":udp -h " + host + " -p " + std::to_string(udp) + " -t 0");
      lines.push_back(tool.Line());
      ExpectEcho(udp, name, "udp");
    }
    std::sort(lines.begin(), lines.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, lines);
    for (const uint16_t port : ports) ExpectEcho(port, name);
    tool.Signal(signal);
    EXPECT_EQ(signal == SIGTERM ? "requests: 3" : "requests: 1", tool.Line());
    EXPECT_EQ(0, tool.Wait()) << "signal " << signal;
  }
}

TEST(TavixServe, BadEndpointsAndCommandLines) {
  ToolProcess bad("serve --endpoint 'tcp -h #any'");
  EXPECT_NE(std::string::npos, bad.Line().find("0x20000003 Error passport string."));
  EXPECT_EQ(1, bad.Wait());

  const uint16_t port = FreePort();
  ToolProcess holder("serve " + Endpoint(port));
  ASSERT_FALSE(holder.Line().empty());
  ToolProcess taken("serve " + Endpoint(port));
  const std::string error = taken.Line();
  EXPECT_NE(std::string::npos, error.find("0x00000062")) << error;  // EADDRINUSE
  EXPECT_EQ(1, taken.Wait());
  holder.Signal(SIGTERM);
  EXPECT_EQ(0, holder.Wait());

  EXPECT_EQ(2, ToolProcess("frobnicate").Wait());
  EXPECT_EQ(2, ToolProcess("serve --endpoint").Wait());
}

}  // namespace
}  // namespace TAVIX
