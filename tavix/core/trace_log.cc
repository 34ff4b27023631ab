#include "tavix/core/trace_log.h"

#include <atomic>

#include "tavix/core/errors.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/file.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

std::atomic<TraceLog*> g_log{nullptr};

bool IsLineBreak(char16_t c) { return c == u'\r' || c == u'\n'; }

}  // namespace

TraceLog::TraceLog(std::string path) : m_path(std::move(path)) {}

std::string TraceLog::LogPathFor(const std::string& executable) {
  const size_t dot = executable.rfind('.');
  return (dot == std::string::npos ? executable : executable.substr(0, dot)) + "_tavix.log";
}

std::string TraceLog::BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string TraceLog::FolderFor(const std::string& folder) {
  if (!folder.empty() && platform::File::IsWritableDirectory(folder)) return folder;
  return platform::File::TemporaryDirectory();
}

std::string TraceLog::DefaultFolder() {
  const std::string executable = platform::ExecutablePath();
  return FolderFor(executable.substr(0, executable.rfind('/') + 1));
}

std::string TraceLog::DefaultPath() {
  const std::string executable = platform::ExecutablePath();
  if (executable.empty()) return {};
  return DefaultFolder() + LogPathFor(BaseName(executable));
}

bool TraceLog::EnsureOpen() {
  if (m_file.IsOpen()) return true;
  if (m_path.empty()) m_path = DefaultPath();
  if (m_path.empty()) return false;
  return m_file.Open(m_path, platform::File::Mode::kAppendWrite);
}

void TraceLog::SetPath(std::string path) {
  ScopedLock guard(m_lock);
  if (m_file.IsOpen()) m_file.SyncData();
  m_file.Close();
  m_path = std::move(path);
}

std::string TraceLog::Path() {
  ScopedLock guard(m_lock);
  return m_path.empty() ? DefaultPath() : m_path;
}

int TraceLog::AppendLine(const char16_t* format, std::span<const FormatArg> args) {
  EnsureLastError keep;
  ScopedLock guard(m_lock);
  if (!EnsureOpen()) return -1;

  std::array<char16_t, kLineCapacity> line{};
  const platform::LocalTime t = platform::LocalTimeNow();
  const int header = Format(line, u"[%05d-%05d] %4d-%02d-%02d %02d:%02d:%02d:%03d ", platform::ProcessId(),
                            platform::ThreadId(), t.year, t.month, t.day, t.hour, t.minute, t.second,
                            t.millisecond);
  if (header < 0) return header;
  const auto messageArea =
      std::span<char16_t>(line).subspan(static_cast<size_t>(header), kMessageLimit - static_cast<size_t>(header));
  const int message = FormatInto(messageArea, format, args);
  if (message < 0) return message;  // too long: dropped, never cut

  size_t n = static_cast<size_t>(header + message);
  if (n >= 2 && IsLineBreak(line[n - 2])) {
    n -= 2;
  } else if (n >= 1 && IsLineBreak(line[n - 1])) {
    n -= 1;
  }
  line[n++] = u'\r';
  line[n++] = u'\n';

  int64_t size = m_file.Size();
  if (size >= kSizeLimit) {
    m_file.Truncate(0);
    size = 0;
  }
  if (size == 0) {
    static constexpr unsigned char kByteOrderMark[2] = {0xFF, 0xFE};
    m_file.Write(kByteOrderMark, sizeof kByteOrderMark);
  }
  // x86-64 is little-endian: the units are already in file order. A line
  // written is in the system's cache and survives any crash of this
  // process; it is forced to disk only when the log closes, since a sync
  // per line, under the lock, would make every error line a disk wait.
  if (m_file.Write(line.data(), n * sizeof(char16_t)) < 0) return -1;
  return static_cast<int>(n);
}

void TraceLog::Close() {
  ScopedLock guard(m_lock);
  if (m_file.IsOpen()) m_file.SyncData();
  m_file.Close();
}

TraceLog* TraceLog::Global() { return g_log.load(std::memory_order_acquire); }

void TraceLog::CreateGlobal() {
  if (g_log.load() == nullptr) g_log.store(new TraceLog());
}

void TraceLog::DestroyGlobal() {
  TraceLog* log = g_log.exchange(nullptr);
  if (log != nullptr) log->Close();
  delete log;
}

}  // namespace TAVIX
