// The Echo object's operations, declared once for both ends: its servant's
// operation table and its proxy's methods are made from these.
#ifndef TAVIX_TOOLS_ECHO_OPS_H_
#define TAVIX_TOOLS_ECHO_OPS_H_

#include <cstdint>
#include <string>

#include "tavix/invoke/operation.h"
#include "tavix/core/shared.h"
#include "tavix/marshal/blob.h"

namespace TAVIX::echo_ops {

using Echo = Operation<u"Echo", In<std::u16string>, Out<std::u16string>>;
using EchoBlob = Operation<u"EchoBlob", In<SmartPtr<ITavixBlob>>, Out<SmartPtr<ITavixBlob>>>;
using Fail = Operation<u"Fail", In<int32_t>>;
// Served only by `tavix serve --allow-faults`: 1 writes through a null
// pointer, 2 divides an integer by zero, 3 overflows the stack, 4 aborts.
using Fault = Operation<u"Fault", In<int32_t>>;
using Sleep = Operation<u"Sleep", In<int32_t>>;
// The calling client's certificate subject (RFC 2253); empty without one.
using PeerIdentity = Operation<u"PeerIdentity", In<>, Out<std::u16string>>;
// Every object answers "ObjectPing"; sent one-way it only proves delivery.
using OneWayPing = OneWayOperation<u"ObjectPing">;

}  // namespace TAVIX::echo_ops

#endif  // TAVIX_TOOLS_ECHO_OPS_H_
