#include "tavix/platform/process.h"

#include <dlfcn.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <thread>

#include "tavix/platform/last_error.h"

namespace TAVIX::platform {

uint32_t ProcessId() noexcept { return static_cast<uint32_t>(getpid()); }

uint32_t ThreadId() noexcept { return static_cast<uint32_t>(gettid()); }

int32_t NumberOfProcessors() noexcept {
  const auto n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<int32_t>(n) : 1;
}

std::string ExecutablePath() {
  char buffer[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof buffer) {
    SaveErrno();
    return {};
  }
  return std::string(buffer, static_cast<size_t>(n));
}

std::string LibraryPath() {
  Dl_info info{};
  // Any address inside this library names its file.
  if (dladdr(reinterpret_cast<const void*>(&LibraryPath), &info) == 0 ||
      info.dli_fname == nullptr) {
    return {};
  }
  std::string path = info.dli_fname;
  if (!path.empty() && path.front() != '/') {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) != nullptr) path = resolved;
  }
  return path;
}

bool YieldProcessor() noexcept {
  sched_yield();
  return true;
}

void SleepMs(uint32_t milliseconds) noexcept {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace TAVIX::platform
