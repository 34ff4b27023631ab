// `tavix serve` under load and faults, as an operator would try it: running
// out of descriptors, stalled and vanishing clients, a sleeping servant,
// many idle clients, the connection limit. Each case asserts its outcome
// and prints its figure.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstring>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tavix/invoke/wire_test_util.h"
#include "tools/echo_proxy.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// `tavix serve` on a free port as a child process, started through the
// shell so that a descriptor limit can be set first. It runs a copy of the
// tool in a folder of its own, so that its log (beside the executable) is
// its own too.
class Server {
 public:
  explicit Server(const std::string& options, int32_t fileLimit = 0) : port(FreePort()) {
    std::filesystem::copy_file(TAVIX_TOOL_PATH, m_dir / "tavix");
    int out[2];
    EXPECT_EQ(0, pipe(out));
    const std::string command = (fileLimit > 0 ? "ulimit -n " + std::to_string(fileLimit) + "; " : "") + "exec " +
                                (m_dir / "tavix").string() + " serve --endpoint 'tcp -h #any -p " + std::to_string(port) + "' " +
                                options;
    m_pid = fork();
    if (m_pid == 0) {
      dup2(out[1], 1);
      dup2(out[1], 2);
      execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    close(out[1]);
    m_output = fdopen(out[0], "r");
    char line[512];
    EXPECT_NE(nullptr, std::fgets(line, sizeof line, m_output)) << "the server printed its proxy string";
  }
  ~Server() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
    if (m_output != nullptr) fclose(m_output);
    std::filesystem::remove_all(m_dir);
  }

  // The server's trace log (UTF-16) as text.
  std::u16string Log() const {
    std::ifstream in(m_dir / "tavix_tavix.log", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::u16string text(bytes.size() / 2, u'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * 2);
    return text;
  }

  // Milliseconds from the signal to the exit, or -1 when it took longer
  // than `limitMs`.
  int64_t StopWithin(uint64_t limitMs, int signal = SIGTERM) {
    const uint64_t start = platform::TickCountMs();
    kill(m_pid, signal);
    for (;;) {
      if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
        m_pid = 0;
        return static_cast<int64_t>(MsSince(start));
      }
      if (MsSince(start) > limitMs) return -1;
      platform::SleepMs(10);
    }
  }
  int64_t Status(const std::string& field) const {
    std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
    std::string word;
    int64_t value = -1;
    while (status >> word && word != field + ":") {
    }
    status >> value;
    return value;
  }
  int64_t Descriptors() const {
    const std::filesystem::path fds("/proc/" + std::to_string(m_pid) + "/fd");
    return std::distance(std::filesystem::directory_iterator(fds), std::filesystem::directory_iterator());
  }
  std::string Proxy(uint32_t timeoutMs = 5000) const {
    return "Echo:tcp -h 127.0.0.1 -p " + std::to_string(port) + " -t " + std::to_string(timeoutMs);
  }
  // A new client is validated and its ping answered.
  bool Serves() const {
    RawClient client;
    return client.Connect(port) && client.Receive(HEADER_SIZE) == Header(MSG_VALIDATE, 20) &&
           client.Send(Request(1, u"Echo", u"ObjectPing")) && ParseReply(client.ReceiveMessage()).requestId == 1;
  }

  pid_t Pid() const { return m_pid; }

  const uint16_t port;

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
    if (validated) {
      EXPECT_EQ(Header(MSG_VALIDATE, 20), client->Receive(HEADER_SIZE)) << "client " << i;
    }
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
    std::printf("fd exhaustion: %" PRId64 " clients connected, server holds %" PRId64 " descriptors (limit 256)\n", static_cast<int64_t>(flood.size()),
                static_cast<int64_t>(server.Descriptors()));
  }
  const uint64_t start = platform::TickCountMs();
  EXPECT_TRUE(Eventually([&] { return server.Serves(); }, 2000)) << "a new client is served within 2 s";
  std::printf("fd exhaustion: new client served %" PRId64 " ms after the flood stopped\n",
              static_cast<int64_t>(MsSince(start)));
  EXPECT_TRUE(Eventually([&] { return server.Descriptors() <= baseline; }, 5000))
      << server.Descriptors() << " descriptors, baseline " << baseline;
}

