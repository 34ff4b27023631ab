// `tavix serve` under load and faults, as an operator would try it: running out of descriptors, stalled and vanishing
// clients, a sleeping servant, many idle clients, the connection limit. Each case asserts its outcome and prints its
// figure.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>

#include "tavix/testing/report_files.h"
#include "tavix/testing/wire.h"
#include "tools/echo_proxy.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// Prints a case's figure on a line of its own.
template <class... T>
void Figure(const T&... parts) {
  (std::cout << ... << parts) << std::endl;
}

// `tavix serve` on a port the system picks, as a child process, started through the shell so that a descriptor limit can be set
// first. It runs a copy of the tool in a folder of its own, so that its log (beside the executable) is its own too.
class Server {
 public:
  explicit Server(const std::string& options, int32_t fileLimit = 0) {
    std::filesystem::copy_file(TAVIX_TOOL_PATH, m_dir / "tavix");
    const std::string limit = fileLimit > 0 ? "ulimit -n " + std::to_string(fileLimit) + "; " : "";
    m_output = popen(("echo $$; " + limit + "exec " + (m_dir / "tavix").string() + " serve --endpoint 'tcp -h #any -p " +
                      "0' " + options + " 2>&1").c_str(), "r");
    char line[512];
    m_pid = std::fgets(line, sizeof line, m_output) != nullptr ? std::atoi(line) : 0;  // the shell's, then the tool's
    EXPECT_NE(nullptr, std::fgets(line, sizeof line, m_output)) << "the server printed its proxy string";
    const char* printed = std::strstr(line, " -p ");
    port = printed != nullptr ? static_cast<uint16_t>(std::atoi(printed + 4)) : 0;
    EXPECT_NE(0, port) << line;
  }
  ~Server() {
    if (m_pid > 0) kill(m_pid, SIGKILL), waitpid(m_pid, nullptr, 0);
    pclose(m_output);
    std::filesystem::remove_all(m_dir);
  }
  bool Logged(const std::string& text) const {
    return test_report::Text(m_dir / "tavix_tavix.log").find(text) != std::string::npos;
  }
  // Milliseconds from the signal to the exit, or -1 when it took longer than `limitMs`.
  int64_t StopWithin(uint64_t limitMs, int signal = SIGTERM) {
    const uint64_t start = platform::TickCountMs();
    kill(m_pid, signal);
    for (; MsSince(start) <= limitMs; platform::SleepMs(10)) {
      if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) return m_pid = 0, static_cast<int64_t>(MsSince(start));
    }
    return -1;
  }
  int64_t Status(const std::string& field) const { return ProcStatus(std::to_string(m_pid), field); }
  int64_t Descriptors() const {
    const std::filesystem::path fds("/proc/" + std::to_string(m_pid) + "/fd");
    return std::distance(std::filesystem::directory_iterator(fds), std::filesystem::directory_iterator());
  }
  // A new client is validated and its ping answered.
  bool Serves() const {
    RawClient client;
    return client.Connect(port) && client.Receive(HEADER_SIZE) == Header(MSG_VALIDATE, 20) &&
           client.Send(Request(1, u"Echo", u"ObjectPing")) && ParseReply(client.ReceiveMessage()).requestId == 1;
  }
  pid_t Pid() const { return m_pid; }
  uint16_t port = 0;

 private:
  const std::filesystem::path m_dir = std::filesystem::path(mkdtemp(std::string("/tmp/tavix-load-XXXXXX").data()));
  pid_t m_pid = 0;
  FILE* m_output = nullptr;
};

std::vector<std::unique_ptr<RawClient>> Connect(uint16_t port, int count, bool validated) {
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < count; ++i) {
    auto client = std::make_unique<RawClient>();
    if (!client->Connect(port)) break;
    EXPECT_TRUE(!validated || client->Receive(HEADER_SIZE) == Header(MSG_VALIDATE, 20)) << "client " << i;
    clients.push_back(std::move(client));
  }
  return clients;
}

// The first bytes of a request: a header that promises a body, and part of it.
Bytes StalledRequest() {
  const Bytes whole = Request(5, u"Echo", u"Echo", Writer().wstr(std::u16string(200, u'x')).get());
  return Bytes(whole.begin(), whole.begin() + 60);
}

TEST(Load, DescriptorExhaustionPassesAndTheServerRecovers) {
  Server server("", 256);
  // The log file opens with the first error line, which the flood writes.
  const int64_t baseline = server.Descriptors() + 1;
  {
    auto flood = Connect(server.port, 400, false);
    platform::SleepMs(500);
    Figure("fd exhaustion: ", flood.size(), " clients connected, server holds ", server.Descriptors(),
           " descriptors (limit 256)");
  }
  const uint64_t start = platform::TickCountMs();
  EXPECT_TRUE(Eventually([&] { return server.Serves(); }, 2000)) << "a new client is served within 2 s";
  Figure("fd exhaustion: new client served ", MsSince(start), " ms after the flood stopped");
  EXPECT_TRUE(Eventually([&] { return server.Descriptors() <= baseline; }, 5000))
      << server.Descriptors() << " descriptors, baseline " << baseline;
}

TEST(Load, StalledBodyNeverHoldsShutdownAndTimesOut) {
  for (const char* options : {"", "--body-timeout 1000"}) {
    Server server(options);
    RawClient stalled;
    ASSERT_TRUE(stalled.Connect(server.port));
    stalled.Receive(HEADER_SIZE);
    const uint64_t start = platform::TickCountMs();
    ASSERT_TRUE(stalled.Send(StalledRequest()));
    if (*options != '\0') {
      EXPECT_TRUE(stalled.ClosedByPeer(3000));
      Figure("stalled body: connection ended by the 1 s body time-out after ", MsSince(start), " ms");
      continue;
    }
    platform::SleepMs(200);
    const int64_t ms = server.StopWithin(3000);
    EXPECT_GE(ms, 0) << "SIGTERM ended the server within 3 s";
    Figure("stalled body: shutdown took ", ms, " ms");
  }
}

