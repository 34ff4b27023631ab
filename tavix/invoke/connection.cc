#include "tavix/invoke/connection.h"

#include <cxxabi.h>

#include <algorithm>
#include <climits>
#include <exception>
#include <string>

#include "tavix/core/errors.h"
#include "tavix/core/format.h"
#include "tavix/core/text.h"
#include "tavix/core/trace_log.h"
#include "tavix/invoke/connection_factory.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/marshal/message_header.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/process.h"
#include "tavix/platform/socket.h"
#include "tavix/platform/socket_address.h"
#include "tavix/marshal/stream_buffers.h"
#include "tavix/transport/datagram_stream_buf.h"
#include "tavix/transport/stream_transceiver_buf.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {
namespace {

constexpr size_t kLabelLimit = 64;

// Sends one header-only message of the given type.
Transfer SendHeaderOnly(ITransceiver& transceiver, MessageType type) {
  MsgHeaderData header;
  header.Init(type);
  uint8_t bytes[HEADER_SIZE];
  header.Encode(bytes);
  return Transfer::Of(transceiver.Send(bytes, HEADER_SIZE));
}

// "handle(address:port)" of the socket's peer as the platform sees it, or
// "" when it cannot tell.
std::u16string ClientLabel(int32_t handle) {
  platform::SocketAddress raw;
  uint32_t length = platform::SocketAddress::kCapacity;
  if (!platform::SocketView(handle).PeerName(raw.Buffer(), length)) return {};
  raw.SetLength(length);
  const platform::SocketAddress peer = raw.Unmapped();
  // An IPv6 address is bracketed so that its port stays readable.
  const bool ipv6 = peer.Family() == platform::AddressFamily::kIPv6;
  const std::u16string address = WiddenString(ipv6 ? "[" + peer.HostText() + "]" : peer.HostText());
  std::u16string label = FormatString(u"%d(%s:%d)", handle, address.c_str(), static_cast<int32_t>(peer.Port()));
  if (label.size() > kLabelLimit) label.resize(kLabelLimit);
  return label;
}

// Logs the exception being handled and gives the disconnect reason it
// stands for. Thread cancellation is not handled here: callers let it
// unwind on.
TavixDisconnectReason LogCaughtException() {
  try {
    throw;
  } catch (const TavixException& e) {
    if (e.Code() == Err::ReceiveTimeout) {
      TraceLog::Write(u"ERROR: Client silent inside a message beyond the body time-out; connection closed.\n");
      return DISCONNECT_NETWORK_CLOSED;
    }
    TraceLog::Write(u"ERROR: Tavix Exception catched: %d,%s\n", e.Code(), ErrorText(e.Code()));
    return DISCONNECT_LIBRARY_EXCEPTION;
  } catch (const Win32SE&) {
    TraceLog::Write(u"ERROR: Win32 SE catched.\n");
    return DISCONNECT_SYSTEM_EXCEPTION;
  } catch (const std::exception& e) {
    TraceLog::Write(u"ERROR: STD exception cathed: %s.\n", WiddenString(e.what()));
    return DISCONNECT_OTHER_ERROR;
  } catch (...) {
    TraceLog::Write(u"ERROR: Unknown exception cathed.\n");
    return DISCONNECT_OTHER_ERROR;
  }
}

void LogReceiveError(const Transfer& received) {
  TraceLog::Write(u"ERROR: Receive packect error(%d): %d,%s\n", received.Number(), received.Code(),
                  ErrorText(received.Code()));
}

void LogNetworkClosed(const Transfer& received) {
  TraceLog::Write(u"ERROR: Network Closed when receive packect(%d).\n", received.Number());
}

// Logs why the wait for a request's header failed and gives the disconnect
// reason that stands for.
TavixDisconnectReason HeaderFailure(const Transfer& received) {
  switch (received.State()) {
    case TransferState::kSystemError:
    case TransferState::kLibraryError:
      LogReceiveError(received);
      return DISCONNECT_RECV_ERROR;
    case TransferState::kPeerClosed:
    case TransferState::kClosed:
      LogNetworkClosed(received);
      return DISCONNECT_NETWORK_CLOSED;
    case TransferState::kDone:
    case TransferState::kUnknown:
      break;
  }
  TraceLog::Write(u"ERROR: Unknown error when receive packect(%d).\n", received.Number());
  return DISCONNECT_OTHER_ERROR;
}

void LogUnsupportedType() {
  TraceLog::Write(u"ERROR: Request not supported::%d,%s\n", Err::MessageTypeNotSupported,
                  ErrorText(Err::MessageTypeNotSupported));
}

// A reply carrying only a status, for a request whose real reply cannot
// be sent.
void WriteStatusReply(const SmartPtr<DatagramStreamBuf>& link, int32_t requestId, uint32_t status) {
  BasicStream out;
  const int32_t size = HEADER_SIZE + ReplyHead::lengthOf();
  AttachMessageBuffer(out, size, link);
  WriteMessageHeader(out, MSG_REPLY, size);
  ReplyHead reply;
  reply.requestId = requestId;
  reply.status = status;
  reply.write(out);
  out.Flush();
  out.Clear();
}

}  // namespace

