// What the loopback TCP benchmarks share: the Echo servant served on a
// port of its own, the raw baseline that moves the same bytes over plain
// sockets, and a console reporter that keeps every repetition for medians.
#ifndef TAVIX_BENCH_TCP_BENCH_H_
#define TAVIX_BENCH_TCP_BENCH_H_

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
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

inline constexpr int32_t kPingRequest = 48;  // "ObjectPing" to the object "A"
inline constexpr int32_t kPingReply = 36;
inline constexpr int32_t kBlobBytes = 8 << 20;
inline constexpr int32_t kSocketBuffer = 65536;  // what every TAVIX connection uses

// A port nobody listens on right now (the probe closes it again).
inline uint16_t FreePort() {
  TcpAcceptor probe;
  probe.SetAddress(platform::SocketAddress::Any(platform::AddressFamily::kIPv4, 0));
  return probe.Open() == 0 ? probe.Address().Port() : 0;
}

// All `count` bytes sent or received on a plain socket; false when the
// peer went.
inline bool MoveAll(const platform::SocketView& s, uint8_t* data, int32_t count, bool send) {
  for (int32_t done = 0; done < count;) {
    const int32_t n = send ? s.Send(data + done, count - done) : s.Recv(data + done, count - done);
    if (n <= 0) return false;
    done += n;
  }
  return true;
}

// Answers every `request` bytes with `reply` bytes until the peer hangs up.
inline void AnswerUntilClosed(const platform::SocketView& s, int32_t request, int32_t reply) {
  std::vector<uint8_t> in(static_cast<size_t>(request));
  std::vector<uint8_t> out(static_cast<size_t>(reply), 0x5A);
  while (MoveAll(s, in.data(), request, false) && MoveAll(s, out.data(), reply, true)) {
  }
}

inline bool SetBenchBuffers(const platform::SocketView& s) {
  return s.SetSendBufSize(kSocketBuffer) && s.SetRecvBufSize(kSocketBuffer);
}

// The plain-socket server that calls per second are measured against, built
// as a TAVIX adapter serves TCP: a thread accepts on a loopback port, and
// every accepted connection (with TAVIX's 64 KiB buffers) is answered by a
// thread of its own, `reply` bytes for every `request`, until its client
// hangs up.
class RawThreadServer {
 public:
  RawThreadServer(int32_t request, int32_t reply) : m_request(request), m_reply(reply) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    uint32_t length = sizeof address;
    m_ok = m_listener.Create(platform::SocketType::kStream) && m_listener.Bind(&address, sizeof address) &&
           m_listener.Listen(SOMAXCONN) && m_listener.LocalName(&address, length);
    m_port = ntohs(address.sin_port);
    if (m_ok) m_acceptor = std::thread([this] { AcceptLoop(); });
  }
  // The listener's shutdown ends the accept; every client has hung up by
  // now, so each answering thread has ended or is about to.
  ~RawThreadServer() {
    m_listener.Shutdown();
    if (m_acceptor.joinable()) m_acceptor.join();
    std::lock_guard guard(m_lock);
    for (const std::unique_ptr<Answerer>& answerer : m_answerers) {
      answerer->socket.Shutdown();
      answerer->thread.join();
    }
  }
  RawThreadServer(const RawThreadServer&) = delete;
  RawThreadServer& operator=(const RawThreadServer&) = delete;

  bool ok() const { return m_ok; }
  uint16_t Port() const { return m_port; }

 private:
  struct Answerer {
    platform::Socket socket;
    std::thread thread;
    std::atomic<bool> done{false};
  };

  void AcceptLoop() {
    for (;;) {
      auto answerer = std::make_unique<Answerer>();
      sockaddr_in peer{};
      uint32_t length = sizeof peer;
      if (!m_listener.Accept(answerer->socket, &peer, length)) return;
      SetBenchBuffers(answerer->socket);
      Answerer& started = *answerer;
      std::lock_guard guard(m_lock);
      ReapEnded();
      m_answerers.push_back(std::move(answerer));
      started.thread = std::thread([this, &started] { Answer(started); });
    }
  }
  void Answer(Answerer& answerer) const {
    AnswerUntilClosed(answerer.socket, m_request, m_reply);
    answerer.done.store(true);
  }
  // Threads of connections that have ended are joined as new ones come.
  void ReapEnded() {
    std::erase_if(m_answerers, [](const std::unique_ptr<Answerer>& answerer) {
      if (!answerer->done.load()) return false;
      answerer->thread.join();
      return true;
    });
  }

  int32_t m_request;
  int32_t m_reply;
  platform::Socket m_listener;
  uint16_t m_port = 0;
  bool m_ok = false;
  std::mutex m_lock;
  std::vector<std::unique_ptr<Answerer>> m_answerers;
  std::thread m_acceptor;
};

// The Echo servant as "A" on a loopback port, the clients' runtime, and the
// plain thread-per-connection server answering pings beside it.
struct TcpEchoBench {
  SmartPtr<Communicator> server = Initialize();
  SmartPtr<Communicator> client = Initialize();
  SmartPtr<ObjectAdapter> adapter;
  std::string proxyString;
  std::unique_ptr<RawThreadServer> rawServer;
};

inline bool StartEchoServer(TcpEchoBench& bench) {
  const uint16_t port = FreePort();
  bench.adapter = bench.server->CreateObjectAdapter(std::string("Bench"));
  SmartPtr<ObjectAdapter>& adapter = bench.adapter;
  if (!adapter->AddServant(MakeShared<EchoServant>(), std::string("A"))) return false;
  adapter->Activate();
  if (!adapter->AddPassport("tcp -h #any -p " + std::to_string(port))) return false;
  bench.proxyString = "A:tcp -h 127.0.0.1 -p " + std::to_string(port) + " -t 30000";
  bench.rawServer = std::make_unique<RawThreadServer>(kPingRequest, kPingReply);
  return bench.rawServer->ok();
}

