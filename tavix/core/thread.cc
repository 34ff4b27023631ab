#include "tavix/core/thread.h"

#include "tavix/platform/fault_signals.h"
#include "tavix/platform/native_thread.h"
#include "tavix/platform/process.h"

namespace TAVIX {

Thread::Thread() = default;

Thread::~Thread() {
  ScopedLock guard(m_stateLock);
  // The thread itself is neither waited for nor stopped; its handle goes.
  m_handle.reset();
}

bool Thread::Start(uint32_t /*flags*/, uint32_t stackSize, void* /*security*/) {
  ScopedLock guard(m_stateLock);
  if (m_started) return true;
  m_startPending.store(1);
  m_ended.store(false);
  auto handle = std::make_unique<platform::NativeThread>();
  if (!handle->Create(&Thread::Procedure, this, stackSize)) {
    m_startPending.store(0);
    return false;
  }
  m_handle = std::move(handle);
  do {
    platform::YieldProcessor();
  } while (m_startPending.load() != 0);
  m_threadId = m_runningId.load();
  m_started = true;
  return true;
}

void Thread::Procedure(void* raw) {
  // Room to report a fault even when this thread's stack has overflowed.
  const platform::AltSignalStack signalStack;
  auto* self = static_cast<Thread*>(raw);
  self->m_runningId.store(platform::ThreadId());
  self->m_startPending.fetch_sub(1);
  self->Run();
  self->m_ended.store(true);
}

int Thread::Join(uint32_t timeoutMs, bool terminateOnTimeout) {
  // Held across the join on purpose: a POSIX thread can be joined once, so
  // joiners take turns, and the one after finds the thread joined.
  std::lock_guard joinGuard(m_joinLock);
  platform::NativeThread* handle = nullptr;
  {
    ScopedLock guard(m_stateLock);
    if (!m_started) return 1;
    if (!m_handle) return -1;
    handle = m_handle.get();
  }
  int result = -1;
  const bool ended = m_ended.load();
  const int rc = handle->Join(ended ? INFINITE_WAIT : timeoutMs);
  if (rc == 1) {
    result = 1;
  } else if (rc == 0 && !terminateOnTimeout) {
    return 0;
  } else if (rc == 0) {
    handle->Cancel();
    result = 0;
  }
  ScopedLock guard(m_stateLock);
  if (!m_started) return 1;
  m_handle.reset();
  m_threadId = 0;
  m_started = false;
  return result;
}

uint32_t Thread::ThreadId() const {
  ScopedLock guard(m_stateLock);
  return m_threadId;
}

}  // namespace TAVIX
