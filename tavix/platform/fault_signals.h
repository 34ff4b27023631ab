// Hardware faults as the operating system delivers them: the process-wide
// handlers of the fault signals, the per-thread recovery point that lets a
// serving thread survive a fault of servant code, alternate signal stacks
// (so that a stack overflow can still be handled), and reads of memory that
// cannot fault.
#ifndef TAVIX_PLATFORM_FAULT_SIGNALS_H_
#define TAVIX_PLATFORM_FAULT_SIGNALS_H_

#include <cstddef>
#include <cstdint>

namespace TAVIX::platform {

// One fault as the handler received it. `context` is the faulting thread's
// machine context (a ucontext_t); `signalFrame` tells that it was saved by
// the kernel at the faulting instruction rather than captured by a call.
struct FaultEvent {
  int32_t signal = 0;
  int32_t code = 0;  // the signal's si_code
  const void* address = nullptr;  // the faulting data address, or the instruction
  const void* context = nullptr;
  bool signalFrame = false;
};

// What a recovery point learns of the fault that ended its body.
struct FaultSummary {
  int32_t signal = 0;
  int32_t code = 0;
  const void* address = nullptr;
};

// Runs on the faulting thread, on its alternate stack, with no lock of the
// handler held. It must not return control by any means but returning.
using FaultCallback = void (*)(const FaultEvent& event);

// The signals handled: SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT.
// Installs the handler for each (SA_SIGINFO | SA_ONSTACK | SA_NODEFER) and
// keeps the action it replaces. False (last error set) when one could not
// be installed; those installed stay.
bool InstallFaultHandlers(FaultCallback callback);
// Puts the kept actions back.
void RemoveFaultHandlers();

// Calls body(argument). A synchronous fault on this thread while it runs
// (SIGSEGV, SIGBUS, SIGFPE, SIGILL or SIGTRAP raised by an instruction, not
// sent) goes to the callback and then back here: the result is false and
// `fault` describes it. The frames between here and the fault are
// abandoned without running their destructors. Without installed handlers
// a fault stays fatal.
bool RunRecoverable(void (*body)(void*), void* argument, FaultSummary& fault);

// Calls use(event, argument) with the calling thread's context captured in
// this frame, which stays live meanwhile (a report of the running thread).
void WithCurrentContext(void (*use)(const FaultEvent& event, void* argument), void* argument);

// The calling thread's alternate signal stack for as long as this object
// lives; nothing is changed when the thread already has one.
class AltSignalStack {
 public:
  AltSignalStack();
  ~AltSignalStack();
  AltSignalStack(const AltSignalStack&) = delete;
  AltSignalStack& operator=(const AltSignalStack&) = delete;

  bool Installed() const noexcept { return m_base != nullptr; }

 private:
  void* m_base = nullptr;  // the mapping, guard page included
  size_t m_length = 0;
};

// Copies `size` bytes at `address` into `out` through the kernel, so that
// an unmapped or protected address fails instead of faulting. False when
// any byte could not be read.
bool ReadMemory(const void* address, void* out, size_t size) noexcept;

// The x86-64 registers of a context.
struct MachineRegisters {
  uint64_t rax, rbx, rcx, rdx, rsi, rdi, rbp, rsp;
  uint64_t r8, r9, r10, r11, r12, r13, r14, r15;
  uint64_t rip;
  uint32_t eflags;
  uint16_t cs, ss, ds, es, fs, gs;
};
MachineRegisters RegistersOf(const void* context) noexcept;

// The C library's description of a signal ("Aborted"), "" when it has none.
const char* SignalDescription(int32_t signal) noexcept;

}  // namespace TAVIX::platform

#endif  // TAVIX_PLATFORM_FAULT_SIGNALS_H_
