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

TcpTransceiver::TcpTransceiver()
    : SocketTransceiver({u"TcpTransceiver::WaitForRecv, select error:%d,%s\n",
                         u"TcpTransceiver::Close, ShutdownBoth error:%d,%s\n",
                         u"TcpTransceiver::Close, CloseSocket error:%d,%s\n"}) {}

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

void TcpTransceiver::Close() {
  ScopedLock guard(m_lock);
  CloseSocketLocked();
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
  const int32_t count = pin.Socket().Recv(buffer, length);
  if (count >= 0) return count;
  // The socket blocks: "would block" means the stall time-out passed.
  if (LastErrorIsWouldBlock()) {
    TavixSetLastError(Err::ReceiveTimeout);
    return -2;
  }
  TraceError(u"TcpTransceiver::Recv, recv error:%d,%s\n");
  return -1;
}

int32_t TcpTransceiver::Recvn(void* buffer, int32_t length) {
  const Pin pin(*this);
  if (!pin) return -3;
  if (length < 1) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  auto* next = static_cast<char*>(buffer);
  for (int32_t left = length; left > 0;) {
    const int32_t count = pin.Socket().Recv(next, left);
    if (count == 0) return 0;
    if (count > 0) {
      next += count;
      left -= count;
      continue;
    }
    // A blocking socket says "would block" only when its stall time-out
    // passed without a byte.
    if (LastErrorIsWouldBlock()) {
      TavixSetLastError(Err::ReceiveTimeout);
      return -2;
    }
    TraceError(u"TcpTransceiver::Recvn, recv error:%d,%s\n");
    return -1;
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
    if (LastErrorIsWouldBlock()) {
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

bool TcpTransceiver::SetStallTimeout(uint32_t timeoutMs) {
  const Pin pin(*this);
  return pin && pin.Socket().SetReceiveTimeout(timeoutMs);
}

void TcpTransceiver::SetPeer(const std::u16string& address, uint16_t port) {
  ScopedLock guard(m_lock);
  m_peerAddress = address;
  m_peerPort = port;
}

}  // namespace TAVIX
