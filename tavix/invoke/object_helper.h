// One request on its way through the server: reads the request head, finds
// the servant, lets its skeleton read the arguments and run the operation,
// and sends the reply the skeleton prepared with FinishServant. The body is
// read straight from the connection's transceiver as the servant consumes
// it; the reply goes out through the same transceiver.
#ifndef TAVIX_INVOKE_OBJECT_HELPER_H_
#define TAVIX_INVOKE_OBJECT_HELPER_H_

#include <cstdint>

#include "tavix/core/shared.h"
#include "tavix/invoke/call_streams.h"
#include "tavix/invoke/messages.h"
#include "tavix/marshal/basic_stream.h"
#include "tavix/platform/clock.h"

namespace TAVIX {

class Connection;
class IObjectHost;
class StreamMemBuf;

class ObjectHelper {
 public:
  // `messageSize` is the request header's size, header included. The body
  // is read and the reply written through `link`, the end of the stream
  // chain; by default the connection's transceiver itself.
  // The connection, the host and `link` outlive the request: the request
  // runs on the connection's serving thread, and the factory that serves
  // the connection holds the host.
  ObjectHelper(Connection& connection, IObjectHost& host, int32_t messageSize,
               const SmartPtr<ITavixStreamBuf>& link = nullptr);
  virtual ~ObjectHelper();
  ObjectHelper(const ObjectHelper&) = delete;
  ObjectHelper& operator=(const ObjectHelper&) = delete;

  // Handles the whole request. Errors of the message or the transport, and
  // whatever a servant raises, leave here and end the connection.
  void Invoke();

  // The request body after the RequestHead, and the reply.
  BasicStream* is() { return &m_streams.Input(); }
  BasicStream* os() { return &m_streams.Output(); }
  const Context& GetContext() const { return *m_context; }

  // Skeletons call this once their in-parameters are read: the start of
  // the servant's time.
  void PrepareServant();
  // Skeletons call one of these once per two-way request, before writing
  // exactly `resultLength` bytes of results (none when status is not 0).
  // Writes the reply header and ReplyHead; nothing for a one-way request.
  void FinishServant(uint32_t status, int32_t resultLength, const FILETIME& endTime);
  void FinishServant(uint32_t status, int32_t resultLength);

 private:
  void Dispatch();

  // The connection's kept context when it could lend its buffers,
  // otherwise our own.
  Context m_ownContext;
  Context* m_context = &m_ownContext;
  int32_t m_replySize = 0;
  int32_t m_bodySize;
  ReplyHead m_reply;
  Connection& m_connection;
  IObjectHost& m_host;
  uint32_t m_socket = 0;
  FILETIME m_startTime = 0;
  const SmartPtr<ITavixStreamBuf>& m_link;
  CallStreams m_streams;
  bool m_finished = false;
};

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_OBJECT_HELPER_H_
