// The tool as a process. `tavix serve`: the proxy strings it prints, that it answers, that it ends cleanly on SIGTERM
// and SIGINT, how it reports a bad endpoint or command line, and how it survives faults of its servant. `tavix ping`
// and `tavix call` against an Echo servant served by this test: what they print, and their exit statuses.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "tavix/core/host_info.h"
#include "tavix/testing/report_files.h"
#include "tavix/testing/wire.h"
#include "tools/echo_proxy.h"
#include "tools/echo_servant.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// The tool as a child process; its standard output and error are read
// together. The shell prints its pid, then becomes the tool.
class ToolProcess {
 public:
  explicit ToolProcess(const std::string& args, const std::string& tool = TAVIX_TOOL_PATH)
      : m_pipe(popen(("echo $$; exec " + tool + " " + args + " 2>&1").c_str(), "r")),
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
  // The exit status, or -1 when the process did not exit normally. What is left of its output is read first (into
  // `rest` when given): it must not die writing it.
  int Wait(std::string* rest = nullptr) {
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, m_pipe) != nullptr) {
      if (rest != nullptr) *rest += buffer;
    }
    const int status = pclose(m_pipe);
    m_pipe = nullptr;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  FILE* m_pipe;
  pid_t m_pid;
};

struct ToolRun {
  bool Has(const std::string& text) const { return output.find(text) != std::string::npos; }
  int status = -1;
  std::string output;  // standard output and error together
};

ToolRun Tool(const std::string& arguments) {
  ToolRun run;
  run.status = ToolProcess(arguments).Wait(&run.output);
  return run;
}

std::string Endpoint(uint16_t port) { return "--endpoint 'tcp -h #any -p " + std::to_string(port) + "'"; }

// The port of a printed proxy string ("Echo:tcp -h host -p 41234 -t 0"), 0 when it has none.
uint16_t PortOf(const std::string& proxy) {
  const size_t at = proxy.find(" -p ");
  return at == std::string::npos ? 0 : static_cast<uint16_t>(std::atoi(proxy.c_str() + at + 4));
}

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
    // Every endpoint lets the system pick its port; the printed proxy strings name the ports chosen.
    std::string args = "serve " + Endpoint(0);
    if (signal == SIGTERM) args += " " + Endpoint(0) + " --name Box --endpoint 'udp -h #any -p 0'";
    ToolProcess tool(args);
    std::vector<std::string> lines;
    for (int i = 0; i < (signal == SIGTERM ? 3 : 1); ++i) lines.push_back(tool.Line());
    std::sort(lines.begin(), lines.end());
    std::vector<uint16_t> ports;
    for (const std::string& line : lines) {
      ports.push_back(PortOf(line));
      const std::string protocol = line.substr(name.size() + 1, 3);
      EXPECT_EQ(name + ":" + protocol + " -h " + host + " -p " + std::to_string(ports.back()) + " -t 0", line);
      EXPECT_NE(0, ports.back()) << line;
      ExpectEcho(ports.back(), name, protocol);
    }
    if (signal == SIGTERM) {
      EXPECT_NE(ports[0], ports[1]);
      // Last, one proxy string names all three endpoints, and calls go through it.
      const std::string all = tool.Line();
      for (const std::string& line : lines) EXPECT_NE(std::string::npos, all.find(line.substr(name.size()))) << all;
      SmartPtr<EchoPrx> proxy = CreateProxy<EchoPrx>(Initialize(), all);
      std::u16string out;
      EXPECT_EQ(0u, proxy->Echo(u"all", out));
    }
    tool.Signal(signal);
    EXPECT_EQ(signal == SIGTERM ? "requests: 4" : "requests: 1", tool.Line());
    EXPECT_EQ(0, tool.Wait()) << "signal " << signal;
  }
}

