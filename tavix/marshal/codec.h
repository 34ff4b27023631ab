// Codec<T>: how one value of an application type travels in a message
// body, built from BasicStream's encoding.
//
//   bool, unsigned char, int16_t..int64_t, float, double, std::string,
//   std::u16string, SmartPtr<ITavixBlob>   as BasicStream writes them;
//   uint16_t, uint32_t, uint64_t            the bytes of the signed type of
//                                           the same width (little-endian);
//   std::vector<T>                          count, then each element;
//   std::map<K, V>, std::unordered_map      count, then key and value of each
//                                           entry in the map's iteration order;
//   a struct with kFields                   each listed member in order, with
//                                           nothing before, between or after.
//
// A struct names its members once:
//
//   struct Item {
//     std::u16string name;
//     uint32_t count = 0;
//     static constexpr auto kFields = TAVIX::Fields(&Item::name, &Item::count);
//   };
//
// A type outside this list stops the build with one static_assert that
// names it (TAVIX::CannotMarshal<the type>).
#ifndef TAVIX_MARSHAL_CODEC_H_
#define TAVIX_MARSHAL_CODEC_H_

#include <bit>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/core/shared.h"
#include "tavix/marshal/basic_stream.h"
#include "tavix/marshal/blob.h"

namespace TAVIX {

// The member list of a marshalled struct: Fields(&Item::name, &Item::count).
template <class... Members>
constexpr std::tuple<Members...> Fields(Members... members) {
  static_assert(sizeof...(Members) > 0, "a marshalled struct lists at least one member");
  static_assert((std::is_member_object_pointer_v<Members> && ...), "Fields lists pointers to data members");
  return {members...};
}

namespace codec_detail {

template <class T>
concept BasicStreamValue =
    std::is_same_v<T, bool> || std::is_same_v<T, unsigned char> || std::is_same_v<T, int16_t> ||
    std::is_same_v<T, int32_t> || std::is_same_v<T, int64_t> || std::is_same_v<T, float> ||
    std::is_same_v<T, double> || std::is_same_v<T, std::string> || std::is_same_v<T, std::u16string> ||
    std::is_same_v<T, SmartPtr<ITavixBlob>>;

template <class T>
concept WideUnsigned = std::is_same_v<T, uint16_t> || std::is_same_v<T, uint32_t> || std::is_same_v<T, uint64_t>;

template <class T>
concept Struct = std::is_class_v<T> && requires { T::kFields; };

template <class T>
struct IsVector : std::false_type {};
template <class E, class A>
struct IsVector<std::vector<E, A>> : std::true_type {};

template <class T>
struct IsMap : std::false_type {};
template <class K, class V, class C, class A>
struct IsMap<std::map<K, V, C, A>> : std::true_type {};
template <class K, class V, class H, class E, class A>
struct IsMap<std::unordered_map<K, V, H, E, A>> : std::true_type {};

}  // namespace codec_detail

// Instantiated only for a type no Codec carries, so that the build stops
// with one message and the type in the instantiation line above it.
template <class T>
inline constexpr bool kNeverMarshallable = false;

template <class T>
struct CannotMarshal {
  static_assert(kNeverMarshallable<T>, "TAVIX cannot marshal this type (see CannotMarshal<T> above)");
};

// True for a type Codec carries; a type it does not carry stops the build at
// its innermost unmarshallable part.
template <class T>
consteval bool CheckMarshallable();

namespace codec_detail {

template <class M>
struct MemberPointer;
template <class C, class F>
struct MemberPointer<F C::*> {
  using Field = std::remove_cvref_t<F>;
};
template <class M>
using MemberPointerField = typename MemberPointer<M>::Field;

template <class Tuple>
struct FieldsMarshallable;
template <class... Ms>
struct FieldsMarshallable<std::tuple<Ms...>> {
  static consteval bool Check() { return (CheckMarshallable<MemberPointerField<Ms>>() && ...); }
};

}  // namespace codec_detail

template <class T>
consteval bool CheckMarshallable() {
  using namespace codec_detail;
  if constexpr (BasicStreamValue<T> || WideUnsigned<T>) {
    return true;
  } else if constexpr (IsVector<T>::value) {
    return CheckMarshallable<typename T::value_type>();
  } else if constexpr (IsMap<T>::value) {
    return CheckMarshallable<typename T::key_type>() && CheckMarshallable<typename T::mapped_type>();
  } else if constexpr (Struct<T>) {
    return FieldsMarshallable<std::remove_cvref_t<decltype(T::kFields)>>::Check();
  } else {
    return sizeof(CannotMarshal<T>) > 0;  // stops the build
  }
}

// A type no specialisation below carries: the build stops at
// CannotMarshal<T>, and nothing else about T is reported.
template <class T>
struct Codec {
  static constexpr size_t kStop = sizeof(CannotMarshal<T>);
  static void Write(BasicStream&, const T&) {}
  static void Read(BasicStream&, T&) {}
  static int32_t Length(const T&) { return 0; }
};

// The types BasicStream itself writes.
template <codec_detail::BasicStreamValue T>
struct Codec<T> {
  static void Write(BasicStream& os, const T& v) { os.write(v); }
  static void Read(BasicStream& is, T& v) { is.read(v); }
  static int32_t Length(const T& v) { return BasicStream::lengthOf(v); }
};

template <codec_detail::WideUnsigned T>
struct Codec<T> {
  using Signed = std::make_signed_t<T>;
  static void Write(BasicStream& os, T v) { os.write(std::bit_cast<Signed>(v)); }
  static void Read(BasicStream& is, T& v) {
    Signed s = 0;
    is.read(s);
    v = std::bit_cast<T>(s);
  }
  static constexpr int32_t Length(T) { return static_cast<int32_t>(sizeof(T)); }
};

namespace codec_detail {

// A count as a sequence's prefix; a sequence too long for it cannot be sent.
inline int32_t CountOf(size_t size) {
  if (size > static_cast<size_t>(INT32_MAX)) TavixThrow(Err::IllegalSize);
  return static_cast<int32_t>(size);
}

// The vectors BasicStream carries keep its bulk paths.
template <class T>
concept BasicStreamVector = requires(BasicStream& s, T& v, const T& c) {
  s.read(v);
  s.write(c);
  BasicStream::lengthOf(c);
};

}  // namespace codec_detail

template <class E, class A>
struct Codec<std::vector<E, A>> {
  using Vector = std::vector<E, A>;