Connection::Connection() = default;

Connection::Connection(const SmartPtr<IConnectionFactory>& factory) : m_factory(factory) {}

Connection::~Connection() {
  if (m_transceiver && m_transceiver->IsOpen()) m_transceiver->Close();
  m_transceiver = nullptr;
  m_thread = nullptr;
}

void Connection::SetTransceiver(const SmartPtr<ITransceiver>& transceiver) {
  if (transceiver != m_transceiver) m_streamLink = nullptr;
  m_transceiver = transceiver;
}

const SmartPtr<ITavixStreamBuf>& Connection::StreamLink() {
  if (!m_streamLink) m_streamLink = MakeShared<StreamTransceiverBuf>(m_transceiver);
  return m_streamLink;
}

const SmartPtr<Object>& Connection::FindServant(IObjectHost& host, const std::u16string& id) {
  // The version is read before the look-up: a change after it shows at the
  // next request.
  const uint32_t version = host.ServantsVersion();
  if (m_servant && version == m_servantsVersion && id == m_servantId) return m_servant;
  m_servant = host.FindServant(id);
  m_servantId = id;
  m_servantsVersion = version;
  return m_servant;
}

bool Connection::BorrowBuffers(MessageBuffers& buffers) {
  if (m_buffersLent.exchange(true, std::memory_order_acquire)) return false;
  // A holder still empty gets its buffer from the first message through it.
  buffers.m_input = &m_inputBuffer;
  buffers.m_output = &m_outputBuffer;
  return true;
}

void Connection::SetState(connectionState state) {
  ScopedLock guard(m_stateLock);
  if (m_state == state) return;
  m_state = state;
  if (state == StateClosed && m_transceiver && m_transceiver->IsOpen()) m_transceiver->Close();
}

Connection::connectionState Connection::GetState() {
  ScopedLock guard(m_stateLock);
  return m_state;
}

int Connection::SendValidation() { return SendValidationMessage().Result(); }

int Connection::Validate(uint32_t timeoutMs) { return ReceiveValidation(timeoutMs).Result(); }

int Connection::RecvPacketHeader(MsgHeaderData& header, uint32_t timeoutMs) {
  return ReceiveHeader(header, timeoutMs).Result();
}

void Connection::SendCloseMsg() {
  if (m_transceiver) SendHeaderOnly(*m_transceiver, MSG_CLOSE);
}

Transfer Connection::SendValidationMessage() {
  if (m_transceiver->Type() == PASSPORT_UDP) return Transfer::Done(0);
  return SendHeaderOnly(*m_transceiver, MSG_VALIDATE);
}

// A server that never validates must not hold the client for ever when
// the client asked for a limit: the wait for the message is bounded.
Transfer Connection::ReceiveValidation(uint32_t timeoutMs) {
  if (m_transceiver->Type() == PASSPORT_UDP) return Transfer::Done(0);
  MsgHeaderData header;
  const Transfer received = ReceiveHeader(header, timeoutMs);
  if (received.State() == TransferState::kPeerClosed) return Transfer::LibraryError(Err::ConnectionClosed);
  if (received.Ok() && header.type != MSG_VALIDATE) return Transfer::LibraryError(Err::ValidateFail);
  return received;
}

Transfer Connection::ReceiveHeader(MsgHeaderData& header, uint32_t timeoutMs) {
  uint8_t bytes[HEADER_SIZE];
  const Transfer received = Transfer::Of(m_transceiver->RecvMessageStart(bytes, HEADER_SIZE, timeoutMs));
  if (!received.Ok()) return received;
  header.Decode(bytes);
  if (const uint32_t code = header.Check(); code != 0) return Transfer::LibraryError(code);
  return received;
}

