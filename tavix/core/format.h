// A small type-safe printf: the library's log lines keep their printf-style
// formats, but every argument carries its own type, so a mismatch can never
// read the wrong bytes. "%s" and "%hs" take a wide or a narrow string (each
// is rendered as what it is), and "%d %u %x %X %c %f %e %g %%" follow the C
// rules for flags, width and precision; "ll" (or "I64") selects 64 bits.
#ifndef TAVIX_CORE_FORMAT_H_
#define TAVIX_CORE_FORMAT_H_

#include <array>
#include <concepts>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace TAVIX {

class FormatArg {
 public:
  enum class Kind { kSigned, kUnsigned, kDouble, kWide, kNarrow, kChar };

  template <std::signed_integral T>
  FormatArg(T v) : m_kind(Kind::kSigned), m_signed(v) {}  // NOLINT: implicit by design
  template <std::unsigned_integral T>
  FormatArg(T v) : m_kind(Kind::kUnsigned), m_unsigned(v) {}  // NOLINT
  FormatArg(bool v) : m_kind(Kind::kUnsigned), m_unsigned(v ? 1 : 0) {}  // NOLINT
  FormatArg(char16_t v) : m_kind(Kind::kChar), m_unsigned(v) {}  // NOLINT
  FormatArg(double v) : m_kind(Kind::kDouble), m_double(v) {}  // NOLINT
  FormatArg(const char16_t* v) : m_kind(Kind::kWide), m_wide(v == nullptr ? u"(null)" : v) {}  // NOLINT
  FormatArg(const std::u16string& v) : m_kind(Kind::kWide), m_wide(v) {}  // NOLINT
  FormatArg(std::u16string_view v) : m_kind(Kind::kWide), m_wide(v) {}  // NOLINT
  FormatArg(const char* v) : m_kind(Kind::kNarrow), m_narrow(v == nullptr ? "(null)" : v) {}  // NOLINT
  FormatArg(const std::string& v) : m_kind(Kind::kNarrow), m_narrow(v) {}  // NOLINT
  FormatArg(std::string_view v) : m_kind(Kind::kNarrow), m_narrow(v) {}  // NOLINT

  Kind kind() const { return m_kind; }
  int64_t asSigned() const;
  uint64_t asUnsigned() const;
  double asDouble() const;
  std::u16string_view wide() const { return m_wide; }
  std::string_view narrow() const { return m_narrow; }

 private:
  Kind m_kind;
  int64_t m_signed = 0;
  uint64_t m_unsigned = 0;
  double m_double = 0.0;
  std::u16string_view m_wide;
  std::string_view m_narrow;
};

// Renders into out without a terminator. Returns the number of characters,
// or -1 when the text does not fit (nothing useful is left in out then).
int FormatInto(std::span<char16_t> out, std::u16string_view format,
               std::span<const FormatArg> args);

template <class... Args>
int Format(std::span<char16_t> out, std::u16string_view format, const Args&... args) {
  const std::array<FormatArg, sizeof...(Args)> list{FormatArg(args)...};
  return FormatInto(out, format, list);
}

// Convenience for callers that want a string (allocates).
template <class... Args>
std::u16string FormatString(std::u16string_view format, const Args&... args) {
  std::array<char16_t, 2048> buffer{};
  const int n = Format(buffer, format, args...);
  return n < 0 ? std::u16string() : std::u16string(buffer.data(), static_cast<size_t>(n));
}

}  // namespace TAVIX

#endif  // TAVIX_CORE_FORMAT_H_
