// A server-side connection factory: one per passport of an object adapter.
// It listens (or binds) through its passport, turns what arrives into
// connections with their own serving threads, and ends them on shutdown.
// Connections see their factory only through this interface.
#ifndef TAVIX_INVOKE_CONNECTION_FACTORY_H_
#define TAVIX_INVOKE_CONNECTION_FACTORY_H_

#include <cstdint>

#include <cstdint>
#include <string>

#include "tavix/core/shared.h"
#include "tavix/invoke/object_host.h"

namespace TAVIX {

class Connection;
class IPassport;

class IConnectionFactory : public virtual Shared {
 public:
  ~IConnectionFactory() override = default;

  // Starts listening and serving; true when the factory is active. False
  // leaves the reason as the thread's last error.
  virtual bool Activate() = 0;
  // Listening (or bound) and serving.
  virtual bool IsActive() const = 0;
  // Asks every live connection to end, without waiting.
  virtual void Destroy() = 0;
  // Called by a connection's serving thread as it ends; `connection` may be
  // empty when only the reason is to be passed on. The result is advisory.
  virtual bool ConnectionClosed(const SmartPtr<Connection>& connection, TavixDisconnectReason reason) = 0;
  // A connection's stream could not be brought up (its TLS handshake
  // failed): `peer` is the connection's label, `reason` why. Reports floods
  // in bursts. Only stream factories meet it.
  virtual void EstablishFailed(const std::u16string& /*peer*/, uint32_t /*code*/, const std::string& /*reason*/) {}
  // Waits for the connections and stops listening; Activate may follow. A
  // connection whose request still runs at the deadline (a tick count of
  // the monotonic clock) is abandoned.
  virtual void WaitUntilDestroy(uint64_t deadlineTick) = 0;
  virtual const SmartPtr<IPassport>& GetPassport() const = 0;
  // The adapter whose servants the factory's connections serve.
  virtual const SmartPtr<IObjectHost>& GetHost() const = 0;
};

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_CONNECTION_FACTORY_H_
