// The endpoints a proxy may reach its object through, and which to try
// next. A proxy string lists them after the object id, each in its printed
// form, separated by ':'; a new endpoint starts where a word of letters (a
// transport word) follows a separator, so host texts never split:
//
//   Echo:tcp -h 10.0.0.1 -p 5678 -t 0:udp -h 10.0.0.2 -p 5678 -t 0
//
// The word "ordered" before the first endpoint (Echo:ordered:tcp ...)
// keeps the written order: each connection tries the first endpoint that
// is not backing off. Otherwise a proxy starts at a random endpoint, so
// that many clients spread over the servers, and goes round from there.
#ifndef TAVIX_CLIENT_ENDPOINT_SET_H_
#define TAVIX_CLIENT_ENDPOINT_SET_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/shared.h"
#include "tavix/transport/passport.h"

namespace TAVIX {

class EndpointSet {
 public:
  // An endpoint that refused is skipped for a while: 1 s after the first
  // failure, doubling up to 30 s, forgotten after a success.
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
  const SmartPtr<IPassport>& At(size_t i) const { return m_endpoints[i].passport; }
  // The list as a proxy string prints it (without the object id).
  std::u16string Print() const;

  // The endpoints to try for a new connection, best first: from the
  // current one round the list (from the first in written order), those
  // backing off after the others. `moveOn` starts one past the current
  // endpoint instead (random start only), as after a connection that
  // failed in use.
  std::vector<size_t> Candidates(uint64_t nowMs, bool moveOn) const;
  // The outcome of a connection attempt to endpoint i.
  void Connected(size_t i);
  void Failed(size_t i, uint64_t nowMs);
  size_t Current() const { return m_current; }

 private:
  struct Endpoint {
    SmartPtr<IPassport> passport;
    uint64_t skipUntilMs = 0;
    uint32_t backoffMs = 0;  // 0: never failed since its last success
  };

  std::vector<Endpoint> m_endpoints;
  Order m_order = Order::kRandomStart;
  size_t m_current = 0;
};

}  // namespace TAVIX

#endif  // TAVIX_CLIENT_ENDPOINT_SET_H_
