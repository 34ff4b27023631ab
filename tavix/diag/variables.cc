#include "tavix/diag/variables.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tavix/diag/report_file.h"
#include "tavix/diag/stack_walk.h"
#include "tavix/platform/fault_signals.h"

namespace TAVIX {
namespace {

// Nodes one variable may walk: pointers are followed, and a structure of
// pointers would otherwise multiply the walk at every level.
constexpr int32_t kWalkBudget = 4096;
constexpr std::string_view kSpaces = "                                        ";

bool TypeOf(Dwarf_Die* die, Dwarf_Die& type) {
  Dwarf_Attribute attribute;
  return dwarf_attr_integrate(die, DW_AT_type, &attribute) != nullptr &&
         dwarf_formref_die(&attribute, &type) != nullptr;
}

bool Unsigned(Dwarf_Die* die, unsigned int name, Dwarf_Word& value) {
  Dwarf_Attribute attribute;
  return dwarf_attr_integrate(die, name, &attribute) != nullptr && dwarf_formudata(&attribute, &value) == 0;
}

// The name to show for a type: that of the first typedef or type under its
// qualifiers ("size_t", "Point"), null when it has none ("int*").
const char* TypeName(Dwarf_Die* type) {
  Dwarf_Die die = *type;
  for (;;) {
    const int tag = dwarf_tag(&die);
    if (tag != DW_TAG_const_type && tag != DW_TAG_volatile_type && tag != DW_TAG_restrict_type &&
        tag != DW_TAG_atomic_type) {
      return dwarf_diename(&die);
    }
    if (!TypeOf(&die, die)) return nullptr;
  }
}

// Where a variable lives in one frame.
struct Location {
  enum Kind { kMemory, kRegister, kNotHere, kUnknown } kind = kUnknown;
  uint64_t address = 0;
};

// Evaluates DWARF location expressions (decoded by libdw) against one
// frame: addresses, frame-base and register offsets, the canonical frame
// address and simple arithmetic, the forms compilers use for variables in
// memory. A value held in a register or computed is not in memory.
class LocationEvaluator {
 public:
  LocationEvaluator(const StackFrame& frame, Dwarf_Addr bias, Dwarf_Die* function)
      : m_frame(frame), m_bias(bias), m_function(function) {}

  Location Evaluate(Dwarf_Attribute* attribute) const {
    Dwarf_Op* ops = nullptr;
    size_t count = 0;
    const int found = dwarf_getlocation_addr(attribute, m_frame.lookupPc - m_bias, &ops, &count, 1);
    if (found == 0) return {Location::kNotHere, 0};
    if (found < 0 || count == 0) return {};
    return Run(ops, count);
  }

 private:
  bool Register(uint64_t number, uint64_t& value) const {
    if (!m_frame.Known(static_cast<int>(number))) return false;
    value = m_frame.registers[number];
    return true;
  }

  bool FrameBase(uint64_t& value) const {
    Dwarf_Attribute attribute;
    if (m_function == nullptr || dwarf_attr_integrate(m_function, DW_AT_frame_base, &attribute) == nullptr) {
      return false;
    }
    Dwarf_Op* ops = nullptr;
    size_t count = 0;
    if (dwarf_getlocation_addr(&attribute, m_frame.lookupPc - m_bias, &ops, &count, 1) <= 0 || count == 0) {
      return false;
    }
    // A frame base named by a register is that register's value.
    if (count == 1 && ops[0].atom >= DW_OP_reg0 && ops[0].atom <= DW_OP_reg31) {
      return Register(ops[0].atom - DW_OP_reg0, value);
    }
    const Location base = Run(ops, count, false);
    value = base.address;
    return base.kind == Location::kMemory;
  }

