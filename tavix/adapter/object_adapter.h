// The server-side container an application fills with servants and
// endpoints: it maps object ids to servants, keeps one connection factory per
// passport, decides by its status whether requests are dispatched, counts the
// requests being dispatched, tells the application when a client connection
// ends and hands out proxy strings.
#ifndef TAVIX_ADAPTER_OBJECT_ADAPTER_H_
#define TAVIX_ADAPTER_OBJECT_ADAPTER_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tavix/transport/tls_context.h"
#include "tavix/transport/tls_settings.h"
#include "tavix/core/locks.h"
#include "tavix/core/shared.h"
#include "tavix/invoke/object.h"
#include "tavix/invoke/object_host.h"
#include "tavix/platform/clock.h"
#include "tavix/transport/passport.h"

namespace TAVIX {

class IConnectionFactory;

using DisconnectCallback = void (*)(void* context, TavixDisconnectReason reason);

// Object id to servant, read in parallel by the serving threads.
class ServantManager : public virtual Shared {
 public:
  ServantManager() = default;
  ServantManager(const ServantManager&) = delete;
  ServantManager& operator=(const ServantManager&) = delete;

  // False with 0x2000000B when the id is taken.
  bool Add(const SmartPtr<Object>& servant, const std::u16string& id);
  // False with 0x2000000C when the id is absent.
  bool Remove(const std::u16string& id);
  // Null with 0x2000000C when the id is absent.
  SmartPtr<Object> Find(const std::u16string& id);
  uint32_t Version() const { return m_version.load(std::memory_order_acquire); }

 private:
  std::map<std::u16string, SmartPtr<Object>> m_servants;  // guarded by m_lock
  RWRecLock m_lock;
  std::atomic<uint32_t> m_version{0};
};

class ObjectAdapter : public IObjectHost {
 public:
  ObjectAdapter();
  ~ObjectAdapter() override;
  ObjectAdapter(const ObjectAdapter&) = delete;
  ObjectAdapter& operator=(const ObjectAdapter&) = delete;

  // Ids are compared exactly, code unit by code unit.
  bool AddServant(const SmartPtr<Object>& servant, const std::u16string& id);
  bool AddServant(const SmartPtr<Object>& servant, const std::string& id);
  bool RemoveServant(const std::u16string& id);
  bool RemoveServant(const std::string& id);
  SmartPtr<Object> FindServant(const std::u16string& id) override;
  uint32_t ServantsVersion() override { return m_servants.Version(); }

  // Parses the endpoint string, refuses one that claims a resource of a
  // registered passport, makes its factory and starts it at once unless the
  // adapter is inactive. Null on failure (last error set). The passport
  // returned is the key for RemovePassport. The conflict scan and the
  // insert are one step: of two calls for one resource, one fails.
  SmartPtr<IPassport> AddPassport(const std::u16string& endpoint);
  SmartPtr<IPassport> AddPassport(const std::string& endpoint);
  // Stops and forgets one passport's factory; always true.
  bool RemovePassport(const SmartPtr<IPassport>& passport);

  // Active: requests are dispatched, factories started. Always true, also
  // when a factory fails to start: that writes the error line "ERROR:
  // Endpoint <endpoint> is not listening: <code>,<text>" and is tried
  // again at the next Activate. NotListening tells which endpoints those are.
  bool Activate();
  // The passports whose factories are not listening now (all of them
  // before the first Activate), in table order.
  std::vector<SmartPtr<IPassport>> NotListening();
  // Inactive: requests are refused; listeners and connections stay.
  bool Deactivate();
  // Being destroyed: every connection is asked to end. Does not wait.
  bool Destroy();
  // Waits (at most about 61 s) until no request is being dispatched.
  void WaitUntilDeactivate();
  // Waits for every connection and accept thread to end and takes their
  // passports out of the table, which breaks the factories' hold on the
  // adapter. A request still running at the deadline (a monotonic tick
  // count) is abandoned. The table's lock is not held while waiting.
  void WaitUntilDestroy(uint64_t deadlineTick = platform::kNoDeadline);

  ObjectAdapterStatus GetStatus() override;

