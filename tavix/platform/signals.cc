#include "tavix/platform/signals.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>

#include "tavix/platform/last_error.h"

namespace TAVIX::platform {
namespace {

sigset_t TerminationSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

bool BlockTerminationSignals() {
  const sigset_t set = TerminationSignals();
  const int rc = pthread_sigmask(SIG_BLOCK, &set, nullptr);
  if (rc != 0) {
    SetLastError(static_cast<uint32_t>(rc));
    return false;
  }
  return true;
}

int32_t WaitForTerminationSignal() {
  const sigset_t set = TerminationSignals();
  int signal = 0;
  const int rc = sigwait(&set, &signal);
  if (rc != 0) {
    SetLastError(static_cast<uint32_t>(rc));
    return -1;
  }
  return signal;
}

}  // namespace TAVIX::platform