  Location Run(const Dwarf_Op* ops, size_t count, bool frameBaseAllowed = true) const {
    std::array<uint64_t, 16> stack{};
    size_t depth = 0;
    const auto push = [&](uint64_t v) {
      if (depth < stack.size()) stack[depth++] = v;
    };
    for (size_t i = 0; i < count; ++i) {
      const Dwarf_Op& op = ops[i];
      const uint8_t atom = op.atom;
      uint64_t value = 0;
      if (atom >= DW_OP_reg0 && atom <= DW_OP_reg31) return {Location::kRegister, 0};
      if (atom >= DW_OP_lit0 && atom <= DW_OP_lit31) {
        push(atom - DW_OP_lit0);
      } else if (atom >= DW_OP_breg0 && atom <= DW_OP_breg31) {
        if (!Register(atom - DW_OP_breg0, value)) return {};
        push(value + op.number);
      } else {
        switch (atom) {
          case DW_OP_regx:
          case DW_OP_stack_value:
          case DW_OP_implicit_value:
            return {Location::kRegister, 0};
          case DW_OP_addr: push(op.number + m_bias); break;
          case DW_OP_fbreg:
            if (!frameBaseAllowed || !FrameBase(value)) return {};
            push(value + op.number);
            break;
          case DW_OP_bregx:
            if (!Register(op.number, value)) return {};
            push(value + op.number2);
            break;
          case DW_OP_call_frame_cfa:
            if (m_frame.cfa == 0) return {};
            push(m_frame.cfa);
            break;
          case DW_OP_const1u: case DW_OP_const1s: case DW_OP_const2u: case DW_OP_const2s:
          case DW_OP_const4u: case DW_OP_const4s: case DW_OP_const8u: case DW_OP_const8s:
          case DW_OP_constu: case DW_OP_consts:
            push(op.number);
            break;
          case DW_OP_plus_uconst:
            if (depth == 0) return {};
            stack[depth - 1] += op.number;
            break;
          case DW_OP_plus:
          case DW_OP_minus:
            if (depth < 2) return {};
            --depth;
            stack[depth - 1] = atom == DW_OP_plus ? stack[depth - 1] + stack[depth] : stack[depth - 1] - stack[depth];
            break;
          default:
            return {};
        }
      }
    }
    if (depth == 0) return {};
    return {Location::kMemory, stack[depth - 1]};
  }

  const StackFrame& m_frame;
  Dwarf_Addr m_bias;
  Dwarf_Die* m_function;
};

// Writes a value by its type, reading memory only through checked reads.
class TypeWalk {
 public:
  explicit TypeWalk(ReportFile& out) : m_out(out) {}

  void Walk(Dwarf_Die* type, uint64_t address, int32_t depth) {
    if (depth > kTypeDepthLimit || --m_budget < 0) return;
    if (const char* name = TypeName(type)) m_out.Write(u" %hs", name);
    uint32_t probe = 0;
    if (!platform::ReadMemory(Pointer(address), &probe, sizeof probe)) {
      m_out.Write(u"(E_ADDR:%016llX)\n", address);
      return;
    }
    Dwarf_Die peeled;
    if (dwarf_peel_type(type, &peeled) != 0) return;
    switch (dwarf_tag(&peeled)) {
      case DW_TAG_structure_type:
      case DW_TAG_class_type:
      case DW_TAG_union_type:
        Members(&peeled, address, depth);
        break;
      case DW_TAG_array_type:
        Elements(&peeled, address, depth);
        break;
      case DW_TAG_pointer_type:
      case DW_TAG_reference_type:
      case DW_TAG_rvalue_reference_type:
        Target(&peeled, address, depth);
        break;
      case DW_TAG_base_type:
      case DW_TAG_enumeration_type:
        Scalar(&peeled, address);
        break;
      default:
        break;
    }
  }

 private:
  static const void* Pointer(uint64_t address) { return reinterpret_cast<const void*>(address); }

  void Indent(int32_t depth) {
    const size_t n = std::min(kSpaces.size(), static_cast<size_t>(depth) * 4 + 4);
    m_out.Write(u"%hs", kSpaces.substr(0, n));
  }

  static bool MemberOffset(Dwarf_Die* member, Dwarf_Word& offset) {
    Dwarf_Attribute attribute;
    if (dwarf_hasattr(member, DW_AT_declaration) || dwarf_hasattr(member, DW_AT_external)) return false;
    if (dwarf_attr(member, DW_AT_data_member_location, &attribute) != nullptr) {
      return dwarf_formudata(&attribute, &offset) == 0;
    }
    Dwarf_Word bits = 0;
    offset = Unsigned(member, DW_AT_data_bit_offset, bits) ? bits / 8 : 0;  // union members have none
    return true;
  }

