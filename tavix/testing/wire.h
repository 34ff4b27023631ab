// Test helpers shared by the transport, adapter, client, runtime, tool and load tests: byte builders for messages,
// loopback sockets, a served adapter on a free port, raw TCP and UDP peers, /proc status and this process's trace log.
#ifndef TAVIX_TESTING_WIRE_H_
#define TAVIX_TESTING_WIRE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tavix/adapter/object_adapter.h"
#include "tavix/core/format.h"
#include "tavix/core/inet_addr.h"
#include "tavix/core/text.h"
#include "tavix/core/trace_log.h"
#include "tavix/diag/log_folder.h"
#include "tavix/marshal/blob.h"
#include "tavix/testing/outcomes.h"
#include "tavix/marshal/message_header.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/process.h"
#include "tavix/platform/socket.h"
#include "tavix/runtime/communicator.h"
#include "tavix/transport/tcp_acceptor.h"
#include "tavix/transport/tcp_transceiver.h"

namespace TAVIX::test_wire {

using Bytes = std::vector<uint8_t>;
using testing::Outcome;
using testing::OutcomeOf;
using testing::Refused;

// Little-endian writer of the body encoding.
class Writer {
 public:
  Writer& u8(uint8_t v) { return raw(&v, 1); }
  Writer& i32(int32_t v) { return raw(&v, 4); }
  Writer& f64(double v) { return raw(&v, 8); }
  Writer& size(int32_t n) { return n <= 254 ? u8(static_cast<uint8_t>(n)) : u8(0xFF).i32(n); }
  Writer& wstr(const std::u16string& s) { return size(static_cast<int32_t>(s.size())).raw(s.data(), s.size() * 2); }
  Writer& raw(const void* data, size_t n) {
    const auto* p = static_cast<const uint8_t*>(data);
    m_bytes.insert(m_bytes.end(), p, p + n);
    return *this;
  }
  Writer& bytes(const Bytes& b) { return raw(b.data(), b.size()); }
  const Bytes& get() const { return m_bytes; }

 private:
  Bytes m_bytes;
};

inline Bytes WStr(const std::u16string& s) { return Writer().wstr(s).get(); }
inline Bytes Header(uint8_t type, int32_t size) {
  MsgHeaderData header;
  header.Init(type);
  header.size = size;
  Bytes bytes(HEADER_SIZE);
  header.Encode(bytes.data());
  return bytes;
}

inline Bytes Concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A complete message of the given type around `body`.
inline Bytes Message(uint8_t type, const Bytes& body) {
  return Concat(Header(type, static_cast<int32_t>(HEADER_SIZE + body.size())), body);
}

inline Bytes Request(int32_t requestId, const std::u16string& object, const std::u16string& operation,
                     const Bytes& arguments = {}) {
  return Message(MSG_REQUEST, Writer().i32(requestId).wstr(object).wstr(operation).bytes(arguments).get());
}

inline Bytes ReplyMessage(int32_t requestId, uint32_t status, const Bytes& results = {}) {
  return Message(MSG_REPLY, Writer().i32(requestId).i32(static_cast<int32_t>(status)).f64(0.0).bytes(results).get());
}

inline Bytes BlobBytes(const SmartPtr<ITavixBlob>& blob) {
  const auto* data = static_cast<const uint8_t*>(blob->Data());
  return Bytes(data, data + blob->Size());
}
inline int32_t ReadI32(const Bytes& b, size_t at) {
  int32_t v = 0;
  std::memcpy(&v, b.data() + at, 4);
  return v;
}

// The parts of a reply message.
struct Reply {
  int32_t size = 0, requestId = 0;
  uint32_t status = 0;
  double serverTime = 0;
  Bytes results;
};

inline Reply ParseReply(const Bytes& message) {
  Reply r;
  if (message.size() < 36) return r;
  r.size = ReadI32(message, 10);
  r.requestId = ReadI32(message, 20);
  r.status = static_cast<uint32_t>(ReadI32(message, 24));
  std::memcpy(&r.serverTime, message.data() + 28, 8);
  r.results.assign(message.begin() + 36, message.end());
  return r;
}

inline std::string Hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (uint8_t b : bytes) out += std::string(out.empty() ? "" : " ") + kDigits[b >> 4] + kDigits[b & 0xF];
  return out;
}

// A numeric address of either family ("127.0.0.1", "::1").
inline platform::SocketAddress Numeric(const std::string& host, uint16_t port) {
  platform::SocketAddress address;
  platform::SocketAddress::ParseNumeric(host.c_str(), port, address);
  return address;
}
inline platform::SocketAddress Loopback(uint16_t port) { return Numeric("127.0.0.1", port); }
inline uint64_t MsSince(uint64_t start) { return platform::TickCountMs() - start; }

// An open acceptor on 127.0.0.1 and a port of the system's choice.
inline SmartPtr<TcpAcceptor> LoopbackAcceptor() {
  SmartPtr<TcpAcceptor> acceptor = MakeShared<TcpAcceptor>();
  acceptor->SetAddress(Loopback(0));
  return acceptor->Open() == 0 ? acceptor : nullptr;
}

