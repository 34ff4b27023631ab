// Remote operations declared once for both ends. A declaration names the
// operation and its in- and out-parameter types; an interface names a type
// id and its operations. The server side is here (the skeleton that reads
// the arguments, runs the servant's code and writes the reply, and the
// servant's operation table, sorted when compiling); the client side is
// client/typed_call.h. Both marshal the same values in the same order
// because both read them from the one declaration.
//
//   using EchoOp = TAVIX::Operation<u"Echo", TAVIX::In<std::u16string>,
//                                   TAVIX::Out<std::u16string>>;
//   using NoteOp = TAVIX::OneWayOperation<u"Note", TAVIX::In<int32_t>>;
//   using EchoInterface = TAVIX::Interface<u"::Example::Echo", EchoOp, NoteOp>;
//
//   class EchoServant : public TAVIX::Servant<EchoServant, EchoInterface> {
//    public:
//     uint32_t Serve(EchoOp, const std::u16string& in, std::u16string& out,
//                    const TAVIX::Context& ctx);
//     uint32_t Serve(NoteOp, const int32_t& value, const TAVIX::Context& ctx);
//   };
//
// A servant's Serve overload for an operation takes the operation's tag,
// the in-parameters by const reference, then the out-parameters by
// reference, then the request's Context, and returns its status. Names the
// interface does not list go to Object::Dispatch, so "ObjectIsA",
// "ObjectPing" and the "Operation not find" answer keep working.
//
// Parameter types are those marshal/codec.h lists: BasicStream's own,
// unsigned integers, vectors, maps and structs that list their members.
#ifndef TAVIX_INVOKE_OPERATION_H_
#define TAVIX_INVOKE_OPERATION_H_

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "tavix/invoke/messages.h"
#include "tavix/invoke/object.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/marshal/basic_stream.h"
#include "tavix/marshal/codec.h"
#include "tavix/platform/clock.h"

namespace TAVIX {

// A name as a template argument: of an operation (Operation<u"Echo", ...>)
// or of an interface's type id.
template <size_t N>
struct OperationName {
  char16_t text[N] = {};

  constexpr OperationName(const char16_t (&name)[N]) {  // NOLINT: implicit by design
    std::copy_n(name, N, text);
  }
  constexpr std::u16string_view view() const { return {text, N - 1}; }
};

template <class... T>
struct In {};
template <class... T>
struct Out {};

template <OperationName Name, class Ins = In<>, class Outs = Out<>, OperationMode Mode = TwoWay>
struct Operation;

template <OperationName Name, class... Ins, class... Outs, OperationMode Mode>
struct Operation<Name, In<Ins...>, Out<Outs...>, Mode> {
  static_assert(Mode == TwoWay || sizeof...(Outs) == 0, "a one-way operation has no results");
  static_assert(Name.view().size() > 0, "an operation needs a name");
  static_assert((std::is_same_v<Ins, std::remove_cvref_t<Ins>> && ...) &&
                    (std::is_same_v<Outs, std::remove_cvref_t<Outs>> && ...),
                "parameters are listed as plain value types");
  static_assert((CheckMarshallable<Ins>() && ... && true) && (CheckMarshallable<Outs>() && ... && true));

  using InList = In<Ins...>;
  using OutList = Out<Outs...>;
  static constexpr std::u16string_view kName = Name.view();
  static constexpr OperationMode kMode = Mode;

  // The name as the call machinery keeps it: one string for the process.
  static const std::u16string& NameString() {
    static const std::u16string name(kName);
    return name;
  }

  // The skeleton of a servant member: (const In&..., Out&..., const Context&).
  template <auto Member, class Servant>
  static void Serve(Servant& servant, ObjectHelper& request) {
    static_assert(std::is_invocable_r_v<uint32_t, decltype(Member), Servant&, const Ins&..., Outs&...,
                                        const Context&>,
                  "the servant member must take (const In&..., Out&..., const Context&) and "
                  "return its status");
    Run(request, [&servant](const Ins&... in, Outs&... out, const Context& ctx) {
      return (servant.*Member)(in..., out..., ctx);
    });
  }

  // The skeleton of a servant's Serve overload for this operation's tag.
  template <class Servant>
  static void ServeTagged(Servant& servant, ObjectHelper& request) {
    static_assert(requires(Servant& s, const Ins&... in, Outs&... out, const Context& ctx) {
      { s.Serve(Operation{}, in..., out..., ctx) } -> std::convertible_to<uint32_t>;
    }, "the servant needs a public uint32_t Serve(Op, const In&..., Out&..., const Context&) for this operation");
    Run(request, [&servant](const Ins&... in, Outs&... out, const Context& ctx) -> uint32_t {
      return servant.Serve(Operation{}, in..., out..., ctx);
    });
  }

