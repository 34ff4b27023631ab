// Base of the library's own threads: one virtual body on a platform thread,
// started and joined under a state lock.
#ifndef TAVIX_CORE_THREAD_H_
#define TAVIX_CORE_THREAD_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "tavix/core/locks.h"
#include "tavix/core/shared.h"

namespace TAVIX {

namespace platform {
class NativeThread;
}

inline constexpr uint32_t INFINITE_WAIT = 0xFFFFFFFF;

class Thread : public virtual Shared {
 public:
  Thread();
  ~Thread() override;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Returns once the new thread has begun to run. Starting a started thread
  // does nothing and succeeds. The flags and security attributes have no
  // meaning here and must be 0 and null.
  bool Start(uint32_t flags = 0, uint32_t stackSize = 0, void* security = nullptr);

  // 1 when the thread has ended (or was never started), 0 when the time-out
  // passed, -1 on failure. Terminating on time-out cancels the thread, which
  // is unsafe; the library never does so on an infinite wait.
  int Join(uint32_t timeoutMs = INFINITE_WAIT, bool terminateOnTimeout = true);

  // The kernel id of the running thread, 0 when there is none.
  uint32_t ThreadId() const;

 protected:
  virtual uint32_t Run() = 0;

 private:
  static void Procedure(void* self);

  std::unique_ptr<platform::NativeThread> m_handle;  // guarded by m_stateLock
  uint32_t m_threadId = 0;                           // guarded by m_stateLock
  bool m_started = false;                            // guarded by m_stateLock
  mutable RecLock m_stateLock;
  // Held across a join: pthreads allow one join per thread, so joiners
  // take turns.
  std::mutex m_joinLock;
  std::atomic<int32_t> m_startPending{0};
  std::atomic<bool> m_ended{false};
  std::atomic<uint32_t> m_runningId{0};
};

}  // namespace TAVIX

#endif  // TAVIX_CORE_THREAD_H_
