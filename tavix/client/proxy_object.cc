#include "tavix/client/proxy_object.h"

#include "tavix/client/proxy_helper.h"
#include "tavix/core/errors.h"
#include "tavix/core/trace_log.h"
#include "tavix/invoke/connection.h"
#include "tavix/platform/clock.h"
#include "tavix/runtime/communicator.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {

namespace {

// Operation names live for the whole process: ProxyHelper keeps a
// reference to them.
const std::u16string& ObjectIsAName() {
  static const std::u16string name(u"ObjectIsA");
  return name;
}

const std::u16string& ObjectPingName() {
  static const std::u16string name(u"ObjectPing");
  return name;
}

const std::u16string& SendBlobName() {
  static const std::u16string name(u"ProxyObject::SendBlobWithoutOutParam");
  return name;
}

// Below this the check costs more than it is likely to find.
constexpr uint64_t kIdleCheckMs = 100;

uint32_t LastErrorOr(uint32_t fallback) {
  const uint32_t code = TavixGetLastError();
  return code != 0 ? code : fallback;
}

}  // namespace

ProxyObject::ProxyObject() = default;

ProxyObject::~ProxyObject() {
  if (m_connection && m_communicator && !m_communicator->IsShutdown()) {
    m_communicator->Finish(m_connection);
  }
}

void ProxyObject::Bind(const SmartPtr<Communicator>& communicator, const SmartPtr<IPassport>& passport,
                       const std::u16string& objectName) {
  Bind(communicator, EndpointSet::Of(passport), objectName);
}

void ProxyObject::Bind(const SmartPtr<Communicator>& communicator, EndpointSet endpoints,
                       const std::u16string& objectName) {
  ScopedLock guard(m_callLock);
  if (m_connection && m_communicator) m_communicator->Finish(m_connection);
  m_connection = nullptr;
  m_communicator = communicator;
  m_endpoints = std::move(endpoints);
  m_passport = m_endpoints.At(m_endpoints.CurrentEndpoint());
  m_objectName = objectName;
}

void ProxyObject::SetEndpointOrder(EndpointSet::Order order) {
  ScopedLock guard(m_callLock);
  m_endpoints.SetOrder(order);
  if (!m_connection) m_passport = m_endpoints.At(m_endpoints.CurrentEndpoint());
}

bool ProxyObject::ConnectedPeer(std::u16string& address, uint16_t& port) {
  ScopedLock guard(m_callLock);
  if (!m_connection || m_connection->GetState() != Connection::StateConnected) return false;
  const SmartPtr<ITransceiver> transceiver = m_connection->GetTransceiver();
  return transceiver && transceiver->GetPeer(address, port);
}

void ProxyObject::AutoReconnect(bool on) { m_autoReconnect.store(on ? 1 : 0); }

bool ProxyObject::AutoReconnect() const { return m_autoReconnect.load() != 0; }

void ProxyObject::Timeout(uint32_t timeoutMs) {
  ScopedLock guard(m_callLock);
  for (size_t i = 0; i < m_endpoints.Size(); ++i) m_endpoints.At(i)->Timeout(timeoutMs);
}

uint32_t ProxyObject::Timeout() const { return m_passport->Timeout(); }

void ProxyObject::GetObjectIds(std::vector<std::u16string>& ids) { ids.emplace_back(kTypeId); }

std::u16string ProxyObject::GetObjectId() { return std::u16string(kTypeId); }

uint32_t ProxyObject::Setup() {
  ScopedLock guard(m_callLock);
  if (m_communicator->IsShutdown()) return Err::CommunicatorClosed;
  // A connection that failed before: the next one starts elsewhere.
  const bool reconnect = static_cast<bool>(m_connection);
  if (m_connection) {
    if (m_connection->GetState() == Connection::StateConnected && !ServerLeftWhileIdle()) return 0;
    if (!AutoReconnect()) return Err::ProxyClosed;
  } else {
    m_connection = MakeShared<Connection>();
  }
  return Connect(reconnect);
}

// The request has not left yet, so going on to the next endpoint after a
// failure is safe. Within the time-out: an attempt starts only while it
// has not passed (0 waits without limit, so every endpoint is tried).
uint32_t ProxyObject::Connect(bool moveOn) {
  const uint64_t start = platform::TickCountMs();
  const uint32_t timeout = Timeout();
  HandOutClientTls();
  const EndpointSet::Plan plan = m_endpoints.Targets(start, moveOn);
  uint32_t last = plan.lookupError != 0 ? plan.lookupError : Err::ConnectionClosed;
  for (const EndpointSet::Target& target : plan.targets) {
    if (timeout != 0 && platform::TickCountMs() - start >= timeout) break;
    m_passport = m_endpoints.At(target.endpoint);
    last = ConnectTo(*m_passport, target.address);
    if (last == 0) {
      m_endpoints.Connected(target);
      return 0;
    }
    m_endpoints.Failed(target, platform::TickCountMs());
  }
  if (plan.targets.empty()) m_connection->SetState(Connection::StateClosed);
  return last;
}

void ProxyObject::HandOutClientTls() {
  for (size_t i = 0; i < m_endpoints.Size(); ++i) {
    if (const SmartPtr<SslPassport> ssl = SmartPtr<SslPassport>::DynamicCast(m_endpoints.At(i))) {
      ssl->SetClientContext(m_communicator->ClientTls());
    }
  }
}

