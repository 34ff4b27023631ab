// The communicator: the top-level object through which an application
// creates its object adapters and shuts the runtime down. It owns the
// adapters it made, counts the client calls in progress and closes the
// client connections registered with it when it shuts down.
#ifndef TAVIX_RUNTIME_COMMUNICATOR_H_
#define TAVIX_RUNTIME_COMMUNICATOR_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "tavix/adapter/object_adapter.h"
#include "tavix/core/locks.h"
#include "tavix/core/shared.h"
#include "tavix/invoke/connection.h"

namespace TAVIX {

class Communicator : public virtual Shared {
 public:
  Communicator();
  // Shuts down and waits unless that was done already.
  ~Communicator() override;
  Communicator(const Communicator&) = delete;
  Communicator& operator=(const Communicator&) = delete;

  // A new inactive adapter under a name unique in this communicator. Null
  // with 0x20000015 after Shutdown, with 0x20000016 when the name is taken
  // (names are compared exactly).
  SmartPtr<ObjectAdapter> CreateObjectAdapter(const std::u16string& name);
  SmartPtr<ObjectAdapter> CreateObjectAdapter(const std::string& name);

  // Sets the shutdown flag (once) and tells every adapter, in name order,
  // to destroy itself. Returns at once.
  void Shutdown();
  // Shuts down if needed, waits for the client calls in progress (at most
  // 1200 s), closes the registered client connections, then waits for every
  // adapter in name order and releases them. No lock is held while a
  // connection is closed or an adapter waited for.
  void WaitForShutdown();
  // Shutdown and WaitForShutdown, unless shut down already.
  void Destroy();
  bool IsShutdown() const { return m_shutdownFlag.load(); }

  // The proxies' side. A proxy registers its connection once it is
  // validated, so that the close message goes out when the proxy goes
  // (Finish) or the runtime shuts down; Finish on a connection that is not
  // registered does nothing.
  void RegisterConnection(const SmartPtr<Connection>& connection);
  void Finish(const SmartPtr<Connection>& connection);
  // The count of client calls in progress that WaitForShutdown waits for;
  // the decrement never goes below 0.
  void BeginCall() { m_activeCalls.fetch_add(1); }
  void EndCall();

  // How long WaitForShutdown lets requests in progress run once the client
  // calls are over; a request still running then is abandoned (logged, its
  // socket closed) so that a servant that sleeps or loops cannot hold the
  // process up.
  void SetShutdownGracePeriod(uint32_t milliseconds) { m_graceMs.store(milliseconds); }
  static constexpr uint32_t kDefaultGracePeriodMs = 10000;

  // How long WaitForShutdown waits for client calls: checks and sleeps.
  static constexpr int32_t kCallWaitRounds = 1200;
  static constexpr uint32_t kCallWaitStepMs = 1000;

  // TLS for ssl endpoints. Proxies verify servers against its CAs (the
  // system's when it names none) and present its certificate when it has
  // one; adapters without settings of their own listen with it (it needs a
  // certificate and key for that). 0, or the code of what could not be
  // read, and nothing changes.
  uint32_t SetTlsSettings(const TlsSettings& settings);
  // What proxies connect with; null until settings were set.
  std::shared_ptr<const TlsContext> ClientTls() const;

 private:
  mutable SpinLock m_tlsLock;
  std::shared_ptr<const TlsContext> m_clientTls;  // guarded by m_tlsLock
  std::shared_ptr<const TlsContext> m_serverTls;  // guarded by m_tlsLock

  std::set<SmartPtr<Connection>> m_clientConnections;  // guarded by m_connectionsLock
  RecLock m_connectionsLock;
  std::map<std::u16string, SmartPtr<ObjectAdapter>> m_adapters;  // guarded by m_adaptersLock
  RecLock m_adaptersLock;
  // Read by every call: a lock shared by all calling threads would stall
  // them all whenever its holder is preempted.
  std::atomic<bool> m_shutdownFlag{false};
  std::atomic<int32_t> m_activeCalls{0};
  std::atomic<uint32_t> m_graceMs{kDefaultGracePeriodMs};
  std::atomic<bool> m_waited{false};

  // A copy of the adapters, taken under their lock.
  std::map<std::u16string, SmartPtr<ObjectAdapter>> Adapters();
  // Sends the close message and closes.
  static void Close(const SmartPtr<Connection>& connection);
};

// A new communicator; the name is not used, every call makes a separate one.
SmartPtr<Communicator> Initialize(std::u16string name = {});

}  // namespace TAVIX

#endif  // TAVIX_RUNTIME_COMMUNICATOR_H_
