// The two streams of one call (on the client) or one request (on the
// server), and the memory buffers under them: the connection's, lent for
// the call's life, or the call's own while another call holds those.
// Every message goes through here, so it is all inline.
#ifndef TAVIX_INVOKE_CALL_STREAMS_H_
#define TAVIX_INVOKE_CALL_STREAMS_H_

#include <algorithm>
#include <array>
#include <cstdint>

#include "tavix/core/shared.h"
#include "tavix/invoke/connection.h"
#include "tavix/invoke/message_buffers.h"
#include "tavix/marshal/basic_stream.h"

namespace TAVIX {

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
  bool Borrow(Connection& connection) {
    if (!connection.BorrowBuffers(m_buffers)) return false;
    m_lender = &connection;
    return true;
  }

  // Detaches both streams and gives lent buffers back; nothing when none
  // are lent. The streams let go of the buffers before those go back.
  void Release() {
    if (m_lender == nullptr) return;
    m_input.Attach(nullptr);
    m_output.Attach(nullptr);
    m_lender->ReturnBuffers();
    m_lender = nullptr;
  }

  BasicStream& Input() { return m_input; }
  BasicStream& Output() { return m_output; }
  SmartPtr<StreamMemBuf>& InputBuffer() { return m_buffers.Input(); }
  SmartPtr<StreamMemBuf>& OutputBuffer() { return m_buffers.Output(); }

  // Reads and drops what the reader left of an incoming body of
  // `bodySize` bytes, so that the next header read starts at a message
  // boundary.
  void DrainInput(int32_t bodySize) {
    std::array<uint8_t, 4096> sink;  // only written into
    for (int32_t left = bodySize - m_input.Size(); left > 0; left = bodySize - m_input.Size()) {
      m_input.readBlob(sink.data(), std::min<int32_t>(left, static_cast<int32_t>(sink.size())));
    }
  }

 private:
  MessageBuffers m_buffers;
  BasicStream m_input;
  BasicStream m_output;
  Connection* m_lender = nullptr;
};

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_CALL_STREAMS_H_
