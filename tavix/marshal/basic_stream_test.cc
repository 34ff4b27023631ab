#include "tavix/marshal/basic_stream.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <tuple>

#include "tavix/core/errors.h"
#include "tavix/marshal/marshal_test_util.h"

namespace TAVIX {
namespace {

using testing::B;
using testing::Bytes;
using testing::Decoder;
using testing::Encode;

// Values never change width silently: only the exact wire types are taken.
template <class T>
concept Writable = requires(BasicStream& s, T v) { s.write(v); };
template <class T>
concept Readable = requires(BasicStream& s, T& v) { s.read(v); };
template <class T>
concept Measurable = requires(T v) { BasicStream::lengthOf(v); };

static_assert(Writable<int32_t> && Writable<int64_t> && Writable<int16_t> && Writable<bool>);
static_assert(Writable<unsigned char> && Writable<float> && Writable<double>);
static_assert(Writable<long>, "int64_t is long here: its 8 bytes are what it holds");
static_assert(!Writable<long long> && !Writable<unsigned> && !Writable<uint64_t> && !Writable<size_t>);
static_assert(!Writable<char> && !Writable<char16_t> && !Writable<uint16_t>);
static_assert(!Writable<const char*> && !Writable<const char16_t*>, "a literal must not become a bool");
static_assert(!Readable<long long> && !Readable<uint32_t> && !Readable<char>);
static_assert(Readable<int64_t> && Readable<std::u16string> && Readable<std::vector<double>>);
static_assert(!Measurable<long long> && !Measurable<const char*> && Measurable<int32_t>);
static_assert(BasicStream::lengthOf(int64_t{0}) == 8 && BasicStream::lengthOf(int32_t{0}) == 4);

uint32_t CodeOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const TavixException& e) {
    return e.Code();
  }
  return 0;
}

