// Host names and IPv4 addresses as the resolver sees them. Addresses are
// 32-bit values in network byte order.
#ifndef TAVIX_PLATFORM_NET_H_
#define TAVIX_PLATFORM_NET_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace TAVIX::platform {

inline constexpr uint32_t kAddressNone = 0xFFFFFFFF;

// The dotted-quad parser: kAddressNone for text that is not an address
// (and, as ever with this parser, for "255.255.255.255").
uint32_t ParseIPv4(const char* text);
// The host's IPv4 addresses in the resolver's order; false when it has none.
bool ResolveIPv4(const char* host, std::vector<uint32_t>& addresses);
std::string FormatIPv4(uint32_t address);
// The local host name into a buffer of `size` bytes; false (last error set)
// when it does not fit.
bool LocalHostName(char* buffer, size_t size);

}  // namespace TAVIX::platform

#endif  // TAVIX_PLATFORM_NET_H_