 private:
  // Reads the in-parameters, runs the servant's code, then answers with its
  // status and, on 0, the out-parameters.
  template <class Body>
  static void Run(ObjectHelper& request, const Body& body) {
    std::tuple<Ins...> ins;
    std::apply([&request](auto&... in) { (Codec<Ins>::Read(*request.is(), in), ...); }, ins);
    request.PrepareServant();
    std::tuple<Outs...> outs;
    const uint32_t status = std::apply(
        [&](const auto&... in) {
          return std::apply([&](auto&... out) -> uint32_t { return body(in..., out..., request.GetContext()); },
                            outs);
        },
        ins);
    const FILETIME end = platform::SystemTimeAsFileTime();
    if (status != 0) {
      request.FinishServant(status, 0, end);
      return;
    }
    request.FinishServant(0, std::apply([](const auto&... out) { return LengthOfAll(out...); }, outs), end);
    std::apply([&request](const auto&... out) { (Codec<Outs>::Write(*request.os(), out), ...); }, outs);
  }
};

template <OperationName Name, class Ins = In<>>
using OneWayOperation = Operation<Name, Ins, Out<>, OneWay>;

// One row of a servant's operation table: the operation and the member that
// implements it.
template <class Op, auto Member>
struct Entry {
  using Operation = Op;

  template <class Servant>
  static void Run(Servant& servant, ObjectHelper& request) {
    Op::template Serve<Member>(servant, request);
  }
};

// A row that runs the servant's Serve overload for Op.
template <class Op>
struct TaggedEntry {
  using Operation = Op;

  template <class Servant>
  static void Run(Servant& servant, ObjectHelper& request) {
    Op::template ServeTagged<Servant>(servant, request);
  }
};

namespace operation_detail {

template <class Skeleton>
struct Row {
  std::u16string_view name;
  Skeleton run;
};

template <class Skeleton, size_t N>
constexpr std::array<Row<Skeleton>, N> Sorted(std::array<Row<Skeleton>, N> rows) {
  std::sort(rows.begin(), rows.end(), [](const Row<Skeleton>& a, const Row<Skeleton>& b) { return a.name < b.name; });
  return rows;
}

template <class Skeleton, size_t N>
constexpr bool Distinct(const std::array<Row<Skeleton>, N>& sorted) {
  for (size_t i = 1; i < N; ++i) {
    if (sorted[i - 1].name == sorted[i].name) return false;
  }
  return true;
}

}  // namespace operation_detail

// A servant's operation table, in any order; it is sorted by the names'
// UTF-16 units when compiling.
template <class Servant, class... Entries>
class ServantTable {
  using Skeleton = void (*)(Servant&, ObjectHelper&);
  using Row = operation_detail::Row<Skeleton>;

 public:
  static constexpr std::array<Row, sizeof...(Entries)> kRows =
      operation_detail::Sorted(std::array<Row, sizeof...(Entries)>{
          Row{Entries::Operation::kName, &Entries::template Run<Servant>}...});
  static_assert(operation_detail::Distinct(kRows), "a servant's table lists each operation name once");

  // Runs the request's operation when the table lists it; false otherwise,
  // with nothing read or written.
  static bool TryDispatch(Servant& servant, ObjectHelper& request) {
    const Row* row = Find(request.GetContext().operation);
    if (row == nullptr) return false;
    row->run(servant, request);
    return true;
  }

  // As TryDispatch; names the table does not list go to Object::Dispatch.
  static void Dispatch(Servant& servant, ObjectHelper& request) {
    if (!TryDispatch(servant, request)) servant.Object::Dispatch(request);
  }

  // The row of `name`, null when the table does not list it.
  static const Row* Find(std::u16string_view name) {
    const auto it = std::lower_bound(kRows.begin(), kRows.end(), name,
                                     [](const Row& row, std::u16string_view key) { return row.name < key; });
    if (it == kRows.end() || it->name != name) return nullptr;
    return &*it;
  }
};

// The operations an object type offers, under its type id (which
// "ObjectIsA" answers for). Servants and proxies are made from it.
template <OperationName TypeId, class... Ops>
struct Interface {
  static constexpr std::u16string_view kTypeId = TypeId.view();
  template <class Op>
  static constexpr bool kHas = (std::is_same_v<Op, Ops> || ...);

  template <class Servant>
  using Table = ServantTable<Servant, TaggedEntry<Ops>...>;
};

// The base of a servant of `Iface`: dispatches each of its operations to
// the derived class's Serve overload for that operation, and answers
// "ObjectIsA" for the interface's type id.
template <class Derived, class Iface>
class Servant : public Object {
 public:
  void Dispatch(ObjectHelper& request) override {
    Iface::template Table<Derived>::Dispatch(static_cast<Derived&>(*this), request);
  }
  void GetObjectIds(std::vector<std::u16string>& ids) override {
    Object::GetObjectIds(ids);
    ids.emplace_back(Iface::kTypeId);
  }
  std::u16string GetObjectId() override { return std::u16string(Iface::kTypeId); }
};

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_OPERATION_H_
