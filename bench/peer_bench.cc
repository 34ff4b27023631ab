// TAVIX beside the middleware a user would pick instead, Apache Thrift and
// gRPC, and beside plain sockets, all in one process and one run over
// loopback TCP:
//   - the round trip of a call without payload (raw: a 48/36-byte
//     ping-pong, the size of TAVIX's "ObjectPing");
//   - calls per second from 8 and from 64 client threads, each with a
//     client and a connection of its own (raw: a plain connection per
//     thread, each served by a thread of its own);
//   - an echo of 8 MiB, the same bytes back (raw: 8 MiB each way with the
//     64 KiB socket buffers of TAVIX).
// The run ends with a table of the medians of the repetitions and each
// peer's ratio to raw. A process allowed on one core only (`taskset -c 0`)
// fills the pinned ping row instead of the free one. With --rows=FILE the
// rows are merged into FILE as well and the table shows all it holds, so a
// pinned run of the pings followed by a full run gives the whole table
// (scripts/bench.sh does that).
#include <benchmark/benchmark.h>
#include <grpcpp/grpcpp.h>
#include <malloc.h>
#include <sched.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Echo.h"  // Thrift's generated Echo service
#include "bench/bench_main.h"
#include "bench/tcp_bench.h"
#include "echo.grpc.pb.h"  // gRPC's generated Echo service
#include "tools/echo_proxy.h"

