#include "tavix/platform/signals.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>

#include "tavix/platform/last_error.h"

namespace TAVIX::platform {
namespace {

static_assert(SIGHUP == kReloadSignal);

sigset_t TerminationSignals(bool withReload = false) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  if (withReload) sigaddset(&set, SIGHUP);
  return set;
}

int32_t WaitFor(const sigset_t& set) {
  int signal = 0;
  const int rc = sigwait(&set, &signal);
  if (rc != 0) {
    SetLastError(static_cast<uint32_t>(rc));
    return -1;
  }
  return signal;
}

}  // namespace

bool BlockTerminationSignals() {
  const sigset_t set = TerminationSignals(true);
  const int rc = pthread_sigmask(SIG_BLOCK, &set, nullptr);
  if (rc != 0) {
    SetLastError(static_cast<uint32_t>(rc));
    return false;
  }
  return true;
}

int32_t WaitForTerminationSignal() { return WaitFor(TerminationSignals()); }

int32_t WaitForTerminationOrReload() { return WaitFor(TerminationSignals(true)); }

}  // namespace TAVIX::platform
