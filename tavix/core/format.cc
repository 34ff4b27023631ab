#include "tavix/core/format.h"

#include <charconv>
#include <cstring>

#include "tavix/core/text.h"

namespace TAVIX {

int64_t FormatArg::asSigned() const {
  switch (m_kind) {
    case Kind::kSigned: return m_signed;
    case Kind::kDouble: return static_cast<int64_t>(m_double);
    default: return static_cast<int64_t>(m_unsigned);
  }
}

uint64_t FormatArg::asUnsigned() const {
  switch (m_kind) {
    case Kind::kSigned: return static_cast<uint64_t>(m_signed);
    case Kind::kDouble: return static_cast<uint64_t>(m_double);
    default: return m_unsigned;
  }
}

double FormatArg::asDouble() const {
  switch (m_kind) {
    case Kind::kDouble: return m_double;
    case Kind::kSigned: return static_cast<double>(m_signed);
    default: return static_cast<double>(m_unsigned);
  }
}

namespace {

struct Directive {
  bool left = false, plus = false, space = false, alternate = false, zero = false;
  int width = 0;
  int precision = -1;
  int length = 0;  // 0 default (32-bit), -1 short, 2 long long
  char16_t conversion = 0;
};

class Writer {
 public:
  explicit Writer(std::span<char16_t> out) : m_out(out) {}

  void put(char16_t c) {
    if (m_used < m_out.size()) {
      m_out[m_used] = c;
    } else {
      m_overflow = true;
    }
    ++m_used;
  }
  void repeat(char16_t c, int count) {
    for (int i = 0; i < count; ++i) put(c);
  }
  int result() const { return m_overflow ? -1 : static_cast<int>(m_used); }

 private:
  std::span<char16_t> m_out;
  size_t m_used = 0;
  bool m_overflow = false;
};

// Pads a rendered field to its width. `prefix` (sign or 0x) stays in front of
// zero padding.
void EmitField(Writer& w, const Directive& directive, std::string_view prefix, std::string_view body) {
  const int length = static_cast<int>(prefix.size() + body.size());
  const int pad = directive.width > length ? directive.width - length : 0;
  if (!directive.left && !directive.zero) w.repeat(u' ', pad);
  for (char c : prefix) w.put(static_cast<char16_t>(c));
  if (!directive.left && directive.zero) w.repeat(u'0', pad);
  for (char c : body) w.put(static_cast<char16_t>(static_cast<unsigned char>(c)));
  if (directive.left) w.repeat(u' ', pad);
}

void EmitInteger(Writer& w, Directive directive, const FormatArg& arg) {
  char digits[32];
  std::string prefix;
  char* end = digits;
  const char16_t c = directive.conversion;
  if (c == u'd' || c == u'i') {
    int64_t v = arg.asSigned();
    if (directive.length == 0) v = static_cast<int32_t>(v);
    if (directive.length == -1) v = static_cast<int16_t>(v);
    const uint64_t magnitude = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    end = std::to_chars(digits, digits + sizeof digits, magnitude).ptr;
    if (v < 0) prefix = "-";
    else if (directive.plus) prefix = "+";
    else if (directive.space) prefix = " ";
  } else {
    uint64_t v = arg.asUnsigned();
    if (directive.length == 0) v = static_cast<uint32_t>(v);
    if (directive.length == -1) v = static_cast<uint16_t>(v);
    const int base = (c == u'u') ? 10 : (c == u'o' ? 8 : 16);
    end = std::to_chars(digits, digits + sizeof digits, v, base).ptr;
    if (c == u'X') {
      for (char* p = digits; p != end; ++p) *p = static_cast<char>(std::toupper(*p));
    }
    if (directive.alternate && v != 0 && base == 16) prefix = c == u'X' ? "0X" : "0x";
  }
  std::string body(digits, end);
  if (directive.precision >= 0) {
    directive.zero = false;
    if (static_cast<int>(body.size()) < directive.precision) {
      body.insert(0, static_cast<size_t>(directive.precision) - body.size(), '0');
    }
    if (directive.precision == 0 && body == "0") body.clear();
  }
  EmitField(w, directive, prefix, body);
}

void EmitFloat(Writer& w, Directive directive, const FormatArg& arg) {
  const double v = arg.asDouble();
  char text[400];
  const int precision = directive.precision < 0 ? 6 : directive.precision;
  std::chars_format style = std::chars_format::fixed;
  if (directive.conversion == u'e' || directive.conversion == u'E') style = std::chars_format::scientific;
  if (directive.conversion == u'g' || directive.conversion == u'G') style = std::chars_format::general;
  const auto r = std::to_chars(text, text + sizeof text, v < 0 ? -v : v, style, precision);
  std::string body(text, r.ptr);
  std::string prefix = v < 0 ? "-" : (directive.plus ? "+" : (directive.space ? " " : ""));
  EmitField(w, directive, prefix, body);
}

void EmitString(Writer& w, const Directive& directive, const FormatArg& arg) {
  if (arg.kind() != FormatArg::Kind::kWide && arg.kind() != FormatArg::Kind::kNarrow) {
    // A number where text was expected: show the number, never guess memory.
    Directive asNumber = directive;
    asNumber.conversion = arg.kind() == FormatArg::Kind::kDouble ? u'f' : u'd';
    asNumber.length = 2;
    if (arg.kind() == FormatArg::Kind::kDouble) EmitFloat(w, asNumber, arg);
    else EmitInteger(w, asNumber, arg);
    return;
  }
  if (arg.kind() == FormatArg::Kind::kWide) {
    const std::u16string_view text = arg.wide();
    const size_t count = directive.precision >= 0 ? std::min(text.size(), static_cast<size_t>(directive.precision)) : text.size();
    const int pad = directive.width > static_cast<int>(count) ? directive.width - static_cast<int>(count) : 0;
    if (!directive.left) w.repeat(u' ', pad);
    for (size_t i = 0; i < count; ++i) w.put(text[i]);
    if (directive.left) w.repeat(u' ', pad);
    return;
  }
  // Narrow text is UTF-8; width and precision count its code units after
  // decoding, as a conversion to wide text would.
  std::array<char16_t, 2> units{};
  const std::string_view text = arg.narrow();
  size_t total = 0;
  for (size_t pos = 0; pos < text.size();) total += DecodeUtf8(text, pos, units);
  const size_t count = directive.precision >= 0 ? std::min(total, static_cast<size_t>(directive.precision)) : total;
  const int pad = directive.width > static_cast<int>(count) ? directive.width - static_cast<int>(count) : 0;
  if (!directive.left) w.repeat(u' ', pad);
  size_t emitted = 0;
  for (size_t pos = 0; pos < text.size() && emitted < count;) {
    const size_t n = DecodeUtf8(text, pos, units);
    for (size_t k = 0; k < n && emitted < count; ++k, ++emitted) w.put(units[k]);
  }
  if (directive.left) w.repeat(u' ', pad);
}

void EmitChar(Writer& w, const Directive& directive, const FormatArg& arg) {
  const int pad = directive.width > 1 ? directive.width - 1 : 0;
  if (!directive.left) w.repeat(u' ', pad);
  w.put(static_cast<char16_t>(arg.asUnsigned()));
  if (directive.left) w.repeat(u' ', pad);
}

int ReadNumber(std::u16string_view format, size_t& i) {
  int value = 0;
  while (i < format.size() && format[i] >= u'0' && format[i] <= u'9') {
    value = value * 10 + (format[i] - u'0');
    ++i;
  }
  return value;
}

// Reads the part of a directive between '%' and its conversion letter:
// flags, width, precision and length. `i` ends at the conversion letter
// (or the end of the format); '*' takes its number from the arguments.
class DirectiveReader {
 public:
  DirectiveReader(std::u16string_view format, std::span<const FormatArg> args, size_t& next)
      : m_format(format), m_args(args), m_next(next) {}

