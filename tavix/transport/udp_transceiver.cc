#include "tavix/transport/udp_transceiver.h"

#include "tavix/core/errors.h"
#include "tavix/platform/process.h"

namespace TAVIX {

UdpTransceiver::UdpTransceiver(Mode mode, const platform::SocketAddress& endpoint)
    : m_mode(mode),
      m_endpoint(endpoint) {}

UdpTransceiver::~UdpTransceiver() { Close(); }

int32_t UdpTransceiver::Open() {
  ScopedLock guard(m_lock);
  if (!CreateSocket(platform::SocketType::kDatagram, m_endpoint.Family())) {
    return -1;
  }
  SetBlocking(false);
  if (m_mode == UDP_MODE_SERVER) SetRecvBufSize(kServerRecvBufSize);
  // The platform cannot make a full queue drop its oldest datagram; it
  // drops the newest instead.
  m_maxMessageSize = kMaxDatagram;
  const bool done = m_mode == UDP_MODE_SERVER ? Bind() : Connect();
  return done ? 0 : -1;
}

void UdpTransceiver::SetModeLocked(Mode mode) {
  if (m_mode != mode) TavixSetLastError(Err::UdpModeMismatch);
  m_mode = mode;
}

bool UdpTransceiver::Bind() {
  SetModeLocked(UDP_MODE_SERVER);
  if (!SockWrapper::Bind(m_endpoint)) return false;
  // A port of 0 asked the system for one: keep the one it chose.
  platform::SocketAddress bound;
  uint32_t length = platform::SocketAddress::kCapacity;
  if (m_endpoint.Port() == 0 && m_socket.LocalName(bound.Buffer(), length)) {
    bound.SetLength(length);
    m_endpoint = bound;
  }
  return true;
}

bool UdpTransceiver::Connect() {
  SetModeLocked(UDP_MODE_CLIENT);
  if (m_endpoint.IsBroadcast()) SetBroadcast(true);
  return m_socket.Connect(m_endpoint.Data(), m_endpoint.Length());
}

void UdpTransceiver::Close() {
  ScopedLock guard(m_lock);
  CloseSocketLocked();
}

UdpTransceiver::Mode UdpTransceiver::GetMode() const {
  ScopedLock guard(m_lock);
  return m_mode;
}

int32_t UdpTransceiver::MaxMessageSize() const {
  ScopedLock guard(m_lock);
  return m_maxMessageSize;
}

bool UdpTransceiver::IsBroadcast() const {
  ScopedLock guard(m_lock);
  return GetBroadcast() == 1;
}

bool UdpTransceiver::GetPeer(std::u16string& /*address*/, uint16_t& /*port*/) const { return false; }

int32_t UdpTransceiver::Recvn(void* /*buffer*/, int32_t /*length*/) {
  TavixSetLastError(Err::UnsupportedFunction);
  return -2;
}

int32_t UdpTransceiver::Recv(void* buffer, int32_t length) {
  const Pin pin(*this);
  if (!pin) return -3;
  if (length < 1) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  const bool server = GetMode() == UDP_MODE_SERVER;
  for (;;) {
    platform::SocketAddress sender;
    uint32_t senderLength = platform::SocketAddress::kCapacity;
    const int32_t count = server ? pin.Socket().RecvFrom(buffer, length, sender.Buffer(), senderLength)
                                 : pin.Socket().Recv(buffer, length);
    if (count >= 0) {
      if (!server) return count;
      sender.SetLength(senderLength);
      {
        ScopedLock guard(m_lock);
        m_replyAddress = sender;
      }
      platform::YieldProcessor();
      return count;
    }
    if (!LastErrorIsWouldBlock()) {
      return -1;
    }
    // Nothing queued after all (another reader took it): wait instead of spinning.
    if (pin.Socket().Poll(platform::PollFor::kRead, 0) < 0) return -1;
  }
}

int32_t UdpTransceiver::Send(const void* buffer, int32_t length) {
  const Pin pin(*this);
  if (!pin) return -3;
  if (length < 0 || length > kMaxDatagram) {
    TavixSetLastError(Err::IllegalBufferSize);
    return -2;
  }
  if (length == 0) return 0;
  const bool server = GetMode() == UDP_MODE_SERVER;
  platform::SocketAddress to;
  if (server) {
    ScopedLock guard(m_lock);
    to = m_replyAddress;
  }
  for (;;) {
    const int32_t count = server ? pin.Socket().SendTo(buffer, length, to.Data(), to.Length())
                                 : pin.Socket().Send(buffer, length);
    if (count >= 0) return length;
    if (!LastErrorIsWouldBlock()) {
      return -1;
    }
    if (pin.Socket().Poll(platform::PollFor::kWrite, 0) < 0) return -1;
  }
}

}  // namespace TAVIX