  // Called on the serving thread of every TCP connection that ends. It
  // must not call RemovePassport or WaitUntilDestroy, which wait for that
  // very thread. A null callback switches the notification off. Always
  // true.
  bool RegisterDisconnectNotification(DisconnectCallback callback, void* context);

  // Appends "<id>:<printed passport>" for every passport in table order;
  // false (0x2000000C) when no servant has that id. The vector is not
  // cleared.
  bool GetProxyString(const std::u16string& id, std::vector<std::u16string>& proxies);
  bool GetProxyString(const std::string& id, std::vector<std::string>& proxies);
  // One proxy string naming every endpoint of the adapter, "id:ep1:ep2",
  // which a client fails over across. False (ObjectNotFound) for an id
  // without servant.
  bool GetProxyStringOfAll(const std::u16string& id, std::u16string& proxy);
  bool GetProxyStringOfAll(const std::string& id, std::string& proxy);

  // Requests being dispatched right now.
  int32_t GetInvocationCount() const { return m_invocations.load(); }

  // Called by the request handling and the connection factories; the count
  // never goes below 0.
  void IncrementInvocations() override { m_invocations.fetch_add(1); }
  void DecrementInvocations() override;
  // Passes an ended connection's reason to the registered callback.
  void DisconnectNotify(TavixDisconnectReason reason) override;

  // Limits for connections accepted from now on.
  void SetLimits(const ConnectionLimits& limits);
  ConnectionLimits GetLimits() override;
  bool AdmitConnection() override;
  void ReleaseConnection() override;
  // Server connections being served right now.
  int32_t GetConnectionCount() const { return m_connections.load(); }

  // TLS for this adapter's ssl endpoints, in place of the communicator's:
  // connections accepted from now on use it, open ones keep theirs. 0, or
  // the code of what could not be read (the old settings stay).
  uint32_t SetTlsSettings(const TlsSettings& settings);
  // Reads the current settings' files again and swaps them in for new
  // connections. A failure (a missing file, a key that no longer matches)
  // keeps the old ones and writes one line to the log; its code is
  // returned.
  uint32_t ReloadTls();
  // The communicator's settings, taken while the adapter has none of its
  // own.
  void InheritTls(std::shared_ptr<const TlsContext> context);
  // From now on a udp endpoint is refused (AddPassport fails with
  // Err::UdpRefused), for deployments where every endpoint is secured.
  void RefuseUdpEndpoints(bool refuse) { m_refuseUdp.store(refuse); }

 protected:
  void SetStatus(ObjectAdapterStatus status);

 private:
  using PassportTable = std::map<SmartPtr<IPassport>, SmartPtr<IConnectionFactory>>;

  // The factory for a new passport of its kind.
  SmartPtr<IConnectionFactory> MakeFactory(const SmartPtr<IPassport>& passport);
  bool ConflictsLocked(const IPassport& passport) const;
  // A copy of the table, taken under its lock.
  PassportTable Passports();

  // Read by every request without a lock: a spin lock shared by all
  // serving threads stalls them all whenever its holder is preempted.
  std::atomic<ObjectAdapterStatus> m_status{ADAPTER_INACTIVE};
  ServantManager m_servants;
  PassportTable m_passports;  // guarded by m_passportLock
  // Held across a factory's start and stop (neither blocks), never across
  // a wait for its threads.
  RecLock m_passportLock;
  std::atomic<int32_t> m_invocations{0};
  std::atomic<int32_t> m_connections{0};
  std::atomic<int32_t> m_maxConnections{ConnectionLimits{}.maxConnections};
  std::atomic<uint32_t> m_bodyTimeoutMs{ConnectionLimits{}.bodyTimeoutMs};
  // Handed to every ssl passport; swapped whole by a reload.
  const std::shared_ptr<TlsContextSlot> m_tlsSlot = std::make_shared<TlsContextSlot>();
  std::atomic<bool> m_ownTls{false};
  std::atomic<bool> m_refuseUdp{false};
  DisconnectCallback m_callback = nullptr;  // guarded by m_callbackLock
  void* m_callbackContext = nullptr;       // guarded by m_callbackLock
  // Keeps the callback and its context a consistent pair.
  SpinLock m_callbackLock;
};

}  // namespace TAVIX

#endif  // TAVIX_ADAPTER_OBJECT_ADAPTER_H_
