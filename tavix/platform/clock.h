// Wall-clock and monotonic time.
#ifndef TAVIX_PLATFORM_CLOCK_H_
#define TAVIX_PLATFORM_CLOCK_H_

#include <cstdint>

namespace TAVIX {

// 100 ns units since 1601-01-01 UTC.
using FILETIME = uint64_t;

namespace platform {

FILETIME SystemTimeAsFileTime() noexcept;

struct LocalTime {
  int32_t year, month, day, hour, minute, second, millisecond;
};
LocalTime LocalTimeNow() noexcept;

// Milliseconds of the monotonic clock.
uint64_t TickCountMs() noexcept;
// A deadline in TickCountMs terms that never comes.
inline constexpr uint64_t kNoDeadline = UINT64_MAX;

}  // namespace platform
}  // namespace TAVIX

#endif  // TAVIX_PLATFORM_CLOCK_H_
