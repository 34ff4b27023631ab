// Test helpers shared by the invocation and adapter tests: byte builders for
// request messages, a raw TCP client, an in-memory transceiver and a reader
// of this process's lines in the trace log. Header-only: it is compiled into
// the test binaries, never into the library.
#ifndef TAVIX_INVOKE_WIRE_TEST_UTIL_H_
#define TAVIX_INVOKE_WIRE_TEST_UTIL_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/core/inet_addr.h"
#include "tavix/core/text.h"
#include "tavix/core/trace_log.h"
#include "tavix/marshal/message_header.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/process.h"
#include "tavix/platform/socket.h"
#include "tavix/transport/tcp_acceptor.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX::test_wire {

using Bytes = std::vector<uint8_t>;

// Little-endian writer of the body encoding.
class Writer {
 public:
  Writer& u8(uint8_t v) {
    m_bytes.push_back(v);
    return *this;
  }
  Writer& i32(int32_t v) { return raw(&v, 4); }
  Writer& f64(double v) { return raw(&v, 8); }
  Writer& size(int32_t n) {
    if (n <= 254) return u8(static_cast<uint8_t>(n));
    u8(0xFF);
    return i32(n);
  }
  Writer& wstr(const std::u16string& s) {
    size(static_cast<int32_t>(s.size()));
    return raw(s.data(), s.size() * 2);
  }
  Writer& blob(const Bytes& b) {
    size(static_cast<int32_t>(b.size()));
    return raw(b.data(), b.size());
  }
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

inline Bytes Header(uint8_t type, int32_t size) {
  MsgHeaderData header;
  header.Init(type);
  header.size = size;
  Bytes bytes(HEADER_SIZE);
  header.Encode(bytes.data());
  return bytes;
}

// A complete request message.
inline Bytes Request(int32_t requestId, const std::u16string& object, const std::u16string& operation,
                     const Bytes& arguments = {}) {
  Writer body;
  body.i32(requestId).wstr(object).wstr(operation).bytes(arguments);
  Writer message;
  message.bytes(Header(MSG_REQUEST, static_cast<int32_t>(HEADER_SIZE + body.get().size()))).bytes(body.get());
  return message.get();
}

inline Bytes Concat(const Bytes& a, const Bytes& b) {
  Bytes out = a;
  out.insert(out.end(), b.begin(), b.end());
  return out;
}

inline int32_t ReadI32(const Bytes& b, size_t at) {
  int32_t v = 0;
  std::memcpy(&v, b.data() + at, 4);
  return v;
}

inline double ReadF64(const Bytes& b, size_t at) {
  double v = 0;
  std::memcpy(&v, b.data() + at, 8);
  return v;
}

// The parts of a reply message.
struct Reply {
  uint8_t type = 0xFF;
  int32_t size = 0;
  int32_t requestId = 0;
  uint32_t status = 0;
  double serverTime = 0;
  Bytes results;
};

inline Reply ParseReply(const Bytes& message) {
  Reply r;
  if (message.size() < 36) return r;
  MsgHeaderData header;
  header.Decode(message.data());
  r.type = header.type;
  r.size = header.size;
  r.requestId = ReadI32(message, 20);
  r.status = static_cast<uint32_t>(ReadI32(message, 24));
  r.serverTime = ReadF64(message, 28);
  r.results.assign(message.begin() + 36, message.end());
  return r;
}

inline std::string Hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (uint8_t b : bytes) {
    if (!out.empty()) out += ' ';
    out += kDigits[b >> 4];
    out += kDigits[b & 0xF];
  }
  return out;
}

// A port that was free a moment ago: endpoint strings refuse port 0.
inline uint16_t FreePort() {
  TcpAcceptor probe;
  InetAddr any;
  any.SetAny(0);
  probe.SetAddress(any);
  if (probe.Open() != 0) return 0;
  return probe.Address().Port();
}

