// Blobs to and from plain bytes, with 64-bit sizes. An empty value and a
// null blob are the same thing here: both travel as a count of 0, both
// arrive as a null blob, and both read back as no bytes.
//
//   SmartPtr<ITavixBlob> blob = TAVIX::MakeBlob(std::string_view(value));
//   std::string back;
//   uint32_t status = TAVIX::ReadBlob(received, back);
#ifndef TAVIX_MARSHAL_BLOB_BYTES_H_
#define TAVIX_MARSHAL_BLOB_BYTES_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/shared.h"
#include "tavix/marshal/blob.h"

namespace TAVIX {

// A blob holding a copy of `bytes`: in memory, or in a temporary file from
// 1 MiB on. Null when the bytes cannot be stored, with the code as the
// thread's last error. Empty bytes give an empty blob.
SmartPtr<ITavixBlob> MakeBlob(std::span<const std::byte> bytes);
SmartPtr<ITavixBlob> MakeBlob(std::string_view bytes);

// The content's size; 0 for a null blob, kBlobFailure when a file blob's
// file cannot be opened.
uint64_t BlobSize(const SmartPtr<ITavixBlob>& blob);
// True for a null blob and for an empty one.
bool IsEmpty(const SmartPtr<ITavixBlob>& blob);

// Replaces `out` with the whole content (nothing for a null blob). 0, or
// the code of the failure: Err::BlobIoError when the content cannot be
// read, Err::PacketTooLarge when it cannot be held in memory.
uint32_t ReadBlob(const SmartPtr<ITavixBlob>& blob, std::vector<std::byte>& out);
uint32_t ReadBlob(const SmartPtr<ITavixBlob>& blob, std::string& out);

}  // namespace TAVIX

#endif  // TAVIX_MARSHAL_BLOB_BYTES_H_
