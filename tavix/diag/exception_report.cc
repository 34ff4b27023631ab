#include "tavix/diag/exception_report.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <string_view>

#include "tavix/core/trace_log.h"
#include "tavix/diag/exception_codes.h"
#include "tavix/diag/report_file.h"
#include "tavix/diag/stack_walk.h"
#include "tavix/diag/variables.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/process.h"
#include "tavix/platform/system_info.h"

// Defined by programs that name their file version; weak, so that its
// absence leaves a null address instead of a link error.
extern "C" [[gnu::weak]] const char tavix_file_version[];

namespace TAVIX {
namespace {

constexpr std::u16string_view kRule = u"=====================================================\r\n";
constexpr std::u16string_view kClosingRule = u"\r\n=====================================================\r\n";
// A runaway recursion has tens of thousands of frames; the innermost tell
// the story.
constexpr int32_t kFrameLimit = 64;

// The report lock: a spin lock, because a signal handler may take it.
std::atomic_flag g_lock = ATOMIC_FLAG_INIT;
// The report path, read by the handler under the lock without allocating.
std::array<char, 4096> g_path{};
// The loading thread's alternate stack. A plain pointer, freed by the
// unload hook: C++ exit-time destructors run before unload hooks.
platform::AltSignalStack* g_loadThreadStack = nullptr;
thread_local FaultRecord t_lastFault;

class ReportLock {
 public:
  ReportLock() {
    while (g_lock.test_and_set(std::memory_order_acquire)) platform::YieldProcessor();
  }
  ~ReportLock() { g_lock.clear(std::memory_order_release); }
  ReportLock(const ReportLock&) = delete;
  ReportLock& operator=(const ReportLock&) = delete;
};

std::string FileVersion() {
  if (tavix_file_version == nullptr) return {};
  std::string version(tavix_file_version);
  std::replace(version.begin(), version.end(), ',', '.');
  return version;
}

void WriteHeader(ReportFile& out) {
  const std::string executable = platform::ExecutablePath();
  const platform::LocalTime t = platform::LocalTimeNow();
  out.Write(u"Exception report created by %hs %hs [%4d-%02d-%02d %02d:%02d:%02d:%03d]\r\n\r\n",
            std::string_view(executable).substr(executable.rfind('/') + 1), FileVersion(), t.year, t.month, t.day,
            t.hour, t.minute, t.second, t.millisecond);
}

void WriteProcessorLine(ReportFile& out) {
  const platform::ProcessorInfo cpu = platform::ReadProcessorInfo();
  const auto known = [](const std::string& text) { return text.empty() ? std::string("Unknown") : text; };
  const std::string speed = cpu.mhz < 0 ? ", Speed: Unknown, " : ", Speed: " + std::to_string(cpu.mhz) + "MHz, ";
  const std::string level = cpu.family < 0 ? "Level: Unknown, " : "Level: " + std::to_string(cpu.family) + ", ";
  const std::string stepping = cpu.modelNumber < 0 ? "Stepping: Unknown"
                                                   : "Stepping: " + std::to_string(cpu.modelNumber) + "-" +
                                                         std::to_string(cpu.stepping);
  out.Write(u"Vendor: %hs %hs Type: %hs,  Number Of Processors: %d,  Architecture: %hs,  %hs %hs\r\n",
            known(cpu.vendor), speed, known(cpu.model), cpu.count, known(cpu.architecture), level, stepping);
}

void WriteSystemDetails(ReportFile& out) {
  out.Write(u"%s", kRule);
  out.Write(u"System details:\r\n");
  out.Write(u"%s", kRule);
  out.Write(u"%hs\r\n", platform::OperatingSystemText());
  WriteProcessorLine(out);
  const platform::MemoryInfo m = platform::ReadMemoryInfo();
  const uint64_t load = m.physicalTotal == 0 ? 0 : (m.physicalTotal - m.physicalAvailable) * 100 / m.physicalTotal;
  const uint64_t spaceLeft = m.addressSpaceTotal > m.addressSpaceUsed ? m.addressSpaceTotal - m.addressSpaceUsed : 0;
  out.Write(
      u"Memory Used %llu%%, Total Physical Memory %lluKB, Physical Memory Available %lluKB, Total Virtual Memory "
      u"%lluKB, Available Virtual Memory %lluKB, Working Set Min: %lluKB Max: %lluKB .\r\n\r\n",
      load, m.physicalTotal, m.physicalAvailable, m.addressSpaceTotal, spaceLeft, m.resident, m.residentPeak);
}

void WriteRegisters(ReportFile& out, const platform::MachineRegisters& r) {
  out.Write(u"%s", kClosingRule);
  out.Write(u"Registers:\r\n");
  out.Write(u"%s", kRule);
  out.Write(u"RAX:%016llX\r\nRBX:%016llX\r\nRCX:%016llX\r\nRDX:%016llX\r\nRSI:%016llX\r\nRDI:%016llX\r\n", r.rax,
            r.rbx, r.rcx, r.rdx, r.rsi, r.rdi);
  out.Write(u"R8:%016llX\r\nR9:%016llX\r\nR10:%016llX\r\nR11:%016llX\r\n", r.r8, r.r9, r.r10, r.r11);
  out.Write(u"R12:%016llX\r\nR13:%016llX\r\nR14:%016llX\r\nR15:%016llX\r\n", r.r12, r.r13, r.r14, r.r15);
  out.Write(u"CS:RIP:%04X:%016llX\r\n", r.cs, r.rip);
  out.Write(u"SS:RSP:%04X:%016llX  RBP:%016llX\r\n", r.ss, r.rsp, r.rbp);
  out.Write(u"DS:%04X  ES:%04X  FS:%04X  GS:%04X\r\n", r.ds, r.es, r.fs, r.gs);
  out.Write(u"Flags:%08X\r\n", r.eflags);
}

void WriteCallStack(ReportFile& out, const DebugSession& session, const platform::FaultEvent& fault,
                    bool withVariables) {
  out.Write(u"%s", kClosingRule);
  out.Write(u"Call stack:\r\n");
  out.Write(u"%s", kRule);
  out.Write(u"Address   Frame     Function            SourceFile\r\n");
  StackWalker walker(fault.context, fault.signalFrame);
  StackFrame frame;
  for (int32_t i = 0; i < kFrameLimit && walker.Next(frame) && frame.cfa != 0; ++i) {
    out.Write(u"%016llX  %016llX  ", frame.pc, frame.cfa);
    DebugSession::Place place;
    session.PlaceOf(frame.pc, place);
    std::string name;
    uint64_t displacement = 0;
    std::string file;
    int32_t line = 0;
    if (!session.SymbolOf(frame.lookupPc, name, displacement)) {
      out.Write(u"%04X:%016llX %hs\r\n", place.section, place.offset, place.module);
    } else if (!session.LineOf(frame.lookupPc, file, line)) {
      out.Write(u"%hs+%llX  %hs %04X:%016llX \r\n", name, displacement + (frame.pc - frame.lookupPc), place.module,
                place.section, place.offset);
    } else {
      out.Write(u"%hs+%llX  %hs line %d\r\n", name, displacement + (frame.pc - frame.lookupPc), file, line);
      if (withVariables) WriteFrameVariables(session, frame, out);
    }
  }
}

void WriteReport(ReportFile& out, const platform::FaultEvent& fault, bool withVariables) {
  const platform::MachineRegisters registers = platform::RegistersOf(fault.context);
  WriteHeader(out);
  WriteSystemDetails(out);
  out.Write(u"%s", kClosingRule);
  out.Write(u"Exception Details:\r\n");
  out.Write(u"%s", kRule);
  const uint32_t code = ExceptionCodeOf(fault.signal, fault.code, reinterpret_cast<uintptr_t>(fault.address),
                                        registers.rsp);
  out.Write(u"Exception code: %08X %hs\r\n", code, ExceptionName(code));

  const DebugSession session;
  if (!session.Ready()) return;
  DebugSession::Place place;
  if (!session.PlaceOf(registers.rip, place)) {
    out.Write(u"Failed to get module info,Fault address: %016llX\r\n", registers.rip);
    return;
  }
  out.Write(u"Fault address:  %016llX %02X:%016llX %hs\r\n", registers.rip, place.section, place.offset,
            place.module);
  WriteRegisters(out, registers);
  WriteCallStack(out, session, fault, false);
  if (withVariables) {
    out.Write(u"%s", kClosingRule);
    out.Write(u"Local Variables And Parameters:\r\n");
    out.Write(u"%s", kRule);
    WriteCallStack(out, session, fault, true);
  }
  out.Write(u"\r\n");
}

// Under the report lock.
// True when the whole report reached the file.
bool WriteLocked(const char* path, const platform::FaultEvent& fault, bool withVariables) {
  ReportFile file;
  if (path[0] == '\0' || !file.Open(path)) return false;
  WriteReport(file, fault, withVariables);
  return file.Complete();
}

// The fault handlers' callback: every fault of the process, on the
// faulting thread's alternate stack.
void OnFault(const platform::FaultEvent& fault) {
  const ReportLock lock;
  WriteLocked(g_path.data(), fault, true);
}

[[gnu::constructor(201)]] void OnLibraryLoad() { ExceptionReport::Install(); }
[[gnu::destructor(201)]] void OnLibraryUnload() { ExceptionReport::Uninstall(); }

}  // namespace

void ExceptionReport::Install() {
  const std::string executable = platform::ExecutablePath();
  SetPath(executable.empty() ? std::string() : TraceLog::DefaultFolder() + PathFor(TraceLog::BaseName(executable)));
  if (g_loadThreadStack == nullptr) g_loadThreadStack = new platform::AltSignalStack();
  platform::InstallFaultHandlers(&OnFault);
}

void ExceptionReport::Uninstall() {
  platform::RemoveFaultHandlers();
  delete g_loadThreadStack;
  g_loadThreadStack = nullptr;
}

std::string ExceptionReport::GetPath() {
  const ReportLock lock;
  return std::string(g_path.data());
}

void ExceptionReport::SetPath(const std::string& path) {
  const ReportLock lock;
  const size_t n = path.size() < g_path.size() ? path.size() : 0;  // a path that does not fit: no report
  path.copy(g_path.data(), n);
  g_path[n] = '\0';
}

std::string ExceptionReport::PathFor(const std::string& executable) {
  if (executable.empty()) return {};
  const size_t dot = executable.rfind('.');
  if (dot != std::string::npos && executable.size() - dot > 3) return executable.substr(0, dot + 1) + "RPT";
  return executable + ".RPT";
}

bool ExceptionReport::WriteTo(const std::string& path, const platform::FaultEvent& fault, bool withVariables) {
  const ReportLock lock;
  return WriteLocked(path.c_str(), fault, withVariables);
}

bool ExceptionReport::WriteCurrent(const std::string& path, bool withVariables) {
  struct Request {
    const std::string& path;
    bool withVariables;
    bool written;
  } request{path, withVariables, false};
  platform::WithCurrentContext(
      [](const platform::FaultEvent& now, void* raw) {
        auto& r = *static_cast<Request*>(raw);
        r.written = WriteTo(r.path, now, r.withVariables);
      },
      &request);
  return request.written;
}

const FaultRecord* ExceptionReport::Recovered(const platform::FaultSummary& summary) {
  t_lastFault = FaultRecord{summary.signal, summary.code, summary.address};
  return &t_lastFault;
}

}  // namespace TAVIX
