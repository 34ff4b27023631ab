// The body encoding of every message: little-endian numbers, size-prefixed
// strings and sequences and inline blobs, with no type tags and no
// alignment. A BasicStream owns no bytes; it forwards them to the stream
// buffer attached to its Buffer part, which decides where they go.
#ifndef TAVIX_MARSHAL_BASIC_STREAM_H_
#define TAVIX_MARSHAL_BASIC_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "tavix/core/shared.h"
#include "tavix/marshal/blob.h"

namespace TAVIX {

// One link of the chain that a stream's bytes pass through. Counts are
// byte counts.
class ITavixStreamBuf : public virtual Shared {
 public:
  // Room for at least `bytes`; reserve(0) acts as clear(). Returns the new
  // room when it grew, otherwise 0.
  virtual int32_t reserve(int32_t bytes) = 0;
  // Takes up to `count` bytes; returns how many were taken, 0 when none
  // could be, a negative value for an error passed up from below.
  virtual int32_t sputn(const void* data, int32_t count) = 0;
  // Delivers up to `count` bytes; 0 when none are left.
  virtual int32_t sgetn(void* data, int32_t count) = 0;
  // Takes `first` and then `second` as one run of bytes and returns what
  // sputn of their joined bytes would. A link that can hand both on in one
  // transfer (a gathering send) does; this default passes them one by one.
  virtual int32_t sputPair(const void* first, int32_t firstCount, const void* second, int32_t secondCount);
  // Bytes moved through this link since it was last cleared.
  virtual int32_t size() = 0;
  // The most bytes this link may move in all.
  virtual void setLimit(int32_t bytes) = 0;
  // Passes held bytes on to the next link; returns how many were passed.
  virtual int32_t flush() = 0;
  // Back to the freshly made state; the link to the next one stays.
  virtual void clear() = 0;
  // False when this kind cannot be linked.
  virtual bool setNext(const SmartPtr<ITavixStreamBuf>& next) = 0;

 protected:
  // Room that a Buffer may fill, or held bytes that it may take, by itself
  // without calling the link: a small value then costs one copy, not a
  // virtual call. A link that offers no such window leaves it empty; one
  // that does counts what was moved through it at its next call.
  uint8_t* m_putNext = nullptr;
  uint8_t* m_putEnd = nullptr;
  const uint8_t* m_getNext = nullptr;
  const uint8_t* m_getEnd = nullptr;

 private:
  friend class Buffer;
};

// The stream-buffer holder that BasicStream builds on.
class Buffer {
 public:
  Buffer() = default;
  ~Buffer() = default;
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  Buffer(Buffer&&) noexcept = default;
  Buffer& operator=(Buffer&&) noexcept = default;

  // A holder of any stream-buffer class is taken as it is, without a
  // converted holder of its own.
  template <class T>
  void Attach(const SmartPtr<T>& sb) {
    m_streamBuf = static_cast<ITavixStreamBuf*>(sb.get());
  }
  void Attach(std::nullptr_t) { m_streamBuf = nullptr; }
  const SmartPtr<ITavixStreamBuf>& GetStreamBuf() const { return m_streamBuf; }

  // Without a stream buffer both raise Err::NullPointer: bytes are never
  // dropped unseen. A transfer that moves nothing raises Err::OutOfBounds;
  // any other result, a negative one included, is returned.
  int32_t WriteToStream(const void* data, int32_t count) {
    ITavixStreamBuf* const link = m_streamBuf.get();
    if (link != nullptr && count > 0 && count <= link->m_putEnd - link->m_putNext) {
      std::memcpy(link->m_putNext, data, static_cast<size_t>(count));
      link->m_putNext += count;
      return count;
    }
    return WriteThroughLink(data, count);
  }
  int32_t ReadFromStream(void* data, int32_t count) {
    ITavixStreamBuf* const link = m_streamBuf.get();
    if (link != nullptr && count > 0 && count <= link->m_getEnd - link->m_getNext) {
      std::memcpy(data, link->m_getNext, static_cast<size_t>(count));
      link->m_getNext += count;
      return count;
    }
    return ReadThroughLink(data, count);
  }

  int32_t Size();
  void Clear();
  int32_t Flush();
  void swap(Buffer& other) noexcept { std::swap(m_streamBuf, other.m_streamBuf); }

 private:
  int32_t WriteThroughLink(const void* data, int32_t count);
  int32_t ReadThroughLink(void* data, int32_t count);

  SmartPtr<ITavixStreamBuf> m_streamBuf;
};

// Types that travel as their own bytes. Arithmetic types outside this set
// (long long, unsigned integers, char, char16_t, size_t) and every raw
// pointer match the deleted catch-all overloads below instead of being
// converted, so a value can never silently change its width on the wire and
// a string literal can never become a bool. (int64_t is `long` here, so a
// `long` is written as the 8 bytes it holds.)
template <class T>
concept StrayWireType = (std::is_arithmetic_v<T> || std::is_pointer_v<T>);

class BasicStream : public Buffer {
 public:
  // Largest piece of blob content moved at once.
  static constexpr int32_t kBlobPiece = 65536;
  // Largest piece in which a file blob's content is read or written: a
  // blob file is scratch space, best served by few large sequential
  // transfers.
  static constexpr int32_t kFileBlobPiece = 1 << 20;
  // A blob this large or larger cannot be carried inline.
  static constexpr uint64_t kMaxInlineBlob = 0x7FFFFFFF;

