// Remote operations declared once for both ends. A declaration names the
// operation and its in- and out-parameter types; the server side of it is
// here (the skeleton that reads the arguments, runs the servant's member
// and writes the reply, and the servant's sorted operation table), and the
// client side is client/typed_call.h. Both marshal the same values in the
// same order because both read them from the one declaration.
//
//   using EchoOp = TAVIX::Operation<u"Echo", TAVIX::In<std::u16string>,
//                                   TAVIX::Out<std::u16string>>;
//   using NoteOp = TAVIX::OneWayOperation<u"Note", TAVIX::In<int32_t>>;
//
//   class EchoServant : public TAVIX::Object {
//    public:
//     uint32_t Echo(const std::u16string& in, std::u16string& out,
//                   const TAVIX::Context& ctx);
//     uint32_t Note(const int32_t& value, const TAVIX::Context& ctx);
//     void Dispatch(TAVIX::ObjectHelper& request) override {
//       TAVIX::ServantTable<EchoServant, TAVIX::Entry<EchoOp, &EchoServant::Echo>,
//                           TAVIX::Entry<NoteOp, &EchoServant::Note>>::Dispatch(*this, request);
//     }
//   };
//
// A servant member takes the in-parameters by const reference, then the
// out-parameters by reference, then the request's Context, and returns its
// status. The entries of a ServantTable must be listed in strictly
// ascending order of their names' UTF-16 units (checked when compiling);
// names a table does not list go to Object::Dispatch, so "ObjectIsA",
// "ObjectPing" and the "Operation not find" answer keep working.
//
// Parameter types are those BasicStream carries: bool, unsigned char,
// int16_t, int32_t, int64_t, float, double, std::string, std::u16string,
// SmartPtr<ITavixBlob> and vectors of them.
#ifndef TAVIX_INVOKE_OPERATION_H_
#define TAVIX_INVOKE_OPERATION_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "tavix/invoke/messages.h"
#include "tavix/invoke/object.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/marshal/basic_stream.h"
#include "tavix/platform/clock.h"

namespace TAVIX {

// An operation name as a template argument: Operation<u"Echo", ...>.
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

// The summed encoded length of some values, as a message's size needs it.
template <class... T>
int32_t LengthOfAll(const T&... values) {
  return (0 + ... + BasicStream::lengthOf(values));
}

template <OperationName Name, class Ins = In<>, class Outs = Out<>, OperationMode Mode = TwoWay>
struct Operation;

template <OperationName Name, class... Ins, class... Outs, OperationMode Mode>
struct Operation<Name, In<Ins...>, Out<Outs...>, Mode> {
  static_assert(Mode == TwoWay || sizeof...(Outs) == 0, "a one-way operation has no results");
  static_assert(Name.view().size() > 0, "an operation needs a name");
  static_assert((std::is_same_v<Ins, std::remove_cvref_t<Ins>> && ...) &&
                    (std::is_same_v<Outs, std::remove_cvref_t<Outs>> && ...),
                "parameters are listed as plain value types");

  using InList = In<Ins...>;
  using OutList = Out<Outs...>;
  static constexpr std::u16string_view kName = Name.view();
  static constexpr OperationMode kMode = Mode;

  // The name as the call machinery keeps it: one string for the process.
  static const std::u16string& NameString() {
    static const std::u16string name(kName);
    return name;
  }

  // The skeleton. Reads the in-parameters, runs the member, then answers
  // with its status and, on 0, the out-parameters.
  template <auto Member, class Servant>
  static void Serve(Servant& servant, ObjectHelper& request) {
    static_assert(std::is_invocable_r_v<uint32_t, decltype(Member), Servant&, const Ins&..., Outs&...,
                                        const Context&>,
                  "the servant member must take (const In&..., Out&..., const Context&) and "
                  "return its status");
    std::tuple<Ins...> ins;
    std::apply([&request](auto&... in) { (request.is()->read(in), ...); }, ins);
    request.PrepareServant();
    std::tuple<Outs...> outs;
    const uint32_t status = std::apply(
        [&](const auto&... in) {
          return std::apply(
              [&](auto&... out) -> uint32_t {
                return (servant.*Member)(in..., out..., request.GetContext());
              },
              outs);
        },
        ins);
    const FILETIME end = platform::SystemTimeAsFileTime();
    if (status != 0) {
      request.FinishServant(status, 0, end);
      return;
    }
    request.FinishServant(0, std::apply([](const auto&... out) { return LengthOfAll(out...); }, outs), end);
    std::apply([&request](const auto&... out) { (request.os()->write(out), ...); }, outs);
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

namespace operation_detail {

template <size_t N>
constexpr bool StrictlyAscending(const std::array<std::u16string_view, N>& names) {
  for (size_t i = 1; i < N; ++i) {
    if (!(names[i - 1] < names[i])) return false;
  }
  return true;
}

}  // namespace operation_detail

// A servant's sorted operation table.
template <class Servant, class... Entries>
class ServantTable {
 public:
  static constexpr std::array<std::u16string_view, sizeof...(Entries)> kNames{
      Entries::Operation::kName...};
  static_assert(operation_detail::StrictlyAscending(kNames),
                "operation names must be listed in strictly ascending order of their UTF-16 units");

  // Runs the request's operation when the table lists it; false otherwise,
  // with nothing read or written.
  static bool TryDispatch(Servant& servant, ObjectHelper& request) {
    const int32_t i = Find(request.GetContext().operation);
    if (i < 0) return false;
    kSkeletons[static_cast<size_t>(i)](servant, request);
    return true;
  }

  // As TryDispatch; names the table does not list go to Object::Dispatch.
  static void Dispatch(Servant& servant, ObjectHelper& request) {
    if (!TryDispatch(servant, request)) servant.Object::Dispatch(request);
  }

  // Index of `name` in kNames, -1 when absent.
  static int32_t Find(std::u16string_view name) {
    const auto it = std::lower_bound(kNames.begin(), kNames.end(), name);
    if (it == kNames.end() || *it != name) return -1;
    return static_cast<int32_t>(it - kNames.begin());
  }

 private:
  using Skeleton = void (*)(Servant&, ObjectHelper&);
  static constexpr std::array<Skeleton, sizeof...(Entries)> kSkeletons{
      &Entries::template Run<Servant>...};
};

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_OPERATION_H_
