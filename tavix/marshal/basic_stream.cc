#include "tavix/marshal/basic_stream.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include "tavix/core/errors.h"

namespace TAVIX {

// Numbers go on the wire exactly as they lie in memory.
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(float) == 4 && sizeof(double) == 8 && sizeof(char16_t) == 2);

namespace {

constexpr int64_t kMaxCount = std::numeric_limits<int32_t>::max();
// Large numeric sequences are read in pieces of this many bytes, so that a
// forged count costs no more memory than the bytes that really arrive.
constexpr int64_t kNumberPiece = 1 << 20;

// A length that a 32-bit count can carry, or Err::IllegalSize.
int32_t Checked(int64_t length) {
  if (length < 0 || length > kMaxCount) TavixThrow(Err::IllegalSize);
  return static_cast<int32_t>(length);
}

int32_t CountOf(size_t n) { return Checked(static_cast<int64_t>(std::min<size_t>(n, kMaxCount + 1))); }

int32_t BytesOf(size_t n, size_t unit) {
  const int32_t count = CountOf(n);
  return Checked(static_cast<int64_t>(count) * static_cast<int64_t>(unit));
}

template <class T>
int32_t LengthOfNumbers(const std::vector<T>& v) {
  const int32_t n = CountOf(v.size());
  return Checked(BasicStream::lengthOfSize(n) + int64_t{BytesOf(v.size(), sizeof(T))});
}

template <class T>
int32_t LengthOfEach(const std::vector<T>& v) {
  int64_t total = BasicStream::lengthOfSize(CountOf(v.size()));
  for (const T& element : v) total = Checked(total + BasicStream::lengthOf(element));
  return static_cast<int32_t>(total);
}

// A transfer that a link below reports as failed moves nothing.
int32_t Moved(int32_t r) {
  if (r < 0) TavixThrow(Err::OutOfBounds);
  return r;
}

}  // namespace

// ---- ITavixStreamBuf ----

int32_t ITavixStreamBuf::sputPair(const void* first, int32_t firstCount, const void* second, int32_t secondCount) {
  int32_t taken = 0;
  if (firstCount > 0) {
    taken = sputn(first, firstCount);
    if (taken < firstCount) return taken;
  }
  if (secondCount < 1) return taken;
  const int32_t r = sputn(second, secondCount);
  return r < 0 ? r : taken + r;
}

// ---- Buffer ----

int32_t Buffer::WriteThroughLink(const void* data, int32_t count) {
  if (!m_streamBuf) TavixThrow(Err::NullPointer);
  const int32_t r = m_streamBuf->sputn(data, count);
  if (r == 0) TavixThrow(Err::OutOfBounds);
  return r;
}

// All `count` bytes or the exception: a message that ends inside a value
// is as wrong as one that ends before it.
int32_t Buffer::ReadThroughLink(void* data, int32_t count) {
  if (!m_streamBuf) TavixThrow(Err::NullPointer);
  const int32_t r = m_streamBuf->sgetn(data, count);
  if (r < count) TavixThrow(Err::OutOfBounds);
  return r;
}

int32_t Buffer::Size() { return m_streamBuf ? m_streamBuf->size() : 0; }

void Buffer::Clear() {
  if (m_streamBuf) m_streamBuf->clear();
}

int32_t Buffer::Flush() { return m_streamBuf ? m_streamBuf->flush() : 0; }

// ---- BasicStream: sizes and raw bytes ----

void BasicStream::swap(BasicStream& other) noexcept {
  Buffer::swap(other);
  m_blobScratch.swap(other.m_blobScratch);
  std::swap(m_blobScratchSize, other.m_blobScratchSize);
}

void BasicStream::writeSize(int32_t n) {
  if (n <= 254) {
    const auto b = static_cast<uint8_t>(n);
    WriteToStream(&b, 1);
    return;
  }
  uint8_t bytes[5] = {0xFF};
  std::memcpy(bytes + 1, &n, 4);
  WriteToStream(bytes, 5);
}

void BasicStream::readSize(int32_t& n) {
  uint8_t b = 0;
  if (Moved(ReadFromStream(&b, 1)) == 0) return;
  if (b != 0xFF) {
    n = b;
    return;
  }
  int32_t value = 0;
  ReadFromStream(&value, 4);
  if (value < 0) TavixThrow(Err::IllegalSize);
  n = value;
}