TEST(TavixServe, ServantFaultEndsOnlyItsConnectionAndLeavesAReport) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "needs the library's own fault handlers, which the sanitizers replace";
#endif
  // A copy of the tool of its own, so that its report and log are this test's alone.
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("tavix_faults_" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::filesystem::copy_file(TAVIX_TOOL_PATH, dir / "tavix", std::filesystem::copy_options::overwrite_existing);
  ToolProcess tool("serve --allow-faults " + Endpoint(0), (dir / "tavix").string());
  const uint16_t port = PortOf(tool.Line());
  ASSERT_NE(0, port);
  const std::string object = "Echo:tcp -h 127.0.0.1 -p " + std::to_string(port) + " -t 30000";
  // Each fault's kind, and what its report shows in order.
  const std::pair<int32_t, std::vector<std::string>> cases[] = {
      {1, {"C0000005 ACCESS_VIOLATION", "WriteThroughNull(int)+", "Local 'written' int32_t = 7\r\n"}},
      {2, {"C0000094 INT_DIVIDE_BY_ZERO", "DivideByZero(int)+", "Parameter 'dividend' int32_t = 2\r\n"}},
      {3, {"C00000FD STACK_OVERFLOW", "Recurse(int)+", "Parameter 'depth' int32_t = "}},
  };
  for (const auto& [kind, expected] : cases) {
    EXPECT_EQ(Err::ConnectionClosed, CreateProxy<EchoPrx>(Initialize(), object)->Fault(kind));
    ExpectEcho(port, "Echo");
  }
  tool.Signal(SIGTERM);
  EXPECT_EQ(0, tool.Wait());
  const std::string log = test_report::Text((dir / "tavix_tavix.log").string());
  const std::string line = "ERROR: Win32 SE catched.\r\n";
  int32_t caught = 0;
  for (size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) ++caught;
  EXPECT_EQ(3, caught) << log;
  const std::string report = test_report::Text((dir / "tavix.RPT").string());
  size_t start = 0;
  for (const auto& [kind, expected] : cases) {
    const size_t end = report.find("Exception report created by", start + 1);
    const std::string one = report.substr(start, end - start);
    std::string missing;
    EXPECT_TRUE(test_report::InOrder(
        one, {"Exception report created by tavix 0. 1. 0. 0 [", "System details:\r\n", "Linux", "Vendor: ",
              "Memory Used ", "Exception code: " + expected[0] + "\r\n", "Fault address:  ", "/tavix\r\n",
              "RAX:", "RIP:", "Call stack:", expected[1], "echo_faults.cc line ",
              "Local Variables And Parameters:", expected[1], expected[2]},
        &missing))
        << "kind " << kind << " lacks " << missing << " in\n" << one;
    start = end;
  }
  std::filesystem::remove_all(dir);
}

// A program in a folder it cannot write keeps its log in the temporary folder, as its temporary blob files do.
TEST(TavixCall, LogGoesToTheTemporaryFolderWhenTheProgramsFolderCannotBeWritten) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("tavix_ro_" + std::to_string(getpid()));
  const std::filesystem::path tmp = dir.string() + "_tmp";
  std::filesystem::create_directories(dir);
  std::filesystem::create_directories(tmp);
  std::filesystem::copy_file(TAVIX_TOOL_PATH, dir / "tavix", std::filesystem::copy_options::overwrite_existing);
  // Immutable: not even root may create a file in it.
  if (std::system(("chattr +i " + dir.string() + " 2>/dev/null").c_str()) != 0) {
    std::filesystem::remove_all(dir);
    std::filesystem::remove_all(tmp);
    GTEST_SKIP() << "no immutable folders here";
  }
  ToolProcess tool("call 'Echo:tcp -h no-such-host.invalid -p 5678' echo x",
                   "env TMPDIR=" + tmp.string() + " " + (dir / "tavix").string());
  std::string output;
  EXPECT_EQ(1, tool.Wait(&output));
  EXPECT_NE(std::string::npos, output.find("0x20000409 Host not found.")) << output;
  EXPECT_NE(std::string::npos, test_report::Text((tmp / "tavix_tavix.log").string()).find("DNS Error:no-such-host.invalid"));
  EXPECT_FALSE(std::filesystem::exists(dir / "tavix_tavix.log"));
  EXPECT_EQ(0, std::system(("chattr -i " + dir.string()).c_str()));
  std::filesystem::remove_all(dir);
  std::filesystem::remove_all(tmp);
}

