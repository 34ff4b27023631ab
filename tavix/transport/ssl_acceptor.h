// The listening socket of an `ssl` endpoint: a TCP acceptor whose
// connections carry TLS with the context its slot holds when each one
// comes in. The handshake itself waits for the connection's own thread.
#ifndef TAVIX_TRANSPORT_SSL_ACCEPTOR_H_
#define TAVIX_TRANSPORT_SSL_ACCEPTOR_H_

#include <memory>

#include "tavix/transport/tcp_acceptor.h"
#include "tavix/transport/tls_context.h"

namespace TAVIX {

class SslAcceptor : public TcpAcceptor {
 public:
  explicit SslAcceptor(std::shared_ptr<const TlsContextSlot> slot) : m_slot(std::move(slot)) {}

  PassportType Type() const override { return PASSPORT_SSL; }

 protected:
  SmartPtr<TcpTransceiver> NewTransceiver() const override;

 private:
  std::shared_ptr<const TlsContextSlot> m_slot;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_SSL_ACCEPTOR_H_
