#include "tavix/adapter/tcp_connection_factory.h"

#include <utility>

#include "tavix/core/errors.h"
#include "tavix/core/trace_log.h"
#include "tavix/invoke/connection.h"
#include "tavix/platform/process.h"
#include "tavix/platform/socket.h"
#include "tavix/transport/acceptor.h"
#include "tavix/transport/passport.h"
#include "tavix/transport/tcp_transceiver.h"

namespace TAVIX {

TcpConnectionFactory::TcpConnectionFactory(const SmartPtr<IPassport>& passport,
                                           const SmartPtr<IObjectHost>& adapter)
    : m_passport(passport), m_adapter(adapter) {}

TcpConnectionFactory::~TcpConnectionFactory() {
  if (!m_acceptThread || m_acceptThread->ThreadId() == platform::ThreadId()) return;
  m_active.store(0);
  if (SmartPtr<IAcceptor> acceptor = Acceptor()) acceptor->Interrupt();
  m_acceptThread->Join(INFINITE_WAIT, true);
}

SmartPtr<IAcceptor> TcpConnectionFactory::Acceptor() {
  ScopedLock guard(m_acceptorLock);
  return m_acceptor;
}

bool TcpConnectionFactory::Activate() {
  if (IsActive()) return true;
  SmartPtr<IAcceptor> acceptor = Acceptor();
  const int32_t opened = m_passport->CreateAcceptor(acceptor);
  {
    ScopedLock guard(m_acceptorLock);
    m_acceptor = acceptor;
  }
  if (opened < 0) return false;
  m_acceptThread = MakeShared<ThreadPerTcpConnectionFactory>(this);
  m_active.store(1);
  m_acceptThread->Start();
  return true;
}

void TcpConnectionFactory::Destroy() {
  if (!IsActive() || !Acceptor()) return;
  ScopedLock guard(m_liveLock);
  for (const SmartPtr<Connection>& connection : m_liveConnections) connection->Destroy();
}

bool TcpConnectionFactory::ConnectionClosed(const SmartPtr<Connection>& connection, TavixDisconnectReason reason) {
  if (connection) {
    ScopedLock guard(m_closedLock);
    m_closedConnections.push_back(connection);
  }
  m_adapter->ReleaseConnection();
  m_adapter->DisconnectNotify(reason);
  return true;
}

void TcpConnectionFactory::WaitUntilDestroy(uint64_t deadlineTick) {
  const SmartPtr<IAcceptor> acceptor = Acceptor();
  if (!acceptor || !m_acceptThread) return;
  // The accept loop stops first: a client it was serving in the meantime is
  // in the live set by the time the loop has gone, and nothing adds to the
  // set afterwards.
  m_active.store(0);
  acceptor->Interrupt();
  const bool acceptLoopEnded = m_acceptThread->Join(INFINITE_WAIT, true) != 0;
  // The set is taken out before the waits: a lock is never held across a
  // join. The accept loop has ended, so nothing joins it any more.
  std::set<SmartPtr<Connection>> live;
  {
    ScopedLock guard(m_liveLock);
    live.swap(m_liveConnections);
  }
  for (const SmartPtr<Connection>& connection : live) connection->WaitUntilDestroy(deadlineTick);
  {
    // Every connection on this list has been waited for above.
    ScopedLock guard(m_closedLock);
    m_closedConnections.clear();
  }
  if (!acceptLoopEnded) {
    TraceLog::Write(u"%d TcpConnectionFactory shutdown timeout.", platform::ThreadId());
    acceptor->Close();
  }
}

void TcpConnectionFactory::EstablishFailed(const std::u16string& peer, uint32_t code, const std::string& reason) {
  if (int32_t held = 0; m_handshakeFailures.Admit(held)) {
    TraceLog::Write(u"ERROR: TLS handshake with client %s failed: 0x%08X %hs (%d more since the last line).\n", peer, code,
                    reason.c_str(), held);
  }
}

uint32_t TcpConnectionFactory::AcceptLoop() {
  uint32_t backOffMs = 0;
  while (IsActive()) {
    SmartPtr<ITransceiver> transceiver;
    const int32_t accepted = Acceptor()->Accept(transceiver, kAcceptTickMs);
    if (!IsActive()) {
      if (transceiver) transceiver->Close();
      break;
    }
    if (accepted < 0) {
      // Only a broken listener stops accepting; running short of
      // descriptors or memory passes, and the clients already served go on.
      const uint32_t error = TavixGetLastError();
      if (!platform::IsTransientAcceptError(error)) {
        TraceLog::Write(u"ERROR: Accept failed, no more clients on this endpoint: %d,%s\n", error,
                        ErrorText(error));
        break;
      }
      backOffMs = std::clamp<uint32_t>(backOffMs * 2, kMinAcceptBackOffMs, kMaxAcceptBackOffMs);
      if (int32_t held = 0; m_acceptFailures.Admit(held)) {
        TraceLog::Write(u"ERROR: Accept failed: %d,%s (%d more since the last line); retrying in %d ms.\n",
                        error, ErrorText(error), held, static_cast<int32_t>(backOffMs));
      }
      platform::SleepMs(backOffMs);
      continue;
    }
    backOffMs = 0;
    if (transceiver && m_adapter->GetStatus() == ADAPTER_DESTROYING) {
      transceiver->Close();
      transceiver = nullptr;
    }
    if (transceiver && !m_adapter->AdmitConnection()) {
      transceiver->Close();
      transceiver = nullptr;
      if (int32_t held = 0; m_refusals.Admit(held)) {
        TraceLog::Write(u"ERROR: Connection limit of %d reached: client closed (%d more since the last line).\n",
                        m_adapter->GetLimits().maxConnections, held);
      }
    }
    bool anyClosed = false;
    {
      ScopedLock guard(m_closedLock);
      anyClosed = !m_closedConnections.empty();
    }
    if (anyClosed) ReapClosedConnections();
    if (transceiver) Serve(transceiver);
  }
  Acceptor()->Close();
  return 0;
}

void TcpConnectionFactory::Serve(const SmartPtr<ITransceiver>& transceiver) {
  const SmartPtr<TcpTransceiver> tcp = SmartPtr<TcpTransceiver>::DynamicCast(transceiver);
  if (tcp) tcp->SetStallTimeout(m_adapter->GetLimits().bodyTimeoutMs);
  SmartPtr<Connection> connection = MakeShared<Connection>(SmartPtr<IConnectionFactory>(this));
  connection->SetTransceiver(transceiver);
  {
    // Live before its thread runs, so that a shutdown from now on finds it.
    ScopedLock guard(m_liveLock);
    m_liveConnections.insert(connection);
  }
  if (connection->Activate()) return;
  {
    ScopedLock guard(m_liveLock);
    m_liveConnections.erase(connection);
  }
  m_adapter->ReleaseConnection();
  connection->Destroy();
  connection->WaitUntilDestroy();
}

// A connection is taken out of the live set before it is waited for, and
// only when it is still there: WaitUntilDestroy may already have waited for
// it, and a connection is never waited for by two threads at once.
void TcpConnectionFactory::ReapClosedConnections() {
  std::vector<SmartPtr<Connection>> closed;
  {
    ScopedLock guard(m_closedLock);
    closed.swap(m_closedConnections);
  }
  for (const SmartPtr<Connection>& connection : closed) {
    size_t removed = 0;
    {
      ScopedLock guard(m_liveLock);
      removed = m_liveConnections.erase(connection);
    }
    if (removed == 0) continue;
    connection->Destroy();
    connection->WaitUntilDestroy();
  }
}

}  // namespace TAVIX
