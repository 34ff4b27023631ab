// The report file: UTF-16LE text with CR LF line ends, a byte-order mark at
// the start of a new file, reports appended one after another, and a file
// that has grown past 16 MiB replaced before the next report.
#ifndef TAVIX_DIAG_REPORT_FILE_H_
#define TAVIX_DIAG_REPORT_FILE_H_

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tavix/core/format.h"
#include "tavix/platform/file.h"

namespace TAVIX {

class ReportFile {
 public:
  static constexpr int64_t kReplaceAbove = 0x1000000;

  // Opens (or creates) the file and positions at its end, following the
  // rules above. False when it cannot be opened or replaced.
  bool Open(const std::string& path);

  // Formats one piece of text and writes it at once. A piece longer than
  // 32767 characters is not written. Only one ReportFile writes at a time
  // (the report lock): the formatting buffer is shared, so that writing a
  // report never allocates for its text.
  template <class... Args>
  void Write(std::u16string_view format, const Args&... args) {
    const std::array<FormatArg, sizeof...(Args)> list{FormatArg(args)...};
    WriteFormatted(format, list);
  }

  // Every piece since Open reached the file whole.
  bool Complete() const { return m_file.IsOpen() && !m_shortWrite; }

 private:
  void WriteFormatted(std::u16string_view format, std::span<const FormatArg> args);

  platform::File m_file;
  uint64_t m_offset = 0;
  bool m_shortWrite = false;
};

}  // namespace TAVIX

#endif  // TAVIX_DIAG_REPORT_FILE_H_
