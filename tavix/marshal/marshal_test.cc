// Marshalling: the wire encoding of every type, round trips through small deliveries, blobs inline and in pieces,
// forged or short input; the 20-byte message header and the heads of request bodies; the stream buffers below a
// stream (memory, transceiver, blob); and memory and file blobs with their temporary files.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <fstream>
#include <numeric>
#include <regex>
#include <set>
#include <thread>
#include <tuple>
#include <unordered_map>

#include "tavix/core/format.h"
#include "tavix/core/text.h"
#include "tavix/invoke/messages.h"
#include "tavix/marshal/blob.h"
#include "tavix/marshal/blob_bytes.h"
#include "tavix/marshal/codec.h"
#include "tavix/testing/outcomes.h"
#include "tavix/marshal/message_header.h"
#include "tavix/marshal/stream_buffers.h"
#include "tavix/platform/process.h"
#include "tavix/transport/stream_transceiver_buf.h"
#include "tavix/transport/tcp_transceiver.h"

namespace TAVIX {
namespace {

namespace fs = std::filesystem;
using namespace testing;

Bytes B(std::initializer_list<int> values) {
  Bytes out;
  for (const int v : values) out.push_back(static_cast<uint8_t>(v));
  return out;
}

// The code `f` raised, 0 when it raised nothing.
uint32_t CodeOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const TavixException& e) {
    return e.Code();
  }
  return 0;
}

// Takes at most `accept` bytes per call (all when negative), or returns `result` instead when it is set.
class Sink : public EndStreamBuf {
 public:
  int32_t sputn(const void* data, int32_t count) override {
    calls.push_back(count);
    if (result != 0) return result;
    const int32_t n = accept < 0 ? count : std::min(accept, count);
    const auto* p = static_cast<const uint8_t*>(data);
    bytes.insert(bytes.end(), p, p + n);
    return n;
  }
  int32_t sgetn(void*, int32_t) override { return 0; }
  void clear() override { ++clears; }
  Bytes bytes;
  std::vector<int32_t> calls;
  int32_t accept = -1;
  int32_t result = 0;
  int clears = 0;
};

// Serves `bytes` in deliveries of at most `chunk` bytes, or returns `result` instead when it is set, and records
// what it was asked for.
class Source : public EndStreamBuf {
 public:
  explicit Source(Bytes content = {}, int32_t piece = 0x7FFFFFFF) : bytes(std::move(content)), chunk(piece) {}
  int32_t sputn(const void*, int32_t) override { return 0; }
  int32_t sgetn(void* data, int32_t count) override {
    asked.push_back(count);
    if (result != 0) return result;
    const auto n = static_cast<size_t>(std::min({count, static_cast<int32_t>(bytes.size() - offset), chunk}));
    if (n != 0) std::memcpy(data, bytes.data() + offset, n);
    offset += n;
    return static_cast<int32_t>(n);
  }
  Bytes bytes;
  int32_t chunk, result = 0;
  size_t offset = 0;
  std::vector<int32_t> asked;
};

// What `fill` writes, collected by a memory buffer without a next link.
Bytes Encode(const std::function<void(BasicStream&)>& fill) {
  BasicStream s;
  SmartPtr<StreamMemBuf> mem(new StreamMemBuf());
  s.Attach(mem);
  fill(s);
  return Bytes(mem->block(), mem->block() + mem->fill());
}

// A stream that reads `bytes` as one message body, the way a receiver sets its chain up.
struct Decoder {
  explicit Decoder(Bytes bytes, int32_t chunk = 0x7FFFFFFF) : source(new Source(std::move(bytes), chunk)) {
    AttachMessageBuffer(stream, static_cast<int32_t>(source->bytes.size()), source);
  }
  BasicStream stream;
  SmartPtr<Source> source;
};

// Values never change width silently: only the exact wire types are taken.
template <class T>
concept Writable = requires(BasicStream& s, T v) { s.write(v); };
template <class T>
concept Readable = requires(BasicStream& s, T& v) { s.read(v); };

static_assert(Writable<int32_t> && Writable<int64_t> && Writable<int16_t> && Writable<bool>);
static_assert(Writable<unsigned char> && Writable<float> && Writable<double>);
static_assert(!Writable<long long> && !Writable<unsigned> && !Writable<uint64_t> && !Writable<size_t>);
static_assert(!Writable<char> && !Writable<char16_t> && !Writable<uint16_t>);
static_assert(!Writable<const char*> && !Writable<const char16_t*>, "a literal must not become a bool");
static_assert(!Readable<long long> && !Readable<uint32_t> && !Readable<char>);

using Fill = std::function<void(BasicStream&)>;

