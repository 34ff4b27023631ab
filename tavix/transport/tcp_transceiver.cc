#include "tavix/transport/tcp_transceiver.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "tavix/core/errors.h"
#include "tavix/core/inet_addr.h"
#include "tavix/core/trace_log.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/last_error.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

// Hands "<what>:%d,%s" with the last error and its text to the trace.
void TraceError(const char16_t* format) {
  const uint32_t code = platform::LastError();
  std::u16string text;
  tavixTrace(format, code, GetErrMsg(code, text));
}

bool WouldBlock() {
  const uint32_t code = platform::LastError();
  return code == EWOULDBLOCK || code == EAGAIN;
}

}  // namespace

// Holds the descriptor open for one socket call; empty when the transceiver
// was closed.
class TcpTransceiver::Pin {
 public:
  explicit Pin(TcpTransceiver& owner) : m_owner(owner) {
    ScopedLock guard(m_owner.m_lock);
    m_socket = m_owner.PinLocked();
  }
  ~Pin() {
    if (!m_socket.IsValid()) return;
    ScopedLock guard(m_owner.m_lock);
    m_owner.UnpinLocked();
  }
  Pin(const Pin&) = delete;
  Pin& operator=(const Pin&) = delete;

  explicit operator bool() const { return m_socket.IsValid(); }
  const platform::SocketView& Socket() const { return m_socket; }

 private:
  TcpTransceiver& m_owner;
  platform::SocketView m_socket;
};

TcpTransceiver::~TcpTransceiver() { Close(); }

int32_t TcpTransceiver::Connect(const InetAddr& address, SmartPtr<ITransceiver>& holder) {
  platform::Socket socket;
  if (!socket.Create(platform::SocketType::kStream)) return -1;
  if (!socket.Connect(address.SockAddr(), InetAddr::SockAddrLen())) {
    EnsureLastError keepConnectError;
    socket.Close();
    return -1;
  }
  AttachToHolder(holder, std::move(socket), address);
  return 0;
}

void TcpTransceiver::AttachToHolder(SmartPtr<ITransceiver>& holder, platform::Socket socket,
                                    const InetAddr& peer) {
  SmartPtr<TcpTransceiver> transceiver = SmartPtr<TcpTransceiver>::DynamicCast(holder);
  if (!transceiver) {
    transceiver = MakeShared<TcpTransceiver>();
    holder = transceiver;
  }
  transceiver->Attach(std::move(socket), peer);
}

void TcpTransceiver::Attach(platform::Socket socket, const InetAddr& peer) {
  Close();
  char16_t text[32];
  const char16_t* dotted = peer.ToString(text, std::size(text));
  ScopedLock guard(m_lock);
  m_socket = std::move(socket);
  m_peerAddress = dotted != nullptr ? dotted : u"";
  m_peerPort = peer.Port();
  ApplyTcpOptionsLocked();
}

void TcpTransceiver::ApplyTcpOptionsLocked() {
  // Best effort: a socket that refuses an option still carries data.
  SetBlocking(true);
  SetSendBufSize(kBufferSize);
  SetRecvBufSize(kBufferSize);
  SetKeepAlive(true);
}

int32_t TcpTransceiver::GetHandle() const {
  ScopedLock guard(m_lock);
  return m_socket.Handle();
}

void TcpTransceiver::Close() {
  EnsureLastError keepCallerError;
  ScopedLock guard(m_lock);
  if (!m_socket.IsValid()) return;
  if (!ShutdownBoth()) TraceError(u"TcpTransceiver::Close, ShutdownBoth error:%d,%s\n");
  // A thread blocked in WaitForRecv gets time to wake before the socket
  // goes. Without one there is nobody to wait for: pinned calls keep the
  // descriptor alive themselves, so a plain close (the common case at the
  // end of every connection) costs no pause.
  if (m_waiting) platform::SleepMs(kCloseDelayMs);
  if (m_pins == 0) {
    if (!CloseSocket()) TraceError(u"TcpTransceiver::Close, CloseSocket error:%d,%s\n");
  } else {
    m_retired.push_back(std::move(m_socket));
  }
}

bool TcpTransceiver::IsOpen() const {
  ScopedLock guard(m_lock);
  return m_socket.IsValid();
}

bool TcpTransceiver::IsWaiting() const {
  ScopedLock guard(m_lock);
  return m_waiting;
}

