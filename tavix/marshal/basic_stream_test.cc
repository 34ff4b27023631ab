// The marshalling stream: the wire encoding of every type, round trips through small deliveries, blobs inline and
// in pieces, and forged or short input; and the 20-byte message header: its checksum, known encodings, and what a
// receiver's check refuses.
#include "tavix/marshal/basic_stream.h"

#include <array>
#include <numeric>
#include <tuple>

#include "tavix/marshal/marshal_test_util.h"
#include "tavix/marshal/message_header.h"

namespace TAVIX {
namespace {

using namespace testing;

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

TEST(BasicStreamWire, SizeAndBoolDecoding) {
  int32_t n = -1;
  Decoder(B({0xFF, 0x05, 0, 0, 0})).stream.readSize(n);
  EXPECT_EQ(n, 5);
  EXPECT_EQ(CodeOf([&] { Decoder(B({0xFF, 0xFF, 0xFF, 0xFF, 0xFF})).stream.readSize(n); }), Err::IllegalSize);
  std::string text;
  EXPECT_EQ(CodeOf([&] { Decoder(B({0xFF, 0x00, 0x00, 0x00, 0x80, 'a'})).stream.read(text); }), Err::IllegalSize);

  // Any byte but 0 reads as true.
  std::vector<bool> bits;
  bool flag = false;
  Decoder d(B({3, 2, 0, 0xFF, 2}));
  d.stream.read(bits);
  d.stream.read(flag);
  EXPECT_EQ(bits, (std::vector<bool>{true, false, true}));
  EXPECT_TRUE(flag);
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

TEST(BasicStreamWire, EveryTypeRoundTripsAndMatchesItsLength) {
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
  EXPECT_EQ(text, "new");
  EXPECT_EQ(list, std::vector<std::string>{"x"});
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
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0], reused);
  ASSERT_EQ(reused->Size(), 300u);
  EXPECT_EQ(std::memcmp(reused->Data(), content.data(), 300), 0);
  EXPECT_FALSE(back[1]);
}

TEST(BasicStreamBlob, LargeBlobsTravelInPiecesThroughFiles) {
  // A file blob of 3 MiB + 1 goes out in pieces and comes back as a new
  // file blob, never asked for more than a file piece at a time.
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
  ASSERT_TRUE(target);
  EXPECT_EQ(target->Type(), FileBlob);
  Bytes back(size);
  ASSERT_EQ(target->Read(back.data(), static_cast<int32_t>(size), 0), static_cast<int32_t>(size));
  EXPECT_EQ(back, content);
  EXPECT_LE(*std::max_element(d.source->asked.begin(), d.source->asked.end()), BasicStream::kFileBlobPiece);
}

TEST(BasicStreamBlob, OversizedBlobIsRefusedAndNothingWritten) {
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

TEST(BasicStreamFaults, ShortInputBrokenBlobAndMissingStreamBuffer) {
  std::string text;
  int32_t value = 0;
  SmartPtr<ITavixBlob> blob;
  EXPECT_EQ(CodeOf([&] { Decoder(B({5, 'a', 'b'})).stream.read(text); }), Err::OutOfBounds);
  EXPECT_EQ(CodeOf([&] { Decoder(Bytes{}).stream.read(value); }), Err::OutOfBounds);
  EXPECT_EQ(CodeOf([&] { Decoder(B({4, 1, 2})).stream.read(blob); }), Err::OutOfBounds);
  SmartPtr<ITavixBlob> broken(new BrokenBlob());
  ASSERT_EQ(broken->Append("x", 1), 1);
  EXPECT_EQ(CodeOf([&] { Encode([&](BasicStream& s) { s.write(broken); }); }), Err::OutOfBounds);

  // Without a stream buffer nothing moves, nothing is raised and targets keep their values.
  BasicStream bare;
  std::string keep = "keep";
  EXPECT_EQ(CodeOf([&] { bare.write(std::string("x")), bare.writeSize(300), bare.read(keep), bare.read(value); }), 0u);
  EXPECT_EQ(keep, "keep");
}

TEST(BasicStreamFaults, ForgedCountsCostOnlyTheBytesThatArrive) {
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

TEST(MessageHeaderTest, Crc16MatchesPublishedCheckValue) {
  const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(0x4B37, Crc16(digits, 9));
  EXPECT_EQ(0xFFFF, Crc16(digits, 0));
}

TEST(MessageHeaderTest, EncodesKnownVectors) {
  const auto header = [](uint8_t type, uint8_t size, uint8_t crcLow, uint8_t crcHigh) {
    return HeaderBytes{0x58, 0x47, 0x52, 0x51, 1, 2, 1, 1, type, 0, size, 0, 0, 0, 0, 0, 0, 0, crcLow, crcHigh};
  };
  EXPECT_EQ(header(2, 0x14, 0x12, 0x9A), Encoded(MSG_VALIDATE, 20));
  EXPECT_EQ(header(3, 0x14, 0x43, 0x5F), Encoded(MSG_CLOSE, 20));
  EXPECT_EQ(header(0, 0x64, 0xB4, 0x74), Encoded(MSG_REQUEST, 100));
}

// Sizes are bounded inclusively; an unknown type passes; the magic is checked before the CRC, and the reserved bytes
// are covered by the CRC.
TEST(MessageHeaderTest, DecodeAndCheck) {
  MsgHeaderData h;
  const HeaderBytes wire = Encoded(MSG_REPLY, 36);
  h.Decode(wire.data());
  EXPECT_TRUE(h.crcOk);
  EXPECT_EQ(MSG_REPLY, h.type);
  EXPECT_EQ(36, h.size);
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

}  // namespace
}  // namespace TAVIX