// A plain TCP client on 127.0.0.1 that sends and receives raw bytes.
class RawClient {
 public:
  bool Connect(uint16_t port) {
    InetAddr address;
    address.Set("127.0.0.1", port);
    return m_socket.Create(platform::SocketType::kStream) &&
           m_socket.Connect(address.SockAddr(), InetAddr::SockAddrLen());
  }
  bool Send(const Bytes& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
      const int32_t n = m_socket.Send(bytes.data() + sent, static_cast<int32_t>(bytes.size() - sent));
      if (n <= 0) return false;
      sent += static_cast<size_t>(n);
    }
    return true;
  }
  // Exactly n bytes, or fewer when the peer closed or the time ran out.
  Bytes Receive(size_t n, uint32_t timeoutMs = 5000) {
    Bytes out(n);
    size_t got = 0;
    const uint64_t deadline = platform::TickCountMs() + timeoutMs;
    while (got < n) {
      const uint64_t now = platform::TickCountMs();
      if (now >= deadline || m_socket.Poll(platform::PollFor::kRead, static_cast<uint32_t>(deadline - now)) != 1) break;
      const int32_t r = m_socket.Recv(out.data() + got, static_cast<int32_t>(n - got));
      if (r <= 0) break;
      got += static_cast<size_t>(r);
    }
    out.resize(got);
    return out;
  }
  Bytes ReceiveValidation() { return Receive(HEADER_SIZE); }
  // One whole reply message: its header, then as many bytes as it says.
  Bytes ReceiveMessage(uint32_t timeoutMs = 5000) {
    Bytes message = Receive(HEADER_SIZE, timeoutMs);
    if (message.size() != HEADER_SIZE) return message;
    MsgHeaderData header;
    header.Decode(message.data());
    if (header.size > HEADER_SIZE) {
      const Bytes rest = Receive(static_cast<size_t>(header.size - HEADER_SIZE), timeoutMs);
      message.insert(message.end(), rest.begin(), rest.end());
    }
    return message;
  }
  // True when nothing arrives within the time (the connection stays open).
  bool Silent(uint32_t timeoutMs) { return m_socket.Poll(platform::PollFor::kRead, timeoutMs) == 0; }
  // True when the server closes the connection within the time.
  bool ClosedByPeer(uint32_t timeoutMs = 5000) {
    uint8_t byte = 0;
    const uint64_t deadline = platform::TickCountMs() + timeoutMs;
    for (;;) {
      const uint64_t now = platform::TickCountMs();
      if (now >= deadline) return false;
      if (m_socket.Poll(platform::PollFor::kRead, static_cast<uint32_t>(deadline - now)) != 1) return false;
      const int32_t r = m_socket.Recv(&byte, 1);
      if (r <= 0) return true;
    }
  }
  void Close() { m_socket.Close(); }
  platform::SocketView View() const { return m_socket.View(); }

 private:
  platform::Socket m_socket;
};

// A transceiver over in-memory bytes. The test feeds what the "client"
// sends and reads what the connection wrote; reads block until bytes come,
// the input ends, or the transceiver is closed.
class FakeTransceiver : public ITransceiver {
 public:
  static constexpr int32_t kHandle = 0x7FFF0000;  // never a descriptor of this process

  explicit FakeTransceiver(int32_t type = 1, int32_t handle = kHandle) : m_type(type), m_handle(handle) {}

