// A POSIX thread handle. The owner either joins the thread or, when the
// handle goes, lets it run on detached.
#ifndef TAVIX_PLATFORM_NATIVE_THREAD_H_
#define TAVIX_PLATFORM_NATIVE_THREAD_H_

#include <pthread.h>

#include <cstdint>

namespace TAVIX::platform {

inline constexpr uint32_t kInfinite = 0xFFFFFFFF;

class NativeThread {
 public:
  using Procedure = void (*)(void* argument);

  NativeThread() = default;
  ~NativeThread();
  NativeThread(const NativeThread&) = delete;
  NativeThread& operator=(const NativeThread&) = delete;

  // False (last error set) when the thread could not be created.
  bool Create(Procedure procedure, void* argument, uint32_t stackSize);
  bool Valid() const noexcept { return m_valid; }

  // 1 when the thread has ended and was joined, 0 when the time-out passed,
  // -1 on failure.
  int Join(uint32_t timeoutMs);
  // Cancels the thread at its next cancellation point and reaps it. Unsafe:
  // locks it holds stay held. Never used on an infinite wait.
  void Cancel();
  // Lets the thread run on without an owner.
  void Detach();

 private:
  pthread_t m_thread{};
  bool m_valid = false;
};

}  // namespace TAVIX::platform

#endif  // TAVIX_PLATFORM_NATIVE_THREAD_H_
