#include "tavix/platform/clock.h"

#include <time.h>

namespace TAVIX::platform {
namespace {
// Seconds from 1601-01-01 to 1970-01-01.
constexpr uint64_t kEpochDifference = 11644473600ULL;
}  // namespace

FILETIME SystemTimeAsFileTime() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return (static_cast<uint64_t>(ts.tv_sec) + kEpochDifference) * 10000000ULL +
         static_cast<uint64_t>(ts.tv_nsec) / 100;
}

LocalTime LocalTimeNow() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  tm parts{};
  localtime_r(&ts.tv_sec, &parts);
  return {parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
          parts.tm_min,         parts.tm_sec,     static_cast<int32_t>(ts.tv_nsec / 1000000)};
}

uint64_t TickCountMs() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

}  // namespace TAVIX::platform