// Waits (2 s at most) until the server has ended every connection, as the
// raw baseline joins its answering threads: no measure starts while the
// server threads of the last one are still winding down.
inline void WaitForIdleServer(const TcpEchoBench& bench) {
  for (int waited = 0; waited < 2000 && bench.adapter->GetConnectionCount() > 0; ++waited) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// A proxy of its own for one benchmark thread, connected, or empty with the
// benchmark marked failed. When it goes, the server is let go idle.
class BenchProxy {
 public:
  BenchProxy(benchmark::State& state, const TcpEchoBench& bench) : BenchProxy(state, bench, bench.proxyString) {}
  BenchProxy(benchmark::State& state, const TcpEchoBench& bench, const std::string& proxyString)
      : m_bench(bench), m_proxy(CreateProxy<EchoPrx>(bench.client, proxyString)) {
    if (!m_proxy || m_proxy->ObjectPing() != 0) {
      state.SkipWithError("cannot reach the Echo servant");
      m_proxy = nullptr;
    }
  }
  ~BenchProxy() {
    m_proxy = nullptr;
    WaitForIdleServer(m_bench);
  }
  BenchProxy(const BenchProxy&) = delete;
  BenchProxy& operator=(const BenchProxy&) = delete;

  explicit operator bool() const { return static_cast<bool>(m_proxy); }
  EchoPrx* operator->() const { return m_proxy.get(); }
  EchoPrx& operator*() const { return *m_proxy; }

 private:
  const TcpEchoBench& m_bench;
  SmartPtr<EchoPrx> m_proxy;
};

// EchoBlob of kBlobBytes for as long as the state asks, two-way bytes
// counted.
inline void RunEchoBlobs(benchmark::State& state, EchoPrx& proxy) {
  SmartPtr<ITavixBlob> blob = CreateTavixMemBlob();
  std::vector<uint8_t> content(kBlobBytes, 0xC3);
  blob->Write(content.data(), kBlobBytes, 0);
  // A memory blob given as the result is refilled in memory.
  SmartPtr<ITavixBlob> result = CreateTavixMemBlob();
  for (auto _ : state) {
    if (proxy.EchoBlob(blob, result) != 0 || result->Size() != static_cast<uint64_t>(kBlobBytes)) {
      state.SkipWithError("EchoBlob failed");
      return;
    }
  }
  state.SetBytesProcessed(state.iterations() * 2 * int64_t{kBlobBytes});
}

// Plain loopback sockets moving `request` bytes one way and `reply` bytes
// back per round trip. Either a pair of sockets whose far end is answered by
// a thread of its own, started by the caller, or one socket connected to a
// RawThreadServer.
class RawPeer {
 public:
  // `tuned`: the 64 KiB buffers of TAVIX; otherwise the kernel's defaults.
  RawPeer(int32_t request, int32_t reply, bool tuned = true) : m_request(request), m_reply(reply), m_tuned(tuned) {
    platform::Socket listener;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    uint32_t length = sizeof address;
    m_ok = listener.Create(platform::SocketType::kStream) && listener.Bind(&address, sizeof address) &&
           listener.Listen(1) && listener.LocalName(&address, length) &&
           m_near.Create(platform::SocketType::kStream) && Tune(m_near) &&
           m_near.Connect(&address, sizeof address) && listener.Accept(m_far, &address, length) && Tune(m_far);
    if (m_ok) m_thread = std::thread([this] { AnswerUntilClosed(m_far, m_request, m_reply); });
  }
  RawPeer(const RawThreadServer& server, int32_t request, int32_t reply)
      : m_request(request), m_reply(reply), m_tuned(true) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(server.Port());
    m_ok = m_near.Create(platform::SocketType::kStream) && Tune(m_near) && m_near.Connect(&address, sizeof address);
  }
  ~RawPeer() {
    m_near.Close();
    if (m_thread.joinable()) m_thread.join();
  }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  bool ok() const { return m_ok; }

  bool RoundTrip() {
    return MoveAll(m_near, m_outgoing.data(), m_request, true) && MoveAll(m_near, m_incoming.data(), m_reply, false);
  }

 private:
  bool Tune(const platform::SocketView& s) const { return !m_tuned || SetBenchBuffers(s); }

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

// Round trips over a connected peer until the benchmark stops; false when
// the sockets could not be connected or a trip failed.
inline bool RunRoundTrips(benchmark::State& state, RawPeer& peer) {
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

// Round trips of the given sizes between two plain sockets. Each calling
// thread has its own pair, so its own answering thread.
inline bool RunRawRoundTrips(benchmark::State& state, int32_t request, int32_t reply, bool tuned = true) {
  RawPeer peer(request, reply, tuned);
  return RunRoundTrips(state, peer);
}

// Pings to the plain thread-per-connection server, on a connection of the
// calling thread's own.
inline bool RunRawServerCalls(benchmark::State& state, const TcpEchoBench& bench) {
  RawPeer peer(*bench.rawServer, kPingRequest, kPingReply);
  return RunRoundTrips(state, peer);
}

// The console table, and every repetition kept under the benchmark's name
// ("BM_X/arg" followed by "threads:N" when threaded) for the medians a
// subclass prints in its Finalize().
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  MedianReporter() : ConsoleReporter(OO_Tabular) {}

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

 protected:
  // Seconds per iteration, or the rate of its items or bytes; 0 when the
  // benchmark did not run.
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

  std::map<std::string, Samples> m_results;
};

}  // namespace TAVIX

#endif  // TAVIX_BENCH_TCP_BENCH_H_
