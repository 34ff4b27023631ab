#include "tavix/diag/log_folder.h"

#include "tavix/core/trace_log.h"
#include "tavix/diag/exception_report.h"
#include "tavix/platform/file.h"
#include "tavix/platform/process.h"

namespace TAVIX {

bool SetLogFolder(const std::string& folder) {
  if (folder.empty() || !platform::File::IsWritableDirectory(folder)) return false;
  const std::string prefix = folder.back() == '/' ? folder : folder + '/';
  const std::string name = TraceLog::BaseName(platform::ExecutablePath());
  if (name.empty()) return false;
  ExceptionReport::SetPath(prefix + TraceLog::BaseName(ExceptionReport::PathFor(name)));
  TraceLog* log = TraceLog::Global();
  if (log != nullptr) log->SetPath(prefix + TraceLog::LogPathFor(name));
  return true;
}

std::string LogFilePath() {
  TraceLog* log = TraceLog::Global();
  return log == nullptr ? std::string() : log->Path();
}

std::string ReportFilePath() { return ExceptionReport::GetPath(); }

}  // namespace TAVIX
