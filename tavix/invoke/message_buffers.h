// The memory buffers that one call or request writes and reads its
// messages through.
#ifndef TAVIX_INVOKE_MESSAGE_BUFFERS_H_
#define TAVIX_INVOKE_MESSAGE_BUFFERS_H_

#include "tavix/core/shared.h"
#include "tavix/marshal/stream_buffers.h"

namespace TAVIX {

// The memory buffers of one call or request: the connection's while it
// lends them, otherwise the borrower's own. Lent buffers are used in place,
// through the connection's holders, so lending counts no reference.
class MessageBuffers {
 public:
  MessageBuffers() = default;
  MessageBuffers(const MessageBuffers&) = delete;
  MessageBuffers& operator=(const MessageBuffers&) = delete;

  SmartPtr<StreamMemBuf>& Input() { return *m_input; }
  SmartPtr<StreamMemBuf>& Output() { return *m_output; }
  bool Borrowed() const { return m_input != &m_ownInput; }

 private:
  friend class Connection;
  SmartPtr<StreamMemBuf> m_ownInput;
  SmartPtr<StreamMemBuf> m_ownOutput;
  SmartPtr<StreamMemBuf>* m_input = &m_ownInput;
  SmartPtr<StreamMemBuf>* m_output = &m_ownOutput;
};

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_MESSAGE_BUFFERS_H_
