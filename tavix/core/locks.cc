#include "tavix/core/locks.h"

#include "tavix/platform/process.h"

namespace TAVIX {

void RecLock::lock() {
  m_mutex.lock();
  if (++m_depth > 1) m_mutex.unlock();
}

bool RecLock::tryLock() {
  if (!m_mutex.try_lock()) return false;
  if (++m_depth >= 2) m_mutex.unlock();
  return true;
}

void RecLock::unlock() {
  if (m_depth-- == 1) m_mutex.unlock();
}

void RecLock::unlock(LockState& state) {
  state.depth = m_depth;
  m_depth = 0;
  m_mutex.unlock();
}

void RecLock::lock(LockState& state) {
  m_mutex.lock();
  m_depth = state.depth;
}

std::atomic<int32_t> SpinLock::m_numberOfCPU{0};

SpinLock::SpinLock() {
  if (m_numberOfCPU.load(std::memory_order_relaxed) == 0) {
    m_numberOfCPU.store(numberOfCPU(), std::memory_order_relaxed);
  }
}

int32_t SpinLock::numberOfCPU() { return platform::NumberOfProcessors(); }

void SpinLock::lockContended() {
  if (m_numberOfCPU.load(std::memory_order_relaxed) == 1) {
    // Spinning on one processor only delays the holder.
    while (!tryLock()) platform::YieldProcessor();
    return;
  }
  for (;;) {
    for (int i = 0; i < 500; ++i) {
      if (tryLock()) return;
    }
    if (!platform::YieldProcessor()) platform::SleepMs(1);
    if (tryLock()) return;
  }
}

void RWRecLock::readLock() {
  std::unique_lock guard(m_mutex);
  if (m_waitingWriters == 0 && m_holders >= 0) {
    ++m_holders;
    return;
  }
  ++m_waitingReaders;
  guard.unlock();
  // The unlocking thread counts this reader as a holder before it wakes us.
  m_readers.acquire();
}

void RWRecLock::writeLock() {
  std::unique_lock guard(m_mutex);
  if (m_holders == 0) {
    m_holders = -1;
    return;
  }
  ++m_waitingWriters;
  guard.unlock();
  m_writers.acquire();
}

void RWRecLock::unlock() {
  int32_t wakeReaders = 0;
  bool wakeWriter = false;
  {
    std::lock_guard guard(m_mutex);
    if (m_holders > 0) {
      --m_holders;
    } else {
      ++m_holders;
    }
    if (m_holders == 0) {
      if (m_waitingWriters > 0) {
        m_holders = -1;
        --m_waitingWriters;
        wakeWriter = true;
      } else if (m_waitingReaders > 0) {
        m_holders = m_waitingReaders;
        wakeReaders = m_waitingReaders;
        m_waitingReaders = 0;
      }
    }
  }
  if (wakeWriter) m_writers.release();
  if (wakeReaders > 0) m_readers.release(wakeReaders);
}

}  // namespace TAVIX
