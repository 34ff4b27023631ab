#include "tavix/client/proxy_helper.h"

#include <algorithm>
#include <array>

#include "tavix/client/proxy_object.h"
#include "tavix/core/text.h"
#include "tavix/core/trace_log.h"
#include "tavix/invoke/connection.h"
#include "tavix/marshal/message_header.h"
#include "tavix/marshal/stream_buffers.h"
#include "tavix/platform/clock.h"
#include "tavix/runtime/communicator.h"
#include "tavix/transport/datagram_stream_buf.h"
#include "tavix/transport/stream_transceiver_buf.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {

ProxyHelper::ProxyHelper(ProxyObject* proxy, const std::u16string& operation, OperationMode mode,
                         BlobType blobType, int32_t length)
    : m_proxy(proxy), m_operation(&operation), m_mode(mode), m_blobType(blobType), m_length(length) {
  if (m_blobType == RequestToBlob) m_blob = CreateTavixBlob();
  m_proxy->m_communicator->BeginCall();
  m_proxy->m_callLock.lock();
  m_proxy->m_perfmon.Reset();
}

ProxyHelper::ProxyHelper(ProxyObject* proxy, const std::u16string& operation, OperationMode mode,
                         const SmartPtr<ITavixBlob>& blob, int32_t length)
    : ProxyHelper(proxy, operation, mode, NoBlob, length) {
  m_blobType = RequestToBlob;
  m_blob = blob ? blob : CreateTavixBlob();
}

ProxyHelper::~ProxyHelper() {
  if (m_buffers.Borrowed()) {
    m_input.Attach(nullptr);
    m_output.Attach(nullptr);
    m_connection->ReturnBuffers();
  }
  m_proxy->m_callLock.unlock();
  m_proxy->m_communicator->EndCall();
}

uint32_t ProxyHelper::FailureCode(uint32_t fallback) {
  const uint32_t code = TavixGetLastError();
  return code != 0 ? code : fallback;
}

uint32_t ProxyHelper::PrepareIPC() {
  if (m_blobType != RequestToBlob) {
    const uint32_t r = m_proxy->Setup();
    if (r != 0) {
      std::u16string text;
      tavixTrace(u"ProxyHelper::PrepareIPC, Setup error:%d,%s\n", r, GetErrMsg(r, text));
      return r;
    }
    m_connection = m_proxy->m_connection;
    if (m_mode == TwoWay && m_connection->GetTransceiver()->IsBroadcast()) {
      return Err::BroadcastNeedsOneway;
    }
    m_connection->BorrowBuffers(m_buffers);
  }
  m_startTime = platform::SystemTimeAsFileTime();

  if (m_blobType == BlobAsRequest) {
    // The caller writes the complete message, header included.
    m_proxy->m_perfmon.requestSize = m_length;
    m_downstream = ConnectionLink();
    if (m_datagram && m_length > m_connection->GetTransceiver()->MaxMessageSize()) return Err::IllegalBufferSize;
    AttachMessageBuffer(m_output, m_buffers.Output(), m_length, m_downstream);
    return 0;
  }

  m_requestId = RequestIdFor(m_mode);
  m_length += HEADER_SIZE + RequestHead::lengthOf(m_proxy->m_objectName, *m_operation);
  m_proxy->m_perfmon.requestSize = m_length;
  if (m_blobType == RequestToBlob) {
    m_downstream = SmartPtr<ITavixStreamBuf>(new StreamBlobBuf(m_blob));
  } else {
    m_downstream = ConnectionLink();
    // A datagram carries a whole message or nothing.
    if (m_datagram && m_length > m_connection->GetTransceiver()->MaxMessageSize()) return Err::IllegalBufferSize;
  }
  AttachMessageBuffer(m_output, m_buffers.Output(), m_length, m_downstream);
  WriteMessageHeader(m_output, MSG_REQUEST, m_length);
  RequestHead::write(m_output, m_requestId, m_proxy->m_objectName, *m_operation);
  return 0;
}

SmartPtr<ITavixStreamBuf> ProxyHelper::ConnectionLink() {
  const SmartPtr<ITransceiver>& transceiver = m_connection->GetTransceiver();
  if (transceiver->MaxMessageSize() == 0) return m_connection->StreamLink();
  m_datagram = MakeShared<DatagramStreamBuf>(transceiver);
  return m_datagram;
}

