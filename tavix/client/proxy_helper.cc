#include "tavix/client/proxy_helper.h"

#include "tavix/client/proxy_object.h"
#include "tavix/invoke/connection.h"
#include "tavix/marshal/message_header.h"
#include "tavix/marshal/stream_buffers.h"
#include "tavix/platform/clock.h"
#include "tavix/transport/datagram_stream_buf.h"
#include "tavix/transport/transceiver.h"
#include "tavix/transport/transfer.h"

namespace TAVIX {

ProxyHelper::ProxyHelper(ProxyObject* proxy, const std::u16string& operation, OperationMode mode,
                         BlobType blobType, int32_t length)
    : m_proxy(proxy), m_operation(&operation), m_mode(mode), m_blobType(blobType), m_length(length) {
  if (m_blobType == RequestToBlob) m_blob = CreateTavixBlob();
  m_proxy->BeginCall();
}

ProxyHelper::ProxyHelper(ProxyObject* proxy, const std::u16string& operation, OperationMode mode,
                         const SmartPtr<ITavixBlob>& blob, int32_t length)
    : ProxyHelper(proxy, operation, mode, NoBlob, length) {
  m_blobType = RequestToBlob;
  m_blob = blob ? blob : CreateTavixBlob();
}

ProxyHelper::~ProxyHelper() {
  // The connection's buffers go back while this call still holds the proxy.
  m_streams.Release();
  m_proxy->EndCall();
}

uint32_t ProxyHelper::PrepareIPC() {
  if (m_blobType != RequestToBlob) {
    if (const uint32_t r = m_proxy->ReadyConnection(m_connection); r != 0) return r;
    if (m_mode == TwoWay && m_connection->GetTransceiver()->IsBroadcast()) {
      return Err::BroadcastNeedsOneway;
    }
    m_streams.Borrow(*m_connection);
  }
  m_startTime = platform::SystemTimeAsFileTime();
  BasicStream& out = m_streams.Output();

  if (m_blobType == BlobAsRequest) {
    // The caller writes the complete message, header included.
    m_proxy->CallPerfmon().requestSize = m_length;
    m_downstream = ConnectionLink();
    if (m_datagram && m_length > m_connection->GetTransceiver()->MaxMessageSize()) return Err::IllegalBufferSize;
    AttachMessageBuffer(out, m_streams.OutputBuffer(), m_length, m_downstream);
    return 0;
  }

  m_requestId = RequestIdFor(m_mode);
  m_length += HEADER_SIZE + RequestHead::lengthOf(m_proxy->ObjectName(), *m_operation);
  m_proxy->CallPerfmon().requestSize = m_length;
  if (m_blobType == RequestToBlob) {
    m_downstream = SmartPtr<ITavixStreamBuf>(new StreamBlobBuf(m_blob));
  } else {
    m_downstream = ConnectionLink();
    // A datagram carries a whole message or nothing.
    if (m_datagram && m_length > m_connection->GetTransceiver()->MaxMessageSize()) return Err::IllegalBufferSize;
  }
  AttachMessageBuffer(out, m_streams.OutputBuffer(), m_length, m_downstream);
  WriteMessageHeader(out, MSG_REQUEST, m_length);
  RequestHead::write(out, m_requestId, m_proxy->ObjectName(), *m_operation);
  return 0;
}

SmartPtr<ITavixStreamBuf> ProxyHelper::ConnectionLink() {
  const SmartPtr<ITransceiver>& transceiver = m_connection->GetTransceiver();
  if (transceiver->MaxMessageSize() == 0) return m_connection->StreamLink();
  m_datagram = MakeShared<DatagramStreamBuf>(transceiver);
  return m_datagram;
}

uint32_t ProxyHelper::InvokeIPC() {
  m_streams.Output().Flush();
  if (m_datagram) {
    if (const Transfer sent = m_datagram->SendGathered(); sent.Failed()) return sent.Code();
  }
  if (m_mode == OneWay || m_blobType == RequestToBlob) return 0;
  if (m_datagram) return ReceiveDatagramReply();

  m_streams.Input().Clear();
  MsgHeaderData header;
  if (const Transfer received = m_connection->ReceiveHeader(header, m_proxy->Timeout()); !received.Ok()) {
    // A late reply must never be taken for the next call's.
    m_connection->SetState(Connection::StateClosed);
    return received.Code();
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
  TavixPerfmon& perfmon = m_proxy->CallPerfmon();
  perfmon.replySize = size;
  m_replyBodySize = size - HEADER_SIZE;
  AttachMessageBuffer(m_streams.Input(), m_streams.InputBuffer(), m_replyBodySize, m_downstream);
  reply.read(m_streams.Input());
  perfmon.serverTime = reply.serverTime;
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
    Transfer received = Transfer::Of(transceiver->WaitForRecv(left));
    if (received.Ok()) received = m_datagram->Receive();
    if (received.Failed()) return received.Code();
    const int32_t size = m_datagram->ReceivedSize();
    if (size < HEADER_SIZE + ReplyHead::lengthOf()) continue;
    MsgHeaderData header;
    header.Decode(m_datagram->Received());
    if (header.Check() != 0 || header.size != size || header.type != MSG_REPLY) continue;
    m_datagram->StartReading(HEADER_SIZE);
    m_streams.Input().Clear();
    ReplyHead reply;
    const uint32_t status = ReadReplyHead(size, reply);
    // Anything else is a late reply of an earlier call: dropped.
    if (m_blobType == BlobAsRequest || reply.requestId == m_requestId) return status;
  }
}

uint32_t ProxyHelper::FinishIPC() {
  if (m_blobType != RequestToBlob) {
    if (m_streams.Input().GetStreamBuf()) m_streams.DrainInput(m_replyBodySize);
    m_streams.Input().Clear();
  }
  const FILETIME now = platform::SystemTimeAsFileTime();
  TavixPerfmon& perfmon = m_proxy->CallPerfmon();
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