void BasicStream::readCount(int32_t& n) {
  n = 0;
  readSize(n);
}

void BasicStream::writeBlob(const void* data, int32_t count) {
  if (count > 0) WriteToStream(data, count);
}

void BasicStream::readBlob(void* data, int32_t count) {
  if (count > 0) ReadFromStream(data, count);
}

void BasicStream::writeBlob(const SmartPtr<ITavixBlob>& blob) {
  if (!blob) TavixThrow(Err::NullPointer);
  const uint64_t size = blob->Size();
  // A blob that cannot tell its size cannot be sent: writing nothing would
  // leave its place in the message empty and the message short.
  if (size == kBlobFailure) TavixThrow(Err::BlobIoError);
  if (size >= 1) writeBlobContent(*blob, size);
}

// Memory content goes in one transfer; file content in large pieces
// through the blob scratch block, so a file of any size is never held in
// memory whole.
void BasicStream::writeBlobContent(ITavixBlob& blob, uint64_t size) {
  if (blob.Type() == MemBlob && size <= static_cast<uint64_t>(kMaxCount)) {
    WriteToStream(blob.Data(), static_cast<int32_t>(size));
    return;
  }
  const auto scratchSize = static_cast<int32_t>(std::min<uint64_t>(kFileBlobPiece, size));
  uint8_t* scratch = blobScratch(scratchSize);
  uint64_t sent = 0;
  while (sent < size) {
    const auto piece = static_cast<int32_t>(std::min<uint64_t>(scratchSize, size - sent));
    const int32_t got = blob.Read(scratch, piece, sent);
    // A read that yields nothing makes the write an empty transfer.
    sent += static_cast<uint64_t>(Moved(WriteToStream(scratch, std::max(got, 0))));
  }
}

uint8_t* BasicStream::blobScratch(int32_t bytes) {
  if (m_blobScratchSize < bytes) {
    m_blobScratch.reset(new uint8_t[static_cast<size_t>(bytes)]);
    m_blobScratchSize = bytes;
  }
  return m_blobScratch.get();
}

// ---- fixed-size values ----

void BasicStream::write(bool v) {
  const uint8_t b = v ? 1 : 0;
  WriteToStream(&b, 1);
}
void BasicStream::write(unsigned char v) { WriteToStream(&v, 1); }
void BasicStream::write(int16_t v) { WriteToStream(&v, 2); }
void BasicStream::write(int32_t v) { WriteToStream(&v, 4); }
void BasicStream::write(int64_t v) { WriteToStream(&v, 8); }
void BasicStream::write(float v) { WriteToStream(&v, 4); }
void BasicStream::write(double v) { WriteToStream(&v, 8); }

// A byte other than 0 and 1 cannot live in a bool; it reads as true.
void BasicStream::read(bool& v) {
  uint8_t b = v ? 1 : 0;
  ReadFromStream(&b, 1);
  v = b != 0;
}
void BasicStream::read(unsigned char& v) { ReadFromStream(&v, 1); }
void BasicStream::read(int16_t& v) { ReadFromStream(&v, 2); }
void BasicStream::read(int32_t& v) { ReadFromStream(&v, 4); }
void BasicStream::read(int64_t& v) { ReadFromStream(&v, 8); }
void BasicStream::read(float& v) { ReadFromStream(&v, 4); }
void BasicStream::read(double& v) { ReadFromStream(&v, 8); }

// ---- strings ----

void BasicStream::write(const std::string& v) {
  const int32_t n = CountOf(v.size());
  writeSize(n);
  if (n > 0) WriteToStream(v.data(), n);
}

void BasicStream::write(const std::u16string& v) {
  const int32_t bytes = BytesOf(v.size(), 2);
  writeSize(static_cast<int32_t>(v.size()));
  if (bytes > 0) WriteToStream(v.data(), bytes);
}

// Straight into the string, grown piece by piece with the bytes that
// arrive, so that a forged length costs no more than the bytes that come.
template <class Text>
void BasicStream::readText(Text& v) {
  int32_t n = 0;
  readCount(n);
  constexpr int32_t kUnit = sizeof(typename Text::value_type);
  constexpr int32_t kPerPiece = static_cast<int32_t>(kNumberPiece / kUnit);
  v.clear();
  for (int32_t done = 0; done < n;) {
    const int32_t piece = std::min(kPerPiece, n - done);
    v.resize(static_cast<size_t>(done + piece));
    ReadFromStream(v.data() + done, piece * kUnit);
    done += piece;
  }
}

