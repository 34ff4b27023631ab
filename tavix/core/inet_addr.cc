#include "tavix/core/inet_addr.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/core/trace_log.h"
#include "tavix/platform/last_error.h"
#include "tavix/platform/net.h"

namespace TAVIX {
namespace {

constexpr uint16_t kFamilyIPv4 = 2;

uint16_t Swap16(uint16_t v) { return static_cast<uint16_t>((v >> 8) | (v << 8)); }

}  // namespace

bool InetAddr::Set(const char* host, uint16_t port) {
  const bool present = host != nullptr && host[0] != '\0';
  *this = InetAddr();
  m_family = kFamilyIPv4;
  m_port = Swap16(port);
  m_address = present ? platform::ParseIPv4(host) : 0;
  if (m_address != platform::kAddressNone) return true;
  std::vector<uint32_t> addresses;
  if (!platform::ResolveIPv4(host, addresses)) {
    *this = InetAddr();
    platform::SetLastError(Err::HostNotFound);
    TraceLog::Write(u"DNS Error:%hs\n", host);
    return false;
  }
  m_address = addresses.front();
  return true;
}

bool InetAddr::Set(const char16_t* host, uint16_t port) {
  if (host == nullptr || host[0] == u'\0') return Set(static_cast<const char*>(nullptr), port);
  return Set(NarrowString(host).c_str(), port);
}

bool InetAddr::SetAny(uint16_t port) { return Set(static_cast<const char*>(nullptr), port); }

bool InetAddr::SetLocalHost(uint16_t port) {
  char name[32];
  if (!platform::LocalHostName(name, sizeof name)) return false;
  return Set(name, port);
}

bool InetAddr::SetBroadcast(uint16_t port) {
  SetAny(port);
  m_address = 0xFFFFFFFF;
  return true;
}

uint16_t InetAddr::Port() const { return Swap16(m_port); }

char* InetAddr::ToString(char* buffer, size_t size) const {
  if (buffer == nullptr) return nullptr;
  const std::string text = platform::FormatIPv4(m_address);
  if (text.size() < size) {
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return buffer;
  }
  if (size > 0) buffer[0] = '\0';
  return nullptr;
}

char16_t* InetAddr::ToString(char16_t* buffer, size_t length) const {
  if (buffer == nullptr) return nullptr;
  const std::string text = platform::FormatIPv4(m_address);
  if (text.size() < length) {
    for (size_t i = 0; i <= text.size(); ++i) buffer[i] = static_cast<char16_t>(text.c_str()[i]);
    return buffer;
  }
  if (length > 0) buffer[0] = u'\0';
  return nullptr;
}

}  // namespace TAVIX