namespace TAVIX {
namespace {

namespace thrift = apache::thrift;

// Above the 8 MiB echo; gRPC refuses messages over 4 MiB unless told.
constexpr int32_t kMaxMessage = 16 << 20;
constexpr auto kStartWait = std::chrono::seconds(10);

// True when `call` ran without throwing (Thrift reports failures so).
template <class Call>
bool Guarded(Call&& call) {
  try {
    call();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// ---- Apache Thrift: thread per connection, binary protocol, buffered
// transport on both ends.

class ThriftEcho : public thriftecho::EchoIf {
 public:
  void Ping() override {}
  void Echo(std::string& result, const std::string& data) override { result = data; }
};

// Says once that the server listens, or that it never will.
class ListenSignal : public thrift::server::TServerEventHandler {
 public:
  void preServe() override { Settle(true); }
  void Settle(bool listening) {
    if (!m_settled.exchange(true)) m_listening.set_value(listening);
  }
  bool Wait() {
    std::future<bool> listening = m_listening.get_future();
    return listening.wait_for(kStartWait) == std::future_status::ready && listening.get();
  }

 private:
  std::atomic<bool> m_settled{false};
  std::promise<bool> m_listening;
};

class ThriftServer {
 public:
  ~ThriftServer() {
    if (m_server) m_server->stop();
    if (m_thread.joinable()) m_thread.join();
  }

  bool Start(uint16_t port) {
    using namespace thrift::transport;
    m_port = port;
    m_server = std::make_unique<thrift::server::TThreadedServer>(
        std::make_shared<thriftecho::EchoProcessor>(std::make_shared<ThriftEcho>()),
        std::make_shared<TServerSocket>("127.0.0.1", port), std::make_shared<TBufferedTransportFactory>(),
        std::make_shared<thrift::protocol::TBinaryProtocolFactory>());
    auto signal = std::make_shared<ListenSignal>();
    m_server->setServerEventHandler(signal);
    m_thread = std::thread([this, signal] {
      if (!Guarded([this] { m_server->serve(); })) signal->Settle(false);
    });
    return signal->Wait();
  }
  uint16_t Port() const { return m_port; }

 private:
  uint16_t m_port = 0;
  std::unique_ptr<thrift::server::TThreadedServer> m_server;
  std::thread m_thread;
};

// ---- gRPC: the synchronous API.

class GrpcEcho final : public grpcecho::Echo::Service {
 public:
  grpc::Status Ping(grpc::ServerContext*, const grpcecho::Nothing*, grpcecho::Nothing*) override {
    return grpc::Status::OK;
  }
  grpc::Status Echo(grpc::ServerContext*, const grpcecho::Blob* request, grpcecho::Blob* reply) override {
    reply->set_data(request->data());
    return grpc::Status::OK;
  }
};

class GrpcServer {
 public:
  ~GrpcServer() {
    if (m_server) m_server->Shutdown();
  }

  bool Start() {
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &m_port);
    builder.RegisterService(&m_service);
    builder.SetMaxReceiveMessageSize(kMaxMessage);
    builder.SetMaxSendMessageSize(kMaxMessage);
    m_server = builder.BuildAndStart();
    return m_server && m_port > 0;
  }
  int Port() const { return m_port; }

 private:
  GrpcEcho m_service;
  int m_port = 0;  // gRPC's type for it
  std::unique_ptr<grpc::Server> m_server;
};

// ---- The servers of the run, and one client per benchmark thread.

struct PeerBench : TcpEchoBench {
  ThriftServer thrift;
  GrpcServer grpc;
};
PeerBench* g_bench = nullptr;
std::string g_rowsFile;  // --rows=FILE

bool StartServers(PeerBench& bench) {
  if (!StartEchoServer(bench)) return false;
  if (!bench.thrift.Start(FreePort())) {
    std::fprintf(stderr, "peer_bench: the Thrift server does not listen\n");
    return false;
  }
  if (!bench.grpc.Start()) {
    std::fprintf(stderr, "peer_bench: the gRPC server does not start\n");
    return false;
  }
  return true;
}

// Each client: Connect() makes its connection and calls once through it,
// Ping() calls without payload, PrepareEcho() makes the 8 MiB it sends and
// Echo() sends them and checks the size of what came back.

class TavixClient {
 public:
  TavixClient() = default;
  ~TavixClient() {
    m_proxy = nullptr;
    WaitForIdleServer(*g_bench);
  }
  TavixClient(const TavixClient&) = delete;
  TavixClient& operator=(const TavixClient&) = delete;

  bool Connect() {
    m_proxy = CreateProxy<EchoPrx>(g_bench->client, g_bench->proxyString);
    return m_proxy && Ping();
  }
  bool Ping() { return m_proxy->ObjectPing() == 0; }
  void PrepareEcho() {
    const std::vector<uint8_t> content(kBlobBytes, 0xC3);
    m_blob->Write(content.data(), kBlobBytes, 0);
  }
  bool Echo() {
    return m_proxy->EchoBlob(m_blob, m_result) == 0 && m_result->Size() == static_cast<uint64_t>(kBlobBytes);
  }

 private:
  SmartPtr<EchoPrx> m_proxy;
  SmartPtr<ITavixBlob> m_blob = CreateTavixMemBlob();
  SmartPtr<ITavixBlob> m_result = CreateTavixMemBlob();  // refilled in memory by each echo
};

class ThriftClient {
 public:
  ~ThriftClient() {
    Guarded([this] { m_transport->close(); });
  }
  bool Connect() {
    return Guarded([this] { m_transport->open(); }) && Ping();
  }
  bool Ping() {
    return Guarded([this] { m_client.Ping(); });
  }
  void PrepareEcho() { m_payload.assign(kBlobBytes, '\xC3'); }
  bool Echo() {
    return Guarded([this] { m_client.Echo(m_result, m_payload); }) && m_result.size() == m_payload.size();
  }

 private:
  std::shared_ptr<thrift::transport::TTransport> m_transport = std::make_shared<thrift::transport::TBufferedTransport>(
      std::make_shared<thrift::transport::TSocket>("127.0.0.1", g_bench->thrift.Port()));
  thriftecho::EchoClient m_client{std::make_shared<thrift::protocol::TBinaryProtocol>(m_transport)};
  std::string m_payload;
  std::string m_result;
};

class GrpcClient {
 public:
  bool Connect() {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(kMaxMessage);
    arguments.SetMaxSendMessageSize(kMaxMessage);
    // Channels share their connections through a process-wide pool unless
    // each has a pool of its own.
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    const std::string target = "ipv4:127.0.0.1:" + std::to_string(g_bench->grpc.Port());
    m_stub = grpcecho::Echo::NewStub(grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments));
    grpc::ClientContext context;
    context.set_wait_for_ready(true);
    context.set_deadline(std::chrono::system_clock::now() + kStartWait);
    return m_stub->Ping(&context, m_nothing, &m_nothingBack).ok();
  }
  bool Ping() {
    grpc::ClientContext context;
    return m_stub->Ping(&context, m_nothing, &m_nothingBack).ok();
  }
  void PrepareEcho() { m_blob.mutable_data()->assign(kBlobBytes, '\xC3'); }
  bool Echo() {
    grpc::ClientContext context;
    return m_stub->Echo(&context, m_blob, &m_echoed).ok() && m_echoed.data().size() == m_blob.data().size();
  }

 private:
  std::unique_ptr<grpcecho::Echo::Stub> m_stub;
  grpcecho::Nothing m_nothing;
  grpcecho::Nothing m_nothingBack;
  grpcecho::Blob m_blob;
  grpcecho::Blob m_echoed;
};

// ---- The benchmarks: raw first, then TAVIX, Thrift and gRPC, per measure.

template <class Client>
void RunPings(benchmark::State& state) {
  Client client;
  if (!client.Connect()) {
    state.SkipWithError("cannot reach the server");
    return;
  }
  for (auto _ : state) {
    if (!client.Ping()) {
      state.SkipWithError("ping failed");
      return;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

// Round trip (one thread) and calls per second (8 and 64) share the code
// but not the name, so that --benchmark_filter=Ping picks the round trips.
void BM_RawPing(benchmark::State& state) {
  if (RunRawRoundTrips(state, kPingRequest, kPingReply)) state.SetItemsProcessed(state.iterations());
}
template <class Client>
void BM_Ping(benchmark::State& state) {
  RunPings<Client>(state);
}
BENCHMARK(BM_RawPing)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Ping, TavixClient)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Ping, ThriftClient)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Ping, GrpcClient)->UseRealTime();

void BM_RawCalls(benchmark::State& state) {
  if (RunRawServerCalls(state, *g_bench)) state.SetItemsProcessed(state.iterations());
}
template <class Client>
void BM_Calls(benchmark::State& state) {
  RunPings<Client>(state);
}
BENCHMARK(BM_RawCalls)->Threads(8)->Threads(64)->UseRealTime()->MinTime(1.0);
BENCHMARK_TEMPLATE(BM_Calls, TavixClient)->Threads(8)->Threads(64)->UseRealTime()->MinTime(1.0);
BENCHMARK_TEMPLATE(BM_Calls, ThriftClient)->Threads(8)->Threads(64)->UseRealTime()->MinTime(1.0);
BENCHMARK_TEMPLATE(BM_Calls, GrpcClient)->Threads(8)->Threads(64)->UseRealTime()->MinTime(1.0);

void BM_RawEcho8MiB(benchmark::State& state) {
  if (RunRawRoundTrips(state, kBlobBytes, kBlobBytes)) {
    state.SetBytesProcessed(state.iterations() * 2 * int64_t{kBlobBytes});
  }
}
template <class Client>
void BM_Echo8MiB(benchmark::State& state) {
  Client client;
  if (!client.Connect()) {
    state.SkipWithError("cannot reach the server");
    return;
  }
  client.PrepareEcho();
  for (auto _ : state) {
    if (!client.Echo()) {
      state.SkipWithError("echo failed");
      return;
    }
  }
  state.SetBytesProcessed(state.iterations() * 2 * int64_t{kBlobBytes});
}
BENCHMARK(BM_RawEcho8MiB)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Echo8MiB, TavixClient)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Echo8MiB, ThriftClient)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Echo8MiB, GrpcClient)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- The table.

