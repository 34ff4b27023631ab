#include "tavix/platform/fault_signals.h"

#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

#include "tavix/platform/last_error.h"

namespace TAVIX::platform {
namespace {

constexpr std::array<int, 6> kSignals{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT};
// A report that takes longer than this is given up: a fault must not hang.
constexpr time_t kWatchdogSeconds = 30;
// Marks the watchdog's own timer signal among the signals of its number.
constexpr int kWatchdogTag = 0x54415658;
// Room for the report writer (stack walk, debug information, demangling).
constexpr size_t kAltStackSize = 256 * 1024;

struct KeptAction {
  struct sigaction action;
  bool kept;
};
std::array<KeptAction, kSignals.size()> g_previous{};
std::atomic<FaultCallback> g_callback{nullptr};

struct RecoveryPoint {
  sigjmp_buf env;
  FaultSummary fault;
};

// Initial-exec TLS: the handler reads these without a call that could
// allocate, also in a library loaded by dlopen.
[[gnu::tls_model("initial-exec")]] thread_local RecoveryPoint* t_recovery = nullptr;
// The signal this thread is handling now, 0 when none.
[[gnu::tls_model("initial-exec")]] thread_local int t_handling = 0;

size_t PageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

void SendToSelf(int signal) { syscall(SYS_tgkill, getpid(), gettid(), signal); }

// Ends the process by `signal` under its default action, at once.
[[noreturn]] void EndWith(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  SendToSelf(signal);
  _exit(128 + signal);  // not reached: every handled signal ends the process by default
}

// The action that was there before ours takes over, as if ours had never
// been installed. A fault of an instruction recurs when the handler returns,
// now under that action; a sent signal, abort's and a trap's would not, so
// they are raised again.
void PassToPrevious(int signal, const siginfo_t* info) {
  for (size_t i = 0; i < kSignals.size(); ++i) {
    if (kSignals[i] == signal && g_previous[i].kept) sigaction(signal, &g_previous[i].action, nullptr);
  }
  if (info->si_code <= 0 || signal == SIGABRT || signal == SIGTRAP) SendToSelf(signal);
}

// A one-shot timer that sends `signal`, tagged, to the calling thread after
// kWatchdogSeconds. Raw system calls: nothing here may allocate.
class Watchdog {
 public:
  explicit Watchdog(int signal) {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = signal;
    event.sigev_value.sival_int = kWatchdogTag;
    event._sigev_un._tid = gettid();  // the C library names no accessor for it here
    int timer = 0;
    if (syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timer) != 0) return;
    itimerspec when{};
    when.it_value.tv_sec = kWatchdogSeconds;
    syscall(SYS_timer_settime, timer, 0, &when, nullptr);
    m_timer = timer;
  }
  ~Watchdog() { Disarm(); }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  void Disarm() {
    if (m_timer >= 0) syscall(SYS_timer_delete, m_timer);
    m_timer = -1;
  }

 private:
  int m_timer = -1;
};

void OnFault(int signal, siginfo_t* info, void* context) {
  // A fault while handling one, or the watchdog: the report is abandoned
  // and the process ends by the signal that started it.
  const bool watchdog = info->si_code == SI_TIMER && info->si_value.sival_int == kWatchdogTag;
  if (t_handling != 0) EndWith(t_handling);
  if (watchdog) EndWith(signal);
  t_handling = signal;

  Watchdog timer(signal);
  const bool sent = info->si_code <= 0;
  const FaultEvent event{signal, info->si_code, sent ? nullptr : info->si_addr, context, true};
  RecoveryPoint* const recovery = t_recovery;
  const bool recover = recovery != nullptr && !sent && signal != SIGABRT;
  if (const FaultCallback callback = g_callback.load()) callback(event);
  timer.Disarm();
  t_handling = 0;

  if (recover) {
    t_recovery = nullptr;
    recovery->fault = FaultSummary{event.signal, event.code, event.address};
    siglongjmp(recovery->env, 1);
  }
  PassToPrevious(signal, info);
}

}  // namespace

bool InstallFaultHandlers(FaultCallback callback) {
  g_callback.store(callback);
  bool all = true;
  for (size_t i = 0; i < kSignals.size(); ++i) {
    struct sigaction action {};
    action.sa_sigaction = &OnFault;
    sigemptyset(&action.sa_mask);
    // NODEFER: a fault inside the handler, or its watchdog, is taken at
    // once instead of waiting behind the signal being handled.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    if (sigaction(kSignals[i], &action, &g_previous[i].action) != 0) {
      SaveErrno();
      all = false;
      continue;
    }
    g_previous[i].kept = true;
  }
  return all;
}

