// A socket address of either family, laid out as the sockets interface
// takes it (an IPv4 or an IPv6 socket address), with its length.
#ifndef TAVIX_PLATFORM_SOCKET_ADDRESS_H_
#define TAVIX_PLATFORM_SOCKET_ADDRESS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace TAVIX::platform {

enum class AddressFamily { kIPv4, kIPv6 };

class SocketAddress {
 public:
  // Room for the larger of the two layouts.
  static constexpr uint32_t kCapacity = 28;

  // Empty: no family, length 0.
  SocketAddress() = default;

  // A copy of `length` bytes of a socket address; empty when they do not fit.
  static SocketAddress Of(const void* data, uint32_t length);
  // Every interface of one family.
  static SocketAddress Any(AddressFamily family, uint16_t port);
  // A numeric address of either family ("10.0.0.1", "2001:db8::1"); false
  // for any other text, the output left alone.
  static bool ParseNumeric(const char* text, uint16_t port, SocketAddress& out);

  bool IsEmpty() const { return m_length == 0; }
  AddressFamily Family() const;
  bool IsAny() const;
  // The IPv4 limited broadcast address, 255.255.255.255.
  bool IsBroadcast() const;
  uint16_t Port() const;
  void SetPort(uint16_t port);
  // An IPv4 peer that a dual-stack socket reports as ::ffff:a.b.c.d, as the
  // IPv4 address it is; any other address unchanged.
  SocketAddress Unmapped() const;
  // "10.0.0.1" or "2001:db8::1": the address alone, no port, no brackets.
  std::string HostText() const;

  const void* Data() const { return m_bytes; }
  uint32_t Length() const { return m_length; }
  // For a call that writes an address: the buffer, kCapacity bytes long,
  // and then the length it reported.
  void* Buffer() { return m_bytes; }
  void SetLength(uint32_t length) { m_length = length <= kCapacity ? length : 0; }

  bool operator==(const SocketAddress& other) const;

 private:
  alignas(8) uint8_t m_bytes[kCapacity] = {};
  uint32_t m_length = 0;
};

// The addresses that `host` names, each with `port`, in the resolver's
// order and without repeats: its IPv4 addresses when it has any, else its
// IPv6 ones. False (last error EINVAL) when it has neither.
bool ResolveHost(const char* host, uint16_t port, std::vector<SocketAddress>& out);

}  // namespace TAVIX::platform

#endif  // TAVIX_PLATFORM_SOCKET_ADDRESS_H_
