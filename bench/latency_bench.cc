// Remote calls over loopback TCP, each beside plain sockets moving the
// same bytes the same way:
//   - one proxy's two-way "ObjectPing" round trip (48-byte request, 36-byte
//     reply) against a raw ping-pong of 48 and 36 bytes;
//   - calls per second from 1, 8 and 64 client threads, each with its own
//     proxy and connection, against a plain thread-per-connection server
//     (an accepting thread, and a thread per connection that answers 36
//     bytes to every 48), and beside socket pairs answered by threads their
//     clients start;
//   - the same round trip through a proxy naming three endpoints, and the
//     time from the death of the server in use to the first call answered
//     through another endpoint;
//   - "EchoBlob" of 8 MiB against a raw transfer of 8 MiB each way, with
//     the kernel's default socket buffers and with TAVIX's 64 KiB ones.
// The run ends with the ratio of each pair, from the medians of the
// repetitions (--benchmark_repetitions=5 gives five), beside its target.
// Run it once as it is and once under `taskset -c 0` to see both the
// free and the single-core placement.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench/bench_main.h"
#include "bench/tcp_bench.h"
#include "tools/echo_proxy.h"

namespace TAVIX {
namespace {

using Bench = TcpEchoBench;
Bench* g_bench = nullptr;

// Pings for as long as the state asks; false when a ping failed.
bool PingLoop(benchmark::State& state, const BenchProxy& proxy) {
  for (auto _ : state) {
    if (proxy->ObjectPing() != 0) {
      state.SkipWithError("ObjectPing failed");
      return false;
    }
  }
  return true;
}

void BM_TavixPing(benchmark::State& state) {
  const BenchProxy proxy(state, *g_bench);
  if (!proxy || !PingLoop(state, proxy)) return;
  if (proxy->GetLastPerfmon().requestSize != kPingRequest || proxy->GetLastPerfmon().replySize != kPingReply) {
    state.SkipWithError("unexpected message sizes");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TavixPing)->UseRealTime();

void BM_RawPingPong(benchmark::State& state) {
  if (RunRawRoundTrips(state, kPingRequest, kPingReply)) state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawPingPong)->UseRealTime();

// The same round trip through a proxy that names three endpoints, two of
// which refuse: once connected, a call costs what it costs with one.
void BM_TavixPingThreeEndpoints(benchmark::State& state) {
  const std::string live = g_bench->proxyString.substr(2);
  const auto refused = [] { return ":tcp -h 127.0.0.1 -p " + std::to_string(FreePort()) + " -t 30000"; };
  const BenchProxy proxy(state, *g_bench, "A" + refused() + ":" + live + refused());
  if (proxy && PingLoop(state, proxy)) state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TavixPingThreeEndpoints)->UseRealTime();

// From the death of the server in use to the first successful call on the
// other endpoint, for a proxy that calls back to back: the call that meets
// the closed connection fails (its request had left), the next one
// connects elsewhere.
void BM_TavixReconnectAfterServerDeath(benchmark::State& state) {
  for (auto _ : state) {
    SmartPtr<Communicator> doomed = Initialize();
    SmartPtr<ObjectAdapter> adapter = doomed->CreateObjectAdapter(std::string("Doomed"));
    adapter->AddServant(MakeShared<EchoServant>(), std::string("A"));
    adapter->Activate();
    const SmartPtr<IpPassport> endpoint =
        SmartPtr<IpPassport>::DynamicCast(adapter->AddPassport(std::string("tcp -h 127.0.0.1 -p 0")));
    if (!endpoint) {
      state.SkipWithError("cannot start the second server");
      break;
    }
    SmartPtr<EchoPrx> proxy = CreateProxy<EchoPrx>(
        g_bench->client, "A:ordered:tcp -h 127.0.0.1 -p " + std::to_string(endpoint->Port()) + " -t 30000:" +
                             g_bench->proxyString.substr(2));
    proxy->AutoReconnect(true);
    if (proxy->ObjectPing() != 0) {
      state.SkipWithError("cannot reach the second server");
      break;
    }
    doomed->Destroy();
    const auto died = std::chrono::steady_clock::now();
    int32_t calls = 1;
    while (proxy->ObjectPing() != 0 && calls < 10) ++calls;
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - died).count());
    if (calls == 10) state.SkipWithError("no call succeeded after the server died");
    proxy = nullptr;
    WaitForIdleServer(*g_bench);
  }
}
BENCHMARK(BM_TavixReconnectAfterServerDeath)->UseManualTime()->Iterations(50)->Unit(benchmark::kMicrosecond);

// Every thread has its own proxy, so its own connection and serving thread.
void BM_TavixCalls(benchmark::State& state) {
  const BenchProxy proxy(state, *g_bench);
  if (proxy && PingLoop(state, proxy)) state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TavixCalls)->Threads(1)->Threads(8)->Threads(64)->UseRealTime()->MinTime(1.0);

// The raw server of the same calls: a plain thread-per-connection server,
// one connection per client thread.
void BM_RawCalls(benchmark::State& state) {
  if (RunRawServerCalls(state, *g_bench)) state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawCalls)->Threads(1)->Threads(8)->Threads(64)->UseRealTime()->MinTime(1.0);

// Shown beside it, not a target: socket pairs whose answering thread each
// client thread starts itself. The scheduler keeps every such pair on one
// core; the threads of a server that accepts are placed as they come.
void BM_RawPairCalls(benchmark::State& state) {
  if (RunRawRoundTrips(state, kPingRequest, kPingReply)) state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawPairCalls)->Threads(8)->Threads(64)->UseRealTime()->MinTime(1.0);

void BM_TavixEchoBlob8MiB(benchmark::State& state) {
  const BenchProxy proxy(state, *g_bench);
  if (proxy) RunEchoBlobs(state, *proxy);
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
class RatioReporter : public MedianReporter {
 public:
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
    const double several = Median("BM_TavixPingThreeEndpoints", false);
    if (ping > 0 && several > 0) {
      std::fprintf(out, "  ObjectPing through a three-endpoint proxy %.1f us, one endpoint %.1f us: %.2f times (target: "
                        "within noise)\n",
                   several * 1e6, ping * 1e6, several / ping);
    }
    const double reconnect = Median("BM_TavixReconnectAfterServerDeath", false);
    if (reconnect > 0) {
      std::fprintf(out, "  from the death of the server in use to the first call answered elsewhere: %.0f us\n",
                   reconnect * 1e6);
    }
    for (const char* threads : {"threads:1", "threads:8", "threads:64"}) {
      const double calls = Median(std::string("BM_TavixCalls") + threads, true);
      const double rawCalls = Median(std::string("BM_RawCalls") + threads, true);
      if (calls > 0 && rawCalls > 0) {
        std::fprintf(out, "  %-10s %9.0f calls/s, raw thread-per-connection server %9.0f: %.0f %% (target >= 80 %%)\n",
                     threads, calls, rawCalls, 100.0 * calls / rawCalls);
      }
      const double pairCalls = Median(std::string("BM_RawPairCalls") + threads, true);
      if (calls > 0 && pairCalls > 0) {
        std::fprintf(out, "  %-10s %9.0f calls/s, raw socket pairs started by their clients %9.0f: %.0f %%\n", "",
                     calls, pairCalls, 100.0 * calls / pairCalls);
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
};

}  // namespace
}  // namespace TAVIX

int main(int argc, char** argv) {
  return TAVIX::RunBenchmarks<TAVIX::Bench, TAVIX::RatioReporter>(argc, argv, "latency_bench", TAVIX::StartEchoServer,
                                                                  TAVIX::g_bench);
}
