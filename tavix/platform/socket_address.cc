#include "tavix/platform/socket_address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tavix/platform/last_error.h"

namespace TAVIX::platform {
namespace {

static_assert(sizeof(sockaddr_in6) == SocketAddress::kCapacity);

sockaddr_in* AsIPv4(void* bytes) { return static_cast<sockaddr_in*>(bytes); }
const sockaddr_in* AsIPv4(const void* bytes) { return static_cast<const sockaddr_in*>(bytes); }
sockaddr_in6* AsIPv6(void* bytes) { return static_cast<sockaddr_in6*>(bytes); }
const sockaddr_in6* AsIPv6(const void* bytes) { return static_cast<const sockaddr_in6*>(bytes); }

SocketAddress IPv4Of(const in_addr& address, uint16_t port) {
  sockaddr_in in{};
  in.sin_family = AF_INET;
  in.sin_port = htons(port);
  in.sin_addr = address;
  return SocketAddress::Of(&in, sizeof in);
}

SocketAddress IPv6Of(const in6_addr& address, uint16_t port) {
  sockaddr_in6 in6{};
  in6.sin6_family = AF_INET6;
  in6.sin6_port = htons(port);
  in6.sin6_addr = address;
  return SocketAddress::Of(&in6, sizeof in6);
}

// One family's addresses from a resolver list, in its order, without repeats.
void Collect(const addrinfo* list, int family, uint16_t port, std::vector<SocketAddress>& out) {
  for (const addrinfo* a = list; a != nullptr; a = a->ai_next) {
    if (a->ai_family != family) continue;
    SocketAddress address = SocketAddress::Of(a->ai_addr, static_cast<uint32_t>(a->ai_addrlen));
    address.SetPort(port);
    if (std::find(out.begin(), out.end(), address) == out.end()) out.push_back(address);
  }
}

}  // namespace

SocketAddress SocketAddress::Of(const void* data, uint32_t length) {
  SocketAddress address;
  if (length > kCapacity) return address;
  std::memcpy(address.m_bytes, data, length);
  address.m_length = length;
  return address;
}

SocketAddress SocketAddress::Any(AddressFamily family, uint16_t port) {
  if (family == AddressFamily::kIPv6) return IPv6Of(in6addr_any, port);
  in_addr any{};
  any.s_addr = htonl(INADDR_ANY);
  return IPv4Of(any, port);
}

bool SocketAddress::ParseNumeric(const char* text, uint16_t port, SocketAddress& out) {
  if (text == nullptr) return false;
  in_addr v4{};
  if (inet_pton(AF_INET, text, &v4) == 1) {
    out = IPv4Of(v4, port);
    return true;
  }
  in6_addr v6{};
  if (inet_pton(AF_INET6, text, &v6) == 1) {
    out = IPv6Of(v6, port);
    return true;
  }
  return false;
}

AddressFamily SocketAddress::Family() const {
  return m_length == sizeof(sockaddr_in6) && AsIPv6(m_bytes)->sin6_family == AF_INET6 ? AddressFamily::kIPv6
                                                                                     : AddressFamily::kIPv4;
}

bool SocketAddress::IsAny() const {
  if (IsEmpty()) return false;
  if (Family() == AddressFamily::kIPv6) return IN6_IS_ADDR_UNSPECIFIED(&AsIPv6(m_bytes)->sin6_addr);
  return AsIPv4(m_bytes)->sin_addr.s_addr == htonl(INADDR_ANY);
}

bool SocketAddress::IsBroadcast() const {
  return !IsEmpty() && Family() == AddressFamily::kIPv4 && AsIPv4(m_bytes)->sin_addr.s_addr == htonl(INADDR_BROADCAST);
}

uint16_t SocketAddress::Port() const {
  if (IsEmpty()) return 0;
  return ntohs(Family() == AddressFamily::kIPv6 ? AsIPv6(m_bytes)->sin6_port : AsIPv4(m_bytes)->sin_port);
}

void SocketAddress::SetPort(uint16_t port) {
  if (IsEmpty()) return;
  (Family() == AddressFamily::kIPv6 ? AsIPv6(m_bytes)->sin6_port : AsIPv4(m_bytes)->sin_port) = htons(port);
}

SocketAddress SocketAddress::Unmapped() const {
  if (Family() != AddressFamily::kIPv6 || !IN6_IS_ADDR_V4MAPPED(&AsIPv6(m_bytes)->sin6_addr)) return *this;
  in_addr v4{};
  std::memcpy(&v4, &AsIPv6(m_bytes)->sin6_addr.s6_addr[12], sizeof v4);
  return IPv4Of(v4, Port());
}

std::string SocketAddress::HostText() const {
  char text[INET6_ADDRSTRLEN] = {};
  if (IsEmpty()) return {};
  if (Family() == AddressFamily::kIPv6) {
    inet_ntop(AF_INET6, &AsIPv6(m_bytes)->sin6_addr, text, sizeof text);
  } else {
    inet_ntop(AF_INET, &AsIPv4(m_bytes)->sin_addr, text, sizeof text);
  }
  return text;
}

bool SocketAddress::operator==(const SocketAddress& other) const {
  return m_length == other.m_length && std::memcmp(m_bytes, other.m_bytes, m_length) == 0;
}

bool ResolveHost(const char* host, uint16_t port, std::vector<SocketAddress>& out) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (host == nullptr || getaddrinfo(host, nullptr, &hints, &list) != 0 || list == nullptr) {
    SetLastError(EINVAL);
    return false;
  }
  out.clear();
  Collect(list, AF_INET, port, out);
  if (out.empty()) Collect(list, AF_INET6, port, out);
  freeaddrinfo(list);
  if (out.empty()) SetLastError(EINVAL);
  return !out.empty();
}

}  // namespace TAVIX::platform
