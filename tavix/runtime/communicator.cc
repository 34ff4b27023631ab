#include "tavix/runtime/communicator.h"

#include <utility>

#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/process.h"

namespace TAVIX {

SmartPtr<Communicator> Initialize(std::u16string /*name*/) { return MakeShared<Communicator>(); }

Communicator::Communicator() = default;

// A communicator that was only told to shut down still waits as it goes:
// otherwise its adapters and their factories would keep each other alive.
Communicator::~Communicator() {
  if (!m_waited.load()) WaitForShutdown();
}

SmartPtr<ObjectAdapter> Communicator::CreateObjectAdapter(const std::u16string& name) {
  if (IsShutdown()) {
    TavixSetLastError(Err::CommunicatorClosed);
    return nullptr;
  }
  SmartPtr<ObjectAdapter> adapter = MakeShared<ObjectAdapter>();
  {
    ScopedLock guard(m_tlsLock);
    adapter->InheritTls(m_serverTls);
  }
  ScopedLock guard(m_adaptersLock);
  if (!m_adapters.emplace(name, adapter).second) {
    TavixSetLastError(Err::AdapterNameExists);
    return nullptr;
  }
  return adapter;
}

SmartPtr<ObjectAdapter> Communicator::CreateObjectAdapter(const std::string& name) {
  return CreateObjectAdapter(WiddenString(name));
}

uint32_t Communicator::SetTlsSettings(const TlsSettings& settings) {
  std::shared_ptr<const TlsContext> client, server;
  if (const uint32_t r = TlsContext::Make(settings, TlsContext::Role::kClient, client); r != 0) return r;
  const bool canServe = !settings.certificateChainFile.empty() || !settings.privateKeyFile.empty();
  if (canServe) {
    if (const uint32_t r = TlsContext::Make(settings, TlsContext::Role::kServer, server); r != 0) return r;
  }
  {
    ScopedLock guard(m_tlsLock);
    m_clientTls = client;
    m_serverTls = server;
  }
  for (auto& [name, adapter] : Adapters()) adapter->InheritTls(server);
  return 0;
}

std::shared_ptr<const TlsContext> Communicator::ClientTls() const {
  ScopedLock guard(m_tlsLock);
  return m_clientTls;
}

void Communicator::Shutdown() {
  if (m_shutdownFlag.exchange(true)) return;
  for (auto& [name, adapter] : Adapters()) adapter->Destroy();
}

std::map<std::u16string, SmartPtr<ObjectAdapter>> Communicator::Adapters() {
  ScopedLock guard(m_adaptersLock);
  return m_adapters;
}

void Communicator::Close(const SmartPtr<Connection>& connection) {
  connection->SendCloseMsg();
  connection->SetState(Connection::StateClosed);
}

void Communicator::WaitForShutdown() {
  if (!IsShutdown()) Shutdown();

  for (int32_t round = 0; round < kCallWaitRounds; ++round) {
    if (m_activeCalls.load() == 0) break;
    platform::SleepMs(kCallWaitStepMs);
  }

  std::set<SmartPtr<Connection>> connections;
  {
    ScopedLock guard(m_connectionsLock);
    connections.swap(m_clientConnections);
  }
  for (const SmartPtr<Connection>& connection : connections) Close(connection);

  // Waited for from a copy, so that a second waiter waits too; released
  // after the lock: their destructors may run application code (servant
  // destructors).
  const std::map<std::u16string, SmartPtr<ObjectAdapter>> adapters = Adapters();
  const uint64_t deadline = platform::TickCountMs() + m_graceMs.load();
  for (const auto& [name, adapter] : adapters) adapter->WaitUntilDestroy(deadline);
  std::map<std::u16string, SmartPtr<ObjectAdapter>> released;
  {
    ScopedLock guard(m_adaptersLock);
    released.swap(m_adapters);
  }
  m_waited.store(true);
}

void Communicator::Destroy() {
  if (IsShutdown()) return;
  Shutdown();
  WaitForShutdown();
}

void Communicator::RegisterConnection(const SmartPtr<Connection>& connection) {
  if (!connection) return;
  ScopedLock guard(m_connectionsLock);
  m_clientConnections.insert(connection);
}

void Communicator::Finish(const SmartPtr<Connection>& connection) {
  {
    ScopedLock guard(m_connectionsLock);
    if (m_clientConnections.erase(connection) == 0) return;
  }
  Close(connection);
}

void Communicator::EndCall() {
  // Two callers may both see 1; the counter still never goes below 0
  // because the decrement itself refuses to.
  int32_t current = m_activeCalls.fetch_add(0);
  while (current >= 1 && !m_activeCalls.compare_exchange_weak(current, current - 1)) {
  }
}

}  // namespace TAVIX
