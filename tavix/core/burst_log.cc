#include "tavix/core/burst_log.h"

#include "tavix/platform/clock.h"

namespace TAVIX {

bool BurstLog::Admit(int32_t& held) {
  const uint64_t now = platform::TickCountMs();
  ScopedLock guard(m_lock);
  if (m_logged && now - m_lastLine < m_quietMs) {
    ++m_held;
    return false;
  }
  held = m_held;
  m_held = 0;
  m_logged = true;
  m_lastLine = now;
  return true;
}

}  // namespace TAVIX
