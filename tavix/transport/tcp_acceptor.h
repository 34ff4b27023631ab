// The listening TCP socket of a server endpoint.
#ifndef TAVIX_TRANSPORT_TCP_ACCEPTOR_H_
#define TAVIX_TRANSPORT_TCP_ACCEPTOR_H_

#include <cstdint>

#include "tavix/platform/socket_address.h"
#include "tavix/transport/acceptor.h"
#include "tavix/transport/tcp_transceiver.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {

class TcpAcceptor : public IAcceptor, public SockWrapper {
 public:
  // The platform's largest listen queue.
  static constexpr int32_t kBacklog = 0x7fffffff;

  // Listens on every interface, port 5678, unless SetAddress says otherwise.
  TcpAcceptor();
  ~TcpAcceptor() override;

  // Takes effect at the next Open. The IPv6 any-address listens on both
  // families.
  void SetAddress(const platform::SocketAddress& address) { m_address = address; }
  // The listening address; after Open its port is the one actually bound,
  // also when port 0 was asked for.
  const platform::SocketAddress& Address() const { return m_address; }

  // A fresh blocking socket, bound and listening. Old connections of the
  // port lingering in TIME_WAIT do not block the bind; a live listener on
  // the port does. Asked for both families on a system without IPv6, it
  // listens on IPv4 alone.
  int32_t Open() override;
  int32_t Close() override;
  // Accepted sockets become TcpTransceivers with their peer set and the TCP
  // option set applied. A client that gave up before it was accepted
  // counts as nobody.
  int32_t Accept(SmartPtr<ITransceiver>& holder, uint32_t timeoutMs) override;
  PassportType Type() const override { return PASSPORT_TCP; }
  // Connects to the listening address (this machine's own address when
  // listening everywhere) and hangs up: the pending client ends a wait in
  // Accept. Does not touch the listening socket, so any thread may call it.
  int32_t Interrupt() override;
  int32_t Extension1(int32_t value) override { return value; }
  int32_t Extension2(int32_t value) override { return value; }

 protected:
  // The transceiver an accepted socket goes into when the holder brings
  // none of this kind.
  virtual SmartPtr<TcpTransceiver> NewTransceiver() const;

 private:
  // Closes without disturbing the error that made the caller give up.
  void CloseKeepingError();
  bool OpenOn(const platform::SocketAddress& address);

  platform::SocketAddress m_address;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_TCP_ACCEPTOR_H_