uint32_t ProxyHelper::InvokeIPC() {
  m_output.Flush();
  if (m_datagram && m_datagram->SendGathered() < 0) return FailureCode(Err::ConnectionClosed);
  if (m_mode == OneWay || m_blobType == RequestToBlob) return 0;
  if (m_datagram) return ReceiveDatagramReply();

  m_input.Clear();
  MsgHeaderData header;
  const int r = m_connection->RecvPacketHeader(header, m_proxy->Timeout());
  if (r < 1) {
    const uint32_t e = r == 0 ? Err::ConnectionClosed : FailureCode(Err::ConnectionClosed);
    if (r == -1) {
      std::u16string text;
      tavixTrace(u"ProxyHelper::InvokeIPC, RecvPacketHeader error:%d,%s\n", e, GetErrMsg(e, text));
    }
    // A late reply must never be taken for the next call's.
    m_connection->SetState(Connection::StateClosed);
    return e;
  }

  // A rejected reply leaves its body unread, which would break the next
  // call on this connection: close it.
  if (header.type != MSG_REPLY) {
    m_connection->SetState(Connection::StateClosed);
    return Err::ReplyTypeError;
  }
  ReplyHead reply;
  const uint32_t status = ReadReplyHead(header.size, reply);
  if (m_blobType != BlobAsRequest && reply.requestId != m_requestId) {
    m_connection->SetState(Connection::StateClosed);
    return Err::ReplyIdError;
  }
  return status;
}

uint32_t ProxyHelper::ReadReplyHead(int32_t size, ReplyHead& reply) {
  m_proxy->m_perfmon.replySize = size;
  m_replyBodySize = size - HEADER_SIZE;
  AttachMessageBuffer(m_input, m_buffers.Input(), m_replyBodySize, m_downstream);
  reply.read(m_input);
  m_proxy->m_perfmon.serverTime = reply.serverTime;
  return reply.status;
}

uint32_t ProxyHelper::ReceiveDatagramReply() {
  const SmartPtr<ITransceiver>& transceiver = m_connection->GetTransceiver();
  const uint32_t timeout = m_proxy->Timeout();
  const uint64_t start = platform::TickCountMs();
  for (;;) {
    uint32_t left = 0;  // no limit
    if (timeout != 0) {
      const uint64_t spent = platform::TickCountMs() - start;
      if (spent >= timeout) return Err::ReceiveTimeout;
      left = timeout - static_cast<uint32_t>(spent);
    }
    if (transceiver->WaitForRecv(left) < 0 || m_datagram->Receive() < 0) return FailureCode(Err::ConnectionClosed);
    const int32_t size = m_datagram->ReceivedSize();
    if (size < HEADER_SIZE + ReplyHead::lengthOf()) continue;
    MsgHeaderData header;
    header.Decode(m_datagram->Received());
    if (header.Check() != 0 || header.size != size || header.type != MSG_REPLY) continue;
    m_datagram->StartReading(HEADER_SIZE);
    m_input.Clear();
    ReplyHead reply;
    const uint32_t status = ReadReplyHead(size, reply);
    if (m_blobType == BlobAsRequest || reply.requestId == m_requestId) return status;
    tavixTrace(u"ProxyHelper::InvokeIPC, late reply %d dropped\n", reply.requestId);
  }
}

void ProxyHelper::DrainReply() {
  std::array<uint8_t, 4096> scratch;  // only written into
  for (int32_t left = m_replyBodySize - m_input.Size(); left > 0;) {
    const int32_t piece = std::min<int32_t>(left, static_cast<int32_t>(scratch.size()));
    m_input.readBlob(scratch.data(), piece);
    left -= piece;
  }
}

uint32_t ProxyHelper::FinishIPC() {
  if (m_blobType != RequestToBlob) {
    if (m_input.GetStreamBuf()) DrainReply();
    m_input.Clear();
  }
  const FILETIME now = platform::SystemTimeAsFileTime();
  TavixPerfmon& perfmon = m_proxy->m_perfmon;
  perfmon.networkTime = ElapsedMs(&m_startTime, &now) - perfmon.serverTime;
  return 0;
}

uint32_t ProxyHelper::OnException(const TavixException& e) {
  // A call that never took a connection (a recording, or a failure before
  // the connection was ready) has nothing to close.
  if (m_connection) m_connection->SetState(Connection::StateClosed);
  return e.Code() != 0 ? e.Code() : Err::ConnectionClosed;
}

}  // namespace TAVIX