  void Members(Dwarf_Die* type, uint64_t address, int32_t depth) {
    m_out.Write(u"\r\n");
    Dwarf_Die child;
    if (depth >= kTypeDepthLimit || dwarf_child(type, &child) != 0) return;
    int32_t shown = 0;
    do {
      const int tag = dwarf_tag(&child);
      Dwarf_Word offset = 0;
      Dwarf_Die memberType;
      if ((tag != DW_TAG_member && tag != DW_TAG_inheritance) || !MemberOffset(&child, offset) ||
          !TypeOf(&child, memberType)) {
        continue;
      }
      if (++shown > kMemberLimit) break;
      Indent(depth);
      if (const char* name = dwarf_diename(&child)) m_out.Write(u" %hs", name);
      Walk(&memberType, address + offset, depth + 1);
      m_out.Write(u"\r\n");
    } while (dwarf_siblingof(&child, &child) == 0);
  }

  void Elements(Dwarf_Die* type, uint64_t address, int32_t depth) {
    m_out.Write(u"\r\n");
    Dwarf_Die element;
    Dwarf_Die range;
    Dwarf_Word total = 0;
    if (depth >= kTypeDepthLimit || !TypeOf(type, element) || dwarf_child(type, &range) != 0 ||
        dwarf_aggregate_size(type, &total) != 0) {
      return;
    }
    Dwarf_Word count = 0;
    if (!Unsigned(&range, DW_AT_count, count) && Unsigned(&range, DW_AT_upper_bound, count)) ++count;
    if (count == 0) return;
    const Dwarf_Word stride = total / count;
    const Dwarf_Word shown = std::min<Dwarf_Word>(count, kElementLimit);
    for (Dwarf_Word i = 0; i < shown; ++i) {
      Indent(depth);
      m_out.Write(u"[%d]", static_cast<int32_t>(i));
      Walk(&element, address + i * stride, depth + 1);
      m_out.Write(u"\r\n");
    }
  }

  // The size of a character type's units: 1 narrow, 2 or 4 wide, 0 for a
  // type that is not a character.
  static Dwarf_Word CharacterUnit(Dwarf_Die* type) {
    Dwarf_Word encoding = 0;
    const int size = dwarf_bytesize(type);
    if (dwarf_tag(type) != DW_TAG_base_type || !Unsigned(type, DW_AT_encoding, encoding)) return 0;
    if ((encoding == DW_ATE_signed_char || encoding == DW_ATE_unsigned_char) && size == 1) return 1;
    const char* name = dwarf_diename(type);
    const bool wide = encoding == DW_ATE_UTF || (name != nullptr && std::strcmp(name, "wchar_t") == 0);
    return wide && (size == 2 || size == 4) ? static_cast<Dwarf_Word>(size) : 0;
  }

  void Target(Dwarf_Die* type, uint64_t address, int32_t depth) {
    m_out.Write(u"\t(*[%016llX])\t", address);
    uint64_t target = 0;
    Dwarf_Die pointee;
    Dwarf_Die peeled;
    if (!platform::ReadMemory(Pointer(address), &target, sizeof target) || !TypeOf(type, pointee) ||
        dwarf_peel_type(&pointee, &peeled) != 0 || dwarf_tag(&peeled) == DW_TAG_subroutine_type) {
      return;
    }
    if (const Dwarf_Word unit = CharacterUnit(&peeled)) {
      Text(target, unit);
      return;
    }
    Walk(&pointee, target, depth + 1);
  }

  // A string of at most kStringLimit characters; reading stops at the
  // first unreadable unit.
  void Text(uint64_t address, Dwarf_Word unit) {
    std::array<char, kStringLimit> narrow{};
    std::array<char16_t, kStringLimit> wide{};
    size_t n = 0;
    bool readable = false;
    for (; n < static_cast<size_t>(kStringLimit); ++n) {
      uint32_t value = 0;
      if (!platform::ReadMemory(Pointer(address + n * unit), &value, unit)) break;
      readable = true;
      if (value == 0) break;
      narrow[n] = static_cast<char>(value);
      wide[n] = value > 0xFFFF ? char16_t{0xFFFD} : static_cast<char16_t>(value);
    }
    if (!readable) {
      m_out.Write(u" = (E_ADDR:%016llX)", address);
    } else if (n == 0) {
      m_out.Write(u" = \"\"");
    } else if (unit == 1) {
      m_out.Write(u"\t= \"%.63hs\"", std::string_view(narrow.data(), n));
    } else {
      m_out.Write(u"\t= \"%.63s\"", std::u16string_view(wide.data(), n));
    }
  }