bool Connection::Activate() {
  if (!GetActivate()) {
    m_thread = MakeShared<ThreadPerConnection>(this);
    SetActivate(true);
    if (!m_thread->Start(0, 0, nullptr)) SetActivate(false);
  }
  return GetActivate();
}

void Connection::Destroy() {
  if (!GetActivate()) return;
  // The flag goes first: a loop that finishes its request after this test
  // of inServant either sees the flag cleared or, already waiting for the
  // next header, is woken by the close.
  SetActivate(false);
  if (!m_transceiver) return;
  if (GetInServant()) {
    m_transceiver->ShutdownReceive();
  } else {
    m_transceiver->Close();
  }
}

bool Connection::WaitUntilDestroy(uint64_t deadlineTick) {
  if (GetActivate()) Destroy();
  if (m_thread) {
    const uint64_t now = platform::TickCountMs();
    const uint32_t wait = deadlineTick == platform::kNoDeadline ? INFINITE_WAIT
                          : deadlineTick <= now     ? 0
                                                    : static_cast<uint32_t>(std::min<uint64_t>(deadlineTick - now, INFINITE_WAIT - 1));
    if (m_thread->Join(wait, false) < 1) {
      Abandon();
      return false;
    }
  }
  if (m_transceiver) m_transceiver->Close();
  // The factory may hold the last reference to this connection: it goes
  // last, after which nothing here is touched.
  SmartPtr<IConnectionFactory> factory = std::move(m_factory);
  return true;
}

void Connection::Abandon() {
  {
    ScopedLock guard(m_requestLock);
    const uint64_t ranMs = m_requestStart == 0 ? 0 : platform::TickCountMs() - m_requestStart;
    TraceLog::Write(u"ERROR: Request abandoned at shutdown: object %s, operation %s, running for %d ms.\n",
                    m_requestObject, m_requestOperation, static_cast<int32_t>(std::min<uint64_t>(ranMs, INT32_MAX)));
  }
  // The serving thread still runs on this connection (and through it on
  // the factory) and may for ever: it keeps both, never released, and only
  // the socket goes now.
  IncRef();
  if (m_transceiver) m_transceiver->Close();
}

void Connection::BeginRequest(const std::u16string& object, const std::u16string& operation) {
  ScopedLock guard(m_requestLock);
  m_requestObject = object;
  m_requestOperation = operation;
  m_requestStart = std::max<uint64_t>(platform::TickCountMs(), 1);
}

void Connection::EndRequest() {
  ScopedLock guard(m_requestLock);
  m_requestStart = 0;
}

uint32_t ThreadPerConnection::Run() {
  m_connection->Run();
  return 0;
}

int Connection::Run() {
  const PassportType type = m_transceiver ? m_transceiver->Type() : PASSPORT_NONE;
  const int32_t handle = m_transceiver ? m_transceiver->GetHandle() : INVALID_SOCKET;
  if (handle == INVALID_SOCKET) {
    TraceLog::Write(u"ERROR: Uninitialize connection.\n");
    // The factory still learns of the end, so that it counts the
    // connection out.
    if (m_factory) m_factory->ConnectionClosed(SmartPtr<Connection>(this), DISCONNECT_OTHER_ERROR);
    return 0;
  }
  const std::u16string label = ClientLabel(handle);
  TraceLog::Write(u"Thread for client %s started.\n", label);

  TavixDisconnectReason reason = DISCONNECT_NORMAL;
  try {
    if (std::string failure; m_transceiver->Establish(failure) != 0) {
      const uint32_t code = TavixGetLastError();
      m_transceiver->Close();
      if (m_factory) {
        m_factory->EstablishFailed(label, code, failure);
        m_factory->ConnectionClosed(SmartPtr<Connection>(this), DISCONNECT_HANDSHAKE_FAILED);
      }
      return 0;
    }
    if (const Transfer sent = SendValidationMessage(); sent.Failed()) {
      TraceLog::Write(u"ERROR: Send Validation message to client failed:%d,%s.\n", sent.Code(),
                      ErrorText(sent.Code()));
      m_transceiver->Close();
      if (m_factory) m_factory->ConnectionClosed(SmartPtr<Connection>(this), DISCONNECT_RECV_ERROR);
      return 0;
    }
    reason = type == PASSPORT_UDP ? ServeDatagrams() : Serve();
  } catch (const abi::__forced_unwind&) {
    throw;  // thread cancellation must unwind on
  } catch (...) {
    reason = LogCaughtException();
  }
  // The peer learns of the end at once, not when the connection is reaped.
  m_transceiver->Close();

  if (m_factory) {
    // Once ConnectionClosed has this connection the factory may reap it:
    // only the label on this stack is used afterwards.
    if (GetActivate()) {
      m_factory->ConnectionClosed(SmartPtr<Connection>(this), reason);
    } else {
      m_factory->ConnectionClosed(SmartPtr<Connection>(), reason);
    }
  }
  TraceLog::Write(u"Thread for client %s stoped.\n", label);
  return 0;
}

