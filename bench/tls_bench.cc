// The ssl transport beside tcp in the same run, against one server that
// listens on both (certificates made for the run by tests/tls/make_certs.sh):
//   - one proxy's "ObjectPing" round trip;
//   - calls per second from 8 and 64 client threads, each with its own
//     proxy and connection;
//   - "EchoBlob" of 8 MiB;
//   - new connections per second: connect, handshake (ssl), validate, one
//     ping, close.
// The run ends with the ssl/tcp ratio of each, from the medians of the
// repetitions, beside its target. Run it once as it is and once under
// `taskset -c 0` for the pinned ping.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/bench_main.h"
#include "bench/tcp_bench.h"
#include "tavix/platform/process.h"
#include "tools/echo_proxy.h"

namespace TAVIX {
namespace {

struct TlsBench {
  SmartPtr<Communicator> server = Initialize();
  SmartPtr<Communicator> client = Initialize();
  SmartPtr<ObjectAdapter> adapter;
  std::filesystem::path certs;
  std::string proxy[2];  // [0] tcp, [1] ssl
  ~TlsBench() { std::filesystem::remove_all(certs); }
};
TlsBench* g_bench = nullptr;

bool StartServer(TlsBench& bench) {
  bench.certs = std::filesystem::temp_directory_path() /
                ("tavix-tls-bench-" + std::to_string(platform::ProcessId()));
  const std::string make = "bash " TAVIX_SOURCE_DIR "/tests/tls/make_certs.sh " + bench.certs.string();
  if (std::system(make.c_str()) != 0) return false;
  TlsSettings settings;
  settings.certificateChainFile = (bench.certs / "server.pem").string();
  settings.privateKeyFile = (bench.certs / "server.key").string();
  settings.trustedCaFile = (bench.certs / "ca.pem").string();
  TlsSettings trust;
  trust.trustedCaFile = settings.trustedCaFile;
  bench.adapter = bench.server->CreateObjectAdapter(std::string("Bench"));
  if (bench.adapter->SetTlsSettings(settings) != 0 || bench.client->SetTlsSettings(trust) != 0) return false;
  bench.adapter->AddServant(MakeShared<EchoServant>(), std::string("A"));
  bench.adapter->Activate();
  const char* protocols[2] = {"tcp", "ssl"};
  for (int i = 0; i < 2; ++i) {
    const SmartPtr<IpPassport> endpoint = SmartPtr<IpPassport>::DynamicCast(
        bench.adapter->AddPassport(std::string(protocols[i]) + " -h 127.0.0.1 -p 0"));
    if (!endpoint) return false;
    bench.proxy[i] = "A:" + std::string(protocols[i]) + " -h 127.0.0.1 -p " + std::to_string(endpoint->Port()) +
                     " -t 30000";
  }
  return true;
}

// A connected proxy for one benchmark thread over tcp (0) or ssl (1); the
// server is let go idle when it goes.
class Connected {
 public:
  Connected(benchmark::State& state, int ssl) : m_proxy(CreateProxy<EchoPrx>(g_bench->client, g_bench->proxy[ssl])) {
    if (!m_proxy || m_proxy->ObjectPing() != 0) {
      state.SkipWithError("cannot reach the Echo servant");
      m_proxy = nullptr;
    }
  }
  ~Connected() {
    m_proxy = nullptr;
    for (int waited = 0; waited < 2000 && g_bench->adapter->GetConnectionCount() > 0; ++waited) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  Connected(const Connected&) = delete;
  Connected& operator=(const Connected&) = delete;
  EchoPrx* operator->() const { return m_proxy.get(); }
  EchoPrx& operator*() const { return *m_proxy; }
  explicit operator bool() const { return static_cast<bool>(m_proxy); }

 private:
  SmartPtr<EchoPrx> m_proxy;
};

void Pings(benchmark::State& state) {
  const Connected proxy(state, static_cast<int>(state.range(0)));
  if (!proxy) return;
  for (auto _ : state) {
    if (proxy->ObjectPing() != 0) {
      state.SkipWithError("ObjectPing failed");
      return;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_Ping(benchmark::State& state) { Pings(state); }
BENCHMARK(BM_Ping)->Arg(0)->Arg(1)->UseRealTime();

void BM_Calls(benchmark::State& state) { Pings(state); }
BENCHMARK(BM_Calls)->Arg(0)->Arg(1)->Threads(8)->Threads(64)->UseRealTime()->MinTime(1.0);

void BM_EchoBlob8MiB(benchmark::State& state) {
  const Connected proxy(state, static_cast<int>(state.range(0)));
  if (proxy) RunEchoBlobs(state, *proxy);
}
BENCHMARK(BM_EchoBlob8MiB)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// A new proxy each time: connect, handshake, validate, one ping, close.
void BM_NewConnection(benchmark::State& state) {
  const std::string& proxyString = g_bench->proxy[state.range(0)];
  for (auto _ : state) {
    SmartPtr<EchoPrx> proxy = CreateProxy<EchoPrx>(g_bench->client, proxyString);
    if (!proxy || proxy->ObjectPing() != 0) {
      state.SkipWithError("cannot connect");
      return;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NewConnection)->Arg(0)->Arg(1)->UseRealTime();

class RatioReporter : public MedianReporter {
 public:
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nsummary (medians of %d repetitions), ssl beside tcp\n", Repetitions());
    Row("ObjectPing round trip", "BM_Ping", false, 1e6, "us", "target <= 1.50");
    Row("calls from 8 threads", "BM_Calls", true, 1, "calls/s", "", "threads:8");
    Row("calls from 64 threads", "BM_Calls", true, 1, "calls/s", "", "threads:64");
    Row("EchoBlob 8 MiB", "BM_EchoBlob8MiB", false, 1e3, "ms", "target <= 3.00");
    Row("new connections", "BM_NewConnection", true, 1, "/s", "");
  }

 private:
  // One line: both medians and their ratio (ssl over tcp; for rates, tcp over ssl, so that above 1 is slower).
  void Row(const char* what, const std::string& name, bool rate, double scale, const char* unit, const char* target,
           const std::string& threads = "") {
    const double tcp = Median(name + "/0" + threads, rate), ssl = Median(name + "/1" + threads, rate);
    if (tcp <= 0 || ssl <= 0) return;
    std::printf("  %-22s tcp %10.1f %s, ssl %10.1f %s: ssl %.2f times as %s%s%s\n", what, tcp * scale, unit,
                ssl * scale, unit, rate ? tcp / ssl : ssl / tcp, rate ? "slow" : "long", *target ? " " : "",
                *target ? target : "");
  }
};

}  // namespace
}  // namespace TAVIX

int main(int argc, char** argv) {
  return TAVIX::RunBenchmarks<TAVIX::TlsBench, TAVIX::RatioReporter>(argc, argv, "tls_bench", TAVIX::StartServer,
                                                                     TAVIX::g_bench);
}