class ClientCommandsTest : public ::testing::Test {
 protected:
  std::string Proxy(const std::string& object = "Echo") const {
    return "'" + object + ":tcp -h 127.0.0.1 -p " + std::to_string(m_server.port) + " -t 3000'";
  }
  TestServer m_server{MakeShared<EchoServant>(), 0, "Echo"};
};

TEST_F(ClientCommandsTest, PingPrintsOneLinePerCallAndCallAnswers) {
  // "Echo" and "ObjectPing": 20 + 4 + 9 + 21 bytes.
  ToolRun run = Tool("ping " + Proxy() + " --count 3");
  EXPECT_EQ(0, run.status) << run.output;
  for (const char* text : {"ping 1: ", "ping 2: ", "ping 3: ", " ms  request 54 bytes  reply 36 bytes  server "}) {
    EXPECT_TRUE(run.Has(text)) << run.output;
  }
  EXPECT_EQ(3, std::count(run.output.begin(), run.output.end(), '\n'));
  run = Tool("ping " + Proxy() + " --oneway");
  EXPECT_EQ(0, run.status) << run.output;
  EXPECT_TRUE(run.Has("request 54 bytes  reply 0 bytes")) << run.output;
  const std::pair<std::string, const char*> calls[] = {
      {"echo 'hello there'", "hello there\n"}, {"isa ::TAVIX::Echo", "true\n"}, {"isa ::TAVIX::Printer", "false\n"}};
  for (const auto& [arguments, output] : calls) {
    run = Tool("call " + Proxy() + " " + arguments);
    EXPECT_EQ(0, run.status) << arguments;
    EXPECT_EQ(output, run.output);
  }
}

// --repeat: one line per call in request order, over a proxy string with a dead endpoint first; a failed call's line
// names its code and makes the exit status 1.
TEST_F(ClientCommandsTest, RepeatPrintsEachReplyInOrderAndFailuresByTheirCode) {
  const std::string dead = "tcp -h 127.0.0.1 -p " + std::to_string(FreePort());
  ToolRun run = Tool("call 'Echo:ordered:" + dead + ":tcp -h 127.0.0.1 -p " + std::to_string(m_server.port) +
                     " -t 3000' echo hello --repeat 3");
  EXPECT_EQ(0, run.status) << run.output;
  EXPECT_EQ("hello 1\nhello 2\nhello 3\n", run.output);
  run = Tool("call 'Echo:" + dead + "' echo hello --repeat 2");
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("call 1 failed: 0x0000006F Connection refused\ncall 2 failed: 0x0000006F Connection refused\n", run.output);
  EXPECT_EQ(2, Tool("call " + Proxy() + " isa x --repeat 2").status) << "--repeat goes with echo only";
}

