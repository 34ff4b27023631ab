// The endpoints a proxy may reach its object through, and which to try
// next. A proxy string lists them after the object id, each in its printed
// form, separated by ':'; a new endpoint starts where a word of letters (a
// transport word) follows a separator, so host texts never split (an IPv6
// address goes in brackets):
//
//   Echo:tcp -h 10.0.0.1 -p 5678 -t 0:udp -h [2001:db8::2] -p 5678 -t 0
//
// A host name stands for every address it resolves to, looked up again for
// each new connection, so a changed name moves clients without a restart.
// The word "ordered" before the first endpoint (Echo:ordered:tcp ...)
// keeps the written order: each connection tries the first address that
// is not backing off. Otherwise a proxy starts at a random address, so
// that many clients spread over the servers, and goes round from there.
#ifndef TAVIX_CLIENT_ENDPOINT_SET_H_
#define TAVIX_CLIENT_ENDPOINT_SET_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/shared.h"
#include "tavix/platform/socket_address.h"
#include "tavix/transport/passport.h"

namespace TAVIX {

class EndpointSet {
 public:
  // An address that refused is skipped for a while: 1 s after the first
  // failure, doubling up to 30 s, forgotten after a success or after it
  // stayed untried that long once its back-off ended.
  static constexpr uint32_t kFirstBackoffMs = 1000;
  static constexpr uint32_t kLongestBackoffMs = 30000;

  enum class Order { kRandomStart, kWritten };

  EndpointSet() = default;

  // Parses the text after a proxy string's object id. False with
  // Err::BadProxyString for an empty list or an option alone, else with
  // the error of the first endpoint that the passport factory refused.
  static bool Parse(std::u16string_view text, EndpointSet& out);

  // One endpoint, this very passport.
  static EndpointSet Of(const SmartPtr<IPassport>& passport);

  size_t Size() const { return m_endpoints.size(); }
  Order GetOrder() const { return m_order; }
  void SetOrder(Order order);
  const SmartPtr<IPassport>& At(size_t i) const { return m_endpoints[i]; }
  // The list as a proxy string prints it (without the object id).
  std::u16string Print() const;

  // One address of one endpoint: what a connection attempt aims at.
  struct Target {
    size_t endpoint = 0;
    platform::SocketAddress address;
  };
  struct Plan {
    std::vector<Target> targets;  // best first
    uint32_t lookupError = 0;     // of an endpoint that gave no address
  };

  // Looks every endpoint's addresses up and orders them for a new
  // connection: from the current one round the list (from the first in
  // written order), those backing off after the others. `moveOn` starts at
  // a random other address instead (random start only), as after a
  // connection that failed in use, so that the clients of a lost server
  // spread over the rest.
  Plan Targets(uint64_t nowMs, bool moveOn) const;
  // The outcome of a connection attempt.
  void Connected(const Target& target);
  void Failed(const Target& target, uint64_t nowMs);
  // The endpoint of the address in use, or the one a proxy starts from.
  size_t CurrentEndpoint() const { return m_current.endpoint; }

 private:
  struct Backoff {
    Target target;
    uint64_t skipUntilMs = 0;
    uint32_t backoffMs = 0;
  };

  // Where in `targets` the current address is, or the size when it is
  // gone (not yet chosen, or no longer resolved).
  size_t PositionOfCurrent(const std::vector<Target>& targets) const;
  bool IsBackingOff(const Target& target, uint64_t nowMs) const;

  std::vector<SmartPtr<IPassport>> m_endpoints;
  Order m_order = Order::kRandomStart;
  Target m_current;
  bool m_chosen = false;           // m_current names an address that was connected to
  std::vector<Backoff> m_backoffs;  // addresses that failed since their last success
};

}  // namespace TAVIX

#endif  // TAVIX_CLIENT_ENDPOINT_SET_H_
