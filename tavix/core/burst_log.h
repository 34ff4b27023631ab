// A log line for events that can come in floods (refused clients, failing
// accepts): the first event of a burst is logged at once; the ones that
// follow within the quiet interval are counted and reported with the next
// line, so a flood costs one line a second instead of one per event.
#ifndef TAVIX_CORE_BURST_LOG_H_
#define TAVIX_CORE_BURST_LOG_H_

#include <cstdint>

#include "tavix/core/locks.h"

namespace TAVIX {

class BurstLog {
 public:
  explicit BurstLog(uint32_t quietMs = 1000) : m_quietMs(quietMs) {}
  BurstLog(const BurstLog&) = delete;
  BurstLog& operator=(const BurstLog&) = delete;

  // True when this event is to be logged now; `held` is then the number of
  // events counted but not logged since the last line.
  bool Admit(int32_t& held);

 private:
  uint32_t m_quietMs;
  SpinLock m_lock;
  uint64_t m_lastLine = 0;  // guarded by m_lock
  bool m_logged = false;    // guarded by m_lock
  int32_t m_held = 0;       // guarded by m_lock
};

}  // namespace TAVIX

#endif  // TAVIX_CORE_BURST_LOG_H_
