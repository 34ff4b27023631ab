#include "tools/echo_faults.h"

#include <cstdlib>

#include "tavix/core/errors.h"

namespace TAVIX::echo_faults {
namespace {

void WriteThroughNull(int32_t value) {
  int32_t* volatile target = nullptr;
  const int32_t written = value * 7;
  *target = written;
}

int32_t DivideByZero(int32_t dividend) {
  volatile int32_t divisor = 0;
  const int32_t quotient = dividend / divisor;
  return quotient;
}

// Each level keeps a buffer alive across the call, so the stack runs out
// after some thousands of levels.
int32_t Recurse(int32_t depth) {
  volatile char frame[512];
  frame[0] = static_cast<char>(depth);
  if (depth < 0) return 0;  // never: depth only grows
  return Recurse(depth + 1) + frame[0];
}

}  // namespace

uint32_t Cause(int32_t kind) {
  switch (kind) {
    case 1: WriteThroughNull(kind); break;
    case 2: return static_cast<uint32_t>(DivideByZero(kind));
    case 3: return static_cast<uint32_t>(Recurse(1));
    case 4: std::abort();
    default: break;
  }
  return Err::IllegalSize;
}

}  // namespace TAVIX::echo_faults
