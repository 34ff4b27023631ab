#include "tavix/transport/tcp_acceptor.h"

#include <utility>

#include "tavix/core/errors.h"
#include "tavix/platform/last_error.h"
#include "tavix/transport/tcp_transceiver.h"

namespace TAVIX {
namespace {

constexpr uint16_t kDefaultPort = 5678;

}  // namespace

TcpAcceptor::TcpAcceptor() { m_address.SetAny(kDefaultPort); }

TcpAcceptor::~TcpAcceptor() { Close(); }

int32_t TcpAcceptor::Open() {
  CloseSocket();
  if (!CreateSocket(platform::SocketType::kStream)) {
    CloseKeepingError();
    return -1;
  }
  m_socket.SetReuseAddress(true);
  if (!Bind(m_address)) {
    CloseKeepingError();
    return -1;
  }
  if (!Listen(kBacklog)) {
    CloseKeepingError();
    return -1;
  }
  InetAddr bound;
  uint32_t length = InetAddr::SockAddrLen();
  if (m_socket.LocalName(bound.SockAddr(), length)) m_address = bound;
  return 0;
}

int32_t TcpAcceptor::Close() {
  CloseSocket();
  return 0;
}

int32_t TcpAcceptor::Accept(SmartPtr<ITransceiver>& holder, uint32_t timeoutMs) {
  if (holder && holder->Type() != PASSPORT_TCP) {
    holder->Close();
    holder = nullptr;
  }
  const int32_t ready = m_socket.Poll(platform::PollFor::kRead, timeoutMs);
  if (ready == 0) return 0;
  if (ready < 0) return -1;
  platform::Socket accepted;
  InetAddr peer;
  uint32_t length = InetAddr::SockAddrLen();
  if (!m_socket.Accept(accepted, peer.SockAddr(), length)) {
    if (platform::IsAbandonedConnection(platform::LastError())) return 0;
    return -1;
  }
  TcpTransceiver::AttachToHolder(holder, std::move(accepted), peer);
  return 0;
}

int32_t TcpAcceptor::Interrupt() {
  InetAddr target = m_address;
  if (target.IsAny()) target.SetLocalHost(m_address.Port());
  platform::Socket wake;
  if (!wake.Create(platform::SocketType::kStream)) return -1;
  wake.Connect(target.SockAddr(), InetAddr::SockAddrLen());
  return wake.Close() ? 0 : -1;
}

void TcpAcceptor::CloseKeepingError() {
  EnsureLastError keep;
  CloseSocket();
}

}  // namespace TAVIX
