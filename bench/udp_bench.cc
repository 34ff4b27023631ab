// Calls over loopback UDP, each beside a plain UDP socket pair doing the
// same in the same run:
//   - two-way "ObjectPing" round trip (48-byte request datagram, 36-byte
//     reply) against a raw 48/36-byte datagram ping-pong;
//   - one-way calls per second from one client to one server: batches of
//     128 one-way "ObjectPing" datagrams, each batch closed by one two-way
//     ping that comes back only once the server has worked through the
//     batch; a call counts when the server received it (a full queue drops
//     datagrams, which then do not count). The raw pair does the same with
//     48-byte datagrams and a counting receiver.
// The run ends with the ratios.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_main.h"
#include "tavix/adapter/object_adapter.h"
#include "tavix/core/inet_addr.h"
#include "tavix/platform/socket.h"
#include "tavix/runtime/communicator.h"
#include "tools/echo_proxy.h"
#include "tools/echo_servant.h"

namespace TAVIX {
namespace {

constexpr int32_t kRequest = 48;  // "ObjectPing" to the object "A"
constexpr int32_t kReply = 36;
constexpr int32_t kBatch = 128;
constexpr int32_t kServerRecvBuf = 0x40000;  // what a TAVIX UDP server uses

InetAddr Loopback(uint16_t port) {
  InetAddr address;
  address.Set("127.0.0.1", port);
  return address;
}

// A datagram socket bound to 127.0.0.1 on a port of the system's choice.
struct BoundSocket {
  BoundSocket() {
    InetAddr address = Loopback(0);
    uint32_t length = InetAddr::SockAddrLen();
    ok = socket.Create(platform::SocketType::kDatagram) && socket.Bind(address.SockAddr(), length) &&
         socket.LocalName(address.SockAddr(), length);
    port = address.Port();
  }
  platform::Socket socket;
  uint16_t port = 0;
  bool ok = false;
};

struct Bench {
  SmartPtr<Communicator> server = Initialize();
  SmartPtr<Communicator> client = Initialize();
  SmartPtr<EchoServant> echo = MakeShared<EchoServant>();
  std::string proxyString;
};
Bench* g_bench = nullptr;

bool StartServer(Bench& bench) {
  SmartPtr<ObjectAdapter> adapter = bench.server->CreateObjectAdapter(std::string("Bench"));
  if (!adapter->AddServant(bench.echo, std::string("A"))) return false;
  adapter->Activate();
  for (int attempt = 0; attempt < 20; ++attempt) {
    const uint16_t port = BoundSocket().port;
    if (adapter->AddPassport("udp -h 127.0.0.1 -p " + std::to_string(port))) {
      bench.proxyString = "A:udp -h 127.0.0.1 -p " + std::to_string(port) + " -t 5000";
      return true;
    }
  }
  return false;
}

// The raw far end: answers a ping-sized datagram with a reply-sized one to
// its sender and counts every datagram it takes.
class RawServer {
 public:
  RawServer() {
    m_bound.ok = m_bound.ok && m_bound.socket.SetRecvBufSize(kServerRecvBuf);
    if (m_bound.ok) m_thread = std::thread([this] { Serve(); });
  }
  ~RawServer() {
    m_stop = true;
    BoundSocket poke;
    const InetAddr to = Loopback(m_bound.port);
    poke.socket.SendTo("", 0, to.SockAddr(), InetAddr::SockAddrLen());
    if (m_thread.joinable()) m_thread.join();
  }
  bool ok() const { return m_bound.ok; }
  uint16_t port() const { return m_bound.port; }
  int64_t received() const { return m_received.load(); }

 private:
  void Serve() {
    std::vector<uint8_t> in(65536);
    std::vector<uint8_t> out(kReply, 0x5A);
    while (!m_stop) {
      InetAddr from;
      uint32_t length = InetAddr::SockAddrLen();
      const int32_t n = m_bound.socket.RecvFrom(in.data(), static_cast<int32_t>(in.size()), from.SockAddr(), length);
      if (n < 0 || m_stop) continue;
      m_received.fetch_add(1);
      if (n == kRequest - 1) m_bound.socket.SendTo(out.data(), kReply, from.SockAddr(), length);
    }
  }

  BoundSocket m_bound;
  std::atomic<bool> m_stop{false};
  std::atomic<int64_t> m_received{0};
  std::thread m_thread;
};

// The raw near end, connected to the raw server.
class RawClient {
 public:
  explicit RawClient(uint16_t port) {
    const InetAddr to = Loopback(port);
    ok = m_bound.ok && m_bound.socket.Connect(to.SockAddr(), InetAddr::SockAddrLen());
  }
  // A ping one byte short of a request marks the datagram to be answered.
  // A full queue may drop it: it is sent again after a second of silence,
  // as a TAVIX call would fail by its time-out.
  bool Ping() {
    for (int attempt = 0; attempt < 5; ++attempt) {
      if (m_bound.socket.Send(m_out.data(), kRequest - 1) != kRequest - 1) return false;
      if (m_bound.socket.Poll(platform::PollFor::kRead, 1000) == 1) {
        return m_bound.socket.Recv(m_in.data(), static_cast<int32_t>(m_in.size())) == kReply;
      }
    }
    return false;
  }
  bool OneWay() { return m_bound.socket.Send(m_out.data(), kRequest) == kRequest; }
  bool ok = false;