TEST(BasicStreamWire, EncodingVectors) {
  const std::tuple<const char*, Fill, Bytes> cases[] = {
      {"size 0", [](BasicStream& s) { s.writeSize(0); }, B({0x00})},
      {"size 254", [](BasicStream& s) { s.writeSize(254); }, B({0xFE})},
      {"size 255", [](BasicStream& s) { s.writeSize(255); }, B({0xFF, 0xFF, 0, 0, 0})},
      {"size 256", [](BasicStream& s) { s.writeSize(256); }, B({0xFF, 0x00, 0x01, 0, 0})},
      {"int32", [](BasicStream& s) { s.write(int32_t{-1}); }, B({0xFF, 0xFF, 0xFF, 0xFF})},
      {"int16", [](BasicStream& s) { s.write(int16_t{0x1234}); }, B({0x34, 0x12})},
      {"int64", [](BasicStream& s) { s.write(int64_t{0x0102030405060708}); }, B({8, 7, 6, 5, 4, 3, 2, 1})},
      {"double", [](BasicStream& s) { s.write(1.0); }, B({0, 0, 0, 0, 0, 0, 0xF0, 0x3F})},
      {"float", [](BasicStream& s) { s.write(1.5f); }, B({0, 0, 0xC0, 0x3F})},
      {"bools", [](BasicStream& s) { s.write(true), s.write(false); }, B({1, 0})},
      {"narrow", [](BasicStream& s) { s.write(std::string("abc")); }, B({3, 0x61, 0x62, 0x63})},
      {"wide", [](BasicStream& s) { s.write(std::u16string(u"a\u20AC")); }, B({2, 0x61, 0, 0xAC, 0x20})},
      {"empty strings", [](BasicStream& s) { s.write(std::string()), s.write(std::u16string()); }, B({0, 0})},
      {"bool seq", [](BasicStream& s) { s.write(std::vector<bool>{true, false, true}); }, B({3, 1, 0, 1})},
      {"string seq", [](BasicStream& s) { s.write(std::vector<std::string>{"a", ""}); }, B({2, 1, 0x61, 0})},
      {"int16 seq", [](BasicStream& s) { s.write(std::vector<int16_t>{1, -2}); }, B({2, 1, 0, 0xFE, 0xFF})},
      {"empty seqs", [](BasicStream& s) { s.write(std::vector<int32_t>()), s.write(std::vector<std::string>()); },
       B({0, 0})},
      {"null blob", [](BasicStream& s) { s.write(SmartPtr<ITavixBlob>()); }, B({0})},
  };
  for (const auto& [what, fill, bytes] : cases) EXPECT_EQ(Encode(fill), bytes) << what;
}

// Writes the values, checks the bytes against their lengthOf, and reads them back from deliveries of 7 bytes at a time.
template <class... T>
void ExpectRoundTrip(const T&... values) {
  const Bytes bytes = Encode([&](BasicStream& s) { (s.write(values), ...); });
  EXPECT_EQ(static_cast<int32_t>(bytes.size()), (0 + ... + BasicStream::lengthOf(values)));
  std::tuple<T...> back{};
  Decoder d(bytes, 7);
  std::apply([&](auto&... v) { (d.stream.read(v), ...); }, back);
  EXPECT_TRUE(back == std::tie(values...));
  EXPECT_EQ(d.stream.Size(), static_cast<int32_t>(bytes.size()));
}

TEST(BasicStreamWire, EveryTypeRoundTripsSizesAndBoolsDecode) {
  std::vector<int32_t> ints(1000);
  std::iota(ints.begin(), ints.end(), -500);
  const std::vector<std::string> narrows{std::string(64, 'a'), std::string(65, 'b'), "", std::string(300, 'c')};
  const std::vector<std::u16string> wides{u"", std::u16string(70, u'\u00E9'), std::u16string(300, u'z')};
  ExpectRoundTrip(true, static_cast<unsigned char>(0xAB), int16_t{-3}, int32_t{7}, int64_t{-9}, 2.5f, -7.25,
                  std::string("narrow"), std::u16string(129, u'\u4E2D'), std::vector<unsigned char>{1, 2},
                  std::vector<int16_t>{-1}, ints, std::vector<int64_t>{1LL << 40}, std::vector<float>{0.5f},
                  std::vector<double>(255, 1.0), narrows, wides, std::vector<bool>{false, true});
  // A target that holds something is replaced, not appended to.
  Decoder d(Encode([&](BasicStream& s) { s.write(std::string("new")), s.write(std::vector<std::string>{"x"}); }));
  std::string text = "old content";
  std::vector<std::string> list(5, "stale");
  d.stream.read(text);
  d.stream.read(list);
  EXPECT_EQ(std::tuple(std::string("new"), std::vector<std::string>{"x"}), std::tuple(text, list));
  // Sizes and bools as they are decoded.
  int32_t n = -1;
  Decoder(B({0xFF, 0x05, 0, 0, 0})).stream.readSize(n);
  EXPECT_EQ(n, 5);
  EXPECT_EQ(CodeOf([&] { Decoder(B({0xFF, 0xFF, 0xFF, 0xFF, 0xFF})).stream.readSize(n); }), Err::IllegalSize);
  EXPECT_EQ(CodeOf([&] { Decoder(B({0xFF, 0x00, 0x00, 0x00, 0x80, 'a'})).stream.read(text); }), Err::IllegalSize);
  std::vector<bool> bits;
  bool flag = false;
  Decoder bools(B({3, 2, 0, 0xFF, 2}));  // any byte but 0 reads as true
  bools.stream.read(bits);
  bools.stream.read(flag);
  EXPECT_EQ(std::tuple(std::vector<bool>{true, false, true}, true), std::tuple(bits, flag));
}

// Application types: structs listing their members, nested vectors, maps and unsigned integers.
struct Point {
  int32_t x = 0;
  int32_t y = 0;
  static constexpr auto kFields = Fields(&Point::x, &Point::y);
  bool operator==(const Point&) const = default;
};

struct Shape {
  std::u16string name;
  std::vector<Point> corners;
  std::map<std::string, uint32_t> tags;
  uint64_t id = 0;
  uint16_t flags = 0;
  static constexpr auto kFields = Fields(&Shape::name, &Shape::corners, &Shape::tags, &Shape::id, &Shape::flags);
  bool operator==(const Shape&) const = default;
};

template <class T>
Bytes EncodeValue(const T& value) {
  const Bytes bytes = Encode([&](BasicStream& s) { Codec<T>::Write(s, value); });
  EXPECT_EQ(static_cast<size_t>(Codec<T>::Length(value)), bytes.size());
  return bytes;
}

template <class T>
T DecodeValue(const Bytes& bytes, int32_t chunk = 0x7FFFFFFF) {
  Decoder d(bytes, chunk);
  T value{};
  Codec<T>::Read(d.stream, value);
  EXPECT_EQ(d.source->offset, bytes.size());
  return value;
}