// A port that was free a moment ago: endpoint strings refuse port 0.
inline uint16_t FreePort() {
  const SmartPtr<TcpAcceptor> probe = LoopbackAcceptor();
  return probe ? probe->Address().Port() : 0;
}

struct TcpPair {
  SmartPtr<TcpTransceiver> client, server;
};

// Both ends of a loopback TCP connection.
inline TcpPair ConnectedPair() {
  SmartPtr<TcpAcceptor> acceptor = LoopbackAcceptor();
  SmartPtr<ITransceiver> client, server;
  if (!acceptor || TcpTransceiver::Connect(acceptor->Address(), client) != 0) return {};
  acceptor->Accept(server, 2000);
  return {SmartPtr<TcpTransceiver>::DynamicCast(client), SmartPtr<TcpTransceiver>::DynamicCast(server)};
}

// A plain datagram socket on 127.0.0.1.
class RawUdp {
 public:
  RawUdp() {
    platform::SocketAddress address = Loopback(0);
    uint32_t length = platform::SocketAddress::kCapacity;
    EXPECT_TRUE(m_socket.Create(platform::SocketType::kDatagram) && m_socket.Bind(address.Data(), address.Length()) &&
                m_socket.LocalName(address.Buffer(), length));
    address.SetLength(length);
    port = address.Port();
  }
  void SendTo(uint16_t to, const Bytes& bytes) {
    const platform::SocketAddress address = Loopback(to);
    EXPECT_EQ(static_cast<int32_t>(bytes.size()), m_socket.SendTo(bytes.data(), static_cast<int32_t>(bytes.size()),
                                                                  address.Data(), address.Length()));
  }
  // One datagram and its sender's port; empty when none came in time.
  Bytes Receive(uint32_t timeoutMs = 2000, uint16_t* from = nullptr) {
    if (m_socket.Poll(platform::PollFor::kRead, timeoutMs) != 1) return {};
    Bytes bytes(65536);
    platform::SocketAddress sender;
    uint32_t length = platform::SocketAddress::kCapacity;
    const int32_t n = m_socket.RecvFrom(bytes.data(), static_cast<int32_t>(bytes.size()), sender.Buffer(), length);
    sender.SetLength(length);
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    if (from != nullptr) *from = sender.Port();
    return bytes;
  }
  uint16_t port = 0;

 private:
  platform::Socket m_socket;
};

// Adds a passport on every interface (TCP) or 127.0.0.1 (UDP): on `port`, or with 0 on one the system picks (the
// adapter must be active for that port to be known). The port, 0 on failure.
inline uint16_t Listen(ObjectAdapter& adapter, uint16_t port = 0, const std::string& protocol = "tcp") {
  const std::string host = protocol == "tcp" ? " -h #any -p " : " -h 127.0.0.1 -p ";
  const SmartPtr<IpPassport> passport =
      SmartPtr<IpPassport>::DynamicCast(adapter.AddPassport(protocol + host + std::to_string(port)));
  return passport ? passport->Port() : 0;
}

// One servant in an active adapter of a communicator of its own, listening on TCP or UDP.
struct TestServer {
  explicit TestServer(const SmartPtr<Object>& servant, uint16_t wantedPort = 0, const std::string& id = "A",
                      const std::string& kind = "tcp")
      : adapter(communicator->CreateObjectAdapter(std::string("Test"))), name(id), protocol(kind) {
    adapter->AddServant(servant, id);
    adapter->Activate();
    port = Listen(*adapter, wantedPort, protocol);
  }
  ~TestServer() { communicator->Destroy(); }
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;
  std::string ProxyString(uint32_t timeoutMs = 2000) const {
    return name + ":" + protocol + " -h 127.0.0.1 -p " + std::to_string(port) + " -t " + std::to_string(timeoutMs);
  }
  SmartPtr<Communicator> communicator = Initialize();
  SmartPtr<ObjectAdapter> adapter;
  std::string name, protocol;
  uint16_t port = 0;
};

