// Fault signals mapped to exception codes, so that one table of names
// serves every fault: SIGSEGV is C0000005 ACCESS_VIOLATION (C00000FD
// STACK_OVERFLOW on the stack's guard), SIGFPE the INT_ and FLT_ codes by
// its si_code, SIGILL C000001D (C0000096 for a privileged opcode), SIGBUS
// 80000002 or C0000006, SIGTRAP 80000003 or 80000004. Any other signal is
// E0000000 plus its number, named by the C library's signal text.
#ifndef TAVIX_DIAG_EXCEPTION_CODES_H_
#define TAVIX_DIAG_EXCEPTION_CODES_H_

#include <cstdint>
#include <string_view>

namespace TAVIX {

inline constexpr uint32_t kOtherSignalCode = 0xE0000000;

// `dataAddress` and `stackPointer` tell a stack overflow: a SIGSEGV within
// 64 KiB of the stack pointer hit the guard below the stack.
uint32_t ExceptionCodeOf(int32_t signal, int32_t code, uint64_t dataAddress, uint64_t stackPointer);

// The name written after the code: the table's, else the signal's text.
std::string_view ExceptionName(uint32_t code);

}  // namespace TAVIX

#endif  // TAVIX_DIAG_EXCEPTION_CODES_H_
