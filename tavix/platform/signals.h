// Waiting for the process's termination signals in an ordinary thread. The
// library never changes signal dispositions; a program that wants to end
// cleanly on SIGINT or SIGTERM blocks them first thing in main, before any
// thread starts (threads inherit the mask), and later takes them here.
#ifndef TAVIX_PLATFORM_SIGNALS_H_
#define TAVIX_PLATFORM_SIGNALS_H_

#include <cstdint>

namespace TAVIX::platform {

// Blocks SIGINT and SIGTERM (and SIGHUP, the usual "reload" request) in
// the calling thread; false (last error set) on failure.
bool BlockTerminationSignals();
// Waits until SIGINT or SIGTERM is pending and takes it; returns its
// number, or -1 (last error set) on failure.
int32_t WaitForTerminationSignal();
// As WaitForTerminationSignal, but SIGHUP also ends the wait (kReloadSignal).
int32_t WaitForTerminationOrReload();
inline constexpr int32_t kReloadSignal = 1;

}  // namespace TAVIX::platform

#endif  // TAVIX_PLATFORM_SIGNALS_H_