TEST(BasicStreamSize, PrefixBytes) {
  EXPECT_EQ(Encode([](BasicStream& s) { s.writeSize(0); }), B({0x00}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.writeSize(254); }), B({0xFE}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.writeSize(255); }), B({0xFF, 0xFF, 0, 0, 0}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.writeSize(256); }), B({0xFF, 0x00, 0x01, 0, 0}));
  EXPECT_EQ(BasicStream::lengthOfSize(254), 1);
  EXPECT_EQ(BasicStream::lengthOfSize(255), 5);

  int32_t n = -1;
  Decoder five(B({0xFF, 0x05, 0, 0, 0}));
  five.stream.readSize(n);
  EXPECT_EQ(n, 5);
  Decoder negative(B({0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(CodeOf([&] { negative.stream.readSize(n); }), Err::IllegalSize);
  Decoder badString(B({0xFF, 0x00, 0x00, 0x00, 0x80, 'a'}));
  std::string text;
  EXPECT_EQ(CodeOf([&] { badString.stream.read(text); }), Err::IllegalSize);
}

TEST(BasicStreamValues, FixedSizeAndStringVectors) {
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(int32_t{-1}); }), B({0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(1.0); }), B({0, 0, 0, 0, 0, 0, 0xF0, 0x3F}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(int16_t{0x1234}); }), B({0x34, 0x12}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(int64_t{0x0102030405060708}); }),
            B({8, 7, 6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(1.5f); }), B({0, 0, 0xC0, 0x3F}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(true), s.write(false); }), B({1, 0}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(std::string("abc")); }), B({3, 0x61, 0x62, 0x63}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(std::u16string(u"ab")); }), B({2, 0x61, 0, 0x62, 0}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(std::u16string(u"\u20AC")); }), B({1, 0xAC, 0x20}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(std::string()), s.write(std::u16string()); }), B({0, 0}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(std::vector<bool>{true, false, true}); }), B({3, 1, 0, 1}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(std::vector<std::string>{"a", ""}); }), B({2, 1, 0x61, 0}));
  EXPECT_EQ(Encode([](BasicStream& s) { s.write(std::vector<int16_t>{1, -2}); }), B({2, 1, 0, 0xFE, 0xFF}));
  EXPECT_EQ(Encode([](BasicStream& s) {
              s.write(std::vector<bool>()), s.write(std::vector<unsigned char>()),
                  s.write(std::vector<int32_t>()), s.write(std::vector<double>()),
                  s.write(std::vector<std::u16string>()), s.write(std::vector<SmartPtr<ITavixBlob>>());
            }),
            B({0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(BasicStream::lengthOf(std::vector<double>(255)), 2045);
  EXPECT_EQ(BasicStream::lengthOf(std::u16string(300, u'x')), 605);
  EXPECT_EQ(BasicStream::lengthOf(std::vector<std::string>{"a", ""}), 4);

  std::vector<bool> bits;
  Decoder d(B({3, 2, 0, 0xFF}));
  d.stream.read(bits);
  EXPECT_EQ(bits, (std::vector<bool>{true, false, true}));
  bool flag = false;
  Decoder single(B({2}));
  single.stream.read(flag);
  EXPECT_TRUE(flag);
}

// Writes the values, checks the bytes against their lengthOf, and reads
// them back from deliveries of 7 bytes at a time.
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

TEST(BasicStreamValues, EveryTypeRoundTripsAndMatchesItsLength) {
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

TEST(BasicStreamBlob, InlineBlobEncoding) {
  SmartPtr<ITavixBlob> none;
  EXPECT_EQ(Encode([&](BasicStream& s) { s.write(none); }), B({0}));
  EXPECT_EQ(BasicStream::lengthOf(none), 1);

  SmartPtr<ITavixBlob> blob = CreateTavixMemBlob();
  Bytes content(300);
  std::iota(content.begin(), content.end(), 0);
  blob->Append(content.data(), 300);
  Bytes expected = B({0xFF, 0x2C, 0x01, 0, 0});
  expected.insert(expected.end(), content.begin(), content.end());
  EXPECT_EQ(Encode([&](BasicStream& s) { s.write(blob); }), expected);
  EXPECT_EQ(BasicStream::lengthOf(blob), 305);
  // writeBlob has no prefix.
  EXPECT_EQ(Encode([&](BasicStream& s) { s.writeBlob(blob); }), content);

  // In a sequence: 02, the blob, 00. Reading 00 drops the blob held;
  // reading content refills the blob held; a null target gets a new blob.
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
  SmartPtr<ITavixBlob> fresh;
  Decoder two(B({2, 'o', 'k'}));
  two.stream.read(fresh);
  ASSERT_TRUE(fresh);
  EXPECT_EQ(fresh->Type(), MemBlob);
  EXPECT_EQ(fresh->Size(), 2u);
}

TEST(BasicStreamBlob, LargeBlobsTravelInPiecesThroughFiles) {
  // A file blob of 3 MiB + 1 goes out in 64 KiB pieces and comes back as a
  // new file blob, never held in memory whole.
  const uint32_t size = (3u << 20) + 1;
  SmartPtr<ITavixBlob> source = CreateTavixFileBlob();
  Bytes content(size);
  for (uint32_t i = 0; i < size; ++i) content[i] = static_cast<uint8_t>(i * 31 + (i >> 16));
  ASSERT_EQ(source->Write(content.data(), static_cast<int32_t>(size), 0), static_cast<int32_t>(size));
  const Bytes wire = Encode([&](BasicStream& s) { s.write(source); });
  ASSERT_EQ(wire.size(), size + 5u);
  EXPECT_TRUE(std::equal(content.begin(), content.end(), wire.begin() + 5));

  Decoder d(wire);
  SmartPtr<ITavixBlob> target;
  d.stream.read(target);
  ASSERT_TRUE(target);
  EXPECT_EQ(target->Type(), FileBlob);
  ASSERT_EQ(target->Size(), size);
  Bytes back(size);
  ASSERT_EQ(target->Read(back.data(), static_cast<int32_t>(size), 0), static_cast<int32_t>(size));
  EXPECT_EQ(back, content);
  const int32_t largestAsk = *std::max_element(d.source->asked.begin(), d.source->asked.end());
  EXPECT_LE(largestAsk, StreamMemBuf::kBlockSize);
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

TEST(BasicStreamFaults, ShortInputAndMissingStreamBuffer) {
  Decoder cut(B({5, 'a', 'b'}));
  std::string text;
  EXPECT_EQ(CodeOf([&] { cut.stream.read(text); }), Err::OutOfBounds);
  Decoder empty(Bytes{});
  int32_t value = 0;
  EXPECT_EQ(CodeOf([&] { empty.stream.read(value); }), Err::OutOfBounds);
  Decoder shortBlob(B({4, 1, 2}));
  SmartPtr<ITavixBlob> blob;
  EXPECT_EQ(CodeOf([&] { shortBlob.stream.read(blob); }), Err::OutOfBounds);

  SmartPtr<ITavixBlob> broken(new BrokenBlob());
  ASSERT_EQ(broken->Append("x", 1), 1);
  BasicStream out;
  out.Attach(SmartPtr<ITavixStreamBuf>(new StreamMemBuf()));
  EXPECT_EQ(CodeOf([&] { out.write(broken); }), Err::OutOfBounds);

  // Without a stream buffer nothing moves and nothing is raised.
  BasicStream bare;
  std::string keep = "keep";
  std::vector<int32_t> keepInts{1};
  SmartPtr<ITavixBlob> keepBlob = CreateTavixMemBlob();
  EXPECT_EQ(CodeOf([&] {
              bare.write(std::string("x")), bare.write(int32_t{1}), bare.writeSize(300);
              bare.read(keep), bare.read(keepInts), bare.read(keepBlob), bare.read(value);
            }),
            0u);
  EXPECT_EQ(keep, "keep");
  EXPECT_EQ(keepInts, std::vector<int32_t>{1});
  EXPECT_TRUE(keepBlob);
  EXPECT_EQ(bare.Size(), 0);
  EXPECT_EQ(bare.Flush(), 0);

  // Zero and negative raw counts do nothing.
  EXPECT_EQ(Encode([](BasicStream& s) { s.writeBlob("x", 0), s.readBlob(nullptr, -1); }), Bytes{});
}

TEST(BasicStreamFaults, ForgedCountsCostOnlyTheBytesThatArrive) {
  Decoder d(B({0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 1, 2, 3, 4}));
  std::vector<int64_t> numbers;
  EXPECT_EQ(CodeOf([&] { d.stream.read(numbers); }), Err::OutOfBounds);
  EXPECT_LE(numbers.capacity() * sizeof(int64_t), 2u << 20);
  Decoder strings(B({0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0}));
  std::vector<std::u16string> list;
  EXPECT_EQ(CodeOf([&] { strings.stream.read(list); }), Err::OutOfBounds);
  EXPECT_LE(list.size(), 2u);
}

TEST(BasicStreamSwap, ExchangesStreamBuffers) {
  BasicStream a;
  BasicStream b;
  SmartPtr<ITavixStreamBuf> mem(new StreamMemBuf());
  a.Attach(mem);
  a.swap(b);
  EXPECT_FALSE(a.GetStreamBuf());
  EXPECT_EQ(b.GetStreamBuf(), mem);
  b.write(int32_t{1});
  EXPECT_EQ(b.Size(), 4);
  b.Clear();
  EXPECT_EQ(b.Size(), 0);
}

}  // namespace
}  // namespace TAVIX