TavixDisconnectReason Connection::Serve() {
  for (;;) {
    if (!GetActivate()) return DISCONNECT_NORMAL;
    MsgHeaderData header;
    const Transfer received = ReceiveHeader(header, 0);
    if (!GetActivate()) return DISCONNECT_NORMAL;
    if (!received.Ok()) return HeaderFailure(received);
    switch (header.type) {
      case MSG_REQUEST: {
        ObjectHelper request(*this, *m_factory->GetHost(), header.size);
        request.Invoke();
        break;
      }
      case MSG_CLOSE:
        return DISCONNECT_NORMAL;
      default:
        LogUnsupportedType();
        return DISCONNECT_PROTOCOL_ERROR;
    }
  }
}

TavixDisconnectReason Connection::ServeDatagrams() {
  const SmartPtr<DatagramStreamBuf> link = MakeShared<DatagramStreamBuf>(m_transceiver);
  for (;;) {
    if (!GetActivate()) return DISCONNECT_NORMAL;
    Transfer received = Transfer::Of(m_transceiver->WaitForRecv(0));
    if (received.Ok()) received = link->Receive();
    if (!GetActivate()) return DISCONNECT_NORMAL;
    if (received.State() == TransferState::kClosed) {
      LogNetworkClosed(received);
      return DISCONNECT_NETWORK_CLOSED;
    }
    // An empty datagram is handled as the too-short message it is.
    if (received.Failed()) {
      LogReceiveError(received);
      continue;
    }
    try {
      HandleDatagram(link);
    } catch (const abi::__forced_unwind&) {
      throw;
    } catch (...) {
      LogCaughtException();
    }
    link->DropGathered();
  }
}

void Connection::HandleDatagram(const SmartPtr<DatagramStreamBuf>& datagram) {
  DatagramStreamBuf& link = *datagram;
  const int32_t size = link.ReceivedSize();
  MsgHeaderData header;
  uint32_t code = Err::IllegalSize;
  if (size >= HEADER_SIZE) {
    header.Decode(link.Received());
    code = header.Check();
    // A datagram is exactly one message.
    if (code == 0 && header.size != size) code = Err::IllegalSize;
  }
  if (code != 0) {
    LogReceiveError(Transfer::LibraryError(code));
    return;
  }
  if (header.type == MSG_CLOSE) return;  // a UDP client's goodbye ends nothing
  if (header.type != MSG_REQUEST) {
    LogUnsupportedType();
    return;
  }
  link.StartReading(HEADER_SIZE);
  const SmartPtr<ITavixStreamBuf> chainEnd(datagram);  // outlives the request, as it must
  ObjectHelper request(*this, *m_factory->GetHost(), header.size, chainEnd);
  request.Invoke();
  if (request.GetContext().oneway != 0) return;
  if (link.Oversized()) {
    // The reply's head is at its start, and the kept part always holds it.
    const uint8_t* id = link.Gathered().data() + HEADER_SIZE;
    const auto requestId = static_cast<int32_t>(id[0] | id[1] << 8 | id[2] << 16 | static_cast<uint32_t>(id[3]) << 24);
    link.DropGathered();
    WriteStatusReply(datagram, requestId, Err::IllegalBufferSize);
  }
  // A failed send is reported as it is on a stream: as the exception.
  if (const Transfer sent = link.SendGathered(); sent.Failed()) TavixThrow(sent.Code());
}

}  // namespace TAVIX