int32_t TcpTransceiver::WaitForRecv(uint32_t timeoutMs) {
  platform::SocketView socket;
  {
    ScopedLock guard(m_lock);
    if (!m_socket.IsValid()) return -3;
    m_waiting = true;
    socket = PinLocked();
  }
  const int32_t ready = socket.Poll(platform::PollFor::kRead, timeoutMs);
  const uint32_t error = platform::LastError();
  ScopedLock guard(m_lock);
  m_waiting = false;
  UnpinLocked();
  if (ready == 0) {
    TavixSetLastError(Err::ReceiveTimeout);
    return -2;
  }
  if (ready < 0) {
    platform::SetLastError(error);
    TraceError(u"TcpTransceiver::WaitForRecv, select error:%d,%s\n");
    return -1;
  }
  return m_socket.IsValid() ? ready : -3;
}

int32_t TcpTransceiver::WaitForSend(uint32_t timeoutMs) {
  const Pin pin(*this);
  if (!pin) return -3;
  const int32_t ready = pin.Socket().Poll(platform::PollFor::kWrite, timeoutMs);
  if (ready == 0) {
    TavixSetLastError(Err::ReceiveTimeout);
    return -2;
  }
  if (ready < 0) return -1;
  return IsOpen() ? ready : -3;
}

int32_t TcpTransceiver::Recv(void* buffer, int32_t length) {
  const Pin pin(*this);
  if (!pin) return -3;
  if (length < 1) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  for (;;) {
    const int32_t count = pin.Socket().Recv(buffer, length);
    if (count >= 0) return count;
    if (!WouldBlock()) {
      TraceError(u"TcpTransceiver::Recv, recv error:%d,%s\n");
      return -1;
    }
    tavixTrace(u"Would block! try again\n");
  }
}

int32_t TcpTransceiver::Recvn(void* buffer, int32_t length) {
  const Pin pin(*this);
  if (!pin) return -3;
  if (length < 1) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  auto* next = static_cast<char*>(buffer);
  int32_t left = length;
  uint64_t stallStart = 0;  // 0: not stalled
  while (left > 0) {
    const int32_t count = pin.Socket().Recv(next, left);
    if (count > 0) {
      next += count;
      left -= count;
      stallStart = 0;
      continue;
    }
    if (count == 0) return 0;
    if (!WouldBlock()) {
      TraceError(u"TcpTransceiver::Recvn, recv error:%d,%s\n");
      return -1;
    }
    platform::SleepMs(50);
    const uint64_t now = std::max<uint64_t>(platform::TickCountMs(), 1);
    if (stallStart == 0) {
      stallStart = now;
    } else if (now - stallStart > kStallLimitMs) {
      TavixSetLastError(Err::ReceiveTimeout);
      return -2;
    }
  }
  return length;
}

int32_t TcpTransceiver::Send(const void* buffer, int32_t length) {
  const Pin pin(*this);
  if (!pin) return -3;
  if (length < 1) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  const auto* next = static_cast<const char*>(buffer);
  int32_t left = length;
  int32_t chunk = length;
  while (left > 0) {
    const int32_t count = pin.Socket().Send(next, std::min(chunk, left));
    if (count > 0) {
      next += count;
      left -= count;
      chunk = std::min(chunk, left);
      continue;
    }
    if (count == 0) return 0;
    if (WouldBlock()) {
      const int32_t ready = WaitForSend(0);
      if (ready < 0) return ready;
      continue;
    }
    // Short of buffer space: smaller pieces may still get through.
    if (platform::LastError() == ENOBUFS && chunk > kMinChunk) {
      chunk = chunk / 2 + 1;
      continue;
    }
    TraceError(u"TcpTransceiver::Send, send error:%d,%s\n");
    return -1;
  }
  return length;
}

bool TcpTransceiver::GetPeer(std::u16string& address, uint16_t& port) const {
  ScopedLock guard(m_lock);
  address = m_peerAddress;
  port = m_peerPort;
  return true;
}

void TcpTransceiver::SetPeer(const std::u16string& address, uint16_t port) {
  ScopedLock guard(m_lock);
  m_peerAddress = address;
  m_peerPort = port;
}

platform::SocketView TcpTransceiver::PinLocked() {
  if (m_socket.IsValid()) ++m_pins;
  return m_socket.View();
}

void TcpTransceiver::UnpinLocked() {
  if (--m_pins > 0 || m_retired.empty()) return;
  EnsureLastError keepCallerError;
  m_retired.clear();
}

}  // namespace TAVIX
