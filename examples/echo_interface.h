// The interface that the example server and client share. Each remote
// operation is declared once, with its name and its parameter types; the
// client's proxy methods and the server's operation table are then made
// from these declarations, so the two ends always agree on the bytes.
#ifndef TAVIX_EXAMPLES_ECHO_INTERFACE_H_
#define TAVIX_EXAMPLES_ECHO_INTERFACE_H_

#include <cstdint>
#include <string>

#include "tavix/client/proxy_object.h"
#include "tavix/client/typed_call.h"

namespace example {

// Two-way: sends a text and waits for it to come back.
using EchoOp = TAVIX::Operation<u"Echo", TAVIX::In<std::u16string>, TAVIX::Out<std::u16string>>;
// Two-way without arguments: how many texts the server has echoed.
using CountOp = TAVIX::Operation<u"Count", TAVIX::In<>, TAVIX::Out<int32_t>>;
// One-way: the client sends and goes on at once; no reply ever comes.
using NoteOp = TAVIX::OneWayOperation<u"Note", TAVIX::In<std::u16string>>;

// The interface's type id, which "ObjectIsA" answers for.
inline constexpr std::u16string_view kEchoTypeId = u"::Example::Echo";

// The client's view of a remote Echo object: one line per operation.
class EchoPrx : public TAVIX::ProxyObject {
 public:
  uint32_t Echo(const std::u16string& text, std::u16string& result) {
    return TAVIX::Invoke<EchoOp>(*this, text, result);
  }
  uint32_t Count(int32_t& count) { return TAVIX::Invoke<CountOp>(*this, count); }
  uint32_t Note(const std::u16string& text) { return TAVIX::Invoke<NoteOp>(*this, text); }
};

}  // namespace example

#endif  // TAVIX_EXAMPLES_ECHO_INTERFACE_H_
