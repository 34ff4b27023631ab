// The client-side representative of one remote object: the endpoints it
// can be reached through, the object name under which the servant is
// registered, and the proxy's own connection, opened and validated at the
// first call through the first endpoint that answers. Every
// application proxy derives from ProxyObject and adds one method per remote
// operation (see typed_call.h for the short way to write them).
#ifndef TAVIX_CLIENT_PROXY_OBJECT_H_
#define TAVIX_CLIENT_PROXY_OBJECT_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "tavix/client/endpoint_set.h"
#include "tavix/core/locks.h"
#include "tavix/core/shared.h"
#include "tavix/core/text.h"
#include "tavix/invoke/messages.h"
#include "tavix/marshal/blob.h"
#include "tavix/transport/passport.h"

namespace TAVIX {

class Communicator;
class Connection;

class ProxyObject : public virtual Shared {
 public:
  ProxyObject();
  // Sends the close message on a connection the communicator still knows.
  ~ProxyObject() override;
  ProxyObject(const ProxyObject&) = delete;
  ProxyObject& operator=(const ProxyObject&) = delete;

  // Remote operations return 0, a library code, or the servant's status.
  virtual uint32_t ObjectIsA(const std::u16string& typeId, bool& result);
  virtual uint32_t ObjectPing();
  // Local: the interface ids this proxy stands for.
  virtual void GetObjectIds(std::vector<std::u16string>& ids);
  virtual std::u16string GetObjectId();

  // Whether a connection closed by a failure is reopened by the next call.
  void AutoReconnect(bool on);
  bool AutoReconnect() const;
  // The reply time-out of every call, kept in the passports (set on all of
  // them; read from the one in use); 0 waits without limit.
  void Timeout(uint32_t timeoutMs);
  uint32_t Timeout() const;
  // Which address a new connection tries first: a random one (the
  // default, which spreads clients over servers) or the first written.
  void SetEndpointOrder(EndpointSet::Order order);
  // The server address and port that the proxy's connection reaches, as
  // printed for the request context; false while it has none.
  bool ConnectedPeer(std::u16string& address, uint16_t& port);
  // The last call's timings and sizes; read it on the calling thread.
  const TavixPerfmon& GetLastPerfmon() const { return m_perfmon; }

  // Sends the blob's bytes unchanged as one complete request message (for
  // example one recorded with ProxyHelper's RequestToBlob mode). One-way
  // returns once the bytes are sent; two-way returns the reply's status
  // whatever request id the reply carries, and reads no results.
  uint32_t SendBlobWithoutOutParam(const SmartPtr<ITavixBlob>& blob, bool oneway);

  // Gives the proxy its runtime, endpoints and object name. A connection
  // the proxy already had is finished first. CreateProxy does this.
  void Bind(const SmartPtr<Communicator>& communicator, const SmartPtr<IPassport>& passport,
            const std::u16string& objectName);
  void Bind(const SmartPtr<Communicator>& communicator, EndpointSet endpoints, const std::u16string& objectName);
  const SmartPtr<Communicator>& GetCommunicator() const { return m_communicator; }
  // The endpoint in use, or the one the next connection tries first.
  const SmartPtr<IPassport>& GetPassport() const { return m_passport; }
  const std::u16string& ObjectName() const { return m_objectName; }

  static constexpr std::u16string_view kTypeId = u"::TAVIX::Object";

  // The proxy's side of one call, for ProxyHelper. BeginCall counts the
  // call in the communicator, takes the call lock (recursively) and clears
  // the perfmon record; EndCall undoes the first two.
  void BeginCall();
  void EndCall();
  // Setup, then the ready connection in `connection`; 0, or the code of
  // the failure with `connection` untouched. Only while the call lock is
  // held.
  uint32_t ReadyConnection(SmartPtr<Connection>& connection);
  // The record the call in progress fills. Only while the call lock is
  // held.
  TavixPerfmon& CallPerfmon() { return m_perfmon; }

 protected:
  // Makes the connection ready for a call: connects and validates on the
  // first call, and again after a failure when auto-reconnect is on.
  // Returns 0 or the code of the failure.
  uint32_t Setup();

 private:
  // Connects and validates through the endpoints' addresses in turn until
  // one answers; the code of the last failure when none does. Call lock
  // held.
  uint32_t Connect(bool moveOn);
  uint32_t ConnectTo(const IPassport& passport, const platform::SocketAddress& address);
  // With auto-reconnect on, a connection idle for a while is checked for
  // a server that went away meanwhile, so that the next call reconnects
  // before its request leaves instead of failing after.
  bool ServerLeftWhileIdle();
  // The communicator's current client TLS, for the ssl endpoints.
  void HandOutClientTls();

  EndpointSet m_endpoints;       // guarded by m_callLock
  SmartPtr<IPassport> m_passport;  // the endpoint in use; guarded by m_callLock
  std::u16string m_objectName;
  SmartPtr<Communicator> m_communicator;
  SmartPtr<Connection> m_connection;  // guarded by m_callLock
  RecLock m_callLock;                 // serialises calls, Setup and Bind
  std::atomic<int32_t> m_autoReconnect{0};
  uint64_t m_idleSinceMs = 0;         // the end of the last call; guarded by m_callLock
  TavixPerfmon m_perfmon;             // guarded by m_callLock; read by the caller after its call
};

// Splits a proxy string as an adapter prints it, "object-id:endpoint[:...]"
// (the id ends at the first ':'), and makes the endpoints' passports (the
// first one in `passport`). False with 0x2000000A when there is no ':' or
// the id is empty, with 0x20000003 for an endpoint on port 0, or with the
// passport factory's error when an endpoint is bad.
bool ParseProxyString(const std::u16string& text, std::u16string& objectName, EndpointSet& endpoints);
bool ParseProxyString(const std::u16string& text, std::u16string& objectName,
                      SmartPtr<IPassport>& passport);

// A proxy of class T (ProxyObject or a class derived from it) for the
// object a proxy string names, belonging to `communicator`; null on a bad
// string, with the error ParseProxyString left. Nothing is connected yet.
template <class T = ProxyObject>
SmartPtr<T> CreateProxy(const SmartPtr<Communicator>& communicator, const std::u16string& proxyString) {
  static_assert(std::is_base_of_v<ProxyObject, T>, "proxies derive from ProxyObject");
  std::u16string objectName;
  EndpointSet endpoints;
  if (!ParseProxyString(proxyString, objectName, endpoints)) return nullptr;
  SmartPtr<T> proxy = MakeShared<T>();
  static_cast<ProxyObject&>(*proxy).Bind(communicator, std::move(endpoints), objectName);
  return proxy;
}

template <class T = ProxyObject>
SmartPtr<T> CreateProxy(const SmartPtr<Communicator>& communicator, const std::string& proxyString) {
  return CreateProxy<T>(communicator, WiddenString(proxyString));
}

// Keeps string literals from choosing between the two forms above.
template <class T = ProxyObject>
SmartPtr<T> CreateProxy(const SmartPtr<Communicator>& communicator, const char16_t* proxyString) {
  return CreateProxy<T>(communicator, std::u16string(proxyString));
}

template <class T = ProxyObject>
SmartPtr<T> CreateProxy(const SmartPtr<Communicator>& communicator, const char* proxyString) {
  return CreateProxy<T>(communicator, WiddenString(proxyString));
}

}  // namespace TAVIX

#endif  // TAVIX_CLIENT_PROXY_OBJECT_H_
