#include "tavix/adapter/udp_connection_factory.h"

#include "tavix/invoke/connection.h"
#include "tavix/transport/passport.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {

UdpConnectionFactory::UdpConnectionFactory(const SmartPtr<IPassport>& passport,
                                           const SmartPtr<IObjectHost>& adapter)
    : m_passport(passport), m_adapter(adapter) {}

UdpConnectionFactory::~UdpConnectionFactory() = default;

bool UdpConnectionFactory::Activate() {
  ScopedLock guard(m_lock);
  if (m_active.load() != 0) return true;
  SmartPtr<ITransceiver> transceiver;
  if (m_passport->CreateServerTransceiver(transceiver) != 0) return false;
  m_connection = MakeShared<Connection>(SmartPtr<IConnectionFactory>(this));
  m_connection->SetTransceiver(transceiver);
  if (!m_connection->Activate()) return false;
  m_active.store(1);
  return true;
}

void UdpConnectionFactory::Destroy() {
  ScopedLock guard(m_lock);
  if (m_active.load() != 0 && m_connection) m_connection->Destroy();
}

bool UdpConnectionFactory::ConnectionClosed(const SmartPtr<Connection>& /*connection*/,
                                            TavixDisconnectReason /*reason*/) {
  ScopedLock guard(m_lock);
  if (!m_connection) return true;
  const SmartPtr<ITransceiver>& transceiver = m_connection->GetTransceiver();
  if (transceiver) {
    transceiver->Close();
    transceiver->Open();
  }
  return true;
}

void UdpConnectionFactory::WaitUntilDestroy(uint64_t deadlineTick) {
  // The lock is not held while waiting: the serving thread takes it in
  // ConnectionClosed on its way out.
  SmartPtr<Connection> connection = CurrentConnection();
  if (connection) connection->WaitUntilDestroy(deadlineTick);
}

SmartPtr<Connection> UdpConnectionFactory::CurrentConnection() {
  ScopedLock guard(m_lock);
  return m_connection;
}

}  // namespace TAVIX