  static void Write(BasicStream& os, const Vector& v) {
    if constexpr (codec_detail::BasicStreamVector<Vector>) {
      os.write(v);
    } else {
      os.writeSize(codec_detail::CountOf(v.size()));
      for (const E& element : v) Codec<E>::Write(os, element);
    }
  }
  // Elements are made as they arrive, so a forged count costs no more than
  // the bytes that come with it.
  static void Read(BasicStream& is, Vector& v) {
    if constexpr (codec_detail::BasicStreamVector<Vector>) {
      is.read(v);
    } else {
      int32_t n = 0;
      is.readSize(n);
      v.clear();
      for (int32_t i = 0; i < n; ++i) Codec<E>::Read(is, v.emplace_back());
    }
  }
  static int32_t Length(const Vector& v) {
    if constexpr (codec_detail::BasicStreamVector<Vector>) {
      return BasicStream::lengthOf(v);
    } else {
      int32_t total = BasicStream::lengthOfSize(codec_detail::CountOf(v.size()));
      for (const E& element : v) total += Codec<E>::Length(element);
      return total;
    }
  }
};

template <class M>
  requires codec_detail::IsMap<M>::value
struct Codec<M> {
  using Key = typename M::key_type;
  using Value = typename M::mapped_type;

  static void Write(BasicStream& os, const M& m) {
    os.writeSize(codec_detail::CountOf(m.size()));
    for (const auto& [key, value] : m) {
      Codec<Key>::Write(os, key);
      Codec<Value>::Write(os, value);
    }
  }
  // A key that comes twice keeps its last value.
  static void Read(BasicStream& is, M& m) {
    int32_t n = 0;
    is.readSize(n);
    m.clear();
    for (int32_t i = 0; i < n; ++i) {
      Key key{};
      Codec<Key>::Read(is, key);
      Codec<Value>::Read(is, m[std::move(key)]);
    }
  }
  static int32_t Length(const M& m) {
    int32_t total = BasicStream::lengthOfSize(codec_detail::CountOf(m.size()));
    for (const auto& [key, value] : m) total += Codec<Key>::Length(key) + Codec<Value>::Length(value);
    return total;
  }
};

template <codec_detail::Struct T>
struct Codec<T> {
  static void Write(BasicStream& os, const T& v) {
    std::apply([&](auto... field) { (Codec<codec_detail::MemberPointerField<decltype(field)>>::Write(os, v.*field), ...); },
               T::kFields);
  }
  static void Read(BasicStream& is, T& v) {
    std::apply([&](auto... field) { (Codec<codec_detail::MemberPointerField<decltype(field)>>::Read(is, v.*field), ...); },
               T::kFields);
  }
  static int32_t Length(const T& v) {
    return std::apply(
        [&](auto... field) {
          return (0 + ... + Codec<codec_detail::MemberPointerField<decltype(field)>>::Length(v.*field));
        },
        T::kFields);
  }
};

// The summed encoded length of some values, as a message's size needs it.
template <class... T>
int32_t LengthOfAll(const T&... values) {
  return (0 + ... + Codec<T>::Length(values));
}

}  // namespace TAVIX

#endif  // TAVIX_MARSHAL_CODEC_H_
