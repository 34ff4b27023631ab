// Reading report files back in tests.
#ifndef TAVIX_TESTING_REPORT_FILES_H_
#define TAVIX_TESTING_REPORT_FILES_H_

#include <fstream>
#include <iterator>
#include <string>

#include "tavix/core/text.h"

namespace TAVIX::test_report {

inline std::string Bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The file's UTF-16LE text after its byte-order mark, as UTF-8; "" when the file is missing or has no mark.
inline std::string Text(const std::string& path) {
  const std::string bytes = Bytes(path);
  if (bytes.size() < 2 || bytes.compare(0, 2, "\xFF\xFE") != 0) return {};
  std::u16string units((bytes.size() - 2) / 2, u'\0');
  for (size_t i = 0; i < units.size(); ++i) {
    units[i] = static_cast<char16_t>(static_cast<unsigned char>(bytes[2 + 2 * i]) |
                                     static_cast<unsigned char>(bytes[3 + 2 * i]) << 8);
  }
  return NarrowString(units);
}

// True when each piece appears in `text` after the one before it.
inline bool InOrder(const std::string& text, std::initializer_list<std::string> pieces, std::string* missing = nullptr) {
  size_t at = 0;
  for (const std::string& piece : pieces) {
    at = text.find(piece, at);
    if (at == std::string::npos) {
      if (missing != nullptr) *missing = piece;
      return false;
    }
    at += piece.size();
  }
  return true;
}

}  // namespace TAVIX::test_report

#endif  // TAVIX_TESTING_REPORT_FILES_H_
