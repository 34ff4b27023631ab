#include "tavix/transport/tcp_transceiver.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/last_error.h"
#include "tavix/platform/process.h"

namespace TAVIX {

TcpTransceiver::TcpTransceiver() = default;

TcpTransceiver::~TcpTransceiver() { Close(); }

int32_t TcpTransceiver::Connect(const platform::SocketAddress& address, SmartPtr<ITransceiver>& holder) {
  platform::Socket socket;
  if (!socket.Create(platform::SocketType::kStream, address.Family())) return -1;
  if (!socket.Connect(address.Data(), address.Length())) {
    EnsureLastError keepConnectError;
    socket.Close();
    return -1;
  }
  AttachToHolder(holder, std::move(socket), address);
  return 0;
}

void TcpTransceiver::AttachToHolder(SmartPtr<ITransceiver>& holder, platform::Socket socket,
                                    const platform::SocketAddress& peer) {
  SmartPtr<TcpTransceiver> transceiver = SmartPtr<TcpTransceiver>::DynamicCast(holder);
  if (!transceiver) {
    transceiver = MakeShared<TcpTransceiver>();
    holder = transceiver;
  }
  transceiver->Attach(std::move(socket), peer);
}

void TcpTransceiver::Attach(platform::Socket socket, const platform::SocketAddress& peer) {
  Close();
  SetPeer(WiddenString(peer.HostText()), peer.Port());
  {
    ScopedLock guard(m_lock);
    m_socket = std::move(socket);
    // Nothing of an earlier socket may be read from this one.
    m_aheadBegin = 0;
    m_aheadEnd = 0;
    m_stallTimeoutMs.store(0);
    m_messageTimeoutMs.store(0);
    m_socketTimeoutMs.store(0);
    ApplyTcpOptionsLocked();
  }
  Attached();
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

int32_t TcpTransceiver::WaitForRecv(uint32_t timeoutMs) {
  if (m_aheadBegin < m_aheadEnd) return IsOpen() ? 1 : -3;
  return SocketTransceiver::WaitForRecv(timeoutMs);
}

int32_t TcpTransceiver::TakeAhead(void* buffer, int32_t length) {
  const int32_t n = std::min(length, m_aheadEnd - m_aheadBegin);
  if (n <= 0) return 0;
  std::memcpy(buffer, m_ahead.get() + m_aheadBegin, static_cast<size_t>(n));
  m_aheadBegin += n;
  return n;
}

int32_t TcpTransceiver::FillAhead(const platform::SocketView& socket) {
  if (!m_ahead) m_ahead = std::make_unique<uint8_t[]>(kReadAhead);
  m_aheadBegin = 0;
  m_aheadEnd = 0;
  const int32_t count = StreamRecv(socket, m_ahead.get(), kReadAhead);
  if (count > 0) m_aheadEnd = count;
  return count;
}

int32_t TcpTransceiver::ReceiveFailure() {
  // The socket blocks: "would block" means its receive time-out passed.
  if (LastErrorIsWouldBlock()) {
    TavixSetLastError(Err::ReceiveTimeout);
    return -2;
  }
  return -1;
}

int32_t TcpTransceiver::Recv(void* buffer, int32_t length) {
  const Pin pin(*this);
  if (!pin) return -3;
  if (length < 1) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  if (m_aheadBegin < m_aheadEnd) return TakeAhead(buffer, length);
  if (!ApplyReceiveTimeout(pin.Socket(), m_messageTimeoutMs.load(std::memory_order_relaxed))) {
    return -1;
  }
  const int32_t count = StreamRecv(pin.Socket(), buffer, length);
  if (count >= 0) return count;
  return ReceiveFailure();
}

int32_t TcpTransceiver::Recvn(void* buffer, int32_t length) {
  // Bytes already received need no socket, so no pin: the read-ahead block
  // belongs to the one reader.
  if (length > 0 && length <= m_aheadEnd - m_aheadBegin) return TakeAhead(buffer, length);
  const Pin pin(*this);
  if (!pin) return -3;
  if (length < 1) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  return RecvnPinned(pin.Socket(), buffer, length);
}

int32_t TcpTransceiver::RecvnPinned(const platform::SocketView& socket, void* buffer, int32_t length) {
  auto* next = static_cast<char*>(buffer);
  int32_t left = length;
  const int32_t ahead = TakeAhead(next, left);
  next += ahead;
  left -= ahead;
  if (left > 0 && !ApplyReceiveTimeout(socket, m_messageTimeoutMs.load(std::memory_order_relaxed))) {
    return -1;
  }
  while (left > 0) {
    // Small remainders come through the read-ahead block, so that whatever
    // follows them arrives in the same receive; large ones land in place.
    int32_t count = 0;
    if (left < kReadAhead) {
      count = FillAhead(socket);
      if (count > 0) count = TakeAhead(next, left);
    } else {
      count = StreamRecv(socket, next, left);
    }
    if (count == 0) return 0;
    if (count < 0) return ReceiveFailure();
    next += count;
    left -= count;
  }
  return length;
}

int32_t TcpTransceiver::RecvMessageStart(void* buffer, int32_t length, uint32_t timeoutMs) {
  const Pin pin(*this);
  if (!pin) return -3;
  if (length < 1) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  m_messageTimeoutMs.store(timeoutMs != 0 ? timeoutMs : m_stallTimeoutMs.load(), std::memory_order_relaxed);
  if (m_aheadBegin == m_aheadEnd) {
    // Without a limit the socket has no receive time-out while it waits,
    // so an idle peer costs no kernel timer per message.
    if (!ApplyReceiveTimeout(pin.Socket(), timeoutMs)) {
      return -1;
    }
    const int32_t count = FillAhead(pin.Socket());
    // A close from another thread wakes the receive with an end of stream;
    // it is told apart from the peer's close as the wait tells it.
    if (count == 0) return IsOpen() ? 0 : -3;
    if (count < 0) return ReceiveFailure();
  }
  return RecvnPinned(pin.Socket(), buffer, length);
}

bool TcpTransceiver::ApplyReceiveTimeout(const platform::SocketView& socket, uint32_t timeoutMs) {
  if (m_socketTimeoutMs.load() == timeoutMs) return true;
  if (!socket.SetReceiveTimeout(timeoutMs)) return false;
  m_socketTimeoutMs.store(timeoutMs);
  return true;
}

int32_t TcpTransceiver::Send(const void* buffer, int32_t length) {
  const Pin pin(*this);
  if (!pin) return -3;
  if (length < 1) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  return SendPinned(pin.Socket(), buffer, length);
}

int32_t TcpTransceiver::SendPinned(const platform::SocketView& socket, const void* buffer, int32_t length) {
  const auto* next = static_cast<const char*>(buffer);
  int32_t left = length;
  int32_t chunk = length;
  while (left > 0) {
    const int32_t count = StreamSend(socket, next, std::min(chunk, left));
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
    return -1;
  }
  return length;
}

int32_t TcpTransceiver::SendPair(const void* first, int32_t firstLength, const void* second,
                                 int32_t secondLength) {
  const Pin pin(*this);
  if (!pin) return -3;
  if (firstLength < 0 || secondLength < 0 || firstLength + int64_t{secondLength} < 1 ||
      firstLength + int64_t{secondLength} > INT32_MAX) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  platform::ConstBytes pieces[2] = {{first, firstLength}, {second, secondLength}};
  int32_t index = firstLength > 0 ? 0 : 1;
  while (index < 2) {
    const int32_t count = StreamSendGather(pin.Socket(), pieces + index, 2 - index);
    if (count > 0) {
      // Skips what went out; a piece sent in part keeps its tail.
      int32_t sent = count;
      while (index < 2 && sent >= pieces[index].length) sent -= pieces[index++].length;
      if (index < 2) {
        pieces[index].data = static_cast<const char*>(pieces[index].data) + sent;
        pieces[index].length -= sent;
      }
      continue;
    }
    if (count == 0) return 0;
    if (LastErrorIsWouldBlock()) {
      const int32_t ready = WaitForSend(0);
      if (ready < 0) return ready;
      continue;
    }
    // Short of buffer space: the plain send's smaller pieces may still pass.
    if (platform::LastError() == ENOBUFS) {
      for (; index < 2; ++index) {
        if (pieces[index].length < 1) continue;
        const int32_t r = SendPinned(pin.Socket(), pieces[index].data, pieces[index].length);
        if (r <= 0) return r;
      }
      break;
    }
    return -1;
  }
  return firstLength + secondLength;
}

int32_t TcpTransceiver::StreamRecv(const platform::SocketView& socket, void* buffer, int32_t length) {
  return socket.Recv(buffer, length);
}

int32_t TcpTransceiver::StreamSend(const platform::SocketView& socket, const void* buffer, int32_t length) {
  return socket.Send(buffer, length);
}

int32_t TcpTransceiver::StreamSendGather(const platform::SocketView& socket, const platform::ConstBytes* pieces,
                                         int32_t count) {
  return socket.SendGather(pieces, count);
}

bool TcpTransceiver::GetPeer(std::u16string& address, uint16_t& port) const {
  ScopedLock guard(m_lock);
  address = m_peerAddress;
  port = m_peerPort;
  return true;
}

bool TcpTransceiver::PeerHasLeft() {
  const Pin pin(*this);
  return pin && pin.Socket().PeerHasHungUp();
}

bool TcpTransceiver::SetStallTimeout(uint32_t timeoutMs) {
  const Pin pin(*this);
  if (!pin) return false;
  m_stallTimeoutMs.store(timeoutMs);
  m_messageTimeoutMs.store(timeoutMs);
  return true;
}

void TcpTransceiver::SetPeer(const std::u16string& address, uint16_t port) {
  ScopedLock guard(m_lock);
  m_peerAddress = address;
  m_peerPort = port;
}

}  // namespace TAVIX
