// The exception report: when a thread faults, a plain-text account of the
// machine, the fault, the registers, the call stack and each frame's
// parameters and locals is appended to the report file beside the
// executable. Installed by the library's load hook; a serving thread runs
// servant code under RunRecoverable, so that a fault there is reported and
// ends only its connection.
//
// A program names its file version for the report's first line by defining,
// in the executable, `extern "C" const char tavix_file_version[] =
// "1, 0, 0, 2";` (shown as "1. 0. 0. 2"); without it the version is empty.
#ifndef TAVIX_DIAG_EXCEPTION_REPORT_H_
#define TAVIX_DIAG_EXCEPTION_REPORT_H_

#include <cstdint>
#include <string>

#include "tavix/core/errors.h"
#include "tavix/platform/fault_signals.h"

namespace TAVIX {

class ExceptionReport {
 public:
  // Load hook: the report path, an alternate signal stack for the loading
  // thread, the fault handlers. Unload hook: the handlers' previous actions
  // back.
  static void Install();
  static void Uninstall();

  // Where reports of faults go ("" when the executable's path is unknown:
  // no report).
  static std::string GetPath();
  static void SetPath(const std::string& path);
  // The executable's path with what follows its last dot replaced by "RPT"
  // when at least three characters follow it, else ".RPT" appended: never
  // the executable itself.
  static std::string PathFor(const std::string& executable);

  // Appends a report of `fault` (its context walked) to `path`. True when
  // the whole report reached the file; false when the path is empty, the
  // file cannot be opened or replaced, or a write fell short.
  static bool WriteTo(const std::string& path, const platform::FaultEvent& fault, bool withVariables);
  // Appends a report of the calling thread as it is now; as WriteTo.
  static bool WriteCurrent(const std::string& path, bool withVariables);

  // Runs body(). A fault of its code is reported (with variables) and ends
  // it: the result is false and `fault` points at this thread's record of
  // it. The frames between the body and the fault are abandoned without
  // their destructors; exceptions of the body pass through.
  template <class Body>
  static bool RunRecoverable(Body& body, const FaultRecord*& fault) {
    platform::FaultSummary summary;
    if (platform::RunRecoverable([](void* b) { (*static_cast<Body*>(b))(); }, &body, summary)) return true;
    fault = Recovered(summary);
    return false;
  }

 private:
  static const FaultRecord* Recovered(const platform::FaultSummary& summary);
};

}  // namespace TAVIX

#endif  // TAVIX_DIAG_EXCEPTION_REPORT_H_
