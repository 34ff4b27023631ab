#include "tavix/core/host_info.h"

#include <cstdint>

#include "tavix/core/text.h"
#include "tavix/platform/net.h"

namespace TAVIX {

HostInfo::HostInfo() {
  char name[32];
  if (!platform::LocalHostName(name, sizeof name)) return;
  m_name = WiddenString(name);
  std::vector<uint32_t> addresses;
  if (!platform::ResolveIPv4(name, addresses)) return;
  for (uint32_t address : addresses) {
    m_addresses.push_back(WiddenString(platform::FormatIPv4(address)));
  }
}

// Built on first use, never refreshed; the language guarantees one build
// even when threads race to it.
const HostInfo& HostInfo::Instance() {
  static const HostInfo info;
  return info;
}

const std::u16string& GetLocalHostName() { return HostInfo::Instance().Name(); }

const std::vector<std::u16string>& GetLocalHostIP() { return HostInfo::Instance().Addresses(); }

}  // namespace TAVIX
