#include "tavix/marshal/blob_bytes.h"

#include <algorithm>
#include <new>

#include "tavix/core/errors.h"

namespace TAVIX {
namespace {

// The blob interface counts in 32 bits: larger content moves in pieces.
constexpr uint64_t kPiece = uint64_t{1} << 30;

// Copies the content into `data` (already `size` bytes); false on a short
// or failed read.
bool ReadInto(ITavixBlob& blob, void* data, uint64_t size) {
  auto* at = static_cast<std::byte*>(data);
  for (uint64_t offset = 0; offset < size;) {
    const auto count = static_cast<int32_t>(std::min(kPiece, size - offset));
    const int32_t got = blob.Read(at + offset, count, offset);
    if (got <= 0) return false;
    offset += static_cast<uint64_t>(got);
  }
  return true;
}

template <class Container>
uint32_t ReadWhole(const SmartPtr<ITavixBlob>& blob, Container& out) {
  out.clear();
  if (!blob) return 0;
  const uint64_t size = blob->Size();
  if (size == kBlobFailure) return Err::BlobIoError;
  if (size > out.max_size()) return Err::PacketTooLarge;
  try {
    out.resize(static_cast<size_t>(size));
  } catch (const std::bad_alloc&) {
    return Err::PacketTooLarge;
  }
  if (ReadInto(*blob, out.data(), size)) return 0;
  out.clear();
  return Err::BlobIoError;
}

}  // namespace

SmartPtr<ITavixBlob> MakeBlob(std::span<const std::byte> bytes) {
  SmartPtr<ITavixBlob> blob = CreateTavixBlob(bytes.size());
  for (uint64_t offset = 0; offset < bytes.size();) {
    const auto count = static_cast<int32_t>(std::min<uint64_t>(kPiece, bytes.size() - offset));
    const int32_t wrote = blob->Write(bytes.data() + offset, count, offset);
    if (wrote != count) {
      if (wrote >= 0) TavixSetLastError(Err::BlobIoError);  // a failed write left its own code
      return nullptr;
    }
    offset += static_cast<uint64_t>(count);
  }
  return blob;
}

SmartPtr<ITavixBlob> MakeBlob(std::string_view bytes) { return MakeBlob(std::as_bytes(std::span(bytes))); }

uint64_t BlobSize(const SmartPtr<ITavixBlob>& blob) { return blob ? blob->Size() : 0; }

bool IsEmpty(const SmartPtr<ITavixBlob>& blob) { return BlobSize(blob) == 0; }

uint32_t ReadBlob(const SmartPtr<ITavixBlob>& blob, std::vector<std::byte>& out) { return ReadWhole(blob, out); }

uint32_t ReadBlob(const SmartPtr<ITavixBlob>& blob, std::string& out) { return ReadWhole(blob, out); }

}  // namespace TAVIX