TEST(Load, StalledBodyNeverHoldsShutdownAndTimesOut) {
  {
    Server server("");
    RawClient stalled;
    ASSERT_TRUE(stalled.Connect(server.port));
    stalled.Receive(HEADER_SIZE);
    ASSERT_TRUE(stalled.Send(StalledRequest()));
    platform::SleepMs(200);
    const int64_t ms = server.StopWithin(3000);
    EXPECT_GE(ms, 0) << "SIGTERM ended the server within 3 s";
    std::printf("stalled body: shutdown took %" PRId64 " ms\n", static_cast<int64_t>(ms));
  }
  Server server("--body-timeout 1000");
  RawClient stalled;
  ASSERT_TRUE(stalled.Connect(server.port));
  stalled.Receive(HEADER_SIZE);
  const uint64_t start = platform::TickCountMs();
  ASSERT_TRUE(stalled.Send(StalledRequest()));
  EXPECT_TRUE(stalled.ClosedByPeer(3000));
  std::printf("stalled body: connection ended by the 1 s body time-out after %" PRId64 " ms\n",
              static_cast<int64_t>(MsSince(start)));
}

TEST(Load, SleepingServantIsAbandonedAfterTheGracePeriod) {
  Server server("--grace 2000");
  RawClient sleeper;
  ASSERT_TRUE(sleeper.Connect(server.port));
  sleeper.Receive(HEADER_SIZE);
  ASSERT_TRUE(sleeper.Send(Request(9, u"Echo", u"Sleep", Writer().i32(600000).get())));
  platform::SleepMs(300);
  const int64_t ms = server.StopWithin(5000);
  EXPECT_GE(ms, 1900) << "the request had its grace period";
  EXPECT_GE(ms, 0) << "ended within the grace period and 3 s";
  std::printf("sleeping servant: shutdown took %" PRId64 " ms with a 2 s grace period\n", static_cast<int64_t>(ms));
  const std::u16string text = server.Log();
  EXPECT_NE(std::u16string::npos, text.find(u"Request abandoned at shutdown: object Echo, operation Sleep"));
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
  std::printf("1000 idle clients: %" PRId64 " server threads, shutdown took %" PRId64 " ms\n", static_cast<int64_t>(threads),
              static_cast<int64_t>(ms));
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
  const std::u16string text = server.Log();
  EXPECT_NE(std::u16string::npos, text.find(u"Connection limit of 100 reached"));
  std::printf("connection limit: 100 served, the 101st closed at once\n");
}

TEST(Load, VanishingClientsDoNotDisturbWellBehavedOnes) {
  Server server("");
  ASSERT_TRUE(server.Serves());
  platform::SleepMs(200);
  const int64_t baseRss = server.Status("VmRSS");
  const int64_t baseThreads = server.Status("Threads");
  std::atomic<bool> stop{false};
  std::atomic<int64_t> calls{0};
  std::atomic<int64_t> failures{0};
  std::atomic<uint32_t> firstFailure{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 64; ++i) {
    threads.emplace_back([&] {
      SmartPtr<EchoPrx> proxy = CreateProxy<EchoPrx>(Initialize(), server.Proxy(60000));
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
  std::printf("churn: %" PRId64 " calls, %" PRId64 " failed; server memory %" PRId64 " -> %" PRId64 " kB, threads back to %" PRId64 "\n",
              static_cast<int64_t>(calls.load()), static_cast<int64_t>(failures.load()),
              static_cast<int64_t>(baseRss), static_cast<int64_t>(rss),
              static_cast<int64_t>(server.Status("Threads")));
}

}  // namespace
}  // namespace TAVIX
