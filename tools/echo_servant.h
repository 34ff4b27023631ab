// The Echo servant: answers what it is sent. The `tavix serve` command
// registers it; clients and benchmarks call it to exercise every path of a
// call (strings, inline blobs, error statuses, slow operations).
#ifndef TAVIX_TOOLS_ECHO_SERVANT_H_
#define TAVIX_TOOLS_ECHO_SERVANT_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/shared.h"
#include "tavix/invoke/object.h"
#include "tavix/marshal/blob.h"

namespace TAVIX {

class EchoServant : public Object {
 public:
  static constexpr std::u16string_view kTypeId = u"::TAVIX::Echo";

  // With `allowFaults` the servant also answers "Fault"; without, that
  // operation is unknown.
  explicit EchoServant(bool allowFaults = false) : m_allowFaults(allowFaults) {}

  // "Echo": the same wide string back.
  virtual uint32_t Echo(const std::u16string& text, std::u16string& result, const Context& ctx);
  // "EchoBlob": a blob with the same bytes back.
  virtual uint32_t EchoBlob(const SmartPtr<ITavixBlob>& blob, SmartPtr<ITavixBlob>& result, const Context& ctx);
  // "Fail": returns `code` as the status.
  virtual uint32_t Fail(int32_t code, const Context& ctx);
  // "Sleep": returns after `milliseconds` (none when negative).
  virtual uint32_t Sleep(int32_t milliseconds, const Context& ctx);
  // "Fault": faults in the way `kind` names (echo_ops::Fault); any other
  // kind returns 0x20000404 (illegal size: out of range).
  virtual uint32_t Fault(int32_t kind, const Context& ctx);
  // "PeerIdentity": the caller's certificate subject, empty without one.
  virtual uint32_t PeerIdentity(std::u16string& subject, const Context& ctx);

  void Dispatch(ObjectHelper& request) override;
  void GetObjectIds(std::vector<std::u16string>& ids) override;
  std::u16string GetObjectId() override;

  // Requests dispatched to this servant so far, built-ins and one-way
  // calls included.
  int64_t Requests() const { return m_requests.load(); }

 private:
  bool m_allowFaults;
  std::atomic<int64_t> m_requests{0};
};

}  // namespace TAVIX

#endif  // TAVIX_TOOLS_ECHO_SERVANT_H_