void BasicStream::read(std::string& v) { readText(v); }

void BasicStream::read(std::u16string& v) { readText(v); }

int32_t BasicStream::lengthOf(const std::string& v) {
  const int32_t n = CountOf(v.size());
  return Checked(int64_t{lengthOfSize(n)} + n);
}

int32_t BasicStream::lengthOf(const std::u16string& v) {
  const int32_t bytes = BytesOf(v.size(), 2);
  return Checked(int64_t{lengthOfSize(static_cast<int32_t>(v.size()))} + bytes);
}

// ---- inline blobs ----

void BasicStream::write(const SmartPtr<ITavixBlob>& v) {
  if (!v) {
    writeSize(0);
    return;
  }
  const uint64_t size = v->Size();
  if (size >= kMaxInlineBlob) TavixThrow(Err::IllegalSize);
  writeSize(static_cast<int32_t>(size));
  if (size > 0) writeBlobContent(*v, size);
}

void BasicStream::read(SmartPtr<ITavixBlob>& v) {
  int32_t n = 0;
  readCount(n);
  if (n == 0) {
    v = nullptr;
    return;
  }
  if (v) {
    v->Clear();
  } else {
    v = CreateTavixBlob(static_cast<uint64_t>(n));
  }
  readBlobContent(*v, n);
}

void BasicStream::readBlobContent(ITavixBlob& blob, int32_t n) {
  int32_t done = blob.Type() == MemBlob ? readIntoMemory(blob, n) : 0;
  if (done == n) return;
  const int32_t scratchSize = std::min(kFileBlobPiece, n - done);
  uint8_t* scratch = blobScratch(scratchSize);
  while (done < n) {
    const int32_t got = Moved(ReadFromStream(scratch, std::min(scratchSize, n - done)));
    // Content that cannot be stored is an error, not a shorter blob.
    if (blob.Append(scratch, got) < 0) {
      const uint32_t error = TavixGetLastError();
      TavixThrow(error != 0 ? error : Err::BlobIoError);
    }
    done += got;
  }
}

// Grows in pieces as the bytes arrive, so that a forged size costs no more
// memory than the bytes that really come.
int32_t BasicStream::readIntoMemory(ITavixBlob& blob, int32_t n) {
  int32_t done = 0;
  while (done < n) {
    const auto piece = static_cast<int32_t>(std::min<int64_t>(kNumberPiece, n - done));
    const uint64_t end = static_cast<uint64_t>(done) + static_cast<uint64_t>(piece);
    if (blob.Resize(end) != end) {
      const uint32_t error = TavixGetLastError();
      TavixThrow(error != 0 ? error : Err::BlobIoError);
    }
    // An automatic blob moves to a file as it grows: the rest goes there.
    if (blob.Type() != MemBlob || blob.Data() == nullptr) {
      blob.Resize(static_cast<uint64_t>(done));
      return done;
    }
    try {
      ReadFromStream(static_cast<uint8_t*>(blob.Data()) + done, piece);
    } catch (...) {
      blob.Resize(static_cast<uint64_t>(done));  // only what really came
      throw;
    }
    done += piece;
  }
  return done;
}

int32_t BasicStream::lengthOf(const SmartPtr<ITavixBlob>& v) {
  if (!v) return 1;
  const uint64_t size = v->Size();
  if (size >= kMaxInlineBlob) TavixThrow(Err::IllegalSize);
  const auto n = static_cast<int32_t>(size);
  return Checked(int64_t{lengthOfSize(n)} + n);
}

// ---- sequences ----

template <class T>
void BasicStream::writeNumbers(const std::vector<T>& v) {
  const int32_t bytes = BytesOf(v.size(), sizeof(T));
  writeSize(static_cast<int32_t>(v.size()));
  if (bytes > 0) WriteToStream(v.data(), bytes);
}