TEST(CodecWire, StructsVectorsMapsAndUnsignedIntegersHaveKnownBytes) {
  EXPECT_EQ(EncodeValue(uint16_t{0xBEEF}), B({0xEF, 0xBE}));
  EXPECT_EQ(EncodeValue(uint32_t{0xFFFFFFFE}), B({0xFE, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(EncodeValue(uint64_t{0x0102030405060708}), B({8, 7, 6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(EncodeValue(Point{1, -2}), B({1, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(EncodeValue(std::vector<Point>{{1, 2}, {3, 4}}), B({2, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0}));
  EXPECT_EQ(EncodeValue(std::vector<std::vector<int32_t>>{{7}, {}}), B({2, 1, 7, 0, 0, 0, 0}));
  EXPECT_EQ(EncodeValue(std::vector<uint16_t>{1, 0xFFFF}), B({2, 1, 0, 0xFF, 0xFF}));
  EXPECT_EQ(EncodeValue(std::map<std::string, int16_t>{{"b", 2}, {"a", 1}}), B({2, 1, 'a', 1, 0, 1, 'b', 2, 0}));
  EXPECT_EQ(EncodeValue(std::unordered_map<int32_t, bool>{{9, true}}), B({1, 9, 0, 0, 0, 1}));
  const Shape shape{u"sq", {{0, 0}, {1, 1}}, {{"k", 5}}, 0x1122334455667788, 0x8001};
  EXPECT_EQ(EncodeValue(shape), B({2, 's', 0, 'q', 0,                               // name
                                   2, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0,  // corners
                                   1, 1, 'k', 5, 0, 0, 0,                              // tags
                                   0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,    // id
                                   0x01, 0x80}));                                      // flags
}

TEST(CodecWire, ValuesRoundTripThroughSmallDeliveriesAndLongCounts) {
  Shape shape{u"big", {}, {}, UINT64_MAX, 0xFFFF};
  for (int32_t i = 0; i < 300; ++i) shape.corners.push_back({i, -i});
  for (int32_t i = 0; i < 260; ++i) shape.tags[std::to_string(i)] = static_cast<uint32_t>(i) * 0x01010101u;
  const Bytes bytes = EncodeValue(shape);
  EXPECT_EQ(DecodeValue<Shape>(bytes, 3), shape);
  std::unordered_map<std::u16string, std::vector<Point>> paths{{u"a", {{1, 1}}}, {u"b", {}}, {u"c", {{2, 3}, {4, 5}}}};
  EXPECT_EQ(DecodeValue<decltype(paths)>(EncodeValue(paths), 1), paths);
  // Reading replaces what the target held.
  Decoder d(EncodeValue(std::map<int32_t, int32_t>{{1, 1}}));
  std::map<int32_t, int32_t> target{{5, 5}, {6, 6}};
  Codec<std::map<int32_t, int32_t>>::Read(d.stream, target);
  EXPECT_EQ(target, (std::map<int32_t, int32_t>{{1, 1}}));
}

TEST(CodecWire, ForgedCountsCostOnlyTheBytesThatCome) {
  // A count of 0x7FFFFFFF structs followed by one element: the read fails at the end of the input instead of
  // making two billion elements first.
  EXPECT_EQ(CodeOf([] { DecodeValue<std::vector<Point>>(B({0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 1, 0, 0, 0, 2, 0, 0, 0})); }),
            Err::OutOfBounds);
  EXPECT_EQ(CodeOf([] { DecodeValue<std::map<int32_t, int32_t>>(B({0xFF, 0xFF, 0xFF, 0xFF, 0x7F})); }),
            Err::OutOfBounds);
  EXPECT_EQ(CodeOf([] { DecodeValue<std::vector<uint32_t>>(B({0xFF, 0, 0, 0, 0x80})); }), Err::IllegalSize);
}

// Blobs from and to plain bytes: an empty value and a null blob travel alike and read back alike; large content
// goes through a file and comes back whole.
TEST(BlobBytes, EmptyAndNullAreAlikeAndLargeContentRoundTrips) {
  const SmartPtr<ITavixBlob> empty = MakeBlob(std::string_view());
  ASSERT_TRUE(empty);
  const SmartPtr<ITavixBlob> none;
  EXPECT_TRUE(IsEmpty(empty) && IsEmpty(none));
  EXPECT_EQ(Encode([&](BasicStream& s) { s.write(empty); }), B({0}));
  EXPECT_EQ(Encode([&](BasicStream& s) { s.write(none); }), B({0}));
  Decoder d(B({0}));
  SmartPtr<ITavixBlob> arrived = MakeBlob(std::string_view("stale"));
  d.stream.read(arrived);
  std::string text = "stale";
  EXPECT_EQ(0u, ReadBlob(arrived, text));
  EXPECT_EQ("", text) << "an empty value arrives as a null blob and reads as no bytes";

  std::vector<std::byte> large(3 * kBlobFileThreshold + 17);
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::byte>(i * 7 + i / 4096);
  const SmartPtr<ITavixBlob> blob = MakeBlob(large);
  ASSERT_TRUE(blob);
  EXPECT_EQ(FileBlob, blob->Type());
  EXPECT_EQ(large.size(), BlobSize(blob));
  std::vector<std::byte> back;
  EXPECT_EQ(0u, ReadBlob(blob, back));
  EXPECT_TRUE(back == large);
  EXPECT_EQ(0u, ReadBlob(MakeBlob(std::string_view("abc", 3)), text));
  EXPECT_EQ("abc", text);
}

TEST(BasicStreamBlob, InlineBlobsInSequencesReuseTheirTargets) {
  SmartPtr<ITavixBlob> blob = CreateTavixMemBlob();
  const Bytes content = Pattern(300);
  blob->Append(content.data(), 300);
  Bytes expected = B({0xFF, 0x2C, 0x01, 0, 0});
  expected.insert(expected.end(), content.begin(), content.end());
  EXPECT_EQ(Encode([&](BasicStream& s) { s.write(blob); }), expected);
  EXPECT_EQ(Encode([&](BasicStream& s) { s.writeBlob(blob); }), content);  // no prefix
  // 02, the blob, 00: reading content refills the blob held, 00 drops one.
  const std::vector<SmartPtr<ITavixBlob>> pair{blob, nullptr};
  EXPECT_EQ(BasicStream::lengthOf(pair), 1 + 305 + 1);
  Decoder d(Encode([&](BasicStream& s) { s.write(pair); }));
  SmartPtr<ITavixBlob> reused = CreateTavixMemBlob();
  reused->Append("previous content", 16);
  std::vector<SmartPtr<ITavixBlob>> back{reused, CreateTavixMemBlob(), CreateTavixMemBlob()};
  d.stream.read(back);
  EXPECT_EQ(back, (std::vector<SmartPtr<ITavixBlob>>{reused, nullptr}));
  ASSERT_EQ(reused->Size(), 300u);
  EXPECT_EQ(std::memcmp(reused->Data(), content.data(), 300), 0);
}

TEST(BasicStreamBlob, LargeBlobsTravelInPiecesThroughFilesAndOversizedOnesAreRefused) {
  // A file blob of 3 MiB + 1 goes out in pieces and comes back as a new file blob, never asked for more than a file
  // piece at a time.
  const uint32_t size = (3u << 20) + 1;
  SmartPtr<ITavixBlob> source = CreateTavixFileBlob();
  const Bytes content = Pattern(size, 3);
  ASSERT_EQ(source->Write(content.data(), static_cast<int32_t>(size), 0), static_cast<int32_t>(size));
  const Bytes wire = Encode([&](BasicStream& s) { s.write(source); });
  ASSERT_EQ(wire.size(), size + 5u);
  EXPECT_TRUE(std::equal(content.begin(), content.end(), wire.begin() + 5));
  Decoder d(wire);
  SmartPtr<ITavixBlob> target;
  d.stream.read(target);
  ASSERT_EQ(target ? target->Type() : MemBlob, FileBlob);
  Bytes back(size);
  ASSERT_EQ(target->Read(back.data(), static_cast<int32_t>(size), 0), static_cast<int32_t>(size));
  EXPECT_EQ(back, content);
  EXPECT_LE(*std::max_element(d.source->asked.begin(), d.source->asked.end()), BasicStream::kFileBlobPiece);
  // An oversized blob is refused and nothing of it written.
  SmartPtr<ITavixBlob> huge = CreateTavixFileBlob();
  ASSERT_EQ(huge->Resize(0x7FFFFFFF), 0x7FFFFFFFull);  // sparse file
  BasicStream s;
  SmartPtr<StreamMemBuf> mem(new StreamMemBuf());
  s.Attach(mem);
  EXPECT_EQ(CodeOf([&] { s.write(huge); }), Err::IllegalSize);
  EXPECT_EQ(CodeOf([&] { BasicStream::lengthOf(huge); }), Err::IllegalSize);
  EXPECT_EQ(CodeOf([&] { s.write(std::vector<SmartPtr<ITavixBlob>>{huge}); }), Err::IllegalSize);
  EXPECT_EQ(mem->size(), 1);  // only the vector's count went out
  EXPECT_EQ(CodeOf([&] { s.writeBlob(SmartPtr<ITavixBlob>()); }), Err::NullPointer);
}

// A blob whose content cannot be read back.
class BrokenBlob : public TavixBlob {
 public:
  BrokenBlob() : TavixBlob(FileBlob) {}
  int32_t Read(void*, int32_t, uint64_t) override { return -2; }
};

// A blob whose size cannot be told.
class SizelessBlob : public TavixBlob {
 public:
  SizelessBlob() : TavixBlob(FileBlob) {}
  uint64_t Size() override { return kBlobFailure; }
};

TEST(BasicStreamFaults, ShortInputForgedCountsBrokenBlobAndMissingStreamBuffer) {
  std::string text;
  int32_t value = 0;
  SmartPtr<ITavixBlob> blob;
  EXPECT_EQ(CodeOf([&] { Decoder(B({5, 'a', 'b'})).stream.read(text); }), Err::OutOfBounds);
  EXPECT_EQ(CodeOf([&] { Decoder(Bytes{}).stream.read(value); }), Err::OutOfBounds);
  EXPECT_EQ(CodeOf([&] { Decoder(B({4, 1, 2})).stream.read(blob); }), Err::OutOfBounds);
  SmartPtr<ITavixBlob> broken(new BrokenBlob());
  ASSERT_EQ(broken->Append("x", 1), 1);
  EXPECT_EQ(CodeOf([&] { Encode([&](BasicStream& s) { s.write(broken); }); }), Err::OutOfBounds);
  // Without a stream buffer every transfer raises; nothing is dropped unseen and targets keep their values.
  BasicStream bare;
  std::string keep = "keep";
  value = 7;
  EXPECT_EQ(CodeOf([&] { bare.write(std::string("x")); }), Err::NullPointer);
  EXPECT_EQ(CodeOf([&] { bare.writeSize(300); }), Err::NullPointer);
  EXPECT_EQ(CodeOf([&] { bare.read(keep); }), Err::NullPointer);
  EXPECT_EQ(CodeOf([&] { bare.read(value); }), Err::NullPointer);
  EXPECT_EQ(std::tuple(keep, value), std::tuple(std::string("keep"), 7));
  // A blob that cannot tell its size is refused, not written as nothing.
  SmartPtr<ITavixBlob> sizeless(new SizelessBlob());
  SmartPtr<StreamMemBuf> mem(new StreamMemBuf());
  BasicStream out;
  out.Attach(mem);
  EXPECT_EQ(CodeOf([&] { out.writeBlob(sizeless); }), Err::BlobIoError);
  EXPECT_EQ(mem->size(), 0);
  // Forged counts cost only the bytes that arrive.
  std::vector<int64_t> numbers;
  EXPECT_EQ(CodeOf([&] { Decoder(B({0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 1, 2, 3, 4})).stream.read(numbers); }),
            Err::OutOfBounds);
  EXPECT_LE(numbers.capacity() * sizeof(int64_t), 2u << 20);
  std::vector<std::u16string> list;
  EXPECT_EQ(CodeOf([&] { Decoder(B({0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0})).stream.read(list); }), Err::OutOfBounds);
  EXPECT_LE(list.size(), 2u);
}

using HeaderBytes = std::array<uint8_t, 20>;

HeaderBytes Encoded(uint8_t type, int32_t size) {
  MsgHeaderData h;
  h.Init(type);
  h.size = size;
  HeaderBytes out{};
  h.Encode(out.data());
  return out;
}

uint32_t CheckOf(const HeaderBytes& wire) {
  MsgHeaderData h;
  h.Decode(wire.data());
  return h.Check();
}

TEST(MessageHeaderTest, EncodesKnownVectorsDecodesAndChecks) {
  const auto header = [](uint8_t type, uint8_t size, uint8_t crcLow, uint8_t crcHigh) {
    return HeaderBytes{0x58, 0x47, 0x52, 0x51, 1, 2, 1, 1, type, 0, size, 0, 0, 0, 0, 0, 0, 0, crcLow, crcHigh};
  };
  EXPECT_EQ(header(2, 0x14, 0x12, 0x9A), Encoded(MSG_VALIDATE, 20));
  EXPECT_EQ(header(3, 0x14, 0x43, 0x5F), Encoded(MSG_CLOSE, 20));
  EXPECT_EQ(header(0, 0x64, 0xB4, 0x74), Encoded(MSG_REQUEST, 100));
  // Sizes are bounded inclusively; an unknown type passes; the magic is checked before the CRC, and the reserved
  // bytes are covered by the CRC.
  MsgHeaderData h;
  h.Decode(Encoded(MSG_REPLY, 36).data());
  EXPECT_EQ(std::tuple(true, uint8_t{MSG_REPLY}, 36), std::tuple(h.crcOk, h.type, h.size));
  for (const int32_t size : {20, 0x40000000}) EXPECT_EQ(0u, CheckOf(Encoded(MSG_REQUEST, size)));
  for (const int32_t size : {19, 0x40000001, -1}) EXPECT_EQ(Err::IllegalSize, CheckOf(Encoded(MSG_REQUEST, size)));
  EXPECT_EQ(0u, CheckOf(Encoded(7, 20)));
  const auto broken = [](size_t at, uint8_t value) {
    HeaderBytes bytes = Encoded(MSG_REQUEST, 100);
    bytes[at] = value;
    if (at == 0) bytes[18] ^= 0xFF;
    return CheckOf(bytes);
  };
  EXPECT_EQ(Err::BadMagic, broken(0, 'Y'));
  EXPECT_EQ(Err::BadVersion, broken(6, 2));
  for (const size_t at : {9u, 14u, 15u, 16u, 17u}) EXPECT_EQ(Err::CrcError, broken(at, 1)) << at;
}

// A request as a sender writes it: its size first, then header and head through a memory buffer limited to that size.
// Whole messages are checked byte for byte by the server and proxy tests; here the head's lengths, limits and reading
// back.
TEST(RequestMessage, LongNamesLengthsAndLimits) {
  const RequestHead head{5, std::u16string(255, u'n'), u"Op"};
  const auto message = [&](bool tooMuch) {
    SmartPtr<Sink> wire(new Sink());
    BasicStream s;
    const int32_t total = HEADER_SIZE + head.lengthOf();
    AttachMessageBuffer(s, total, wire);
    WriteMessageHeader(s, MSG_REQUEST, total);
    head.write(s);
    if (tooMuch) s.write(int32_t{0});
    s.Flush();
    return wire->bytes;
  };
  const Bytes bytes = message(false);
  ASSERT_EQ(bytes.size(), static_cast<size_t>(HEADER_SIZE + 4 + 5 + 510 + 1 + 4));
  EXPECT_EQ(Bytes(bytes.begin() + 24, bytes.begin() + 29), B({0xFF, 0xFF, 0x00, 0x00, 0x00}));
  RequestHead read;
  Decoder whole(Bytes(bytes.begin() + HEADER_SIZE, bytes.end()));
  read.read(whole.stream);
  EXPECT_EQ(std::tuple(5, head.objectName, std::u16string(u"Op")),
            std::tuple(read.requestId, read.objectName, read.operation));
  uint8_t extra = 0;
  EXPECT_EQ(CodeOf([&] { whole.stream.readBlob(&extra, 1); }), Err::OutOfBounds) << "read past the body";
  // Writing more than announced fails; so does a body cut short or a negative size prefix.
  EXPECT_EQ(CodeOf([&] { message(true); }), Err::OutOfBounds);
  Decoder cut(Bytes(bytes.begin() + HEADER_SIZE, bytes.end() - 3));
  EXPECT_EQ(CodeOf([&] { read.read(cut.stream); }), Err::OutOfBounds);
  Decoder negative(B({1, 0, 0, 0, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(CodeOf([&] { read.read(negative.stream); }), Err::IllegalSize);
}

TEST(RequestIds, CountUpShareAcrossThreadsAndSkipZero) {
  RequestIdCounter wrapping(0xFFFFFFFEu), signedEdge(0x7FFFFFFFu);
  const std::tuple edges{wrapping.Next(), wrapping.Next(), signedEdge.Next()};
  EXPECT_EQ(std::tuple(-1, 1, INT32_MIN), edges) << "0 would read as one-way";
  const int32_t first = RequestIdFor(TwoWay);
  EXPECT_EQ(RequestIdFor(OneWay), 0);  // one-way calls leave the counter alone
  EXPECT_EQ(RequestIdFor(TwoWay), first + 1);
  std::vector<std::vector<int32_t>> taken(4);
  std::vector<std::thread> threads;
  for (auto& ids : taken) {
    threads.emplace_back([&ids] {
      for (int i = 0; i < 1000; ++i) ids.push_back(ProcessRequestIds().Next());
    });
  }
  for (auto& t : threads) t.join();
  std::set<int32_t> all;
  for (const auto& ids : taken) all.insert(ids.begin(), ids.end());
  EXPECT_EQ(std::tuple(4000u, first + 2, first + 4001), std::tuple(all.size(), *all.begin(), *all.rbegin()));
}

// An in-memory pipe over an unconnected TCP transceiver. Each send takes at most `sendTake` bytes and each receive
// delivers at most `recvTake`; a value of 0 or below is returned as the transfer's result instead.
class FakeTransceiver : public TcpTransceiver {
 public:
  int32_t Recvn(void* buffer, int32_t length) override {
    if (recvTake <= 0) return recvTake;
    const auto n = std::min({static_cast<size_t>(length), static_cast<size_t>(recvTake), incoming.size() - readAt});
    std::memcpy(buffer, incoming.data() + readAt, n);
    readAt += n;
    return static_cast<int32_t>(n);
  }
  int32_t Send(const void* buffer, int32_t length) override {
    sends.push_back(length);
    if (sendTake <= 0) return sendTake;
    const auto* p = static_cast<const uint8_t*>(buffer);
    sent.insert(sent.end(), p, p + std::min(length, sendTake));
    return std::min(length, sendTake);
  }
  // Each piece as its own Send, so that partial takes stay visible.
  int32_t SendPair(const void* first, int32_t firstLength, const void* second, int32_t secondLength) override {
    return ITransceiver::SendPair(first, firstLength, second, secondLength);
  }
  Bytes sent, incoming;
  std::vector<int32_t> sends;
  size_t readAt = 0;
  int32_t sendTake = 0x7FFFFFFF;
  int32_t recvTake = 0x7FFFFFFF;
};

TEST(StreamMemBuf, LimitAndModeRules) {
  StreamMemBuf mem;
  mem.setLimit(10);
  const Bytes data = Pattern(15);
  EXPECT_EQ(mem.sputn(data.data(), 15), 10);
  EXPECT_EQ(mem.sputn(data.data(), 1), 0);
  uint8_t out[4];
  EXPECT_EQ(mem.sgetn(out, 4), 0);  // a writing buffer refuses reads
  EXPECT_EQ(mem.size(), 10);
  // clear: back to a fresh, unlimited, unused state, the next link kept and cleared as well.
  SmartPtr<Sink> sink(new Sink());
  EXPECT_TRUE(mem.setNext(sink));
  mem.clear();
  EXPECT_EQ(sink->clears, 1);
  EXPECT_EQ(mem.size(), 0);
  EXPECT_EQ(mem.sputn(data.data(), 15), 15);  // limit gone
  EXPECT_EQ(mem.flush(), 15);
  EXPECT_EQ(sink->bytes, data);
  mem.reserve(0);
  EXPECT_EQ(sink->clears, 2);
  mem.setNext(SmartPtr<ITavixStreamBuf>(new Source(B({1, 2, 3, 4, 5}))));
  EXPECT_EQ(mem.sgetn(out, 4), 0);  // no room made yet: nothing can arrive
  mem.clear();
  mem.reserve(3);
  EXPECT_EQ(mem.sgetn(out, 4), 4);
  EXPECT_EQ(Bytes(out, out + 4), B({1, 2, 3, 4}));
  EXPECT_EQ(mem.sputn(data.data(), 1), 0);  // a reading buffer refuses writes
  EXPECT_EQ(mem.flush(), 0);
}

TEST(StreamMemBuf, OverflowKeepsWhatNextDidNotTake) {
  SmartPtr<Sink> sink(new Sink());
  sink->accept = 40000;
  StreamMemBuf mem;
  mem.setNext(sink);
  const Bytes data = Pattern(65537);
  // More than the block holds passes on at once, without a copy.
  EXPECT_EQ(mem.sputn(data.data(), 65537), 65537);
  EXPECT_EQ(sink->calls, std::vector<int32_t>{65537});
  EXPECT_EQ(mem.fill(), 25537);
  EXPECT_TRUE(std::equal(data.begin() + 40000, data.end(), mem.block()));
  // A next that takes nothing: the block doubles and nothing is lost.
  sink->accept = 0;
  const Bytes more = Pattern(100000, 1);
  EXPECT_EQ(mem.sputn(more.data(), 100000), 100000);
  EXPECT_EQ(mem.capacity(), 131072);
  sink->accept = -1;
  EXPECT_EQ(mem.flush(), 125537);
  Bytes all = data;
  all.insert(all.end(), more.begin(), more.end());
  EXPECT_EQ(sink->bytes, all);
  EXPECT_EQ(mem.size(), 165537);
  // A failure below comes back unchanged, and the bytes stay held.
  sink->result = -7;
  EXPECT_EQ(mem.sputn(more.data(), 1), 1);
  EXPECT_EQ(mem.flush(), -7);
  EXPECT_EQ(mem.fill(), 1);
}

TEST(StreamTransceiverBuf, MessagesOverManyBlocksBothWaysAndFailuresRaise) {
  SmartPtr<FakeTransceiver> pipe(new FakeTransceiver());
  pipe->sendTake = 50000;  // the transceiver takes part of each block
  std::vector<int32_t> numbers(100000);
  std::iota(numbers.begin(), numbers.end(), 0);
  const std::u16string text(1000, u'\u4E2D');
  const int32_t total = BasicStream::lengthOf(numbers) + BasicStream::lengthOf(text);
  {
    BasicStream s;
    AttachMessageBuffer(s, total, SmartPtr<ITavixStreamBuf>(new StreamTransceiverBuf(pipe)));
    s.write(numbers);
    s.write(text);
    while (s.Flush() > 0) {
    }
    EXPECT_EQ(CodeOf([&] { s.write(int32_t{1}); }), Err::OutOfBounds);  // beyond the announced size
  }
  ASSERT_EQ(static_cast<int32_t>(pipe->sent.size()), total);
  // The numbers are larger than the block: they leave in one piece behind the bytes held before them, and what the
  // transceiver left of a piece is offered again.
  ASSERT_GE(pipe->sends.size(), 3u);
  EXPECT_EQ(std::vector<int32_t>(pipe->sends.begin(), pipe->sends.begin() + 3),
            (std::vector<int32_t>{5, 400000, 350000}));
  pipe->incoming = pipe->sent;
  pipe->recvTake = 1234;
  BasicStream r;
  AttachMessageBuffer(r, total, SmartPtr<ITavixStreamBuf>(new StreamTransceiverBuf(pipe)));
  std::vector<int32_t> numbersBack;
  std::u16string textBack;
  r.read(numbersBack);
  r.read(textBack);
  EXPECT_EQ(std::tuple(numbers, text), std::tuple(numbersBack, textBack));
  // Closed and failed transfers raise.
  StreamTransceiverBuf end(pipe);
  uint8_t byte = 0;
  pipe->sendTake = pipe->recvTake = 0;
  EXPECT_EQ(CodeOf([&] { end.sputn(&byte, 1); }), Err::ConnectionClosed);
  EXPECT_EQ(CodeOf([&] { end.sgetn(&byte, 1); }), Err::ConnectionClosed);
  for (const int32_t failure : {-1, -2, -3}) {
    TavixSetLastError(ECONNRESET);
    pipe->sendTake = pipe->recvTake = failure;
    EXPECT_EQ(CodeOf([&] { end.sputn(&byte, 1); }), static_cast<uint32_t>(ECONNRESET));
    EXPECT_EQ(CodeOf([&] { end.sgetn(&byte, 1); }), static_cast<uint32_t>(ECONNRESET));
  }
  EXPECT_FALSE(end.setNext(SmartPtr<ITavixStreamBuf>(new Sink())));
}

// A blob that always fails, leaving the last error as it found it.
class FailingBlob : public TavixBlob {
 public:
  int32_t Write(const void*, int32_t, uint64_t) override { return -2; }
};

TEST(StreamBlobBuf, CollectsAMessageAndReportsBlobFailures) {
  SmartPtr<ITavixBlob> blob = CreateTavixMemBlob();
  BasicStream s;
  AttachMessageBuffer(s, 100000, SmartPtr<ITavixStreamBuf>(new StreamBlobBuf(blob)));
  const Bytes data = Pattern(100000);
  s.writeBlob(data.data(), 100000);
  s.Flush();
  ASSERT_EQ(blob->Size(), 100000u);
  EXPECT_EQ(std::memcmp(blob->Data(), data.data(), 100000), 0);
  StreamBlobBuf end(blob);
  uint8_t byte = 0;
  EXPECT_EQ(CodeOf([&] { end.sgetn(&byte, 1); }), Err::UnsupportedFunction);
  StreamBlobBuf failing(SmartPtr<ITavixBlob>(new FailingBlob()));
  TavixSetLastError(0);
  EXPECT_EQ(CodeOf([&] { failing.sputn(&byte, 1); }), Err::BlobIoError);
  StreamBlobBuf unopenable(CreateTavixFileBlob("/nonexistent-dir/blob.bin"));
  EXPECT_EQ(CodeOf([&] { unopenable.sputn(&byte, 1); }), static_cast<uint32_t>(ENOENT));
}

std::string Pid() { return NarrowString(FormatString(u"%05u", platform::ProcessId())); }

// This process's files in the temporary blob folder.
size_t OurTemporaryFiles() {
  const fs::path folder = TavixBlob::TemporaryFolder();
  if (!fs::exists(folder)) return 0;
  size_t n = 0;
  for (const auto& entry : fs::directory_iterator(folder)) n += entry.path().filename().string().rfind(Pid(), 0) == 0;
  return n;
}

std::string PathOf(ITavixBlob& blob) { return NarrowString(dynamic_cast<TavixBlob&>(blob).FileName()); }

// Every test leaves the temporary folder as it found it.
class BlobTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_before = OurTemporaryFiles();
    fs::create_directories(m_dir);
  }
  void TearDown() override {
    fs::remove_all(m_dir);
    EXPECT_EQ(OurTemporaryFiles(), m_before) << "temporary file left behind";
  }
  const fs::path m_dir = fs::temp_directory_path() / ("tavix_blob_" + Pid());

 private:
  size_t m_before = 0;
};

TEST_F(BlobTest, MemoryBlobKindsGrowthAndBounds) {
  EXPECT_EQ(CreateTavixBlob(kBlobFileThreshold - 1)->Type(), MemBlob);
  EXPECT_EQ(CreateTavixBlob(kBlobFileThreshold)->Type(), FileBlob);
  TavixBlob blob(MemBlob);
  const Bytes data = Pattern(10, 1);
  EXPECT_EQ(blob.Write(data.data(), 10, 100), 10);
  EXPECT_EQ(blob.Size(), 110u);
  uint8_t out[16] = {};
  EXPECT_EQ(blob.Read(out, 16, 100), 10);
  EXPECT_EQ(Bytes(out, out + 10), data);
  EXPECT_EQ(blob.Read(out, 4, 110), 0);
  EXPECT_EQ(blob.Read(out, -1, 0), 0);
  // Clear keeps the room; growing at least doubles it.
  blob.Clear();
  EXPECT_EQ(blob.Append("hello", 5), 5);
  EXPECT_EQ(std::memcmp(blob.Data(), "hello", 5), 0);
  EXPECT_EQ(blob.Write(out, 1, 110), 1);
  EXPECT_EQ(blob.Capacity(), 220u);
  // A blob made to stay in memory does so past 1 MiB.
  const Bytes big = Pattern(3u << 20, 2);
  EXPECT_EQ(blob.Write(big.data(), static_cast<int32_t>(big.size()), 0), static_cast<int32_t>(big.size()));
  EXPECT_EQ(blob.Type(), MemBlob);
  EXPECT_EQ(std::memcmp(blob.Data(), big.data(), big.size()), 0);
}

TEST_F(BlobTest, AutomaticBlobMovesToATemporaryFileAndCleansUp) {
  const Bytes piece = Pattern(65536, 3);
  std::string path;
  {
    TavixBlob blob;
    for (int i = 1; i <= 8; ++i) ASSERT_EQ(blob.Append(piece.data(), 65536), 65536);
    EXPECT_EQ(blob.Type(), MemBlob);
    ASSERT_EQ(blob.Append(piece.data(), 65536), 65536);  // needs 1 MiB of room
    EXPECT_EQ(std::tuple(FileBlob, nullptr, 589824u), std::tuple(blob.Type(), blob.Data(), blob.Size()));
    path = PathOf(blob);
    EXPECT_EQ(fs::file_size(path), 1048576u);  // extended ahead of the data
    Bytes back(65536);
    for (uint64_t offset = 0; offset < blob.Size(); offset += 65536) {
      ASSERT_EQ(blob.Read(back.data(), 65536, offset), 65536);
      ASSERT_EQ(back, piece) << offset;
    }
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(BlobTest, TemporaryFilesAreNamedByProcessAndThreadBesideTheLibrary) {
  SmartPtr<ITavixBlob> a = CreateTavixFileBlob();
  SmartPtr<ITavixBlob> b = CreateTavixFileBlob();
  ASSERT_EQ(a->Append("a", 1), 1);
  ASSERT_EQ(b->Append("b", 1), 1);
  EXPECT_NE(PathOf(*a), PathOf(*b));
  const std::string library = platform::LibraryPath();
  EXPECT_EQ(fs::path(PathOf(*a)).parent_path().string() + "/",
            library.substr(0, library.rfind('/') + 1) + "TavixBuffer/");
  const std::string ids = Pid() + NarrowString(FormatString(u"%05u", platform::ThreadId()));
  const std::string leaf = fs::path(PathOf(*a)).filename().string();
  EXPECT_TRUE(std::regex_match(leaf, std::regex(ids + "[0-9]{7}\\.tmp"))) << leaf;
  // Growing a file blob leaves a sparse hole that reads to the end.
  ASSERT_EQ(a->Resize(0x80000000ull), 0x80000000ull);
  uint8_t back[100];
  EXPECT_EQ(a->Read(back, 1, 0), 1);
  EXPECT_EQ(back[0], 'a');
  EXPECT_EQ(a->Read(back, 100, 0x80000000ull - 40), 40);
}

TEST_F(BlobTest, NamedFilesAreReadExtendedAndTrimmedOrFailWhenUnopenable) {
  const fs::path path = m_dir / "named.bin";
  const Bytes original = Pattern(3000, 4);
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(original.data()), 3000);
  {
    SmartPtr<ITavixBlob> named = CreateTavixFileBlob(path.string().c_str());
    EXPECT_EQ(named->Size(), 3000u);
    EXPECT_EQ(named->Append("0123456789", 10), 10);
    EXPECT_EQ(fs::file_size(path), 6000u);  // room doubled ahead of the data
  }
  ASSERT_EQ(fs::file_size(path), 3010u);
  std::vector<char> all(3010);
  std::ifstream(path, std::ios::binary).read(all.data(), 3010);
  EXPECT_EQ(std::memcmp(all.data(), original.data(), 3000), 0);
  EXPECT_EQ(std::string(all.data() + 3000, 10), "0123456789");
  EXPECT_EQ(CreateTavixFileBlob(WiddenString(path.string()).c_str())->Size(), 3010u);
  // A null name: a temporary name, but the file is kept.
  std::string kept;
  {
    TavixBlob unnamed(static_cast<const char16_t*>(nullptr));
    ASSERT_EQ(unnamed.Append("kept", 4), 4);
    kept = PathOf(unnamed);
  }
  EXPECT_EQ(fs::file_size(kept), 4u);
  fs::remove(kept);
  // A file that cannot be opened fails every call with the last error set.
  SmartPtr<ITavixBlob> blob = CreateTavixFileBlob((m_dir / "missing" / "x.bin").string().c_str());
  uint8_t byte = 0;
  EXPECT_EQ(OutcomeOf([&] { return blob->Write(&byte, 1, 0); }), (Outcome{-2, ENOENT}));
  EXPECT_EQ(OutcomeOf([&] { return blob->Read(&byte, 1, 0); }), (Outcome{-2, ENOENT}));
  EXPECT_EQ(blob->Size(), kBlobFailure);
  EXPECT_EQ(blob->Resize(10), kBlobFailure);
}

}  // namespace
}  // namespace TAVIX
