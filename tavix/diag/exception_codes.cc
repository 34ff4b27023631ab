#include "tavix/diag/exception_codes.h"

#include <signal.h>

#include <array>

#include "tavix/platform/fault_signals.h"

namespace TAVIX {
namespace {

struct CodeName {
  uint32_t code;
  std::string_view name;
};

constexpr std::array<CodeName, 22> kNames{{
    {0x80000001, "GUARD_PAGE"},
    {0x80000002, "DATATYPE_MISALIGNMENT"},
    {0x80000003, "BREAKPOINT"},
    {0x80000004, "SINGLE_STEP"},
    {0xC0000005, "ACCESS_VIOLATION"},
    {0xC0000006, "IN_PAGE_ERROR"},
    {0xC0000008, "INVALID_HANDLE"},
    {0xC000001D, "ILLEGAL_INSTRUCTION"},
    {0xC0000025, "NONCONTINUABLE_EXCEPTION"},
    {0xC0000026, "INVALID_DISPOSITION"},
    {0xC000008C, "ARRAY_BOUNDS_EXCEEDED"},
    {0xC000008D, "FLT_DENORMAL_OPERAND"},
    {0xC000008E, "FLT_DIVIDE_BY_ZERO"},
    {0xC000008F, "FLT_INEXACT_RESULT"},
    {0xC0000090, "FLT_INVALID_OPERATION"},
    {0xC0000091, "FLT_OVERFLOW"},
    {0xC0000092, "FLT_STACK_CHECK"},
    {0xC0000093, "FLT_UNDERFLOW"},
    {0xC0000094, "INT_DIVIDE_BY_ZERO"},
    {0xC0000095, "INT_OVERFLOW"},
    {0xC0000096, "PRIV_INSTRUCTION"},
    {0xC00000FD, "STACK_OVERFLOW"},
}};

constexpr uint64_t kGuardReach = 64 * 1024;

uint32_t FloatingPointCode(int32_t code) {
  switch (code) {
    case FPE_INTDIV: return 0xC0000094;
    case FPE_INTOVF: return 0xC0000095;
    case FPE_FLTDIV: return 0xC000008E;
    case FPE_FLTOVF: return 0xC0000091;
    case FPE_FLTUND: return 0xC0000093;
    case FPE_FLTRES: return 0xC000008F;
    case FPE_FLTSUB: return 0xC000008C;
    default: return 0xC0000090;  // FPE_FLTINV and anything unnamed
  }
}

}  // namespace

uint32_t ExceptionCodeOf(int32_t signal, int32_t code, uint64_t dataAddress, uint64_t stackPointer) {
  switch (signal) {
    case SIGSEGV: {
      const uint64_t distance = dataAddress > stackPointer ? dataAddress - stackPointer : stackPointer - dataAddress;
      return code > 0 && distance < kGuardReach ? 0xC00000FD : 0xC0000005;
    }
    case SIGFPE: return FloatingPointCode(code);
    case SIGILL: return code == ILL_PRVOPC || code == ILL_PRVREG ? 0xC0000096 : 0xC000001D;
    case SIGBUS: return code == BUS_ADRALN ? 0x80000002 : 0xC0000006;
    case SIGTRAP: return code == TRAP_TRACE ? 0x80000004 : 0x80000003;
    default: return kOtherSignalCode + static_cast<uint32_t>(signal);
  }
}

std::string_view ExceptionName(uint32_t code) {
  for (const CodeName& entry : kNames) {
    if (entry.code == code) return entry.name;
  }
  if (code >= kOtherSignalCode && code < kOtherSignalCode + 65) {
    return platform::SignalDescription(static_cast<int32_t>(code - kOtherSignalCode));
  }
  return {};
}

}  // namespace TAVIX
