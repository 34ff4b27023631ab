// Helpers shared by the marshalling tests (and through the wire helpers by the others): byte and error helpers, a
// sink that records what reaches it, a source that serves prepared bytes, and encoding into and decoding from a
// memory buffer chain.
#ifndef TAVIX_MARSHAL_MARSHAL_TEST_UTIL_H_
#define TAVIX_MARSHAL_MARSHAL_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <utility>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/marshal/basic_stream.h"
#include "tavix/marshal/stream_buffers.h"

namespace TAVIX::testing {

using Bytes = std::vector<uint8_t>;

inline Bytes B(std::initializer_list<int> values) {
  Bytes out;
  for (const int v : values) out.push_back(static_cast<uint8_t>(v));
  return out;
}

// n bytes that differ from their neighbours and repeat only after 64 KiB.
inline Bytes Pattern(size_t n, uint32_t seed = 0) {
  Bytes out(n);
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>((i ^ (i >> 8)) + seed);
  return out;
}

// The code `f` raised, 0 when it raised nothing.
inline uint32_t CodeOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const TavixException& e) {
    return e.Code();
  }
  return 0;
}

// The last error a call left when it failed (returned false or null); 0 when it succeeded.
template <class Call>
uint32_t Refused(Call call) {
  TavixSetLastError(0);
  return call() ? 0 : TavixGetLastError();
}

// A call's result and the last error it left.
using Outcome = std::pair<int32_t, uint32_t>;
template <class Call>
Outcome OutcomeOf(Call call) {
  TavixSetLastError(0);
  const int32_t result = call();
  return {result, TavixGetLastError()};
}

// Takes at most `accept` bytes per call (all when negative), or returns `result` instead when it is set.
class Sink : public EndStreamBuf {
 public:
  int32_t sputn(const void* data, int32_t count) override {
    calls.push_back(count);
    if (result != 0) return result;
    const int32_t n = accept < 0 ? count : std::min(accept, count);
    const auto* p = static_cast<const uint8_t*>(data);
    bytes.insert(bytes.end(), p, p + n);
    return n;
  }
  int32_t sgetn(void*, int32_t) override { return 0; }
  void clear() override { ++clears; }

  Bytes bytes;
  std::vector<int32_t> calls;
  int32_t accept = -1;
  int32_t result = 0;
  int clears = 0;
};

// Serves `bytes` in deliveries of at most `chunk` bytes, or returns `result` instead when it is set, and records
// what it was asked for.
class Source : public EndStreamBuf {
 public:
  explicit Source(Bytes content = {}, int32_t piece = 0x7FFFFFFF) : bytes(std::move(content)), chunk(piece) {}
  int32_t sputn(const void*, int32_t) override { return 0; }
  int32_t sgetn(void* data, int32_t count) override {
    asked.push_back(count);
    if (result != 0) return result;
    const auto n = static_cast<size_t>(std::min({count, static_cast<int32_t>(bytes.size() - offset), chunk}));
    if (n != 0) std::memcpy(data, bytes.data() + offset, n);
    offset += n;
    return static_cast<int32_t>(n);
  }

  Bytes bytes;
  int32_t chunk, result = 0;
  size_t offset = 0;
  std::vector<int32_t> asked;
};

// What `fill` writes, collected by a memory buffer without a next link.
inline Bytes Encode(const std::function<void(BasicStream&)>& fill) {
  BasicStream s;
  SmartPtr<StreamMemBuf> mem(new StreamMemBuf());
  s.Attach(mem);
  fill(s);
  return Bytes(mem->block(), mem->block() + mem->fill());
}

// A stream that reads `bytes` as one message body, the way a receiver sets its chain up.
struct Decoder {
  explicit Decoder(Bytes bytes, int32_t chunk = 0x7FFFFFFF) : source(new Source(std::move(bytes), chunk)) {
    AttachMessageBuffer(stream, static_cast<int32_t>(source->bytes.size()), source);
  }
  BasicStream stream;
  SmartPtr<Source> source;
};

}  // namespace TAVIX::testing

#endif  // TAVIX_MARSHAL_MARSHAL_TEST_UTIL_H_
