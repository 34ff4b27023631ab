// What a server connection and its request handling need from the object
// adapter that hosts the servants: its status, servant lookup, the count of
// requests being dispatched and the report of an ended connection. The
// adapter implements it; the invocation layer knows nothing more of it.
#ifndef TAVIX_INVOKE_OBJECT_HOST_H_
#define TAVIX_INVOKE_OBJECT_HOST_H_

#include <cstdint>
#include <string>

#include "tavix/core/shared.h"
#include "tavix/invoke/object.h"

namespace TAVIX {

enum ObjectAdapterStatus : int32_t {
  ADAPTER_ACTIVE = 0,
  ADAPTER_INACTIVE = 1,
  ADAPTER_DESTROYING = 2,
};

// Why a server connection ended.
enum TavixDisconnectReason : int32_t {
  DISCONNECT_NORMAL = 0,             // close message, or the connection was asked to stop
  DISCONNECT_RECV_ERROR = 1,         // validation send or header receive failed
  DISCONNECT_NETWORK_CLOSED = 2,     // the peer closed, or the transceiver was closed
  DISCONNECT_PROTOCOL_ERROR = 3,     // a message type the server does not take
  DISCONNECT_LIBRARY_EXCEPTION = 4,  // a TavixException
  DISCONNECT_SYSTEM_EXCEPTION = 5,   // a Win32SE
  DISCONNECT_OTHER_ERROR = 6,        // anything else
  DISCONNECT_HANDSHAKE_FAILED = 7,   // the TLS handshake failed or ran out of time
};

// What an adapter allows its server connections.
struct ConnectionLimits {
  // Live connections of the adapter, all passports together; one more is
  // closed at once, before its validation message.
  int32_t maxConnections = 10000;
  // How long a client may stay silent inside a message (after a header,
  // before the body is complete); 0 waits without limit.
  uint32_t bodyTimeoutMs = 60000;
};

class IObjectHost : public virtual Shared {
 public:
  ~IObjectHost() override = default;

  virtual ObjectAdapterStatus GetStatus() = 0;
  // Null with 0x2000000C when no servant has the id.
  virtual SmartPtr<Object> FindServant(const std::u16string& id) = 0;
  // Changes whenever a servant is added or removed, after the change, so
  // that a servant found while it held still stands for its id.
  virtual uint32_t ServantsVersion() = 0;
  // Raised before a dispatched request's servant is looked up, lowered
  // after its dispatch.
  virtual void IncrementInvocations() = 0;
  virtual void DecrementInvocations() = 0;
  // A connection ended; called on its serving thread.
  virtual void DisconnectNotify(TavixDisconnectReason reason) = 0;

  virtual ConnectionLimits GetLimits() = 0;
  // Counts a new connection in; false when the limit is reached.
  virtual bool AdmitConnection() = 0;
  // Counts an admitted connection out once its serving has ended.
  virtual void ReleaseConnection() = 0;
};

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_OBJECT_HOST_H_
