// One transport connection and the little protocol that runs on it outside
// of calls: the validation handshake, the close message and the reception of
// message headers. The same class serves both ends; on the server each
// connection has its own serving thread, which runs the request loop.
#ifndef TAVIX_INVOKE_CONNECTION_H_
#define TAVIX_INVOKE_CONNECTION_H_

#include <atomic>
#include <cstdint>
#include <string>

#include "tavix/core/locks.h"
#include "tavix/core/shared.h"
#include "tavix/core/thread.h"
#include "tavix/invoke/messages.h"
#include "tavix/invoke/object_host.h"
#include "tavix/platform/clock.h"
#include "tavix/transport/transfer.h"

namespace TAVIX {

class DatagramStreamBuf;
class ITavixStreamBuf;
class ITransceiver;
class MessageBuffers;
class StreamMemBuf;
class IConnectionFactory;
class ThreadPerConnection;
struct MsgHeaderData;

class Connection : public virtual Shared {
 public:
  // Client-side protocol state. A server connection stays StateClosed all
  // its life and uses its activation flag instead.
  enum connectionState : int32_t {
    StateValidating = 0,
    StateConnected = 1,
    StateClosed = 2,
  };

  // A client connection: no factory.
  Connection();
  // A server connection made by `factory` for one accepted transceiver.
  explicit Connection(const SmartPtr<IConnectionFactory>& factory);
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  const SmartPtr<ITransceiver>& GetTransceiver() const { return m_transceiver; }
  void SetTransceiver(const SmartPtr<ITransceiver>& transceiver);

  // The end of a message's stream chain on the transceiver, made once for
  // it. Only the one reader and writer of the connection (the serving
  // thread, or the call holding the proxy's call lock) asks for it.
  const SmartPtr<ITavixStreamBuf>& StreamLink();
  // Lends the memory buffers kept for one message each way, so that the
  // messages of a connection reuse their blocks; false, with nothing lent,
  // while someone else holds them. Return them once the streams that use
  // them have let go.
  bool BorrowBuffers(MessageBuffers& buffers);
  void ReturnBuffers() { m_buffersLent.store(false, std::memory_order_release); }
  // The servant of `id` in `host`, remembered from the last request while
  // the host's servants stay as they were, so that a connection calling one
  // object takes no lock of the adapter's; null with 0x2000000C when none
  // has the id. Serving thread only.
  const SmartPtr<Object>& FindServant(IObjectHost& host, const std::u16string& id);

  // Setting StateClosed closes an open transceiver; setting the current
  // state does nothing at all.
  void SetState(connectionState state);
  connectionState GetState();

  // The int results follow the transport convention: a positive count, 0
  // when the peer closed, -1 platform error, -2 library code (both left as
  // the thread's last error), -3 transceiver closed. Each is the number of
  // the Transfer of its named form below.

  // Server: sends the header-only validation message (none over UDP).
  int SendValidation();
  // Client: receives and checks the validation message, waiting at most
  // `timeoutMs` for it to begin (0 waits without limit).
  int Validate(uint32_t timeoutMs);
  // Client: sends the header-only close message; the result is ignored.
  void SendCloseMsg();
  // Waits for, reads, decodes and checks one header; 0 waits without
  // limit. The message type is left to the caller.
  int RecvPacketHeader(MsgHeaderData& header, uint32_t timeoutMs);

  // The named forms. Over UDP there is no validation message: both
  // validation steps are Done(0) at once.
  Transfer SendValidationMessage();
  Transfer ReceiveValidation(uint32_t timeoutMs);
  Transfer ReceiveHeader(MsgHeaderData& header, uint32_t timeoutMs);

  // Server: starts the serving thread (once); true while it may run.
  bool Activate();
  // Server: asks the run loop to stop without waiting for the peer. Idle,
  // the transceiver is closed; while a request is being handled only its
  // receiving side is shut, which wakes a read of a stalled body and still
  // lets the reply go out.
  void Destroy();
  // Server: stops the loop, joins the serving thread, closes the
  // transceiver and drops the factory. With a deadline (a tick count of
  // the monotonic clock) a request still running then is abandoned: it is
  // logged, the transceiver is closed, and its thread is left to finish on
  // its own, still holding the connection. False when that happened.
  bool WaitUntilDestroy(uint64_t deadlineTick = platform::kNoDeadline);

  // Server: the request being handled, for the log of an abandoned one.
  void BeginRequest(const std::u16string& object, const std::u16string& operation);
  void EndRequest();
  // Server: the context kept from one request to the next so that its
  // strings reuse their room. Only the borrower of the buffers uses it.
  Context& KeptContext() { return m_keptContext; }

 private:
  friend class ThreadPerConnection;  // runs Run
  friend class ObjectHelper;         // marks the request in progress (SetInServant)

  // Gives up on a serving thread that outlived the shutdown's deadline.
  void Abandon();

  // The serving thread's body; always 0.
  int Run();
  // The loop of Run after the validation message went out; returns the
  // disconnect reason.
  TavixDisconnectReason Serve();
  // The loop on a datagram transceiver: every datagram is one message. A
  // bad datagram is logged and dropped; only Destroy (or a closed
  // transceiver) ends the loop.
  TavixDisconnectReason ServeDatagrams();
  void HandleDatagram(const SmartPtr<DatagramStreamBuf>& datagram);

  void SetActivate(bool on) { m_activated.store(on ? 1 : 0); }
  bool GetActivate() const { return m_activated.load() != 0; }
  void SetInServant(bool on) { m_inServant.store(on ? 1 : 0); }
  bool GetInServant() const { return m_inServant.load() != 0; }

  // Set before the serving thread starts (server) or under the proxy's call
  // lock (client); the transceiver guards itself.
  SmartPtr<ITransceiver> m_transceiver;
  // The one reader and writer's (serving thread, or the call holding the
  // proxy's call lock).
  SmartPtr<ITavixStreamBuf> m_streamLink;
  // Owned by whoever won m_buffersLent.
  SmartPtr<StreamMemBuf> m_inputBuffer;
  SmartPtr<StreamMemBuf> m_outputBuffer;
  std::atomic<bool> m_buffersLent{false};
  std::atomic<int32_t> m_activated{0};
  std::atomic<int32_t> m_inServant{0};
  SmartPtr<ThreadPerConnection> m_thread;  // the factory's thread: Activate and WaitUntilDestroy
  SmartPtr<IConnectionFactory> m_factory;  // set at construction, dropped once the thread is joined
  connectionState m_state = StateClosed;   // guarded by m_stateLock
  SpinLock m_stateLock;
  std::u16string m_requestObject;          // guarded by m_requestLock
  std::u16string m_requestOperation;       // guarded by m_requestLock
  // The context of the request being served, kept from one request to the
  // next so that its strings reuse their room (serving thread only; lent
  // together with the buffers).
  Context m_keptContext;
  // The servant found last, its id and the host's servants version then
  // (serving thread only).
  SmartPtr<Object> m_servant;
  std::u16string m_servantId;
  uint32_t m_servantsVersion = 0;
  uint64_t m_requestStart = 0;  // guarded by m_requestLock; 0: no request
  SpinLock m_requestLock;
};

// The serving thread of one server connection. It points at its connection
// without holding it: the connection owns the thread object and joins it
// before it goes.
class ThreadPerConnection : public Thread {
 public:
  explicit ThreadPerConnection(Connection* connection) : m_connection(connection) {}

 protected:
  uint32_t Run() override;

 private:
  Connection* m_connection;
};

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_CONNECTION_H_