bool ProxyObject::ServerLeftWhileIdle() {
  if (!AutoReconnect() || platform::TickCountMs() - m_idleSinceMs < kIdleCheckMs) return false;
  const SmartPtr<ITransceiver> transceiver = m_connection->GetTransceiver();
  if (!transceiver || !transceiver->PeerHasLeft()) return false;
  m_connection->SetState(Connection::StateClosed);
  return true;
}

uint32_t ProxyObject::ConnectTo(const IPassport& passport, const platform::SocketAddress& address) {
  // The passport reuses the transceiver the connection already has.
  SmartPtr<ITransceiver> transceiver = m_connection->GetTransceiver();
  if (passport.CreateClientTransceiver(transceiver, address) < 0) {
    const uint32_t e = LastErrorOr(Err::ConnectionClosed);
    m_connection->SetState(Connection::StateClosed);
    return e;
  }
  m_connection->SetTransceiver(transceiver);
  if (std::string failure; transceiver->Establish(failure) != 0) {
    const uint32_t e = LastErrorOr(Err::TlsHandshakeFailed);
    std::u16string endpoint;
    TraceLog::Write(u"ERROR: TLS handshake with server %s failed: %hs.\n", passport.toString(endpoint), failure.c_str());
    transceiver->Close();
    m_connection->SetState(Connection::StateClosed);
    return e;
  }
  m_connection->SetState(Connection::StateValidating);

  // A server that accepts but never validates must not hold the caller
  // past the time-out.
  if (const Transfer validated = m_connection->ReceiveValidation(Timeout()); validated.Failed()) {
    m_connection->SetState(Connection::StateClosed);
    return validated.Code();
  }
  m_connection->SetState(Connection::StateConnected);
  // Known to the communicator, the connection gets its close message when
  // the proxy goes or the runtime shuts down.
  m_communicator->RegisterConnection(m_connection);
  return 0;
}

void ProxyObject::BeginCall() {
  m_communicator->BeginCall();
  m_callLock.lock();
  m_perfmon.Reset();
}

void ProxyObject::EndCall() {
  if (AutoReconnect()) m_idleSinceMs = platform::TickCountMs();
  m_callLock.unlock();
  m_communicator->EndCall();
}

uint32_t ProxyObject::ReadyConnection(SmartPtr<Connection>& connection) {
  const uint32_t r = Setup();
  if (r == 0) connection = m_connection;
  return r;
}

uint32_t ProxyObject::ObjectIsA(const std::u16string& typeId, bool& result) {
  ProxyHelper call(this, ObjectIsAName(), TwoWay, ProxyHelper::NoBlob, BasicStream::lengthOf(typeId));
  try {
    if (const uint32_t r = call.PrepareIPC(); r != 0) return r;
    call.os()->write(typeId);
    if (const uint32_t r = call.InvokeIPC(); r != 0) return r;
    bool answer = false;
    call.is()->read(answer);
    const uint32_t r = call.FinishIPC();
    result = answer;
    return r;
  } catch (const TavixException& e) {
    return call.OnException(e);
  }
}

uint32_t ProxyObject::ObjectPing() {
  ProxyHelper call(this, ObjectPingName(), TwoWay, ProxyHelper::NoBlob, 0);
  try {
    if (const uint32_t r = call.PrepareIPC(); r != 0) return r;
    if (const uint32_t r = call.InvokeIPC(); r != 0) return r;
    return call.FinishIPC();
  } catch (const TavixException& e) {
    return call.OnException(e);
  }
}

uint32_t ProxyObject::SendBlobWithoutOutParam(const SmartPtr<ITavixBlob>& blob, bool oneway) {
  if (!blob) return Err::NullPointer;
  const uint64_t size = blob->Size();
  if (size < static_cast<uint64_t>(HEADER_SIZE) || size > static_cast<uint64_t>(MAX_MESSAGE_SIZE)) {
    return Err::IllegalSize;
  }
  ProxyHelper call(this, SendBlobName(), oneway ? OneWay : TwoWay, ProxyHelper::BlobAsRequest,
                   static_cast<int32_t>(size));
  try {
    if (const uint32_t r = call.PrepareIPC(); r != 0) return r;
    call.os()->writeBlob(blob);
    if (const uint32_t r = call.InvokeIPC(); r != 0 || oneway) return r;
    return call.FinishIPC();
  } catch (const TavixException& e) {
    return call.OnException(e);
  }
}

bool ParseProxyString(const std::u16string& text, std::u16string& objectName, EndpointSet& endpoints) {
  const size_t colon = text.find(u':');
  if (colon == std::u16string::npos || colon == 0) {
    TavixSetLastError(Err::BadProxyString);
    return false;
  }
  EndpointSet made;
  if (!EndpointSet::Parse(std::u16string_view(text).substr(colon + 1), made)) return false;
  // Port 0 means "any free port" only to a server.
  for (size_t i = 0; i < made.Size(); ++i) {
    const auto* ip = dynamic_cast<const IpPassport*>(made.At(i).get());
    if (ip != nullptr && ip->Port() == 0) {
      TavixSetLastError(Err::BadPassportString);
      return false;
    }
  }
  objectName = text.substr(0, colon);
  endpoints = std::move(made);
  return true;
}

bool ParseProxyString(const std::u16string& text, std::u16string& objectName, SmartPtr<IPassport>& passport) {
  EndpointSet endpoints;
  if (!ParseProxyString(text, objectName, endpoints)) return false;
  passport = endpoints.At(0);
  return true;
}

}  // namespace TAVIX
