// The connection factory of a UDP passport: one bound server transceiver
// and one Connection whose serving thread handles every datagram that
// arrives on it. There is nothing to accept.
#ifndef TAVIX_ADAPTER_UDP_CONNECTION_FACTORY_H_
#define TAVIX_ADAPTER_UDP_CONNECTION_FACTORY_H_

#include <atomic>
#include <cstdint>

#include "tavix/core/locks.h"
#include "tavix/invoke/connection_factory.h"

namespace TAVIX {

class UdpConnectionFactory : public IConnectionFactory {
 public:
  UdpConnectionFactory(const SmartPtr<IPassport>& passport, const SmartPtr<IObjectHost>& adapter);
  ~UdpConnectionFactory() override;
  UdpConnectionFactory(const UdpConnectionFactory&) = delete;
  UdpConnectionFactory& operator=(const UdpConnectionFactory&) = delete;

  // Binds a server transceiver through the passport and starts the
  // connection's serving thread. True when already active (once active, a
  // factory stays so); false when the transceiver cannot be made or the
  // thread cannot start.
  bool Activate() override;
  // Asks the connection to end.
  void Destroy() override;
  // Closes and reopens the transceiver, so that the port is bound afresh.
  // The adapter is not told. Always true.
  bool ConnectionClosed(const SmartPtr<Connection>& connection, TavixDisconnectReason reason) override;
  // Waits for the serving thread to end.
  void WaitUntilDestroy(uint64_t deadlineTick) override;
  const SmartPtr<IPassport>& GetPassport() const override { return m_passport; }
  const SmartPtr<IObjectHost>& GetHost() const override { return m_adapter; }
  bool IsActive() const override { return m_active.load() != 0; }

 private:
  SmartPtr<Connection> CurrentConnection();

  SmartPtr<IPassport> m_passport;
  std::atomic<int32_t> m_active{0};
  SmartPtr<IObjectHost> m_adapter;
  SmartPtr<Connection> m_connection;  // guarded by m_lock
  RecLock m_lock;
};

}  // namespace TAVIX

#endif  // TAVIX_ADAPTER_UDP_CONNECTION_FACTORY_H_