constexpr std::array<const char*, 4> kColumns = {"raw", "TAVIX", "Thrift", "gRPC"};
constexpr std::array<const char*, 3> kClients = {"TavixClient", "ThriftClient", "GrpcClient"};

// Where the process may run when a row is measured: the pinned ping comes
// from a run on one core, every other row from a run on all of them.
enum class Placement { kFree, kPinned };

struct Measure {
  const char* id;     // the row's name in the rows file
  const char* label;  // and in the table
  const char* raw;    // the raw benchmark
  const char* peer;   // the peers' template, "<Client>" follows
  const char* threads;
  bool rate;  // calls per second; otherwise seconds per call
  Placement placement;
};
constexpr std::array<Measure, 5> kMeasures = {{
    {"ping-free", "ping, free", "BM_RawPing", "BM_Ping", "", false, Placement::kFree},
    {"ping-pinned", "ping, pinned", "BM_RawPing", "BM_Ping", "", false, Placement::kPinned},
    {"calls-8", "calls/s, 8 threads", "BM_RawCalls", "BM_Calls", "threads:8", true, Placement::kFree},
    {"calls-64", "calls/s, 64 threads", "BM_RawCalls", "BM_Calls", "threads:64", true, Placement::kFree},
    {"echo-8MiB", "echo 8 MiB", "BM_RawEcho8MiB", "BM_Echo8MiB", "", false, Placement::kFree},
}};

using Row = std::array<double, kColumns.size()>;  // 0 where not measured

// Whether this process may run on one core only, as under `taskset -c 0`.
bool OnOneCore() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  return sched_getaffinity(0, sizeof cores, &cores) == 0 && CPU_COUNT(&cores) == 1;
}

std::map<std::string, Row> ReadRows(const std::string& path) {
  std::map<std::string, Row> rows;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string id;
    Row row{};
    if (fields >> id >> row[0] >> row[1] >> row[2] >> row[3]) rows[id] = row;
  }
  return rows;
}