void RemoveFaultHandlers() {
  for (size_t i = 0; i < kSignals.size(); ++i) {
    if (!g_previous[i].kept) continue;
    sigaction(kSignals[i], &g_previous[i].action, nullptr);
    g_previous[i].kept = false;
  }
  g_callback.store(nullptr);
}

bool RunRecoverable(void (*body)(void*), void* argument, FaultSummary& fault) {
  RecoveryPoint point{};
  // The enclosing point comes back however this frame is left: by return,
  // by an exception of the body, or by a recovered fault.
  struct Restore {
    RecoveryPoint* outer;
    ~Restore() { t_recovery = outer; }
  } restore{t_recovery};
  // The mask is not saved: the handler blocks nothing (SA_NODEFER, empty
  // sa_mask), so the thread's mask is the same after the jump. This keeps
  // a system call off every request.
  if (sigsetjmp(point.env, 0) != 0) {
    fault = point.fault;
    return false;
  }
  t_recovery = &point;
  body(argument);
  return true;
}

[[gnu::noinline]] void WithCurrentContext(void (*use)(const FaultEvent& event, void* argument), void* argument) {
  ucontext_t context;
  getcontext(&context);
  const auto pc = static_cast<uintptr_t>(context.uc_mcontext.gregs[REG_RIP]);
  const FaultEvent event{0, 0, reinterpret_cast<const void*>(pc), &context, false};
  use(event, argument);
}

AltSignalStack::AltSignalStack() {
  stack_t current{};
  if (sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0) return;
  const size_t page = PageSize();
  const size_t length = kAltStackSize + page;
  void* base = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (base == MAP_FAILED) {
    SaveErrno();
    return;
  }
  // A guard page below: a handler that runs out of room faults (and ends
  // the process) instead of writing into other memory.
  mprotect(base, page, PROT_NONE);
  stack_t stack{};
  stack.ss_sp = static_cast<char*>(base) + page;
  stack.ss_size = kAltStackSize;
  if (sigaltstack(&stack, nullptr) != 0) {
    SaveErrno();
    munmap(base, length);
    return;
  }
  m_base = base;
  m_length = length;
}

AltSignalStack::~AltSignalStack() {
  if (m_base == nullptr) return;
  // Only the thread that has this stack can take it away; destroyed on
  // another thread (a process-wide object at unload) it stays mapped.
  stack_t current{};
  if (sigaltstack(nullptr, &current) != 0 || current.ss_sp != static_cast<char*>(m_base) + PageSize()) return;
  stack_t off{};
  off.ss_flags = SS_DISABLE;
  sigaltstack(&off, nullptr);
  munmap(m_base, m_length);
}

bool ReadMemory(const void* address, void* out, size_t size) noexcept {
  if (size == 0) return true;
  iovec local{out, size};
  iovec remote{const_cast<void*>(address), size};
  const auto n = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
  return n >= 0 && static_cast<size_t>(n) == size;
}

MachineRegisters RegistersOf(const void* context) noexcept {
  const auto& g = static_cast<const ucontext_t*>(context)->uc_mcontext.gregs;
  const auto reg = [&g](int index) { return static_cast<uint64_t>(g[index]); };
  MachineRegisters r{};
  r.rax = reg(REG_RAX);
  r.rbx = reg(REG_RBX);
  r.rcx = reg(REG_RCX);
  r.rdx = reg(REG_RDX);
  r.rsi = reg(REG_RSI);
  r.rdi = reg(REG_RDI);
  r.rbp = reg(REG_RBP);
  r.rsp = reg(REG_RSP);
  r.r8 = reg(REG_R8);
  r.r9 = reg(REG_R9);
  r.r10 = reg(REG_R10);
  r.r11 = reg(REG_R11);
  r.r12 = reg(REG_R12);
  r.r13 = reg(REG_R13);
  r.r14 = reg(REG_R14);
  r.r15 = reg(REG_R15);
  r.rip = reg(REG_RIP);
  r.eflags = static_cast<uint32_t>(reg(REG_EFL));
  // User-mode selectors are the same in every thread and never change
  // while it runs; the saved context does not carry all of them.
  asm("mov %%cs, %0" : "=r"(r.cs));
  asm("mov %%ss, %0" : "=r"(r.ss));
  asm("mov %%ds, %0" : "=r"(r.ds));
  asm("mov %%es, %0" : "=r"(r.es));
  asm("mov %%fs, %0" : "=r"(r.fs));
  asm("mov %%gs, %0" : "=r"(r.gs));
  return r;
}

const char* SignalDescription(int32_t signal) noexcept {
  const char* text = sigdescr_np(signal);
  return text == nullptr ? "" : text;
}

}  // namespace TAVIX::platform
