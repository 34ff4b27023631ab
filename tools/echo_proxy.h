// The proxy that clients, tests and benchmarks call the Echo object
// through.
#ifndef TAVIX_TOOLS_ECHO_PROXY_H_
#define TAVIX_TOOLS_ECHO_PROXY_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tavix/client/proxy_object.h"
#include "tavix/client/typed_call.h"
#include "tavix/core/shared.h"
#include "tavix/marshal/blob.h"
#include "tools/echo_ops.h"

namespace TAVIX {

class EchoPrx : public ProxyObject {
 public:
  static constexpr std::u16string_view kTypeId = u"::TAVIX::Echo";

  uint32_t Echo(const std::u16string& text, std::u16string& result) {
    return Invoke<echo_ops::Echo>(*this, text, result);
  }
  uint32_t EchoBlob(const SmartPtr<ITavixBlob>& blob, SmartPtr<ITavixBlob>& result) {
    return Invoke<echo_ops::EchoBlob>(*this, blob, result);
  }
  uint32_t Fail(int32_t code) { return Invoke<echo_ops::Fail>(*this, code); }
  uint32_t Sleep(int32_t milliseconds) { return Invoke<echo_ops::Sleep>(*this, milliseconds); }
  uint32_t Fault(int32_t kind) { return Invoke<echo_ops::Fault>(*this, kind); }
  uint32_t OneWayPing() { return Invoke<echo_ops::OneWayPing>(*this); }
  uint32_t PeerIdentity(std::u16string& subject) { return Invoke<echo_ops::PeerIdentity>(*this, subject); }

  void GetObjectIds(std::vector<std::u16string>& ids) override {
    ProxyObject::GetObjectIds(ids);
    ids.emplace_back(kTypeId);
  }
  std::u16string GetObjectId() override { return std::u16string(kTypeId); }
};

}  // namespace TAVIX

#endif  // TAVIX_TOOLS_ECHO_PROXY_H_