  BasicStream() = default;
  ~BasicStream() = default;
  BasicStream(BasicStream&&) noexcept = default;
  BasicStream& operator=(BasicStream&&) noexcept = default;

  void swap(BasicStream& other) noexcept;

  // Counts and lengths: one byte up to 254, else 0xFF and 4 bytes.
  void writeSize(int32_t n);
  void readSize(int32_t& n);
  static constexpr int32_t lengthOfSize(int32_t n) { return n <= 254 ? 1 : 5; }

  // Raw bytes without a prefix; a count below 1 does nothing.
  void writeBlob(const void* data, int32_t count);
  void readBlob(void* data, int32_t count);
  // A blob's content without a prefix; a null blob raises Err::NullPointer.
  void writeBlob(const SmartPtr<ITavixBlob>& blob);

  void write(bool v);
  void write(unsigned char v);
  void write(int16_t v);
  void write(int32_t v);
  void write(int64_t v);
  void write(float v);
  void write(double v);
  void write(const std::string& v);
  void write(const std::u16string& v);
  void write(const SmartPtr<ITavixBlob>& v);
  void write(const std::vector<bool>& v);
  void write(const std::vector<unsigned char>& v);
  void write(const std::vector<int16_t>& v);
  void write(const std::vector<int32_t>& v);
  void write(const std::vector<int64_t>& v);
  void write(const std::vector<float>& v);
  void write(const std::vector<double>& v);
  void write(const std::vector<std::string>& v);
  void write(const std::vector<std::u16string>& v);
  void write(const std::vector<SmartPtr<ITavixBlob>>& v);
  template <StrayWireType T>
  void write(T) = delete;

  void read(bool& v);
  void read(unsigned char& v);
  void read(int16_t& v);
  void read(int32_t& v);
  void read(int64_t& v);
  void read(float& v);
  void read(double& v);
  void read(std::string& v);
  void read(std::u16string& v);
  void read(SmartPtr<ITavixBlob>& v);
  void read(std::vector<bool>& v);
  void read(std::vector<unsigned char>& v);
  void read(std::vector<int16_t>& v);
  void read(std::vector<int32_t>& v);
  void read(std::vector<int64_t>& v);
  void read(std::vector<float>& v);
  void read(std::vector<double>& v);
  void read(std::vector<std::string>& v);
  void read(std::vector<std::u16string>& v);
  void read(std::vector<SmartPtr<ITavixBlob>>& v);
  template <StrayWireType T>
  void read(T&) = delete;

  // The bytes write() would produce; never touches a stream. Lengths that
  // do not fit a 32-bit count raise Err::IllegalSize.
  static constexpr int32_t lengthOf(bool) { return 1; }
  static constexpr int32_t lengthOf(unsigned char) { return 1; }
  static constexpr int32_t lengthOf(int16_t) { return 2; }
  static constexpr int32_t lengthOf(int32_t) { return 4; }
  static constexpr int32_t lengthOf(int64_t) { return 8; }
  static constexpr int32_t lengthOf(float) { return 4; }
  static constexpr int32_t lengthOf(double) { return 8; }
  static int32_t lengthOf(const std::string& v);
  static int32_t lengthOf(const std::u16string& v);
  static int32_t lengthOf(const SmartPtr<ITavixBlob>& v);
  static int32_t lengthOf(const std::vector<bool>& v);
  static int32_t lengthOf(const std::vector<unsigned char>& v);
  static int32_t lengthOf(const std::vector<int16_t>& v);
  static int32_t lengthOf(const std::vector<int32_t>& v);
  static int32_t lengthOf(const std::vector<int64_t>& v);
  static int32_t lengthOf(const std::vector<float>& v);
  static int32_t lengthOf(const std::vector<double>& v);
  static int32_t lengthOf(const std::vector<std::string>& v);
  static int32_t lengthOf(const std::vector<std::u16string>& v);
  static int32_t lengthOf(const std::vector<SmartPtr<ITavixBlob>>& v);
  template <StrayWireType T>
  static int32_t lengthOf(T) = delete;

 private:
  template <class T>
  void writeNumbers(const std::vector<T>& v);
  template <class T>
  void readNumbers(std::vector<T>& v);
  template <class Text>
  void readText(Text& v);
  template <class T>
  void writeEach(const std::vector<T>& v);
  template <class T>
  void readEach(std::vector<T>& v);
  void writeBlobContent(ITavixBlob& blob, uint64_t size);
  // Reads `n` bytes of content into the (emptied) blob: straight into its
  // memory while it is a memory blob, through the scratch block otherwise.
  void readBlobContent(ITavixBlob& blob, int32_t n);
  // Reads into a memory blob's own memory, growing it piece by piece with
  // the bytes that arrive; returns how many it read, which falls short of
  // `n` only when the blob stopped being a memory blob as it grew.
  int32_t readIntoMemory(ITavixBlob& blob, int32_t n);
  // A sequence's count (readSize into a zeroed n).
  void readCount(int32_t& n);

  // At least `bytes` of scratch for blob content.
  uint8_t* blobScratch(int32_t bytes);

  // Allocated on first use and kept for the stream's life.
  std::unique_ptr<uint8_t[]> m_blobScratch;
  int32_t m_blobScratchSize = 0;
};

}  // namespace TAVIX

#endif  // TAVIX_MARSHAL_BASIC_STREAM_H_
