#include "tavix/adapter/object_adapter.h"

#include <utility>

#include "tavix/adapter/tcp_connection_factory.h"
#include "tavix/adapter/udp_connection_factory.h"
#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/core/trace_log.h"
#include "tavix/invoke/connection_factory.h"
#include "tavix/platform/process.h"
#include "tavix/transport/passport.h"

namespace TAVIX {
namespace {

// WaitUntilDeactivate polls the invocation counter this often, this many
// times (about 61 s in all).
constexpr uint32_t kDeactivatePollMs = 500;
constexpr int32_t kDeactivatePolls = 122;

}  // namespace

// ---- ServantManager ----

bool ServantManager::Add(const SmartPtr<Object>& servant, const std::u16string& id) {
  WriteGuard guard(m_lock);
  if (!m_servants.emplace(id, servant).second) {
    TavixSetLastError(Err::ObjectExists);
    return false;
  }
  m_version.fetch_add(1, std::memory_order_release);
  return true;
}

bool ServantManager::Remove(const std::u16string& id) {
  SmartPtr<Object> removed;  // released after the lock: its destructor is application code
  WriteGuard guard(m_lock);
  const auto it = m_servants.find(id);
  if (it == m_servants.end()) {
    TavixSetLastError(Err::ObjectNotFound);
    return false;
  }
  removed = std::move(it->second);
  m_servants.erase(it);
  m_version.fetch_add(1, std::memory_order_release);
  return true;
}

SmartPtr<Object> ServantManager::Find(const std::u16string& id) {
  ReadGuard guard(m_lock);
  const auto it = m_servants.find(id);
  if (it == m_servants.end()) {
    TavixSetLastError(Err::ObjectNotFound);
    return nullptr;
  }
  return it->second;
}

// ---- ObjectAdapter ----

ObjectAdapter::ObjectAdapter() = default;
ObjectAdapter::~ObjectAdapter() = default;

bool ObjectAdapter::AddServant(const SmartPtr<Object>& servant, const std::u16string& id) {
  return m_servants.Add(servant, id);
}

bool ObjectAdapter::AddServant(const SmartPtr<Object>& servant, const std::string& id) {
  return AddServant(servant, WiddenString(id));
}

bool ObjectAdapter::RemoveServant(const std::u16string& id) { return m_servants.Remove(id); }

bool ObjectAdapter::RemoveServant(const std::string& id) { return RemoveServant(WiddenString(id)); }

SmartPtr<Object> ObjectAdapter::FindServant(const std::u16string& id) { return m_servants.Find(id); }

uint32_t ObjectAdapter::SetTlsSettings(const TlsSettings& settings) {
  std::shared_ptr<const TlsContext> context;
  if (const uint32_t r = TlsContext::Make(settings, TlsContext::Role::kServer, context); r != 0) return r;
  m_ownTls.store(true);
  m_tlsSlot->Set(std::move(context));
  return 0;
}

uint32_t ObjectAdapter::ReloadTls() {
  const std::shared_ptr<const TlsContext> current = m_tlsSlot->Get();
  std::shared_ptr<const TlsContext> fresh;
  const uint32_t r = current ? TlsContext::Make(current->Settings(), TlsContext::Role::kServer, fresh)
                             : Err::TlsNotConfigured;
  if (r != 0) {
    std::string text;
    GetErrMsg(r, text);
    TraceLog::Write(u"ERROR: TLS reload failed: 0x%08X %hs The settings in use stay.\n", r, text.c_str());
    TavixSetLastError(r);
    return r;
  }
  m_tlsSlot->Set(std::move(fresh));
  return 0;
}

void ObjectAdapter::InheritTls(std::shared_ptr<const TlsContext> context) {
  if (!m_ownTls.load()) m_tlsSlot->Set(std::move(context));
}

SmartPtr<IPassport> ObjectAdapter::AddPassport(const std::u16string& endpoint) {
  SmartPtr<IPassport> passport = PassportFactory().Create(endpoint);
  if (passport && passport->Type() == PASSPORT_UDP && m_refuseUdp.load()) {
    TavixSetLastError(Err::UdpRefused);
    return nullptr;
  }
  if (const SmartPtr<SslPassport> ssl = SmartPtr<SslPassport>::DynamicCast(passport)) ssl->SetServerContexts(m_tlsSlot);
  if (!passport) return nullptr;

  // One hold of the lock from the scan to the insert: two calls for one
  // resource cannot both pass the scan.
  ScopedLock guard(m_passportLock);
  if (ConflictsLocked(*passport)) {
    TavixSetLastError(Err::PassportConflict);
    return nullptr;
  }
  SmartPtr<IConnectionFactory> factory = MakeFactory(passport);
  if (GetStatus() != ADAPTER_INACTIVE && !factory->Activate()) {
    // Dropping the factory must not disturb the error activation left.
    EnsureLastError keep;
    factory = nullptr;
    return nullptr;
  }
  m_passports.emplace(passport, factory);
  return passport;
}

SmartPtr<IConnectionFactory> ObjectAdapter::MakeFactory(const SmartPtr<IPassport>& passport) {
  if (passport->Type() == PASSPORT_TCP || passport->Type() == PASSPORT_SSL) {
    return MakeShared<TcpConnectionFactory>(passport, SmartPtr<ObjectAdapter>(this));
  }
  return MakeShared<UdpConnectionFactory>(passport, SmartPtr<ObjectAdapter>(this));
}

bool ObjectAdapter::ConflictsLocked(const IPassport& passport) const {
  for (const auto& [registered, factory] : m_passports) {
    if (factory->GetPassport()->Conflict(passport)) return true;
  }
  return false;
}

ObjectAdapter::PassportTable ObjectAdapter::Passports() {
  ScopedLock guard(m_passportLock);
  return m_passports;
}

SmartPtr<IPassport> ObjectAdapter::AddPassport(const std::string& endpoint) {
  return AddPassport(WiddenString(endpoint));
}

bool ObjectAdapter::RemovePassport(const SmartPtr<IPassport>& passport) {
  SmartPtr<IConnectionFactory> factory;
  {
    ScopedLock guard(m_passportLock);
    const auto it = m_passports.find(passport);
    if (it == m_passports.end()) return true;
    factory = it->second;
  }
  factory->Destroy();
  factory->WaitUntilDestroy(platform::kNoDeadline);
  ScopedLock guard(m_passportLock);
  m_passports.erase(passport);
  return true;
}

bool ObjectAdapter::Activate() {
  SetStatus(ADAPTER_ACTIVE);
  ScopedLock guard(m_passportLock);
  for (const auto& [passport, factory] : m_passports) {
    if (factory->Activate()) continue;
    const uint32_t error = TavixGetLastError();
    std::u16string printed;
    TraceLog::Write(u"ERROR: Endpoint %s is not listening: %d,%s\n", passport->toString(printed), error,
                    ErrorText(error));
  }
  return true;
}

std::vector<SmartPtr<IPassport>> ObjectAdapter::NotListening() {
  std::vector<SmartPtr<IPassport>> idle;
  ScopedLock guard(m_passportLock);
  for (const auto& [passport, factory] : m_passports) {
    if (!factory->IsActive()) idle.push_back(passport);
  }
  return idle;
}

bool ObjectAdapter::Deactivate() {
  SetStatus(ADAPTER_INACTIVE);
  return true;
}

bool ObjectAdapter::Destroy() {
  SetStatus(ADAPTER_DESTROYING);
  ScopedLock guard(m_passportLock);
  for (const auto& [passport, factory] : m_passports) factory->Destroy();
  return true;
}

void ObjectAdapter::WaitUntilDeactivate() {
  for (int32_t polls = 0; polls < kDeactivatePolls && m_invocations.load() != 0; ++polls) {
    platform::SleepMs(kDeactivatePollMs);
  }
}

void ObjectAdapter::WaitUntilDestroy(uint64_t deadlineTick) {
  // Waited for from a copy: the lock is not held while threads are joined.
  const PassportTable waited = Passports();
  for (const auto& [passport, factory] : waited) factory->WaitUntilDestroy(deadlineTick);
  {
    ScopedLock guard(m_passportLock);
    for (const auto& [passport, factory] : waited) m_passports.erase(passport);
  }
  // The factories (and with them their hold on this adapter) go with
  // `waited`, after the lock.
}

ObjectAdapterStatus ObjectAdapter::GetStatus() { return m_status.load(); }

void ObjectAdapter::SetStatus(ObjectAdapterStatus status) { m_status.store(status); }

bool ObjectAdapter::RegisterDisconnectNotification(DisconnectCallback callback, void* context) {
  ScopedLock guard(m_callbackLock);
  m_callback = callback;
  m_callbackContext = context;
  return true;
}

void ObjectAdapter::DisconnectNotify(TavixDisconnectReason reason) {
  DisconnectCallback callback = nullptr;
  void* context = nullptr;
  {
    ScopedLock guard(m_callbackLock);
    callback = m_callback;
    context = m_callbackContext;
  }
  if (callback != nullptr) callback(context, reason);
}

bool ObjectAdapter::GetProxyString(const std::u16string& id, std::vector<std::u16string>& proxies) {
  if (!FindServant(id)) return false;
  ScopedLock guard(m_passportLock);
  std::u16string printed;
  for (const auto& [passport, factory] : m_passports) {
    proxies.push_back(id + u":" + passport->toString(printed));
  }
  return true;
}

bool ObjectAdapter::GetProxyString(const std::string& id, std::vector<std::string>& proxies) {
  if (!FindServant(WiddenString(id))) return false;
  ScopedLock guard(m_passportLock);
  std::string printed;
  for (const auto& [passport, factory] : m_passports) {
    proxies.push_back(id + ":" + passport->toString(printed));
  }
  return true;
}

bool ObjectAdapter::GetProxyStringOfAll(const std::u16string& id, std::u16string& proxy) {
  if (!FindServant(id)) return false;
  ScopedLock guard(m_passportLock);
  std::u16string text = id, printed;
  for (const auto& [passport, factory] : m_passports) text += u":" + passport->toString(printed);
  proxy = std::move(text);
  return true;
}

bool ObjectAdapter::GetProxyStringOfAll(const std::string& id, std::string& proxy) {
  std::u16string wide;
  if (!GetProxyStringOfAll(WiddenString(id), wide)) return false;
  proxy = NarrowString(wide);
  return true;
}

void ObjectAdapter::DecrementInvocations() {
  int32_t current = m_invocations.load();
  while (current >= 1 && !m_invocations.compare_exchange_weak(current, current - 1)) {
  }
}

void ObjectAdapter::SetLimits(const ConnectionLimits& limits) {
  m_maxConnections.store(limits.maxConnections);
  m_bodyTimeoutMs.store(limits.bodyTimeoutMs);
}

ConnectionLimits ObjectAdapter::GetLimits() { return {m_maxConnections.load(), m_bodyTimeoutMs.load()}; }

bool ObjectAdapter::AdmitConnection() {
  int32_t live = m_connections.load();
  do {
    if (live >= m_maxConnections.load()) return false;
  } while (!m_connections.compare_exchange_weak(live, live + 1));
  return true;
}

void ObjectAdapter::ReleaseConnection() { m_connections.fetch_sub(1); }

}  // namespace TAVIX
