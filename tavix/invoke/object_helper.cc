#include "tavix/invoke/object_helper.h"

#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/diag/exception_report.h"
#include "tavix/invoke/connection.h"
#include "tavix/invoke/object.h"
#include "tavix/invoke/object_host.h"
#include "tavix/marshal/message_header.h"
#include "tavix/marshal/stream_buffers.h"
#include "tavix/transport/stream_transceiver_buf.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {

ObjectHelper::ObjectHelper(Connection& connection, IObjectHost& host, int32_t messageSize,
                           const SmartPtr<ITavixStreamBuf>& link)
    : m_bodySize(messageSize - HEADER_SIZE),
      m_connection(connection),
      m_host(host),
      m_link(link ? link : connection.StreamLink()) {
  m_reply.requestId = -1;
  m_connection.SetInServant(true);
  if (m_streams.Borrow(m_connection)) m_context = &m_connection.KeptContext();
  AttachMessageBuffer(m_streams.Input(), m_streams.InputBuffer(), m_bodySize, m_link);
  m_socket = static_cast<uint32_t>(m_connection.GetTransceiver()->GetHandle());
}

ObjectHelper::~ObjectHelper() {
  m_streams.Release();
  m_connection.EndRequest();
  m_connection.SetInServant(false);
}

void ObjectHelper::Invoke() {
  Context& context = *m_context;
  RequestHead::read(m_streams.Input(), m_reply.requestId, context.objectName, context.operation);
  context.connectionId = m_socket;
  context.oneway = m_reply.requestId == 0 ? 1 : 0;
  // What a skeleton writes for a one-way request has nowhere to go.
  if (context.oneway != 0) m_streams.Output().Attach(DiscardStreamBuf::Instance());
  m_connection.BeginRequest(context.objectName, context.operation);
  // A datagram transceiver leaves the peer as it finds it.
  context.peerAddress.clear();
  context.peerPort = 0;
  const SmartPtr<ITransceiver>& transceiver = m_connection.GetTransceiver();
  transceiver->GetPeer(context.peerAddress, context.peerPort);
  context.peerIdentity = transceiver->GetPeerIdentity();

  if (m_host.GetStatus() != ADAPTER_ACTIVE) {
    FinishServant(Err::AdapterInactive, 0);
  } else {
    Dispatch();
  }
  m_streams.DrainInput(m_bodySize);
  m_streams.Input().Clear();

  if (m_context->oneway == 0) {
    // A servant that never finished still owes its client an answer.
    if (!m_finished) FinishServant(Err::Unhandled, 0);
    m_streams.Output().Flush();
    m_streams.Output().Clear();
  }
}

void ObjectHelper::Dispatch() {
  // Lowers the count on every way out, a servant's exception included, so
  // that a deactivating adapter never waits for a request that has gone.
  struct InvocationGuard {
    explicit InvocationGuard(IObjectHost& h) : host(h) { host.IncrementInvocations(); }
    ~InvocationGuard() { host.DecrementInvocations(); }
    InvocationGuard(const InvocationGuard&) = delete;
    InvocationGuard& operator=(const InvocationGuard&) = delete;
    IObjectHost& host;
  } counted(m_host);

  const SmartPtr<Object>& servant = m_connection.FindServant(m_host, m_context->objectName);
  if (!servant) {
    FinishServant(TavixGetLastError(), 0);
    return;
  }
  // A fault of the servant's code is reported and comes back here, where
  // it leaves as a Win32SE for the run loop. Only the servant's frames are
  // abandoned; this frame's guard and every frame below unwind as usual.
  auto call = [this, &servant] { servant->Dispatch(*this); };
  const FaultRecord* fault = nullptr;
  if (!ExceptionReport::RunRecoverable(call, fault)) throw Win32SE(fault);
}

void ObjectHelper::PrepareServant() {
  if (m_context->oneway == 0) m_startTime = platform::SystemTimeAsFileTime();
}

void ObjectHelper::FinishServant(uint32_t status, int32_t resultLength, const FILETIME& endTime) {
  m_reply.status = status;
  if (m_context->oneway != 0) return;
  m_finished = true;
  // A reply made before any servant ran has no start to measure from.
  m_reply.serverTime = m_startTime == 0 ? 0.0 : ElapsedMs(&m_startTime, &endTime);
  m_replySize += HEADER_SIZE + ReplyHead::lengthOf() + resultLength;
  BasicStream& out = m_streams.Output();
  AttachMessageBuffer(out, m_streams.OutputBuffer(), m_replySize, m_link);
  WriteMessageHeader(out, MSG_REPLY, m_replySize);
  m_reply.write(out);
}

void ObjectHelper::FinishServant(uint32_t status, int32_t resultLength) {
  const FILETIME now = platform::SystemTimeAsFileTime();
  FinishServant(status, resultLength, now);
}

}  // namespace TAVIX
