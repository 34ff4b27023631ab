#include "tavix/transport/tcp_acceptor.h"

#include <utility>

#include "tavix/core/errors.h"
#include "tavix/core/inet_addr.h"
#include "tavix/platform/last_error.h"
#include "tavix/transport/tcp_transceiver.h"

namespace TAVIX {
namespace {

constexpr uint16_t kDefaultPort = 5678;

}  // namespace

TcpAcceptor::TcpAcceptor() : m_address(platform::SocketAddress::Any(platform::AddressFamily::kIPv4, kDefaultPort)) {}

TcpAcceptor::~TcpAcceptor() { Close(); }

int32_t TcpAcceptor::Open() {
  bool listening = OpenOn(m_address);
  const bool bothFamilies = m_address.Family() == platform::AddressFamily::kIPv6 && m_address.IsAny();
  if (!listening && bothFamilies && platform::IsFamilyUnavailable(platform::LastError())) {
    m_address = platform::SocketAddress::Any(platform::AddressFamily::kIPv4, m_address.Port());
    listening = OpenOn(m_address);
  }
  if (!listening) return -1;
  platform::SocketAddress bound;
  uint32_t length = platform::SocketAddress::kCapacity;
  if (m_socket.LocalName(bound.Buffer(), length)) {
    bound.SetLength(length);
    m_address = bound;
  }
  return 0;
}

// A fresh socket of the address's family, bound and listening; closed
// again, the error kept, when a step fails.
bool TcpAcceptor::OpenOn(const platform::SocketAddress& address) {
  CloseSocket();
  const bool ipv6 = address.Family() == platform::AddressFamily::kIPv6;
  if (!CreateSocket(platform::SocketType::kStream, address.Family()) || (ipv6 && !m_socket.SetIPv6Only(false))) {
    CloseKeepingError();
    return false;
  }
  m_socket.SetReuseAddress(true);
  if (!Bind(address) || !Listen(kBacklog)) {
    CloseKeepingError();
    return false;
  }
  return true;
}

int32_t TcpAcceptor::Close() {
  CloseSocket();
  return 0;
}

int32_t TcpAcceptor::Accept(SmartPtr<ITransceiver>& holder, uint32_t timeoutMs) {
  if (holder && holder->Type() != Type()) {
    holder->Close();
    holder = nullptr;
  }
  const int32_t ready = m_socket.Poll(platform::PollFor::kRead, timeoutMs);
  if (ready == 0) return 0;
  if (ready < 0) return -1;
  platform::Socket accepted;
  platform::SocketAddress peer;
  uint32_t length = platform::SocketAddress::kCapacity;
  if (!m_socket.Accept(accepted, peer.Buffer(), length)) {
    if (platform::IsAbandonedConnection(platform::LastError())) return 0;
    return -1;
  }
  peer.SetLength(length);
  SmartPtr<TcpTransceiver> transceiver = SmartPtr<TcpTransceiver>::DynamicCast(holder);
  if (!transceiver) {
    transceiver = NewTransceiver();
    holder = transceiver;
  }
  transceiver->Attach(std::move(accepted), peer.Unmapped());
  return 0;
}

SmartPtr<TcpTransceiver> TcpAcceptor::NewTransceiver() const { return MakeShared<TcpTransceiver>(); }

int32_t TcpAcceptor::Interrupt() {
  platform::SocketAddress target = m_address;
  // Every interface, both families included, hears this machine's own name.
  if (target.IsAny()) {
    InetAddr own;
    own.SetLocalHost(m_address.Port());
    target = own.ToSocketAddress();
  }
  platform::Socket wake;
  if (!wake.Create(platform::SocketType::kStream, target.Family())) return -1;
  wake.Connect(target.Data(), target.Length());
  return wake.Close() ? 0 : -1;
}

void TcpAcceptor::CloseKeepingError() {
  EnsureLastError keep;
  CloseSocket();
}

}  // namespace TAVIX
