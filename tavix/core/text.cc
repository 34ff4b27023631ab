#include "tavix/core/text.h"

#include <cstdint>
#include <stdexcept>

namespace TAVIX {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

bool IsHighSurrogate(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

template <class Char>
std::basic_string_view<Char> UpToZero(std::basic_string_view<Char> text) {
  const size_t zero = text.find(Char{0});
  return zero == std::basic_string_view<Char>::npos ? text : text.substr(0, zero);
}

}  // namespace

std::string NarrowString(std::u16string_view text) {
  text = UpToZero(text);
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char16_t u = text[i];
    if (IsHighSurrogate(u) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      AppendUtf8(out, 0x10000 + ((static_cast<uint32_t>(u) - 0xD800) << 10) + (text[i + 1] - 0xDC00));
      ++i;
    } else if (IsHighSurrogate(u) || IsLowSurrogate(u)) {
      AppendUtf8(out, kReplacement);
    } else {
      AppendUtf8(out, u);
    }
  }
  return out;
}

size_t DecodeUtf8(std::string_view text, size_t& pos, std::array<char16_t, 2>& units) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t lead = byte(pos);
  size_t length = 0;
  uint32_t cp = 0;
  uint32_t minimum = 0;
  if (lead < 0x80) {
    units[0] = lead;
    ++pos;
    return 1;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2, cp = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, cp = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, cp = lead & 0x07, minimum = 0x10000;
  }
  // A malformed sequence becomes one replacement for its longest valid
  // beginning (at least its first byte).
  size_t matched = length == 0 ? 0 : 1;
  while (matched != 0 && matched < length && pos + matched < text.size() &&
         (byte(pos + matched) & 0xC0) == 0x80) {
    cp = (cp << 6) | (byte(pos + matched) & 0x3F);
    ++matched;
  }
  const bool valid = length != 0 && matched == length && cp >= minimum && cp <= 0x10FFFF &&
                     (cp < 0xD800 || cp > 0xDFFF);
  if (!valid) {
    units[0] = kReplacement;
    pos += matched == 0 ? 1 : matched;
    return 1;
  }
  pos += length;
  if (cp < 0x10000) {
    units[0] = static_cast<char16_t>(cp);
    return 1;
  }
  cp -= 0x10000;
  units[0] = static_cast<char16_t>(0xD800 + (cp >> 10));
  units[1] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
  return 2;
}

std::u16string WiddenString(std::string_view text) {
  text = UpToZero(text);
  std::u16string out;
  out.reserve(text.size());
  std::array<char16_t, 2> units{};
  for (size_t pos = 0; pos < text.size();) {
    const size_t n = DecodeUtf8(text, pos, units);
    out.append(units.data(), n);
  }
  return out;
}

namespace {

template <class String>
String& TrimImpl(String& text, const String& characters) {
  const size_t last = text.find_last_not_of(characters);
  if (last == String::npos) {
    text.clear();
    return text;
  }
  text.erase(last + 1);
  text.erase(0, text.find_first_not_of(characters));
  return text;
}

}  // namespace

std::string& trim(std::string& text, const std::string& characters) { return TrimImpl(text, characters); }

std::u16string& trim(std::u16string& text, const std::u16string& characters) {
  return TrimImpl(text, characters);
}

double ElapsedMs(const FILETIME* start, const FILETIME* end) {
  if (start == nullptr || end == nullptr) throw std::runtime_error("NULL Pointer Referenced!");
  return static_cast<double>(static_cast<int64_t>(*end - *start)) * 0.0001;
}

}  // namespace TAVIX
