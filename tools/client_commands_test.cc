// `tavix ping` and `tavix call` as processes against an Echo servant served by this test: what they print, and their
// exit statuses.
#include <sys/wait.h>

#include <cstdio>

#include "tavix/invoke/wire_test_util.h"
#include "tools/echo_servant.h"

namespace TAVIX {
namespace {

struct ToolRun {
  bool Has(const std::string& text) const { return output.find(text) != std::string::npos; }
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

TEST_F(ClientCommandsTest, FailuresPrintTheirCodeAndExitOneOrTwo) {
  const std::string closed = std::to_string(test_wire::FreePort());
  const std::tuple<std::string, int, const char*> cases[] = {
      {"call " + Proxy("Nobody") + " echo x", 1, "0x2000000C Object not find."},
      {"ping 'Echo:tcp -h 127.0.0.1 -p " + closed + "'", 1, "ping 1 failed: 0x0000006F"},  // ECONNREFUSED
      // Broadcasts carry one-way calls only; nothing is sent for a two-way one.
      {"ping 'Echo:udp -h #any -p " + closed + "'", 1,
       "0x20000019 Broadcast transfers can be only used with oneway mode."},
      {"ping 'no-colon'", 1, "0x2000000A"},
      {"ping", 2, ""},
      {"ping " + Proxy() + " --count 0", 2, ""},
      {"call " + Proxy() + " shout x", 2, ""},
  };
  for (const auto& [arguments, status, text] : cases) {
    const ToolRun run = Tool(arguments);
    EXPECT_EQ(status, run.status) << arguments;
    EXPECT_TRUE(run.Has(text)) << run.output;
  }
}

}  // namespace
}  // namespace TAVIX
