// The faults the Echo servant's "Fault" operation causes on purpose, to
// show and test the exception report. Built without optimisation, so that
// each function's locals stay in memory where the report reads them.
#ifndef TAVIX_TOOLS_ECHO_FAULTS_H_
#define TAVIX_TOOLS_ECHO_FAULTS_H_

#include <cstdint>

namespace TAVIX::echo_faults {

// 1 writes through a null pointer, 2 divides an integer by zero, 3
// recurses until the stack overflows, 4 aborts. Returns only for another
// kind, with 0x20000404.
uint32_t Cause(int32_t kind);

}  // namespace TAVIX::echo_faults

#endif  // TAVIX_TOOLS_ECHO_FAULTS_H_
