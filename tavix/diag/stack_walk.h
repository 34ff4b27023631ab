// The call stack of the faulting thread (libunwind, walking from a saved
// context) and what the debug information says about each address
// (elfutils libdwfl: modules, sections, symbols, source lines).
#ifndef TAVIX_DIAG_STACK_WALK_H_
#define TAVIX_DIAG_STACK_WALK_H_

#include <array>
#include <cstdint>
#include <memory>
#include <string>

struct Dwfl;
struct Dwfl_Module;

namespace TAVIX {

// One frame: its instruction address, the address to look it up by (inside
// the call for a return address), its canonical frame address, and the
// registers the unwinder knows for it, by DWARF number (0 RAX ... 16 RIP).
struct StackFrame {
  static constexpr int kRegisters = 17;

  uint64_t pc = 0;
  uint64_t lookupPc = 0;
  uint64_t cfa = 0;
  std::array<uint64_t, kRegisters> registers{};
  uint32_t knownRegisters = 0;  // bit n: registers[n] is valid

  bool Known(int n) const { return n >= 0 && n < kRegisters && (knownRegisters >> n & 1u) != 0; }
};

class StackWalker {
 public:
  // `context` is a ucontext_t; it is copied. `signalFrame`: the context
  // stopped at the faulting instruction itself.
  StackWalker(const void* context, bool signalFrame);
  ~StackWalker();
  StackWalker(const StackWalker&) = delete;
  StackWalker& operator=(const StackWalker&) = delete;

  // The next frame, innermost first; false when the walk ends.
  bool Next(StackFrame& frame);

 private:
  struct Cursor;  // the unwinder's state, kept out of this header
  std::unique_ptr<Cursor> m_cursor;
  bool m_ready = false;
  bool m_first = true;
  bool m_signalFrame;
};

// The process's modules and their debug information, for one report.
class DebugSession {
 public:
  DebugSession();
  ~DebugSession();
  DebugSession(const DebugSession&) = delete;
  DebugSession& operator=(const DebugSession&) = delete;

  bool Ready() const { return m_dwfl != nullptr; }
  Dwfl_Module* ModuleAt(uint64_t address) const;

  // The module's path, the 1-based ELF section that holds the address and
  // the offset within it.
  struct Place {
    std::string module;
    uint32_t section = 0;
    uint64_t offset = 0;
  };
  bool PlaceOf(uint64_t address, Place& place) const;
  // The demangled name of the function at the address, and how far into it.
  bool SymbolOf(uint64_t address, std::string& name, uint64_t& displacement) const;
  bool LineOf(uint64_t address, std::string& file, int32_t& line) const;

 private:
  Dwfl* m_dwfl = nullptr;
};

}  // namespace TAVIX

#endif  // TAVIX_DIAG_STACK_WALK_H_