// A plain TCP client, on 127.0.0.1 unless told otherwise (or an accepted socket), that sends and receives raw bytes.
class RawClient {
 public:
  RawClient() = default;
  explicit RawClient(platform::Socket&& accepted) : m_socket(std::move(accepted)) {}
  bool Connect(uint16_t port, const std::string& host = "127.0.0.1") {
    InetAddr v4;
    const platform::SocketAddress address = host.find(':') != std::string::npos ? Numeric(host, port)
                                            : v4.Set(host.c_str(), port)       ? v4.ToSocketAddress()
                                                                               : platform::SocketAddress();
    return m_socket.Create(platform::SocketType::kStream, address.Family()) &&
           m_socket.Connect(address.Data(), address.Length());
  }
  bool Send(const Bytes& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
      const int32_t n = m_socket.Send(bytes.data() + sent, static_cast<int32_t>(bytes.size() - sent));
      if (n <= 0) return false;
      sent += static_cast<size_t>(n);
    }
    return true;
  }
  // Exactly n bytes, or fewer when the peer closed or nothing came for 5 s.
  Bytes Receive(size_t n) {
    Bytes out(n);
    size_t got = 0;
    for (int32_t r = 0; got < n && m_socket.Poll(platform::PollFor::kRead, 5000) == 1 &&
                        (r = m_socket.Recv(out.data() + got, static_cast<int32_t>(n - got))) > 0;) {
      got += static_cast<size_t>(r);
    }
    out.resize(got);
    return out;
  }
  // One whole message: its header, then as many bytes as it says.
  Bytes ReceiveMessage() {
    Bytes message = Receive(HEADER_SIZE);
    if (message.size() != HEADER_SIZE) return message;
    MsgHeaderData header;
    header.Decode(message.data());
    return header.size > HEADER_SIZE ? Concat(message, Receive(static_cast<size_t>(header.size - HEADER_SIZE)))
                                     : message;
  }
  // True when nothing arrives within the time (the connection stays open).
  bool Silent(uint32_t timeoutMs) { return m_socket.Poll(platform::PollFor::kRead, timeoutMs) == 0; }
  // True when the server closes the connection within the time without sending anything more.
  bool ClosedByPeer(uint32_t timeoutMs = 5000) {
    uint8_t byte = 0;
    return m_socket.Poll(platform::PollFor::kRead, timeoutMs) == 1 && m_socket.Recv(&byte, 1) <= 0;
  }
  void Close() { m_socket.Close(); }

 private:
  platform::Socket m_socket;
};

// A field of /proc/<process>/status ("self" for this process), -1 when it cannot be read.
inline int64_t ProcStatus(const std::string& process, const std::string& field) {
  std::ifstream status("/proc/" + process + "/status");
  std::string word;
  int64_t value = -1;
  while (status >> word && word != field + ":") {
  }
  return status >> value, value;
}

// Polls `done` until it holds; false when it still does not after `timeoutMs`.
template <class Predicate>
bool Eventually(Predicate done, uint32_t timeoutMs = 3000) {
  for (const uint64_t deadline = platform::TickCountMs() + timeoutMs; !done(); platform::SleepMs(5)) {
    if (platform::TickCountMs() >= deadline) return false;
  }
  return true;
}

// The reasons an adapter's disconnect notification reported, in order.
class Disconnects {
 public:
  static void Callback(void* context, TavixDisconnectReason reason) {
    auto* self = static_cast<Disconnects*>(context);
    std::lock_guard lock(self->m_mutex);
    self->m_reasons.push_back(reason);
    self->m_changed.notify_all();
  }
  // The next reason not yet taken; -1 when none comes within 5 s.
  int32_t Next() {
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_reasons.size() > m_taken; })) return -1;
    return m_reasons[m_taken++];
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<TavixDisconnectReason> m_reasons;
  size_t m_taken = 0;
};

// This process's lines of the trace log written
// since construction, each without its "[pid-tid] date time " header.
class LogLines {
 public:
  LogLines() : m_skip(Read().size()) {}
  // Whether a new line equals `message`, waiting a little for serving threads to write it.
  bool Has(const std::u16string& message, uint32_t timeoutMs = 3000) const {
    return Eventually(
        [&] {
          const std::vector<std::u16string> all = Read();
          // A file emptied meanwhile is all new.
          const size_t skip = all.size() < m_skip ? 0 : m_skip;
          return std::find(all.begin() + static_cast<std::ptrdiff_t>(skip), all.end(), message) != all.end();
        },
        timeoutMs);
  }
  // The new lines that contain `part`, read now.
  std::vector<std::u16string> Containing(const std::u16string& part) const {
    const std::vector<std::u16string> all = Read();
    std::vector<std::u16string> found;
    for (size_t i = all.size() < m_skip ? 0 : m_skip; i < all.size(); ++i) {
      if (all[i].find(part) != std::u16string::npos) found.push_back(all[i]);
    }
    return found;
  }

 private:
  static std::vector<std::u16string> Read() {
    std::ifstream in(LogFilePath(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::u16string text(bytes.size() / 2, u'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * 2);
    const std::u16string prefix = FormatString(u"[%05d-", static_cast<int32_t>(platform::ProcessId()));
    std::vector<std::u16string> lines;
    for (size_t start = 0, end; (end = text.find(u"\r\n", start)) != std::u16string::npos; start = end + 2) {
      std::u16string line = text.substr(start, end - start);
      if (!line.empty() && line[0] == 0xFEFF) line.erase(0, 1);
      // "[ppppp-ttttt] yyyy-mm-dd hh:mm:ss:mmm " comes before the message.
      const size_t close = line.find(u"] ");
      if (line.rfind(prefix, 0) != 0 || close == std::u16string::npos || line.size() < close + 26) continue;
      lines.push_back(line.substr(close + 26));
    }
    return lines;
  }
  size_t m_skip;
};

}  // namespace TAVIX::test_wire

#endif  // TAVIX_TESTING_WIRE_H_
