// Remote calls over loopback TCP, each beside two plain sockets moving the
// same bytes the same way:
//   - one proxy's two-way "ObjectPing" round trip (48-byte request, 36-byte
//     reply) against a raw ping-pong of 48 and 36 bytes;
//   - calls per second from 1, 8 and 64 client threads, each with its own
//     proxy and connection;
//   - "EchoBlob" of 8 MiB against a raw transfer of 8 MiB each way.
// The run ends with the ratios of each pair.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tavix/adapter/object_adapter.h"
#include "tavix/platform/socket.h"
#include "tavix/runtime/communicator.h"
#include "tavix/transport/tcp_acceptor.h"
#include "tools/echo_proxy.h"
#include "tools/echo_servant.h"

namespace TAVIX {
namespace {

constexpr int32_t kPingRequest = 48;  // "ObjectPing" to the object "A"
constexpr int32_t kPingReply = 36;
constexpr int32_t kBlobBytes = 8 << 20;
constexpr int32_t kSocketBuffer = 65536;  // what every TAVIX connection uses

// The Echo servant as "A" on a loopback port, and the clients' runtime.
struct Bench {
  SmartPtr<Communicator> server = Initialize();
  SmartPtr<Communicator> client = Initialize();
  std::string proxyString;
};
Bench* g_bench = nullptr;

uint16_t FreePort() {
  TcpAcceptor probe;
  InetAddr any;
  any.SetAny(0);
  probe.SetAddress(any);
  return probe.Open() == 0 ? probe.Address().Port() : 0;
}

bool StartServer(Bench& bench) {
  const uint16_t port = FreePort();
  SmartPtr<ObjectAdapter> adapter = bench.server->CreateObjectAdapter(std::string("Bench"));
  if (!adapter->AddServant(MakeShared<EchoServant>(), std::string("A"))) return false;
  adapter->Activate();
  if (!adapter->AddPassport("tcp -h #any -p " + std::to_string(port))) return false;
  bench.proxyString = "A:tcp -h 127.0.0.1 -p " + std::to_string(port) + " -t 30000";
  return true;
}

// A connected proxy, or null with the benchmark marked failed.
SmartPtr<EchoPrx> ConnectedProxy(benchmark::State& state) {
  SmartPtr<EchoPrx> proxy = CreateProxy<EchoPrx>(g_bench->client, g_bench->proxyString);
  if (!proxy || proxy->ObjectPing() != 0) {
    state.SkipWithError("cannot reach the Echo servant");
    return nullptr;
  }
  return proxy;
}

// Two plain connected loopback sockets with the buffers TAVIX gives its
// connections; a thread on the far end answers every `request` bytes with
// `reply` bytes until the near end hangs up.
class RawPeer {
 public:
  RawPeer(int32_t request, int32_t reply) : m_request(request), m_reply(reply) {
    platform::Socket listener;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    uint32_t acceptedLength = sizeof address;
    m_ok = listener.Create(platform::SocketType::kStream) && listener.Bind(&address, sizeof address) &&
           listener.Listen(1) &&
           getsockname(listener.Handle(), reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
           m_near.Create(platform::SocketType::kStream) && Tune(m_near) &&
           m_near.Connect(&address, sizeof address) && listener.Accept(m_far, &address, acceptedLength) &&
           Tune(m_far);
    if (m_ok) m_thread = std::thread([this] { Answer(); });
  }
  ~RawPeer() {
    m_near.Close();
    if (m_thread.joinable()) m_thread.join();
  }
  bool ok() const { return m_ok; }

  bool RoundTrip() {
    return Move(m_near, m_outgoing.data(), m_request, true) && Move(m_near, m_incoming.data(), m_reply, false);
  }

 private:
  static bool Tune(const platform::SocketView& s) {
    return s.SetSendBufSize(kSocketBuffer) && s.SetRecvBufSize(kSocketBuffer);
  }
  // All `count` bytes sent or received; false when the peer went.
  static bool Move(const platform::SocketView& s, uint8_t* data, int32_t count, bool send) {
    for (int32_t done = 0; done < count;) {
      const int32_t n = send ? s.Send(data + done, count - done) : s.Recv(data + done, count - done);
      if (n <= 0) return false;
      done += n;
    }
    return true;
  }
  void Answer() {
    std::vector<uint8_t> in(static_cast<size_t>(m_request));
    std::vector<uint8_t> out(static_cast<size_t>(m_reply), 0x5A);
    while (Move(m_far, in.data(), m_request, false) && Move(m_far, out.data(), m_reply, true)) {
    }
  }

  int32_t m_request;
  int32_t m_reply;
  std::vector<uint8_t> m_outgoing = std::vector<uint8_t>(static_cast<size_t>(m_request), 0xA5);
  std::vector<uint8_t> m_incoming = std::vector<uint8_t>(static_cast<size_t>(m_reply));
  platform::Socket m_near;
  platform::Socket m_far;
  bool m_ok = false;
  std::thread m_thread;
};

void BM_TavixPing(benchmark::State& state) {
  SmartPtr<EchoPrx> proxy = ConnectedProxy(state);
  if (!proxy) return;
  for (auto _ : state) {
    if (proxy->ObjectPing() != 0) {
      state.SkipWithError("ObjectPing failed");
      break;
    }
  }
  if (proxy->GetLastPerfmon().requestSize != kPingRequest || proxy->GetLastPerfmon().replySize != kPingReply) {
    state.SkipWithError("unexpected message sizes");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TavixPing)->UseRealTime();

// Round trips of the given sizes between two plain sockets; false when the
// sockets could not be connected or a trip failed.
bool RunRawRoundTrips(benchmark::State& state, int32_t request, int32_t reply) {
  RawPeer peer(request, reply);
  if (!peer.ok()) {
    state.SkipWithError("cannot connect plain sockets");
    return false;
  }
  for (auto _ : state) {
    if (!peer.RoundTrip()) {
      state.SkipWithError("round trip failed");
      return false;
    }
  }
  return true;
}

void BM_RawPingPong(benchmark::State& state) {
  if (RunRawRoundTrips(state, kPingRequest, kPingReply)) state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawPingPong)->UseRealTime();

// Every thread has its own proxy, so its own connection and serving thread.
void BM_TavixCalls(benchmark::State& state) {
  SmartPtr<EchoPrx> proxy = ConnectedProxy(state);
  if (!proxy) return;
  for (auto _ : state) {
    if (proxy->ObjectPing() != 0) {
      state.SkipWithError("ObjectPing failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TavixCalls)->Threads(1)->Threads(8)->Threads(64)->UseRealTime()->MinTime(1.0);

void BM_TavixEchoBlob8MiB(benchmark::State& state) {
  SmartPtr<EchoPrx> proxy = ConnectedProxy(state);
  if (!proxy) return;
  SmartPtr<ITavixBlob> blob = CreateTavixMemBlob();
  std::vector<uint8_t> content(kBlobBytes, 0xC3);
  blob->Write(content.data(), kBlobBytes, 0);
  // A memory blob given as the result is refilled in memory.
  SmartPtr<ITavixBlob> result = CreateTavixMemBlob();
  for (auto _ : state) {
    if (proxy->EchoBlob(blob, result) != 0 || result->Size() != static_cast<uint64_t>(kBlobBytes)) {
      state.SkipWithError("EchoBlob failed");
      break;
    }
  }
  state.SetBytesProcessed(state.iterations() * 2 * int64_t{kBlobBytes});
}
BENCHMARK(BM_TavixEchoBlob8MiB)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_RawTransfer8MiB(benchmark::State& state) {
  // The blob's size prefix and the message heads add 60 bytes to TAVIX's
  // transfer; too few to matter here.
  if (RunRawRoundTrips(state, kBlobBytes, kBlobBytes)) {
    state.SetBytesProcessed(state.iterations() * 2 * int64_t{kBlobBytes});
  }
}
BENCHMARK(BM_RawTransfer8MiB)->UseRealTime()->Unit(benchmark::kMillisecond);

// The console table, then the ratio of each pair.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) continue;
      Result& r = m_results[run.run_name.function_name + run.run_name.threads];
      r.seconds = run.real_accumulated_time / static_cast<double>(run.iterations);
      const auto items = run.counters.find("items_per_second");
      if (items != run.counters.end()) r.perSecond = items->second.value;
      const auto bytes = run.counters.find("bytes_per_second");
      if (bytes != run.counters.end()) r.perSecond = bytes->second.value;
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::FILE* out = stdout;
    std::fprintf(out, "\nsummary\n");
    const Result ping = Get("BM_TavixPing");
    const Result raw = Get("BM_RawPingPong");
    if (ping.seconds > 0 && raw.seconds > 0) {
      std::fprintf(out, "  ObjectPing round trip %.1f us, raw 48/36-byte ping-pong %.1f us: %.2f times (target 1.50)\n",
                   ping.seconds * 1e6, raw.seconds * 1e6, ping.seconds / raw.seconds);
    }
    for (const char* threads : {"threads:1", "threads:8", "threads:64"}) {
      const Result calls = Get(std::string("BM_TavixCalls") + threads);
      if (calls.perSecond > 0) std::fprintf(out, "  %-10s %9.0f calls/s\n", threads, calls.perSecond);
    }
    const Result blob = Get("BM_TavixEchoBlob8MiB");
    const Result transfer = Get("BM_RawTransfer8MiB");
    if (blob.perSecond > 0 && transfer.perSecond > 0) {
      std::fprintf(out, "  EchoBlob 8 MiB %.0f MB/s, raw transfer %.0f MB/s: %.2f times as long\n", blob.perSecond / 1e6,
                   transfer.perSecond / 1e6, transfer.perSecond / blob.perSecond);
    }
  }

 private:
  struct Result {
    double seconds = 0;
    double perSecond = 0;
  };
  Result Get(const std::string& name) const {
    const auto it = m_results.find(name);
    return it == m_results.end() ? Result{} : it->second;
  }

  std::map<std::string, Result> m_results;
};

}  // namespace
}  // namespace TAVIX

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  TAVIX::Bench bench;
  if (!TAVIX::StartServer(bench)) {
    std::fprintf(stderr, "latency_bench: cannot start the Echo server\n");
    return 1;
  }
  TAVIX::g_bench = &bench;
  TAVIX::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  TAVIX::g_bench = nullptr;
  bench.client->Destroy();
  bench.server->Destroy();
  return 0;
}
