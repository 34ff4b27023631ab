// Helpers shared by the tests: byte patterns, and a call's result with the last error it left.
#ifndef TAVIX_TESTING_OUTCOMES_H_
#define TAVIX_TESTING_OUTCOMES_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "tavix/core/errors.h"

namespace TAVIX::testing {

using Bytes = std::vector<uint8_t>;

// n bytes that differ from their neighbours and repeat only after 64 KiB.
inline Bytes Pattern(size_t n, uint32_t seed = 0) {
  Bytes out(n);
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>((i ^ (i >> 8)) + seed);
  return out;
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

}  // namespace TAVIX::testing

#endif  // TAVIX_TESTING_OUTCOMES_H_