 private:
  BoundSocket m_bound;
  std::vector<uint8_t> m_out = std::vector<uint8_t>(kRequest, 0xA5);
  std::vector<uint8_t> m_in = std::vector<uint8_t>(65536);
};

SmartPtr<EchoPrx> Proxy(benchmark::State& state) {
  SmartPtr<EchoPrx> proxy = CreateProxy<EchoPrx>(g_bench->client, g_bench->proxyString);
  if (!proxy || proxy->ObjectPing() != 0) {
    state.SkipWithError("cannot reach the Echo servant over UDP");
    return nullptr;
  }
  return proxy;
}

void BM_TavixUdpPing(benchmark::State& state) {
  SmartPtr<EchoPrx> proxy = Proxy(state);
  if (!proxy) return;
  for (auto _ : state) {
    if (proxy->ObjectPing() != 0) {
      state.SkipWithError("ObjectPing failed");
      break;
    }
  }
  if (proxy->GetLastPerfmon().requestSize != kRequest || proxy->GetLastPerfmon().replySize != kReply) {
    state.SkipWithError("unexpected message sizes");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TavixUdpPing)->UseRealTime();

void BM_RawUdpPingPong(benchmark::State& state) {
  RawServer server;
  RawClient client(server.port());
  if (!server.ok() || !client.ok) {
    state.SkipWithError("cannot open plain UDP sockets");
    return;
  }
  for (auto _ : state) {
    if (!client.Ping()) {
      state.SkipWithError("ping-pong failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawUdpPingPong)->UseRealTime();

void BM_TavixUdpOneWay(benchmark::State& state) {
  SmartPtr<EchoPrx> proxy = Proxy(state);
  if (!proxy) return;
  const int64_t before = g_bench->echo->Requests();
  for (auto _ : state) {
    for (int32_t i = 0; i < kBatch; ++i) proxy->OneWayPing();
    if (proxy->ObjectPing() != 0) {
      state.SkipWithError("closing ping failed");
      break;
    }
  }
  const int64_t delivered = g_bench->echo->Requests() - before - state.iterations();
  state.SetItemsProcessed(delivered);
  state.counters["delivered_%"] = 100.0 * static_cast<double>(delivered) / static_cast<double>(state.iterations() * kBatch);
}
BENCHMARK(BM_TavixUdpOneWay)->UseRealTime();

void BM_RawUdpOneWay(benchmark::State& state) {
  RawServer server;
  RawClient client(server.port());
  if (!server.ok() || !client.ok) {
    state.SkipWithError("cannot open plain UDP sockets");
    return;
  }
  for (auto _ : state) {
    for (int32_t i = 0; i < kBatch; ++i) client.OneWay();
    if (!client.Ping()) {
      state.SkipWithError("closing ping failed");
      break;
    }
  }
  const int64_t delivered = server.received() - state.iterations();
  state.SetItemsProcessed(delivered);
  state.counters["delivered_%"] = 100.0 * static_cast<double>(delivered) / static_cast<double>(state.iterations() * kBatch);
}
BENCHMARK(BM_RawUdpOneWay)->UseRealTime();

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) continue;
      const auto items = run.counters.find("items_per_second");
      m_results[run.run_name.function_name] = {run.real_accumulated_time / static_cast<double>(run.iterations),
                                               items == run.counters.end() ? 0.0 : items->second.value};
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const auto ping = m_results["BM_TavixUdpPing"];
    const auto rawPing = m_results["BM_RawUdpPingPong"];
    const auto oneway = m_results["BM_TavixUdpOneWay"];
    const auto rawOneway = m_results["BM_RawUdpOneWay"];
    std::printf("\nsummary\n");
    if (ping.first > 0 && rawPing.first > 0) {
      std::printf("  UDP ObjectPing round trip %.1f us, raw 48/36-byte datagram ping-pong %.1f us: %.2f times\n",
                  ping.first * 1e6, rawPing.first * 1e6, ping.first / rawPing.first);
    }
    if (oneway.second > 0 && rawOneway.second > 0) {
      std::printf("  one-way UDP calls %.0f/s delivered, raw 48-byte datagrams %.0f/s: %.2f of raw\n", oneway.second,
                  rawOneway.second, oneway.second / rawOneway.second);
    }
  }

 private:
  std::map<std::string, std::pair<double, double>> m_results;
};

}  // namespace
}  // namespace TAVIX

int main(int argc, char** argv) {
  return TAVIX::RunBenchmarks<TAVIX::Bench, TAVIX::RatioReporter>(argc, argv, "udp_bench", TAVIX::StartServer,
                                                                  TAVIX::g_bench);
}
