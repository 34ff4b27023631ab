#include "tavix/platform/last_error.h"

#include <cerrno>
#include <cstring>

namespace TAVIX::platform {
namespace {
thread_local uint32_t t_lastError = 0;
}  // namespace

uint32_t LastError() noexcept { return t_lastError; }

void SetLastError(uint32_t code) noexcept { t_lastError = code; }

uint32_t SaveErrno() noexcept {
  t_lastError = static_cast<uint32_t>(errno);
  return t_lastError;
}

std::string ErrnoText(uint32_t code) {
  if (code > static_cast<uint32_t>(INT32_MAX)) return {};
  const int value = static_cast<int>(code);
  // strerror invents "Unknown error N" for codes it does not know; the name
  // table tells the known ones apart.
  if (strerrorname_np(value) == nullptr) return {};
  char buffer[256];
  return strerror_r(value, buffer, sizeof buffer);
}

}  // namespace TAVIX::platform
