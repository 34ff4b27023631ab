// The two tracing paths: tavixTrace, the exported debug trace, which takes
// informational texts and discards them (the library itself writes none),
// and TraceLog, the process-wide writer of error lines to a UTF-16LE file
// beside the executable (or in the folder the application chose, or in the
// system's temporary folder when the executable's cannot be written).
#ifndef TAVIX_CORE_TRACE_LOG_H_
#define TAVIX_CORE_TRACE_LOG_H_

#include <cstdint>
#include <span>
#include <string>

#include "tavix/core/format.h"
#include "tavix/core/locks.h"
#include "tavix/platform/file.h"

namespace TAVIX {

// Informational texts go here and nowhere else; there are no log levels.
template <class... Args>
void tavixTrace(const char* /*format*/, const Args&... /*args*/) {}
template <class... Args>
void tavixTrace(const char16_t* /*format*/, const Args&... /*args*/) {}

class TraceLog {
 public:
  static constexpr size_t kLineCapacity = 544;
  static constexpr size_t kMessageLimit = 541;
  static constexpr int64_t kSizeLimit = 0x200000;

  // A writer for the given file; the process-wide writer logs in
  // DefaultFolder() (see LogPathFor) until SetPath names another file.
  explicit TraceLog(std::string path = {});
  TraceLog(const TraceLog&) = delete;
  TraceLog& operator=(const TraceLog&) = delete;

  // Appends one line: header, message, CR LF. Returns the line's length in
  // characters, or a negative value when nothing was written (the file
  // cannot be opened, or the message is too long). Never changes the
  // caller's last error.
  template <class... Args>
  int Append(const char16_t* format, const Args&... args) {
    const std::array<FormatArg, sizeof...(Args)> list{FormatArg(args)...};
    return AppendLine(format, list);
  }

  // Appends to the process-wide log; -1 outside the library's lifetime.
  template <class... Args>
  static int Write(const char16_t* format, const Args&... args) {
    TraceLog* log = Global();
    return log == nullptr ? -1 : log->Append(format, args...);
  }

  void Close();
  // Closes the current file; the next line goes to `path`.
  void SetPath(std::string path);
  // The file lines go to: the one given, else the default one.
  std::string Path();

  // Where the log and the exception reports go when the application chose
  // no folder: the executable's own folder when it can be written, else
  // the system's temporary folder, where temporary blob files go too.
  // Ends with '/'.
  static std::string DefaultFolder();
  // As DefaultFolder, for an executable in `folder` (ending with '/').
  static std::string FolderFor(const std::string& folder);
  // The last part of a path: "/opt/app/server" -> "server".
  static std::string BaseName(const std::string& path);

  // "/opt/app/server" -> "/opt/app/server_tavix.log": everything from the
  // last dot of the whole path is replaced, or the suffix is appended.
  static std::string LogPathFor(const std::string& executable);

  static TraceLog* Global();
  // Created and destroyed by the library's load and unload hooks.
  static void CreateGlobal();
  static void DestroyGlobal();

 private:
  int AppendLine(const char16_t* format, std::span<const FormatArg> args);
  bool EnsureOpen();

  // The default file: LogPathFor of the executable's name, in DefaultFolder.
  static std::string DefaultPath();

  platform::File m_file;  // guarded by m_lock, which is held across each line's write
  std::string m_path;     // guarded by m_lock
  SpinLock m_lock;
};

}  // namespace TAVIX

#endif  // TAVIX_CORE_TRACE_LOG_H_
