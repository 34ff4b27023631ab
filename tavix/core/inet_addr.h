// One IPv4 socket address, laid out exactly as the sockets interface's
// sockaddr_in: family, port and address in network byte order, 8 zero bytes.
#ifndef TAVIX_CORE_INET_ADDR_H_
#define TAVIX_CORE_INET_ADDR_H_

#include <cstddef>
#include <cstdint>

#include "tavix/platform/socket_address.h"

namespace TAVIX {

class InetAddr {
 public:
  InetAddr() = default;

  // A dotted address, or a name resolved through the host database. An
  // empty or null host is the any-address. On failure: false, last error
  // Err::HostNotFound, the address all zero and a "DNS Error" line naming
  // the host in the log.
  bool Set(const char* host, uint16_t port);
  bool Set(const char16_t* host, uint16_t port);
  bool SetAny(uint16_t port);
  bool SetLocalHost(uint16_t port);
  bool SetBroadcast(uint16_t port);

  bool IsAny() const { return m_address == 0; }
  bool IsBroadcast() const { return m_address == 0xFFFFFFFF; }
  uint16_t Port() const;
  uint32_t AddressNetworkOrder() const { return m_address; }

  // The dotted text, or null (and an emptied buffer) when it does not fit.
  char* ToString(char* buffer, size_t size) const;
  char16_t* ToString(char16_t* buffer, size_t length) const;

  // The 16 bytes for the sockets interface.
  const void* SockAddr() const { return this; }
  void* SockAddr() { return this; }
  static constexpr size_t SockAddrLen() { return 16; }
  platform::SocketAddress ToSocketAddress() const { return platform::SocketAddress::Of(this, 16); }

 private:
  uint16_t m_family = 0;
  uint16_t m_port = 0;
  uint32_t m_address = 0;
  uint8_t m_zero[8] = {};
};

static_assert(sizeof(InetAddr) == 16, "InetAddr must be a sockaddr_in");

}  // namespace TAVIX

#endif  // TAVIX_CORE_INET_ADDR_H_
