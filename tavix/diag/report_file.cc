#include "tavix/diag/report_file.h"

namespace TAVIX {
namespace {

constexpr unsigned char kByteOrderMark[2] = {0xFF, 0xFE};
std::array<char16_t, 32768> g_piece;

}  // namespace

bool ReportFile::Open(const std::string& path) {
  if (!m_file.Open(path, platform::File::Mode::kReadWrite)) return false;
  int64_t size = m_file.Size();
  if (size < 0) return false;
  if (size > kReplaceAbove) {
    m_file.Close();
    if (!platform::File::Remove(path) || !m_file.Open(path, platform::File::Mode::kReadWrite)) return false;
    size = 0;
  }
  if (size == 0) {
    if (m_file.WriteAt(kByteOrderMark, sizeof kByteOrderMark, 0) != sizeof kByteOrderMark) return false;
    size = sizeof kByteOrderMark;
  }
  m_offset = static_cast<uint64_t>(size);
  return true;
}

void ReportFile::WriteFormatted(std::u16string_view format, std::span<const FormatArg> args) {
  const int n = FormatInto(std::span<char16_t>(g_piece).first(g_piece.size() - 1), format, args);
  if (n <= 0 || !m_file.IsOpen()) return;
  // x86-64 is little-endian: the units are already in file order.
  const size_t bytes = static_cast<size_t>(n) * sizeof(char16_t);
  const int64_t written = m_file.WriteAt(g_piece.data(), bytes, m_offset);
  if (written > 0) m_offset += static_cast<uint64_t>(written);
  if (written != static_cast<int64_t>(bytes)) m_shortWrite = true;
}

}  // namespace TAVIX