bool WriteRows(const std::string& path, const std::map<std::string, Row>& rows) {
  std::ofstream out(path, std::ios::trunc);
  for (const auto& [id, row] : rows) {
    char line[160];
    std::snprintf(line, sizeof line, "%s %.6g %.6g %.6g %.6g\n", id.c_str(), row[0], row[1], row[2], row[3]);
    out << line;
  }
  return static_cast<bool>(out);
}

std::string Format(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

// One column's value and, beside it, its ratio to raw: times as long for a
// round trip or an echo, share of raw for calls per second.
std::string Cell(const Measure& measure, double value, double raw, bool isRaw) {
  if (value <= 0) return "-";
  const std::string cell = measure.rate     ? Format("%.0f", value)
                           : value < 1e-3   ? Format("%.1f us", value * 1e6)
                                            : Format("%.2f ms", value * 1e3);
  if (isRaw || raw <= 0) return cell;
  return cell + (measure.rate ? Format(" (%.0f %%)", 100.0 * value / raw) : Format(" (%.2fx)", value / raw));
}

class PeerTableReporter : public MedianReporter {
 public:
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::map<std::string, Row> rows = g_rowsFile.empty() ? std::map<std::string, Row>{} : ReadRows(g_rowsFile);
    const Placement placement = OnOneCore() ? Placement::kPinned : Placement::kFree;
    for (const Measure& measure : kMeasures) {
      const Row row = Measured(measure);
      if (measure.placement == placement && row[0] > 0) rows[measure.id] = row;
    }
    if (!g_rowsFile.empty() && !WriteRows(g_rowsFile, rows)) {
      std::fprintf(stderr, "peer_bench: cannot write %s\n", g_rowsFile.c_str());
    }
    Print(rows);
  }

 private:
  Row Measured(const Measure& measure) const {
    Row row{};
    row[0] = Median(std::string(measure.raw) + measure.threads, measure.rate);
    for (size_t i = 0; i < kClients.size(); ++i) {
      row[i + 1] = Median(std::string(measure.peer) + "<" + kClients[i] + ">" + measure.threads, measure.rate);
    }
    return row;
  }

  void Print(const std::map<std::string, Row>& rows) const {
    std::printf("\npeers over loopback TCP (medians of %d repetitions; beside each peer its ratio to raw sockets in\n"
                "the same run: times as long for a round trip or an echo, share of raw for calls/s)\n",
                Repetitions());
    PrintLine("", {kColumns.begin(), kColumns.end()});
    for (const Measure& measure : kMeasures) {
      const auto found = rows.find(measure.id);
      if (found == rows.end()) continue;
      const Row& row = found->second;
      std::vector<std::string> cells;
      for (size_t i = 0; i < row.size(); ++i) cells.push_back(Cell(measure, row[i], row[0], i == 0));
      PrintLine(measure.label, cells);
    }
  }

  static void PrintLine(const std::string& label, const std::vector<std::string>& cells) {
    std::string line = "  " + label;
    line.resize(24, ' ');
    for (const std::string& cell : cells) {
      line += ' ';
      line += cell;
      line.resize(line.size() + (cell.size() < 18 ? 18 - cell.size() : 0), ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    std::printf("%s\n", line.c_str());
  }
};

// Freed memory stays with the process for reuse. With glibc's defaults a
// large block, once freed, goes back to the kernel (unmapped or trimmed),
// so a peer that allocates its 8 MiB message buffers per call (gRPC,
// Thrift's server) faults every page in again on the next call; where page
// faults are dear, as in a virtual machine, that costs more than the
// transfer and hides the middleware's own work. It holds for every column.
void KeepFreedMemory() {
  mallopt(M_MMAP_THRESHOLD, 32 << 20);  // glibc's largest
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
}

// Takes --rows=FILE out of the arguments, before the benchmark library
// reads the rest.
std::string TakeRowsFlag(int& argc, char** argv) {
  constexpr std::string_view kFlag = "--rows=";
  std::string path;
  int kept = 0;
  for (int i = 0; i < argc; ++i) {
    const std::string_view argument(argv[i]);
    if (i > 0 && argument.starts_with(kFlag)) {
      path = argument.substr(kFlag.size());
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  argv[kept] = nullptr;
  return path;
}

}  // namespace
}  // namespace TAVIX

int main(int argc, char** argv) {
  TAVIX::KeepFreedMemory();
  TAVIX::g_rowsFile = TAVIX::TakeRowsFlag(argc, argv);
  return TAVIX::RunBenchmarks<TAVIX::PeerBench, TAVIX::PeerTableReporter>(argc, argv, "peer_bench",
                                                                          TAVIX::StartServers, TAVIX::g_bench);
}