// Failures of the client commands and of `tavix serve`'s start.
TEST_F(ClientCommandsTest, FailuresPrintTheirCodeAndExitOneOrTwo) {
  const std::string closed = std::to_string(FreePort());
  const std::tuple<std::string, int, const char*> cases[] = {
      {"call " + Proxy("Nobody") + " echo x", 1, "0x2000000C Object not find."},
      {"call 'Echo:tcp -h no-such-host.invalid -p 5678' echo x", 1, "Echo failed: 0x20000409 Host not found."},
      // Application statuses print the texts given to them, others their own.
      {"call " + Proxy() + " fail 0x40000007 --status-text '0x40000007=Out of stock'", 1,
       "Fail failed: 0x40000007 Out of stock"},
      {"call " + Proxy() + " fail 0x40000008", 1, "Fail failed: 0x40000008 Unknown Error"},
      {"call " + Proxy() + " fail 0x20000021", 1, "Fail failed: 0x20000021 CRC check error."},
      {"call " + Proxy() + " fail 0 --status-text '0x20000021=mine'", 2, "--status-text needs CODE=TEXT"},
      {"call 'Echo:tcp -h 127.0.0.1 -p 0' echo x", 1, "0x20000003 Error passport string."},
      {"ping 'Echo:tcp -h 127.0.0.1 -p " + closed + "'", 1, "ping 1 failed: 0x0000006F"},  // ECONNREFUSED
      // Broadcasts carry one-way calls only; nothing is sent for a two-way one.
      {"ping 'Echo:udp -h #any -p " + closed + "'", 1,
       "0x20000019 Broadcast transfers can be only used with oneway mode."},
      {"ping 'no-colon'", 1, "0x2000000A"},
      {"ping", 2, ""},
      {"ping " + Proxy() + " --count 0", 2, ""},
      {"call " + Proxy() + " shout x", 2, ""},
      {"serve --endpoint 'tcp -h #any'", 1, "0x20000003 Error passport string."},
      {"serve " + Endpoint(m_server.port), 1, "0x00000062"},  // EADDRINUSE: this test's server has the port
      {"serve --endpoint", 2, ""},
      {"frobnicate", 2, ""},
  };
  for (const auto& [arguments, status, text] : cases) {
    const ToolRun run = Tool(arguments);
    EXPECT_EQ(status, run.status) << arguments;
    EXPECT_TRUE(run.Has(text)) << run.output;
  }
}

// `tavix serve` on an ssl endpoint that requires client certificates: a client with one is served and its subject
// comes back from peer-identity; a client without one is refused with its code; SIGHUP reloads the files.
TEST(TavixServe, ServesSslWithClientCertificatesAndReloadsOnSighup) {
  const std::filesystem::path certs =
      std::filesystem::temp_directory_path() / ("tavix-tool-tls-" + std::to_string(getpid()));
  ASSERT_EQ(0, std::system(("bash " TAVIX_SOURCE_DIR "/tests/tls/make_certs.sh " + certs.string()).c_str()));
  const auto file = [&](const char* name) { return (certs / name).string(); };
  ToolProcess server("serve --endpoint 'ssl -h 127.0.0.1 -p 0' --tls-cert " + file("server.pem") + " --tls-key " +
                     file("server.key") + " --tls-ca " + file("ca.pem") + " --tls-client-certs require");
  const std::string printed = server.Line();
  ASSERT_EQ(0u, printed.rfind("Echo:ssl -h 127.0.0.1 -p ", 0)) << printed;
  const std::string proxy = "'Echo:ssl -h 127.0.0.1 -p " + std::to_string(PortOf(printed)) + " -t 3000'";
  const std::string trust = " --tls-ca " + file("ca.pem");
  const ToolRun alice =
      Tool("call " + proxy + " peer-identity" + trust + " --tls-cert " + file("client.pem") + " --tls-key " + file("client.key"));
  EXPECT_EQ(0, alice.status);
  EXPECT_EQ("O=Example Clients,CN=alice\n", alice.output);
  const ToolRun nobody = Tool("call " + proxy + " peer-identity" + trust);
  EXPECT_EQ(1, nobody.status);
  EXPECT_TRUE(nobody.Has("0x2000040F TLS handshake failed.")) << nobody.output;
  const ToolRun noTrust = Tool("ping " + proxy + " --tls-ca " + file("other-ca.pem"));
  EXPECT_EQ(1, noTrust.status) << "the server's certificate is not from a trusted CA";
  server.Signal(SIGHUP);
  EXPECT_EQ("TLS settings reloaded", server.Line());
  server.Signal(SIGTERM);
  std::string rest;
  EXPECT_EQ(0, server.Wait(&rest));
  EXPECT_EQ("requests: 1\n", rest);
  std::filesystem::remove_all(certs);
}

}  // namespace
}  // namespace TAVIX