  Directive Read(size_t& i) {
    Directive directive;
    ReadFlags(i, directive);
    if (At(i, u'*')) {
      directive.width = TakeInt();
      if (directive.width < 0) {
        directive.left = true;
        directive.width = -directive.width;
      }
      ++i;
    } else {
      directive.width = ReadNumber(m_format, i);
    }
    if (At(i, u'.')) {
      ++i;
      if (At(i, u'*')) {
        directive.precision = TakeInt();
        ++i;
      } else {
        directive.precision = ReadNumber(m_format, i);
      }
    }
    ReadLength(i, directive);
    return directive;
  }

 private:
  bool At(size_t i, char16_t c) const { return i < m_format.size() && m_format[i] == c; }
  int TakeInt() { return m_next < m_args.size() ? static_cast<int>(m_args[m_next++].asSigned()) : 0; }

  void ReadFlags(size_t& i, Directive& directive) const {
    for (; i < m_format.size(); ++i) {
      const char16_t f = m_format[i];
      if (f == u'-') directive.left = true;
      else if (f == u'+') directive.plus = true;
      else if (f == u' ') directive.space = true;
      else if (f == u'#') directive.alternate = true;
      else if (f == u'0') directive.zero = true;
      else return;
    }
  }

  void ReadLength(size_t& i, Directive& directive) const {
    while (i < m_format.size()) {
      const std::u16string_view rest = m_format.substr(i);
      if (rest.starts_with(u"I64") || rest.starts_with(u"ll")) {
        directive.length = 2;
        i += rest[0] == u'I' ? 3 : 2;
      } else if (rest[0] == u'h') {
        directive.length = -1;
        ++i;
      } else if (rest[0] == u'l' || rest[0] == u'w') {
        ++i;
      } else {
        return;
      }
    }
  }

  std::u16string_view m_format;
  std::span<const FormatArg> m_args;
  size_t& m_next;
};

void Emit(Writer& w, const Directive& directive, const FormatArg& arg) {
  switch (directive.conversion) {
    case u'd': case u'i': case u'u': case u'x': case u'X': case u'o':
      EmitInteger(w, directive, arg);
      break;
    case u'f': case u'F': case u'e': case u'E': case u'g': case u'G':
      EmitFloat(w, directive, arg);
      break;
    case u's': case u'S':
      EmitString(w, directive, arg);
      break;
    case u'c': case u'C':
      EmitChar(w, directive, arg);
      break;
    default:
      w.put(u'%');
      w.put(directive.conversion);
      break;
  }
}

}  // namespace

int FormatInto(std::span<char16_t> out, std::u16string_view format, std::span<const FormatArg> args) {
  Writer w(out);
  size_t next = 0;
  DirectiveReader reader(format, args, next);
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != u'%') {
      w.put(format[i]);
      continue;
    }
    if (++i >= format.size()) break;
    Directive directive = reader.Read(i);
    if (i >= format.size()) break;
    directive.conversion = format[i];
    if (directive.conversion == u'%') {
      w.put(u'%');
      continue;
    }
    if (next >= args.size()) continue;  // a missing argument renders nothing
    Emit(w, directive, args[next++]);
  }
  return w.result();
}

}  // namespace TAVIX
