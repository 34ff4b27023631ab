// Remote calls over loopback TCP, each beside plain sockets moving the
// same bytes the same way:
//   - one proxy's two-way "ObjectPing" round trip (48-byte request, 36-byte
//     reply) against a raw ping-pong of 48 and 36 bytes;
//   - calls per second from 1, 8 and 64 client threads, each with its own
//     proxy and connection, against as many plain connections each served
//     by a thread of its own that answers 36 bytes to every 48;
//   - "EchoBlob" of 8 MiB against a raw transfer of 8 MiB each way, with
//     the kernel's default socket buffers and with TAVIX's 64 KiB ones.
// The run ends with the ratio of each pair, from the medians of the
// repetitions (--benchmark_repetitions=5 gives five), beside its target.
// Run it once as it is and once under `taskset -c 0` to see both the
// free and the single-core placement.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_main.h"
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
  // `tuned`: the 64 KiB buffers of TAVIX; otherwise the kernel's defaults.
  RawPeer(int32_t request, int32_t reply, bool tuned = true) : m_request(request), m_reply(reply), m_tuned(tuned) {
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
  bool Tune(const platform::SocketView& s) const {
    return !m_tuned || (s.SetSendBufSize(kSocketBuffer) && s.SetRecvBufSize(kSocketBuffer));
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
  bool m_tuned;
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
bool RunRawRoundTrips(benchmark::State& state, int32_t request, int32_t reply, bool tuned = true) {
  RawPeer peer(request, reply, tuned);
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

// The raw server of the same calls: one plain connection per client
// thread, each answered by a thread of its own.
void BM_RawCalls(benchmark::State& state) {
  if (RunRawRoundTrips(state, kPingRequest, kPingReply)) state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawCalls)->Threads(1)->Threads(8)->Threads(64)->UseRealTime()->MinTime(1.0);

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

// Argument 1: TAVIX's 64 KiB socket buffers; 0: the kernel's defaults.
void BM_RawTransfer8MiB(benchmark::State& state) {
  // The blob's size prefix and the message heads add 60 bytes to TAVIX's
  // transfer; too few to matter here.
  if (RunRawRoundTrips(state, kBlobBytes, kBlobBytes, state.range(0) != 0)) {
    state.SetBytesProcessed(state.iterations() * 2 * int64_t{kBlobBytes});
  }
}
BENCHMARK(BM_RawTransfer8MiB)->Arg(1)->Arg(0)->UseRealTime()->Unit(benchmark::kMillisecond);

// The console table, then the ratio of each pair from the medians of the
// repetitions.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) continue;
      const std::string& args = run.run_name.args;
      const std::string name = run.run_name.function_name + (args.empty() ? "" : "/" + args) + run.run_name.threads;
      Samples& r = m_results[name];
      r.seconds.push_back(run.real_accumulated_time / static_cast<double>(run.iterations));
      for (const char* counter : {"items_per_second", "bytes_per_second"}) {
        const auto found = run.counters.find(counter);
        if (found != run.counters.end()) r.perSecond.push_back(found->second.value);
      }
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::FILE* out = stdout;
    std::fprintf(out, "\nsummary (medians of %d repetitions)\n", Repetitions());
    const double ping = Median("BM_TavixPing", false);
    const double raw = Median("BM_RawPingPong", false);
    if (ping > 0 && raw > 0) {
      std::fprintf(out, "  ObjectPing round trip %.1f us, raw 48/36-byte ping-pong %.1f us: %.2f times (target <= 1.20)\n",
                   ping * 1e6, raw * 1e6, ping / raw);
    }
    for (const char* threads : {"threads:1", "threads:8", "threads:64"}) {
      const double calls = Median(std::string("BM_TavixCalls") + threads, true);
      const double rawCalls = Median(std::string("BM_RawCalls") + threads, true);
      if (calls > 0 && rawCalls > 0) {
        std::fprintf(out, "  %-10s %9.0f calls/s, raw thread per connection %9.0f: %.0f %% (target >= 80 %%)\n", threads,
                     calls, rawCalls, 100.0 * calls / rawCalls);
      }
    }
    const double blob = Median("BM_TavixEchoBlob8MiB", true);
    const double tuned = Median("BM_RawTransfer8MiB/1", true);
    const double plain = Median("BM_RawTransfer8MiB/0", true);
    if (blob > 0 && tuned > 0) {
      std::fprintf(out, "  EchoBlob 8 MiB %.0f MB/s, raw transfer with 64 KiB buffers %.0f MB/s: %.2f times as long (target <= 2.00)\n",
                   blob / 1e6, tuned / 1e6, tuned / blob);
    }
    if (blob > 0 && plain > 0) {
      std::fprintf(out, "  EchoBlob 8 MiB beside a raw transfer with default buffers %.0f MB/s: %.2f times as long\n",
                   plain / 1e6, plain / blob);
    }
  }

 private:
  struct Samples {
    std::vector<double> seconds;
    std::vector<double> perSecond;
  };
  static double MedianOf(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  }
  double Median(const std::string& name, bool perSecond) const {
    const auto it = m_results.find(name);
    if (it == m_results.end()) return 0;
    return MedianOf(perSecond ? it->second.perSecond : it->second.seconds);
  }
  int Repetitions() const {
    size_t most = 0;
    for (const auto& [name, samples] : m_results) most = std::max(most, samples.seconds.size());
    return static_cast<int>(most);
  }

  std::map<std::string, Samples> m_results;
};

}  // namespace
}  // namespace TAVIX

int main(int argc, char** argv) {
  return TAVIX::RunBenchmarks<TAVIX::Bench, TAVIX::RatioReporter>(argc, argv, "latency_bench", TAVIX::StartServer,
                                                                  TAVIX::g_bench);
}