TEST(Load, SleepingServantIsAbandonedAfterTheGracePeriod) {
  Server server("--grace 2000");
  RawClient sleeper;
  ASSERT_TRUE(sleeper.Connect(server.port));
  sleeper.Receive(HEADER_SIZE);
  ASSERT_TRUE(sleeper.Send(Request(9, u"Echo", u"Sleep", Writer().i32(600000).get())));
  platform::SleepMs(300);
  const int64_t ms = server.StopWithin(5000);
  EXPECT_GE(ms, 1900) << "the request had its grace period, and ended within it and 3 s";
  Figure("sleeping servant: shutdown took ", ms, " ms with a 2 s grace period");
  EXPECT_TRUE(server.Logged("Request abandoned at shutdown: object Echo, operation Sleep"));
}

TEST(Load, ClientGoneMidBlobLeavesNoTemporaryFile) {
  Server server("");
  const std::filesystem::path folder = std::filesystem::path(TAVIX_LIBRARY_DIR) / "TavixBuffer";
  std::string prefix = std::to_string(server.Pid());  // files are named "%05d" of the pid first
  prefix.insert(0, prefix.size() < 5 ? 5 - prefix.size() : 0, '0');
  const auto files = [&] {
    int32_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      count += entry.path().filename().string().rfind(prefix, 0) == 0 ? 1 : 0;
    }
    return count;
  };
  const int32_t bytes = 4 << 20;  // well past the 1 MiB from which a blob is a file
  Bytes request = Request(6, u"Echo", u"EchoBlob", Writer().u8(0xFF).i32(bytes).bytes(Bytes(bytes, 0x42)).get());
  request.resize(request.size() / 2);
  {
    RawClient client;
    ASSERT_TRUE(client.Connect(server.port));
    client.Receive(HEADER_SIZE);
    ASSERT_TRUE(client.Send(request));
    EXPECT_TRUE(Eventually([&] { return files() == 1; }, 2000)) << "the half-received blob is in a file";
  }
  EXPECT_TRUE(Eventually([&] { return files() == 0; }, 2000)) << files() << " files left in " << folder;
}

TEST(Load, ThousandIdleClientsDoNotSlowShutdown) {
  Server server("");
  auto idle = Connect(server.port, 1000, true);
  ASSERT_EQ(1000u, idle.size());
  const int64_t threads = server.Status("Threads");
  const int64_t ms = server.StopWithin(3000);
  EXPECT_GE(ms, 0) << "SIGTERM ended the server within 3 s";
  Figure("1000 idle clients: ", threads, " server threads, shutdown took ", ms, " ms");
}

TEST(Load, ConnectionLimitClosesTheNextClientAtOnce) {
  Server server("--max-connections 100");
  auto admitted = Connect(server.port, 100, true);
  ASSERT_EQ(100u, admitted.size());
  RawClient extra;
  ASSERT_TRUE(extra.Connect(server.port));
  EXPECT_TRUE(extra.ClosedByPeer(2000)) << "closed before any validation message";
  for (auto& client : admitted) {
    ASSERT_TRUE(client->Send(Request(2, u"Echo", u"ObjectPing")));
    EXPECT_EQ(2, ParseReply(client->ReceiveMessage()).requestId);
  }
  server.StopWithin(3000);
  EXPECT_TRUE(server.Logged("Connection limit of 100 reached"));
  Figure("connection limit: 100 served, the 101st closed at once");
}

TEST(Load, VanishingClientsDoNotDisturbWellBehavedOnes) {
  Server server("");
  ASSERT_TRUE(server.Serves());
  platform::SleepMs(200);
  const int64_t baseRss = server.Status("VmRSS"), baseThreads = server.Status("Threads");
  std::atomic<bool> stop{false};
  std::atomic<int64_t> calls{0}, failures{0};
  std::atomic<uint32_t> firstFailure{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 64; ++i) {
    threads.emplace_back([&] {
      SmartPtr<EchoPrx> proxy = CreateProxy<EchoPrx>(
          Initialize(), "Echo:tcp -h 127.0.0.1 -p " + std::to_string(server.port) + " -t 60000");
      std::u16string out;
      while (!stop) {
        const uint32_t result = proxy->Echo(u"steady", out);
        if (result == 0 && out == u"steady") {
          ++calls;
          continue;
        }
        uint32_t none = 0;
        firstFailure.compare_exchange_strong(none, result == 0 ? 1 : result);
        ++failures;
      }
    });
    threads.emplace_back([&] {
      while (!stop) {
        RawClient rude;
        if (rude.Connect(server.port) && rude.Receive(HEADER_SIZE).size() == HEADER_SIZE) rude.Send(StalledRequest());
      }
    });
  }
  platform::SleepMs(30000);
  stop = true;
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(0, failures.load()) << "the first failure: " << std::hex << firstFailure.load();
  EXPECT_TRUE(Eventually([&] { return server.Status("Threads") <= baseThreads; }, 5000))
      << server.Status("Threads") << " threads, baseline " << baseThreads;
  const int64_t rss = server.Status("VmRSS");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // sanitizers keep memory of their own
  EXPECT_LT(rss - baseRss, 16 * 1024) << "kilobytes grown";
#endif
  Figure("churn: ", calls.load(), " calls, ", failures.load(), " failed; server memory ", baseRss, " -> ", rss,
         " kB, threads back to ", server.Status("Threads"));
}

}  // namespace
}  // namespace TAVIX
