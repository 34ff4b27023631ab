#include "tavix/invoke/connection.h"

#include <cxxabi.h>

#include <exception>
#include <string>

#include "tavix/core/errors.h"
#include "tavix/core/format.h"
#include "tavix/core/inet_addr.h"
#include "tavix/core/text.h"
#include "tavix/core/trace_log.h"
#include "tavix/invoke/connection_factory.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/marshal/message_header.h"
#include "tavix/platform/process.h"
#include "tavix/platform/socket.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {
namespace {

constexpr size_t kLabelLimit = 64;
constexpr int32_t kTcp = 1;
constexpr int32_t kUdp = 2;

// Sends one header-only message of the given type.
int SendHeaderOnly(ITransceiver& transceiver, MessageType type) {
  MsgHeaderData header;
  header.Init(type);
  uint8_t bytes[HEADER_SIZE];
  header.Encode(bytes);
  return transceiver.Send(bytes, HEADER_SIZE);
}

// "handle(address:port)" of the socket's peer as the platform sees it, or
// "" when it cannot tell.
std::u16string ClientLabel(int32_t handle) {
  InetAddr peer;
  uint32_t length = InetAddr::SockAddrLen();
  if (!platform::SocketView(handle).PeerName(peer.SockAddr(), length)) return {};
  char16_t address[33] = {};
  peer.ToString(address, 32);
  std::u16string label = FormatString(u"%d(%s:%d)", handle, address, static_cast<int32_t>(peer.Port()));
  if (label.size() > kLabelLimit) label.resize(kLabelLimit);
  return label;
}

std::u16string ErrorText(uint32_t code) {
  std::u16string text;
  return GetErrMsg(code, text);
}

}  // namespace

Connection::Connection() = default;

Connection::Connection(const SmartPtr<IConnectionFactory>& factory) : m_factory(factory) {}

Connection::~Connection() {
  if (m_transceiver && m_transceiver->IsOpen()) m_transceiver->Close();
  m_transceiver = nullptr;
  m_thread = nullptr;
}

void Connection::SetTransceiver(const SmartPtr<ITransceiver>& transceiver) { m_transceiver = transceiver; }

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

int Connection::SendValidation() {
  if (m_transceiver->Type() == kUdp) return 0;
  return SendHeaderOnly(*m_transceiver, MSG_VALIDATE);
}

int Connection::Validate(uint32_t timeoutMs) {
  if (m_transceiver->Type() == kUdp) return 0;
  // A server that never validates must not hold the client for ever when
  // the client asked for a limit.
  if (timeoutMs != 0) {
    const int waited = m_transceiver->WaitForRecv(timeoutMs);
    if (waited < 0) return waited;
  }
  uint8_t bytes[HEADER_SIZE];
  const int received = m_transceiver->Recvn(bytes, HEADER_SIZE);
  if (received < 0) return received;
  if (received == 0) {
    TavixSetLastError(Err::ConnectionClosed);
    return -2;
  }
  MsgHeaderData header;
  header.Decode(bytes);
  if (const uint32_t code = header.Check(); code != 0) {
    TavixSetLastError(code);
    return -2;
  }
  if (header.type != MSG_VALIDATE) {
    TavixSetLastError(Err::ValidateFail);
    return -2;
  }
  return received;
}

void Connection::SendCloseMsg() {
  if (m_transceiver) SendHeaderOnly(*m_transceiver, MSG_CLOSE);
}

int Connection::RecvPacketHeader(MsgHeaderData& header, uint32_t timeoutMs) {
  const int waited = m_transceiver->WaitForRecv(timeoutMs);
  if (waited < 0) return waited;
  uint8_t bytes[HEADER_SIZE];
  const int received = m_transceiver->Recvn(bytes, HEADER_SIZE);
  if (received <= 0) return received;
  header.Decode(bytes);
  if (const uint32_t code = header.Check(); code != 0) {
    TavixSetLastError(code);
    return -2;
  }
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
  if (!GetInServant() && m_transceiver) m_transceiver->Close();
}

void Connection::WaitUntilDestroy() {
  if (GetActivate()) Destroy();
  if (m_thread && m_thread->Join(INFINITE_WAIT, true) < 1) {
    TraceLog::Write(u"%d m_Transceiver shutdown timeout.", platform::ThreadId());
  }
  tavixTrace("%d m_Transceiver closed\n", platform::ThreadId());
  if (m_transceiver) m_transceiver->Close();
  // The factory may hold the last reference to this connection: it goes
  // last, after which nothing here is touched.
  SmartPtr<IConnectionFactory> factory = std::move(m_factory);
}

