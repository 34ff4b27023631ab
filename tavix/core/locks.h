// The library's four locks: RecLock (recursive mutual exclusion), SpinLock
// (short busy-wait), RWRecLock (readers/writer, writers first) and
// SingleThreadLock (does nothing), plus a scoped holder for any of them.
#ifndef TAVIX_CORE_LOCKS_H_
#define TAVIX_CORE_LOCKS_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <semaphore>

namespace TAVIX {

class RecLock {
 public:
  struct LockState {
    int32_t depth = 0;
  };

  RecLock() = default;
  RecLock(const RecLock&) = delete;
  RecLock& operator=(const RecLock&) = delete;

  void lock();
  bool tryLock();
  void unlock();
  // True when the next unlock frees the lock.
  bool willUnlock() const { return m_depth == 1; }

  // Releases the lock completely and takes it back at the saved depth, so a
  // holder can wait without keeping others out.
  void unlock(LockState& state);
  void lock(LockState& state);

 private:
  // Recursive, like the critical section it stands for, but only ever held
  // once by its owner: the depth counts the nesting instead.
  std::recursive_mutex m_mutex;
  int32_t m_depth = 0;
};

class SpinLock {
 public:
  struct LockState {};

  SpinLock();
  SpinLock(const SpinLock&) = delete;
  SpinLock& operator=(const SpinLock&) = delete;

  // The free lock is taken here, inline; only a held one costs a call.
  void lock() {
    if (!tryLock()) lockContended();
  }
  bool tryLock() {
    int32_t expected = 0;
    return m_word.compare_exchange_strong(expected, 1, std::memory_order_acquire);
  }
  void unlock() { m_word.store(0, std::memory_order_release); }
  bool willUnlock() const { return true; }

  // Processor count, read from the platform once per process.
  static std::atomic<int32_t> m_numberOfCPU;

 private:
  void lock(LockState&) { lock(); }
  void unlock(LockState&) { unlock(); }
  static int32_t numberOfCPU();
  void lockContended();

  std::atomic<int32_t> m_word{0};
};

// Readers share the lock, a writer holds it alone, and a waiting writer
// keeps new readers out. Not recursive for writers; a reader that reads
// again while a writer waits blocks.
class RWRecLock {
 public:
  RWRecLock() = default;
  RWRecLock(const RWRecLock&) = delete;
  RWRecLock& operator=(const RWRecLock&) = delete;

  void readLock();
  void writeLock();
  void unlock();
  // Never take anything: a caller that must not block has no way in.
  bool tryReadLock() { return false; }
  bool tryWriteLock() { return false; }

 private:
  static constexpr std::ptrdiff_t kMaxWaiters = 0x7FFFFFFF;

  std::mutex m_mutex;
  std::counting_semaphore<kMaxWaiters> m_readers{0};
  std::counting_semaphore<kMaxWaiters> m_writers{0};
  int32_t m_waitingReaders = 0;
  int32_t m_waitingWriters = 0;
  int32_t m_holders = 0;  // n readers, or -1 for the writer
};

class SingleThreadLock {
 public:
  void lock() {}
  void unlock() {}
  bool tryLock() { return true; }
  bool willUnlock() { return true; }
};

// Holds a RecLock, SpinLock or SingleThreadLock for one scope.
template <class Lock>
class ScopedLock {
 public:
  explicit ScopedLock(Lock& lock) : m_lock(lock) { m_lock.lock(); }
  ~ScopedLock() { m_lock.unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Lock& m_lock;
};

class ReadGuard {
 public:
  explicit ReadGuard(RWRecLock& lock) : m_lock(lock) { m_lock.readLock(); }
  ~ReadGuard() { m_lock.unlock(); }
  ReadGuard(const ReadGuard&) = delete;
  ReadGuard& operator=(const ReadGuard&) = delete;

 private:
  RWRecLock& m_lock;
};

class WriteGuard {
 public:
  explicit WriteGuard(RWRecLock& lock) : m_lock(lock) { m_lock.writeLock(); }
  ~WriteGuard() { m_lock.unlock(); }
  WriteGuard(const WriteGuard&) = delete;
  WriteGuard& operator=(const WriteGuard&) = delete;

 private:
  RWRecLock& m_lock;
};

}  // namespace TAVIX

#endif  // TAVIX_CORE_LOCKS_H_
