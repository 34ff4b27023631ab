#include "tavix/platform/native_thread.h"

#include <cerrno>
#include <ctime>

#include "tavix/platform/last_error.h"

namespace TAVIX::platform {
namespace {

struct Start {
  NativeThread::Procedure procedure;
  void* argument;
};

void* Trampoline(void* raw) {
  const Start start = *static_cast<Start*>(raw);
  delete static_cast<Start*>(raw);
  start.procedure(start.argument);
  return nullptr;
}

}  // namespace

NativeThread::~NativeThread() { Detach(); }

bool NativeThread::Create(Procedure procedure, void* argument, uint32_t stackSize) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (stackSize != 0) pthread_attr_setstacksize(&attributes, stackSize);
  auto* start = new Start{procedure, argument};
  const int rc = pthread_create(&m_thread, &attributes, &Trampoline, start);
  pthread_attr_destroy(&attributes);
  if (rc != 0) {
    delete start;
    SetLastError(static_cast<uint32_t>(rc));
    return false;
  }
  m_valid = true;
  return true;
}

int NativeThread::Join(uint32_t timeoutMs) {
  if (!m_valid) return -1;
  int rc = 0;
  if (timeoutMs == kInfinite) {
    rc = pthread_join(m_thread, nullptr);
  } else {
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += static_cast<decltype(deadline.tv_nsec)>(timeoutMs % 1000) * 1000000;
    if (deadline.tv_nsec >= 1000000000L) {
      deadline.tv_sec += 1;
      deadline.tv_nsec -= 1000000000L;
    }
    rc = pthread_timedjoin_np(m_thread, nullptr, &deadline);
    if (rc == ETIMEDOUT) return 0;
  }
  if (rc != 0) {
    SetLastError(static_cast<uint32_t>(rc));
    return -1;
  }
  m_valid = false;
  return 1;
}

void NativeThread::Cancel() {
  if (!m_valid) return;
  pthread_cancel(m_thread);
  pthread_join(m_thread, nullptr);
  m_valid = false;
}

void NativeThread::Detach() {
  if (!m_valid) return;
  pthread_detach(m_thread);
  m_valid = false;
}

}  // namespace TAVIX::platform