uint32_t ThreadPerConnection::Run() {
  m_connection->Run();
  return 0;
}

int Connection::Run() {
  if (!m_transceiver) {
    TraceLog::Write(u"ERROR: Uninitialize connection.\n");
    return 0;
  }
  std::u16string label;
  const int32_t type = m_transceiver->Type();
  if (type == kTcp || type == kUdp) {
    const int32_t handle = m_transceiver->GetHandle();
    if (handle == INVALID_SOCKET) {
      TraceLog::Write(u"ERROR: Uninitialize connection.\n");
      return 0;
    }
    label = ClientLabel(handle);
    TraceLog::Write(u"Thread for client %s started.\n", label);
  }

  int32_t reason = DISCONNECT_NORMAL;
  try {
    if (SendValidation() < 0) {
      const uint32_t error = TavixGetLastError();
      TraceLog::Write(u"ERROR: Send Validation message to client failed:%d,%s.\n", error, ErrorText(error));
      if (m_factory) m_factory->ConnectionClosed(SmartPtr<Connection>(this), DISCONNECT_RECV_ERROR);
      return 0;
    }
    reason = Serve();
  } catch (const TavixException& e) {
    TraceLog::Write(u"ERROR: Tavix Exception catched: %d,%s\n", e.Code(), ErrorText(e.Code()));
    reason = DISCONNECT_LIBRARY_EXCEPTION;
  } catch (const Win32SE&) {
    TraceLog::Write(u"ERROR: Win32 SE catched.\n");
    reason = DISCONNECT_SYSTEM_EXCEPTION;
  } catch (const std::exception& e) {
    TraceLog::Write(u"ERROR: STD exception cathed: %s.\n", WiddenString(e.what()));
    reason = DISCONNECT_OTHER_ERROR;
  } catch (const abi::__forced_unwind&) {
    throw;  // thread cancellation must unwind on
  } catch (...) {
    TraceLog::Write(u"ERROR: Unknown exception cathed.\n");
    reason = DISCONNECT_OTHER_ERROR;
  }

  if (m_factory) {
    const auto why = static_cast<TavixDisconnectReason>(reason);
    // Once ConnectionClosed has this connection the factory may reap it:
    // only the label on this stack is used afterwards.
    if (GetActivate()) {
      m_factory->ConnectionClosed(SmartPtr<Connection>(this), why);
    } else {
      m_factory->ConnectionClosed(SmartPtr<Connection>(), why);
    }
  }
  TraceLog::Write(u"Thread for client %s stoped.\n", label);
  return 0;
}

int32_t Connection::Serve() {
  for (;;) {
    if (!GetActivate()) return DISCONNECT_NORMAL;
    MsgHeaderData header;
    const int received = RecvPacketHeader(header, 0);
    const uint32_t error = TavixGetLastError();
    if (!GetActivate()) return DISCONNECT_NORMAL;
    if (received == -1 || received == -2) {
      TraceLog::Write(u"ERROR: Receive packect error(%d): %d,%s\n", received, error, ErrorText(error));
      return DISCONNECT_RECV_ERROR;
    }
    if (received == 0 || received == -3) {
      TraceLog::Write(u"ERROR: Network Closed when receive packect(%d).\n", received);
      return DISCONNECT_NETWORK_CLOSED;
    }
    if (received < 1) {
      TraceLog::Write(u"ERROR: Unknown error when receive packect(%d).\n", received);
      return DISCONNECT_OTHER_ERROR;
    }
    switch (header.type) {
      case MSG_REQUEST: {
        ObjectHelper request(SmartPtr<Connection>(this), m_factory->GetHost(), header.size);
        request.Invoke();
        break;
      }
      case MSG_CLOSE:
        return DISCONNECT_NORMAL;
      default:
        TraceLog::Write(u"ERROR: Request not supported::%d,%s\n", Err::MessageTypeNotSupported,
                        ErrorText(Err::MessageTypeNotSupported));
        return DISCONNECT_PROTOCOL_ERROR;
    }
  }
}

}  // namespace TAVIX
