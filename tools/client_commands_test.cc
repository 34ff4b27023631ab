// `tavix ping` and `tavix call` as processes against an Echo servant served
// by this test: what they print, and their exit statuses.
#include <sys/wait.h>

#include <cstdio>

#include "tavix/invoke/wire_test_util.h"
#include "tools/echo_servant.h"

namespace TAVIX {
namespace {

struct ToolRun {
  int status = -1;
  std::string output;  // standard output and error together
};

ToolRun Tool(const std::string& arguments) {
  ToolRun run;
  FILE* pipe = popen((std::string(TAVIX_TOOL_PATH) + " " + arguments + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return run;
  char buffer[256];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) run.output += buffer;
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

class ClientCommandsTest : public ::testing::Test {
 protected:
  std::string Proxy(const std::string& object = "Echo") const {
    return "'" + object + ":tcp -h 127.0.0.1 -p " + std::to_string(m_server.port) + " -t 3000'";
  }

  test_wire::TestServer m_server{MakeShared<EchoServant>(), 0, "Echo"};
};

TEST_F(ClientCommandsTest, PingPrintsOneLinePerCall) {
  // "Echo" and "ObjectPing": 20 + 4 + 9 + 21 bytes.
  ToolRun run = Tool("ping " + Proxy() + " --count 3");
  EXPECT_EQ(0, run.status) << run.output;
  for (const char* seq : {"ping 1: ", "ping 2: ", "ping 3: "}) {
    EXPECT_NE(std::string::npos, run.output.find(seq)) << run.output;
  }
  EXPECT_EQ(3u, std::count(run.output.begin(), run.output.end(), '\n'));
  EXPECT_NE(std::string::npos, run.output.find(" ms  request 54 bytes  reply 36 bytes  server ")) << run.output;

  run = Tool("ping " + Proxy() + " --oneway");
  EXPECT_EQ(0, run.status) << run.output;
  EXPECT_NE(std::string::npos, run.output.find("request 54 bytes  reply 0 bytes")) << run.output;
}

TEST_F(ClientCommandsTest, CallEchoesAndAnswersIsA) {
  ToolRun run = Tool("call " + Proxy() + " echo 'hello there'");
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("hello there\n", run.output);
  run = Tool("call " + Proxy() + " isa ::TAVIX::Echo");
  EXPECT_EQ("true\n", run.output);
  run = Tool("call " + Proxy() + " isa ::TAVIX::Printer");
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("false\n", run.output);
}

TEST_F(ClientCommandsTest, FailuresPrintTheirCodeAndExitOne) {
  ToolRun run = Tool("call " + Proxy("Nobody") + " echo x");
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.output.find("0x2000000C Object not find.")) << run.output;

  const uint16_t closed = test_wire::FreePort();
  run = Tool("ping 'Echo:tcp -h 127.0.0.1 -p " + std::to_string(closed) + "'");
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.output.find("ping 1 failed: 0x0000006F")) << run.output;  // ECONNREFUSED

  // Broadcasts carry one-way calls only; nothing is sent for a two-way one.
  run = Tool("ping 'Echo:udp -h #any -p " + std::to_string(closed) + "'");
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.output.find("0x20000019 Broadcast transfers can be only used with oneway mode."))
      << run.output;

  run = Tool("ping 'no-colon'");
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.output.find("0x2000000A")) << run.output;

  EXPECT_EQ(2, Tool("ping").status);
  EXPECT_EQ(2, Tool("ping " + Proxy() + " --count 0").status);
  EXPECT_EQ(2, Tool("call " + Proxy() + " shout x").status);
}

}  // namespace
}  // namespace TAVIX