template <class T>
void BasicStream::readNumbers(std::vector<T>& v) {
  int32_t n = 0;
  readCount(n);
  const int64_t bytes = int64_t{n} * static_cast<int64_t>(sizeof(T));
  if (bytes <= kNumberPiece) {
    v.resize(static_cast<size_t>(n));
    if (n > 0) ReadFromStream(v.data(), static_cast<int32_t>(bytes));
    return;
  }
  // Grows with the bytes that arrive; a message cut short raises before a
  // forged count can claim its memory.
  constexpr int64_t kPerPiece = kNumberPiece / static_cast<int64_t>(sizeof(T));
  v.clear();
  for (int64_t done = 0; done < n;) {
    const int64_t piece = std::min<int64_t>(kPerPiece, n - done);
    v.resize(static_cast<size_t>(done + piece));
    ReadFromStream(v.data() + done, static_cast<int32_t>(piece * static_cast<int64_t>(sizeof(T))));
    done += piece;
  }
}

template <class T>
void BasicStream::writeEach(const std::vector<T>& v) {
  writeSize(CountOf(v.size()));
  for (const T& element : v) write(element);
}

// Existing elements are overwritten (an existing blob is reused); new ones
// are made as the elements arrive, each of which takes at least one byte.
template <class T>
void BasicStream::readEach(std::vector<T>& v) {
  int32_t count = 0;
  readCount(count);
  const auto n = static_cast<size_t>(count);
  for (size_t i = 0; i < n; ++i) {
    if (i == v.size()) v.emplace_back();
    read(v[i]);
  }
  v.resize(n);
}

void BasicStream::write(const std::vector<bool>& v) {
  writeSize(CountOf(v.size()));
  for (const bool element : v) write(element);
}

void BasicStream::read(std::vector<bool>& v) {
  int32_t n = 0;
  readCount(n);
  v.clear();
  for (int32_t i = 0; i < n; ++i) {
    uint8_t b = 0;
    ReadFromStream(&b, 1);
    v.push_back(b != 0);
  }
}

void BasicStream::write(const std::vector<unsigned char>& v) { writeNumbers(v); }
void BasicStream::write(const std::vector<int16_t>& v) { writeNumbers(v); }
void BasicStream::write(const std::vector<int32_t>& v) { writeNumbers(v); }
void BasicStream::write(const std::vector<int64_t>& v) { writeNumbers(v); }
void BasicStream::write(const std::vector<float>& v) { writeNumbers(v); }
void BasicStream::write(const std::vector<double>& v) { writeNumbers(v); }
void BasicStream::write(const std::vector<std::string>& v) { writeEach(v); }
void BasicStream::write(const std::vector<std::u16string>& v) { writeEach(v); }
void BasicStream::write(const std::vector<SmartPtr<ITavixBlob>>& v) { writeEach(v); }

void BasicStream::read(std::vector<unsigned char>& v) { readNumbers(v); }
void BasicStream::read(std::vector<int16_t>& v) { readNumbers(v); }
void BasicStream::read(std::vector<int32_t>& v) { readNumbers(v); }
void BasicStream::read(std::vector<int64_t>& v) { readNumbers(v); }
void BasicStream::read(std::vector<float>& v) { readNumbers(v); }
void BasicStream::read(std::vector<double>& v) { readNumbers(v); }
void BasicStream::read(std::vector<std::string>& v) { readEach(v); }
void BasicStream::read(std::vector<std::u16string>& v) { readEach(v); }
void BasicStream::read(std::vector<SmartPtr<ITavixBlob>>& v) { readEach(v); }

int32_t BasicStream::lengthOf(const std::vector<bool>& v) { return LengthOfNumbers(v); }
int32_t BasicStream::lengthOf(const std::vector<unsigned char>& v) { return LengthOfNumbers(v); }
int32_t BasicStream::lengthOf(const std::vector<int16_t>& v) { return LengthOfNumbers(v); }
int32_t BasicStream::lengthOf(const std::vector<int32_t>& v) { return LengthOfNumbers(v); }
int32_t BasicStream::lengthOf(const std::vector<int64_t>& v) { return LengthOfNumbers(v); }
int32_t BasicStream::lengthOf(const std::vector<float>& v) { return LengthOfNumbers(v); }
int32_t BasicStream::lengthOf(const std::vector<double>& v) { return LengthOfNumbers(v); }
int32_t BasicStream::lengthOf(const std::vector<std::string>& v) { return LengthOfEach(v); }
int32_t BasicStream::lengthOf(const std::vector<std::u16string>& v) { return LengthOfEach(v); }
int32_t BasicStream::lengthOf(const std::vector<SmartPtr<ITavixBlob>>& v) { return LengthOfEach(v); }

}  // namespace TAVIX
