// The connection factory of a TCP passport: one listening acceptor, one
// accept thread that gives every client a Connection with its own serving
// thread, the set of live connections, and the reaping of ended ones.
#ifndef TAVIX_ADAPTER_TCP_CONNECTION_FACTORY_H_
#define TAVIX_ADAPTER_TCP_CONNECTION_FACTORY_H_

#include <atomic>
#include <cstdint>
#include <set>
#include <vector>

#include "tavix/core/burst_log.h"
#include "tavix/core/locks.h"
#include "tavix/core/thread.h"
#include "tavix/invoke/connection_factory.h"

namespace TAVIX {

class IAcceptor;
class ITransceiver;
class ThreadPerTcpConnectionFactory;

class TcpConnectionFactory : public IConnectionFactory {
 public:
  // The accept loop's tick: the longest a shutdown waits for the loop to
  // notice it, and the longest an ended connection waits to be reaped.
  static constexpr uint32_t kAcceptTickMs = 5000;
  // The pause after a failed accept doubles from the first to the last.
  static constexpr uint32_t kMinAcceptBackOffMs = 10;
  static constexpr uint32_t kMaxAcceptBackOffMs = 1000;

  TcpConnectionFactory(const SmartPtr<IPassport>& passport, const SmartPtr<IObjectHost>& adapter);
  // Stops an accept thread that is still running.
  ~TcpConnectionFactory() override;
  TcpConnectionFactory(const TcpConnectionFactory&) = delete;
  TcpConnectionFactory& operator=(const TcpConnectionFactory&) = delete;

  // Opens the acceptor through the passport (reusing an earlier one) and
  // starts the accept thread. True when already active; false with the
  // passport's error when the acceptor cannot be opened.
  bool Activate() override;
  // Asks every live connection to end; the accept thread goes on.
  void Destroy() override;
  // Queues a non-empty connection for reaping and passes the reason to the
  // adapter's disconnect notification. Always true.
  bool ConnectionClosed(const SmartPtr<Connection>& connection, TavixDisconnectReason reason) override;
  // One line per burst: "ERROR: TLS handshake with client <peer> failed: <reason>
  // (N more since the last line)."
  void EstablishFailed(const std::u16string& peer, uint32_t code, const std::string& reason) override;
  // Waits for every live connection, then stops the accept thread. Callers
  // call Destroy first. Activate may follow.
  void WaitUntilDestroy(uint64_t deadlineTick) override;
  const SmartPtr<IPassport>& GetPassport() const override { return m_passport; }
  const SmartPtr<IObjectHost>& GetHost() const override { return m_adapter; }
  bool IsActive() const override { return m_active.load() != 0; }

 private:
  friend class ThreadPerTcpConnectionFactory;

  uint32_t AcceptLoop();
  void Serve(const SmartPtr<ITransceiver>& transceiver);
  void ReapClosedConnections();
  SmartPtr<IAcceptor> Acceptor();

  SmartPtr<IAcceptor> m_acceptor;  // guarded by m_acceptorLock
  RecLock m_acceptorLock;
  SmartPtr<IPassport> m_passport;
  std::set<SmartPtr<Connection>> m_liveConnections;  // guarded by m_liveLock
  RecLock m_liveLock;
  std::vector<SmartPtr<Connection>> m_closedConnections;  // guarded by m_closedLock
  RecLock m_closedLock;
  // Activate and WaitUntilDestroy only, on the adapter's side.
  SmartPtr<ThreadPerTcpConnectionFactory> m_acceptThread;
  std::atomic<int32_t> m_active{0};
  SmartPtr<IObjectHost> m_adapter;
  BurstLog m_acceptFailures;
  BurstLog m_refusals;
  BurstLog m_handshakeFailures;
};

// The accept thread. It points at its factory without holding it: the
// factory owns the thread object and stops the thread before it goes.
class ThreadPerTcpConnectionFactory : public Thread {
 public:
  explicit ThreadPerTcpConnectionFactory(TcpConnectionFactory* factory) : m_factory(factory) {}

 protected:
  uint32_t Run() override { return m_factory->AcceptLoop(); }

 private:
  TcpConnectionFactory* m_factory;
};

}  // namespace TAVIX

#endif  // TAVIX_ADAPTER_TCP_CONNECTION_FACTORY_H_
