// The client side of an operation declared with invoke/operation.h: a
// proxy method is one line, and it marshals the parameters the servant's
// skeleton reads, in the same order.
//
//   class EchoPrx : public TAVIX::ProxyObject {
//    public:
//     uint32_t Echo(const std::u16string& in, std::u16string& out) {
//       return TAVIX::Invoke<EchoOp>(*this, in, out);
//     }
//   };
#ifndef TAVIX_CLIENT_TYPED_CALL_H_
#define TAVIX_CLIENT_TYPED_CALL_H_

#include <cstdint>
#include <utility>

#include "tavix/client/proxy_helper.h"
#include "tavix/client/proxy_object.h"
#include "tavix/core/errors.h"
#include "tavix/core/shared.h"
#include "tavix/invoke/operation.h"
#include "tavix/marshal/blob.h"

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
      (call.os()->write(ins), ...);
      if (const uint32_t r = call.InvokeIPC(); r != 0) return r;
      if constexpr (Op::kMode == OneWay) {
        return 0;
      } else {
        (call.is()->read(outs), ...);
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
      (call.os()->write(ins), ...);
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

}  // namespace TAVIX

#endif  // TAVIX_CLIENT_TYPED_CALL_H_