  void Feed(const Bytes& bytes) {
    std::lock_guard lock(m_mutex);
    m_input.insert(m_input.end(), bytes.begin(), bytes.end());
    m_changed.notify_all();
  }
  // The client is gone: reads of what is missing return 0.
  void EndInput() {
    std::lock_guard lock(m_mutex);
    m_ended = true;
    m_changed.notify_all();
  }
  Bytes Output() {
    std::lock_guard lock(m_mutex);
    return m_output;
  }
  // Waits until at least n bytes were written.
  Bytes WaitOutput(size_t n, uint32_t timeoutMs = 5000) {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_output.size() >= n; });
    return m_output;
  }
  void FailSends(uint32_t error) {
    std::lock_guard lock(m_mutex);
    m_sendError = error;
  }

  int32_t GetHandle() const override {
    std::lock_guard lock(m_mutex);
    return m_open ? m_handle : INVALID_SOCKET;
  }
  int32_t Open() override { return 0; }
  void Close() override {
    std::lock_guard lock(m_mutex);
    if (!m_open) return;
    m_open = false;
    m_changed.notify_all();
  }
  bool IsOpen() const override {
    std::lock_guard lock(m_mutex);
    return m_open;
  }
  int32_t WaitForRecv(uint32_t timeoutMs) override {
    std::unique_lock lock(m_mutex);
    const auto ready = [&] { return !m_open || !m_input.empty() || m_ended; };
    if (timeoutMs == 0) {
      m_changed.wait(lock, ready);
    } else if (!m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready)) {
      TavixSetLastError(Err::ReceiveTimeout);
      return -2;
    }
    return m_open ? 1 : -3;
  }
  bool IsWaiting() const override { return false; }
  int32_t Recv(void* buffer, int32_t length) override { return Recvn(buffer, length > 0 ? 1 : length); }
  int32_t Recvn(void* buffer, int32_t length) override {
    std::unique_lock lock(m_mutex);
    if (!m_open) return -3;
    if (length < 1) {
      TavixSetLastError(Err::IllegalBufferSize);
      return -2;
    }
    const auto n = static_cast<size_t>(length);
    m_changed.wait(lock, [&] { return !m_open || m_input.size() >= n || m_ended; });
    if (!m_open) return -3;
    if (m_input.size() < n) return 0;
    auto* out = static_cast<uint8_t*>(buffer);
    for (size_t i = 0; i < n; ++i) {
      out[i] = m_input.front();
      m_input.pop_front();
    }
    return length;
  }
  int32_t Send(const void* buffer, int32_t length) override {
    std::lock_guard lock(m_mutex);
    if (!m_open) return -3;
    if (m_sendError != 0) {
      TavixSetLastError(m_sendError);
      return -1;
    }
    const auto* p = static_cast<const uint8_t*>(buffer);
    m_output.insert(m_output.end(), p, p + length);
    m_changed.notify_all();
    return length;
  }
  bool GetPeer(std::u16string& address, uint16_t& port) const override {
    if (m_type != 1) return false;
    address = u"10.1.2.3";
    port = 4321;
    return true;
  }
  int32_t Type() const override { return m_type; }
  int32_t MaxMessageSize() const override { return 0; }
  bool IsBroadcast() const override { return false; }

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<uint8_t> m_input;
  Bytes m_output;
  bool m_open = true;
  bool m_ended = false;
  uint32_t m_sendError = 0;
  const int32_t m_type;
  const int32_t m_handle;
};

// This process's lines of the trace log beside the test executable, each
// without its "[pid-tid] date time " header.
class LogLines {
 public:
  LogLines() : m_skip(Read().size()) {}

  // Lines written since construction.
  std::vector<std::u16string> New() const {
    std::vector<std::u16string> all = Read();
    if (all.size() < m_skip) return all;  // the file was emptied meanwhile
    return std::vector<std::u16string>(all.begin() + static_cast<std::ptrdiff_t>(m_skip), all.end());
  }
  // Whether a new line equals `message` (without its line end), waiting a
  // little for serving threads to write it.
  bool Has(const std::u16string& message, uint32_t timeoutMs = 3000) const {
    const uint64_t deadline = platform::TickCountMs() + timeoutMs;
    for (;;) {
      for (const std::u16string& line : New()) {
        if (line == message) return true;
      }
      if (platform::TickCountMs() >= deadline) return false;
      platform::SleepMs(10);
    }
  }
  size_t Count(const std::u16string& message) const {
    size_t n = 0;
    for (const std::u16string& line : New()) n += line == message ? 1 : 0;
    return n;
  }

  static std::vector<std::u16string> Read() {
    std::ifstream in(TraceLog::LogPathFor(platform::ExecutablePath()), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::u16string text;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
      text.push_back(static_cast<char16_t>(static_cast<uint8_t>(bytes[i]) | static_cast<uint8_t>(bytes[i + 1]) << 8));
    }
    const std::u16string prefix = FormatString(u"[%05d-", static_cast<int32_t>(platform::ProcessId()));
    std::vector<std::u16string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find(u"\r\n", start)) != std::u16string::npos; start = end + 2) {
      std::u16string line = text.substr(start, end - start);
      if (!line.empty() && line[0] == 0xFEFF) line.erase(0, 1);
      if (line.rfind(prefix, 0) != 0) continue;
      // "[ppppp-ttttt] yyyy-mm-dd hh:mm:ss:mmm " is followed by the message.
      const size_t close = line.find(u"] ");
      if (close == std::u16string::npos || line.size() < close + 2 + 24) continue;
      lines.push_back(line.substr(close + 2 + 24));
    }
    return lines;
  }

 private:
  size_t m_skip;
};

}  // namespace TAVIX::test_wire

#endif  // TAVIX_INVOKE_WIRE_TEST_UTIL_H_
