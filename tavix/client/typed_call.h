// The client side of operations declared with invoke/operation.h. A proxy
// of an interface calls any of its operations, marshalling the parameters
// the servant's skeleton reads, in the same order:
//
//   using EchoPrx = TAVIX::Proxy<EchoInterface>;
//   SmartPtr<EchoPrx> echo = TAVIX::CreateProxy<EchoPrx>(communicator, text);
//   uint32_t status = echo->Call<EchoOp>(u"hello", answer);
//
// Invoke<Op>(proxy, ...) makes the same call through any ProxyObject.
#ifndef TAVIX_CLIENT_TYPED_CALL_H_
#define TAVIX_CLIENT_TYPED_CALL_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tavix/client/proxy_helper.h"
#include "tavix/client/proxy_object.h"
#include "tavix/core/errors.h"
#include "tavix/core/shared.h"
#include "tavix/invoke/operation.h"
#include "tavix/marshal/blob.h"
#include "tavix/marshal/codec.h"

namespace TAVIX {

template <class Op, class InList = typename Op::InList, class OutList = typename Op::OutList>
struct ClientCall;

template <class Op, class... Ins, class... Outs>
struct ClientCall<Op, In<Ins...>, Out<Outs...>> {
  // One call through `proxy`. Out-parameters are written only when the
  // call succeeds up to its results.
  static uint32_t Call(ProxyObject& proxy, const Ins&... ins, Outs&... outs) {
    ProxyHelper call(&proxy, Op::NameString(), Op::kMode, ProxyHelper::NoBlob, LengthOfAll(ins...));
    try {
      if (const uint32_t r = call.PrepareIPC(); r != 0) return r;
      (Codec<Ins>::Write(*call.os(), ins), ...);
      if (const uint32_t r = call.InvokeIPC(); r != 0) return r;
      if constexpr (Op::kMode == OneWay) {
        return 0;
      } else {
        (Codec<Outs>::Read(*call.is(), outs), ...);
        return call.FinishIPC();
      }
    } catch (const TavixException& e) {
      return call.OnException(e);
    }
  }

  // Appends the request message this call would send to `blob` instead of
  // sending it; nothing is connected and no reply is read.
  static uint32_t Record(ProxyObject& proxy, const SmartPtr<ITavixBlob>& blob, const Ins&... ins) {
    ProxyHelper call(&proxy, Op::NameString(), Op::kMode, blob, LengthOfAll(ins...));
    try {
      if (const uint32_t r = call.PrepareIPC(); r != 0) return r;
      (Codec<Ins>::Write(*call.os(), ins), ...);
      return call.InvokeIPC();
    } catch (const TavixException& e) {
      return call.OnException(e);
    }
  }
};

// A proxy method's body: Invoke<EchoOp>(*this, in, out).
template <class Op, class... Args>
uint32_t Invoke(ProxyObject& proxy, Args&&... args) {
  return ClientCall<Op>::Call(proxy, std::forward<Args>(args)...);
}

// Records the request of Op with these in-parameters into `blob`.
template <class Op, class... Args>
uint32_t Record(ProxyObject& proxy, const SmartPtr<ITavixBlob>& blob, const Args&... args) {
  return ClientCall<Op>::Record(proxy, blob, args...);
}

// A proxy of the remote objects that implement `Iface`.
template <class Iface>
class Proxy : public ProxyObject {
 public:
  // One call of Op: its in-parameters, then its out-parameters, which are
  // written only when the call succeeds up to its results.
  template <class Op, class... Args>
  uint32_t Call(Args&&... args) {
    static_assert(Iface::template kHas<Op>, "the operation is not one of this proxy's interface");
    return ClientCall<Op>::Call(*this, std::forward<Args>(args)...);
  }

  void GetObjectIds(std::vector<std::u16string>& ids) override {
    ProxyObject::GetObjectIds(ids);
    ids.emplace_back(Iface::kTypeId);
  }
  std::u16string GetObjectId() override { return std::u16string(Iface::kTypeId); }
};

}  // namespace TAVIX

#endif  // TAVIX_CLIENT_TYPED_CALL_H_
