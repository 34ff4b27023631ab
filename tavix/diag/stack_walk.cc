#include "tavix/diag/stack_walk.h"

#include <cxxabi.h>
#include <elfutils/libdwfl.h>

#define UNW_LOCAL_ONLY  // this process's own stack only: the fast local unwinder
#include <libunwind.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

// Registers an unwinder restores in every frame: the callee-saved ones
// (RBX, RBP, R12-R15), RSP and RIP. The others are known in the first
// frame only.
constexpr uint32_t kPreservedRegisters = (1u << 3) | (1u << 6) | (1u << 7) | (0xFu << 12) | (1u << 16);
constexpr uint32_t kAllRegisters = (1u << StackFrame::kRegisters) - 1;

const Dwfl_Callbacks kCallbacks = {
    dwfl_linux_proc_find_elf,
    dwfl_standard_find_debuginfo,
    nullptr,
    nullptr,
};

}  // namespace

struct StackWalker::Cursor {
  unw_context_t context;
  unw_cursor_t cursor;
};

StackWalker::StackWalker(const void* context, bool signalFrame)
    : m_cursor(std::make_unique<Cursor>()), m_signalFrame(signalFrame) {
  // On x86-64 an unwind context is a ucontext_t; the walk uses a copy.
  std::memcpy(&m_cursor->context, context, sizeof m_cursor->context);
  m_ready = unw_init_local2(&m_cursor->cursor, &m_cursor->context, signalFrame ? UNW_INIT_SIGNAL_FRAME : 0) == 0;
}

StackWalker::~StackWalker() = default;

bool StackWalker::Next(StackFrame& frame) {
  if (!m_ready) return false;
  if (!m_first && unw_step(&m_cursor->cursor) <= 0) {
    m_ready = false;
    return false;
  }
  frame = StackFrame{};
  unw_word_t value = 0;
  for (int n = 0; n < StackFrame::kRegisters; ++n) {
    if (unw_get_reg(&m_cursor->cursor, n, &value) == 0) frame.registers[static_cast<size_t>(n)] = value;
  }
  frame.knownRegisters = m_first ? kAllRegisters : kPreservedRegisters;
  frame.pc = frame.registers[16];
  // The canonical frame address is the caller's stack pointer, which only
  // a step shows (libunwind's own CFA register holds the frame's stack
  // pointer until then). The outermost frame has none.
  unw_cursor_t caller = m_cursor->cursor;
  if (unw_step(&caller) > 0 && unw_get_reg(&caller, UNW_X86_64_RSP, &value) == 0) frame.cfa = value;
  // A return address points after its call: the call's line is before it.
  frame.lookupPc = (m_first && m_signalFrame) || frame.pc == 0 ? frame.pc : frame.pc - 1;
  m_first = false;
  return true;
}

DebugSession::DebugSession() {
  Dwfl* dwfl = dwfl_begin(&kCallbacks);
  if (dwfl == nullptr) return;
  dwfl_report_begin(dwfl);
  const bool reported = dwfl_linux_proc_report(dwfl, static_cast<pid_t>(platform::ProcessId())) == 0;
  if (dwfl_report_end(dwfl, nullptr, nullptr) != 0 || !reported) {
    dwfl_end(dwfl);
    return;
  }
  m_dwfl = dwfl;
}

DebugSession::~DebugSession() { dwfl_end(m_dwfl); }

Dwfl_Module* DebugSession::ModuleAt(uint64_t address) const {
  return m_dwfl == nullptr ? nullptr : dwfl_addrmodule(m_dwfl, address);
}

bool DebugSession::PlaceOf(uint64_t address, Place& place) const {
  Dwfl_Module* module = ModuleAt(address);
  if (module == nullptr) return false;
  const char* path = dwfl_module_info(module, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  Dwarf_Addr relative = address;
  Dwarf_Addr bias = 0;
  Elf_Scn* section = dwfl_module_address_section(module, &relative, &bias);
  if (path == nullptr || section == nullptr) return false;
  place.module = path;
  place.section = static_cast<uint32_t>(elf_ndxscn(section));
  place.offset = relative;
  return true;
}

bool DebugSession::SymbolOf(uint64_t address, std::string& name, uint64_t& displacement) const {
  Dwfl_Module* module = ModuleAt(address);
  if (module == nullptr) return false;
  GElf_Off offset = 0;
  GElf_Sym symbol{};
  const char* raw = dwfl_module_addrinfo(module, address, &offset, &symbol, nullptr, nullptr, nullptr);
  if (raw == nullptr) return false;
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(abi::__cxa_demangle(raw, nullptr, nullptr, &status),
                                                              &std::free);
  name = status == 0 && demangled ? demangled.get() : raw;
  displacement = offset;
  return true;
}

bool DebugSession::LineOf(uint64_t address, std::string& file, int32_t& line) const {
  Dwfl_Module* module = ModuleAt(address);
  Dwfl_Line* found = module == nullptr ? nullptr : dwfl_module_getsrc(module, address);
  if (found == nullptr) return false;
  int number = 0;
  const char* source = dwfl_lineinfo(found, nullptr, &number, nullptr, nullptr, nullptr);
  if (source == nullptr) return false;
  file = source;
  line = number;
  return true;
}

}  // namespace TAVIX
