// The two streams of one call (on the client) or one request (on the
// server), and the memory buffers under them: the connection's, lent for
// the call's life, or the call's own while another call holds those.
#ifndef TAVIX_INVOKE_CALL_STREAMS_H_
#define TAVIX_INVOKE_CALL_STREAMS_H_

#include <cstdint>

#include "tavix/core/shared.h"
#include "tavix/invoke/message_buffers.h"
#include "tavix/marshal/basic_stream.h"

namespace TAVIX {

class Connection;
class StreamMemBuf;

class CallStreams {
 public:
  CallStreams() = default;
  ~CallStreams() { Release(); }
  CallStreams(const CallStreams&) = delete;
  CallStreams& operator=(const CallStreams&) = delete;

  // Borrows the connection's buffers for the rest of this object's life;
  // false, with the call's own buffers in use, while someone else holds
  // them.
  bool Borrow(Connection& connection);

  BasicStream& Input() { return m_input; }
  BasicStream& Output() { return m_output; }
  SmartPtr<StreamMemBuf>& InputBuffer() { return m_buffers.Input(); }
  SmartPtr<StreamMemBuf>& OutputBuffer() { return m_buffers.Output(); }

  // Detaches both streams and gives lent buffers back; nothing when none
  // are lent. The streams let go of the buffers before those go back.
  void Release();

  // Reads and drops what the reader left of an incoming body of
  // `bodySize` bytes, so that the next header read starts at a message
  // boundary.
  void DrainInput(int32_t bodySize);

 private:
  MessageBuffers m_buffers;
  BasicStream m_input;
  BasicStream m_output;
  Connection* m_lender = nullptr;
};

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_CALL_STREAMS_H_
