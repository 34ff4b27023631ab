#include "tavix/transport/ssl_acceptor.h"

#include "tavix/transport/ssl_transceiver.h"

namespace TAVIX {

SmartPtr<TcpTransceiver> SslAcceptor::NewTransceiver() const { return MakeShared<SslTransceiver>(m_slot->Get()); }

}  // namespace TAVIX