  void Scalar(Dwarf_Die* type, uint64_t address) {
    const int size = dwarf_bytesize(type);
    Dwarf_Word encoding = DW_ATE_signed;  // an enumeration's values
    if (dwarf_tag(type) == DW_TAG_base_type) Unsigned(type, DW_AT_encoding, encoding);
    uint64_t raw = 0;
    if (size <= 0 || size > 8 || !platform::ReadMemory(Pointer(address), &raw, static_cast<size_t>(size))) {
      m_out.Write(u" = [%016llX]", address);
      return;
    }
    if (const Dwarf_Word unit = CharacterUnit(type); unit != 0 && (unit == 1 || encoding == DW_ATE_UTF)) {
      if (raw == 0) {
        m_out.Write(u" = ''");
      } else {
        m_out.Write(u" = '%c'", static_cast<char16_t>(raw > 0xFFFF ? 0xFFFD : raw));
      }
      return;
    }
    if (encoding == DW_ATE_float) {
      if (size == 4 || size == 8) {
        float single = 0;
        double value = 0;
        if (size == 4) std::memcpy(&single, &raw, sizeof single), value = single;
        else std::memcpy(&value, &raw, sizeof value);
        m_out.Write(u" = %f", value);
      } else {
        m_out.Write(u" = [%016llX]", address);
      }
      return;
    }
    // Integers, booleans and enumerations, sign-extended when signed.
    const int shift = 64 - size * 8;
    const bool isSigned = encoding == DW_ATE_signed || encoding == DW_ATE_signed_char;
    const int64_t value = isSigned ? static_cast<int64_t>(raw << shift) >> shift : static_cast<int64_t>(raw);
    if (size == 8) {
      m_out.Write(isSigned ? u" = %lld" : u" = %llu", value);
    } else {
      m_out.Write(u" = %lld", value);
    }
  }

  ReportFile& m_out;
  int32_t m_budget = kWalkBudget;
};

void WriteVariable(Dwarf_Die* variable, const LocationEvaluator& evaluator, ReportFile& out) {
  Dwarf_Attribute location;
  Dwarf_Die type;
  if (dwarf_hasattr(variable, DW_AT_declaration) ||
      dwarf_attr_integrate(variable, DW_AT_location, &location) == nullptr || !TypeOf(variable, type)) {
    return;  // optimised away, or declared elsewhere
  }
  const Location where = evaluator.Evaluate(&location);
  if (where.kind == Location::kNotHere) return;
  const char* name = dwarf_diename(variable);
  if (name == nullptr) name = "";
  out.Write(dwarf_tag(variable) == DW_TAG_formal_parameter ? u"Parameter '%hs'" : u"Local '%hs'", name);
  if (where.kind == Location::kRegister) {
    out.Write(u" (register variable) ");
  } else if (where.kind == Location::kUnknown) {
    out.Write(u"\tError on symbol:'%hs'.\r\n", name);
    return;
  } else {
    TypeWalk(out).Walk(&type, where.address, 0);
  }
  out.Write(u"\r\n");
}

}  // namespace

void WriteFrameVariables(const DebugSession& session, const StackFrame& frame, ReportFile& out) {
  Dwfl_Module* module = session.ModuleAt(frame.lookupPc);
  Dwarf_Addr bias = 0;
  Dwarf_Die* unit = module == nullptr ? nullptr : dwfl_module_addrdie(module, frame.lookupPc, &bias);
  Dwarf_Die* scopes = nullptr;
  const int n = unit == nullptr ? -1 : dwarf_getscopes(unit, frame.lookupPc - bias, &scopes);
  if (n <= 0) {
    out.Write(u"SymSetContext Failed: %X : %hs\r\n", static_cast<uint32_t>(dwarf_errno()), dwarf_errmsg(-1));
    return;
  }
  // Scopes run from the innermost block out to the compilation unit; the
  // function's own scope is the last one shown, and shown first.
  int function = 0;
  while (function < n && dwarf_tag(&scopes[function]) != DW_TAG_subprogram) ++function;
  const LocationEvaluator evaluator(frame, bias, function < n ? &scopes[function] : nullptr);
  // Without a function (code outside any) nothing is shown.
  for (int s = function < n ? function : -1; s >= 0; --s) {
    Dwarf_Die child;
    if (dwarf_child(&scopes[s], &child) != 0) continue;
    do {
      const int tag = dwarf_tag(&child);
      if (tag == DW_TAG_formal_parameter || tag == DW_TAG_variable) WriteVariable(&child, evaluator, out);
    } while (dwarf_siblingof(&child, &child) == 0);
  }
  std::free(scopes);
  out.Write(u"\r\n");
}

}  // namespace TAVIX
