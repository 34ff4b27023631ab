#include "tavix/marshal/blob.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <stdexcept>

#include "tavix/core/errors.h"
#include "tavix/core/format.h"
#include "tavix/core/text.h"
#include "tavix/platform/last_error.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

// Numbers the temporary files of this process; the process and thread ids
// in the name keep processes and threads apart.
std::atomic<uint32_t> g_temporaryFileCounter{0};
// Room of all temporary files of the process, and its limit.
std::atomic<uint64_t> g_temporaryBytes{0};
std::atomic<uint64_t> g_temporaryLimit{kDefaultTemporaryBlobLimit};

constexpr int32_t kFailed = -2;

std::string PathOf(const std::u16string& name) { return NarrowString(name); }

}  // namespace

TavixBlob::TavixBlob() : m_automatic(true) {}

TavixBlob::TavixBlob(BlobType type) : m_type(type) {}

TavixBlob::TavixBlob(const char16_t* name) : m_deleteOnClose(false), m_type(FileBlob) {
  if (name != nullptr) m_fileName = name;
}

TavixBlob::TavixBlob(const char* name) : m_deleteOnClose(false), m_type(FileBlob) {
  if (name != nullptr) m_fileName = WiddenString(name);
}

TavixBlob::~TavixBlob() {
  // Clean-up is best effort: a destructor has nobody to tell.
  const EnsureLastError keep;
  if (m_type == FileBlob) {
    if (!m_deleteOnClose && m_file.IsOpen()) m_file.Truncate(m_size);
    CloseFileBlob();
    if (m_deleteOnClose && !m_fileName.empty()) platform::File::Remove(PathOf(m_fileName));
  }
  g_temporaryBytes.fetch_sub(m_charged);
}

void SetTemporaryBlobLimit(uint64_t bytes) { g_temporaryLimit.store(bytes); }

uint64_t TemporaryBlobBytes() { return g_temporaryBytes.load(); }

bool TavixBlob::ChargeTemporaryRoom(uint64_t capacity) {
  if (!m_deleteOnClose || capacity <= m_charged) return true;
  const uint64_t more = capacity - m_charged;
  uint64_t held = g_temporaryBytes.load();
  do {
    if (held + more > g_temporaryLimit.load()) {
      TavixSetLastError(Err::PacketTooLarge);
      return false;
    }
  } while (!g_temporaryBytes.compare_exchange_weak(held, held + more));
  m_charged = capacity;
  return true;
}

int32_t TavixBlob::Write(const void* data, int32_t count, uint64_t offset) {
  if (count < 1) return 0;
  if (m_type == FileBlob && !OpenFileBlob()) return kFailed;
  const uint64_t end = offset + static_cast<uint64_t>(count);
  if (end < offset) {
    platform::SetLastError(EINVAL);
    return kFailed;
  }
  if (end > m_capacity && !GrowTo(std::max(2 * m_capacity, end))) return kFailed;
  switch (m_type) {
    case FileBlob:
      return WriteToFile(data, count, offset);
    case MemBlob:
      return WriteToMem(data, count, offset);
  }
  return kFailed;
}

int32_t TavixBlob::Read(void* data, int32_t count, uint64_t offset) {
  if (count < 1) return 0;
  if (m_type == FileBlob && !OpenFileBlob()) return kFailed;
  if (offset >= m_size) return 0;
  const auto n = static_cast<int32_t>(std::min<uint64_t>(static_cast<uint64_t>(count), m_size - offset));
  switch (m_type) {
    case FileBlob:
      return ReadFromFile(data, n, offset);
    case MemBlob:
      return ReadFromMem(data, n, offset);
  }
  return kFailed;
}

int32_t TavixBlob::Append(const void* data, int32_t count) { return Write(data, count, m_size); }

void TavixBlob::Clear() { m_size = 0; }

uint64_t TavixBlob::Resize(uint64_t size) {
  if (m_type == FileBlob && !OpenFileBlob()) return kBlobFailure;
  if (size > m_capacity && !GrowTo(std::max(2 * m_capacity, size))) return kBlobFailure;
  m_size = size;
  return m_size;
}

uint64_t TavixBlob::Size() {
  if (m_type == FileBlob && !OpenFileBlob()) return kBlobFailure;
  return m_size;
}

void* TavixBlob::Data() { return m_memory.get(); }

BlobType TavixBlob::Type() { return m_type; }

// A temporary file is scratch space: only a file that outlives the blob is
// worth forcing to disk.
void TavixBlob::Commit() {
  if (m_type == FileBlob && !m_deleteOnClose && m_file.IsOpen()) m_file.SyncData();
}

bool TavixBlob::GrowTo(uint64_t capacity) {
  if (capacity <= m_capacity) return true;
  if (!m_automatic) {
    if (m_type == FileBlob) return CapacityOfFile(capacity);
    CapacityOfMem(capacity);
    return true;
  }
  if (capacity < kBlobFileThreshold) {
    CapacityOfMem(capacity);
    return true;
  }
  return MoveToFile(capacity);
}

void TavixBlob::CapacityOfMem(uint64_t capacity) {
  if (capacity <= m_capacity) return;
  void* grown = std::realloc(m_memory.get(), capacity);
  if (grown == nullptr) throw std::bad_alloc();
  (void)m_memory.release();  // realloc took ownership of the old block
  m_memory.reset(static_cast<uint8_t*>(grown));
  m_capacity = capacity;
}

bool TavixBlob::CapacityOfFile(uint64_t capacity) {
  if (capacity <= m_capacity) return true;
  if (!ChargeTemporaryRoom(capacity)) return false;
  // The file is extended ahead of the data; a kept file is trimmed back to
  // the content's size when the blob goes.
  if (!m_file.Truncate(capacity)) {
    return false;
  }
  m_capacity = capacity;
  return true;
}

// An automatic blob leaves memory for good: its content so far goes to the
// start of a new temporary file that already has the new room.
bool TavixBlob::MoveToFile(uint64_t capacity) {
  if (!ChargeTemporaryRoom(capacity) || !OpenFileBlob()) return false;
  const bool moved = m_file.Truncate(capacity) &&
                     (m_size == 0 || m_file.WriteAt(m_memory.get(), m_size, 0) ==
                                         static_cast<int64_t>(m_size));
  if (!moved) {
    const uint32_t error = platform::LastError();
    CloseFileBlob();
    if (m_deleteOnClose) {
      platform::File::Remove(PathOf(m_fileName));
      m_fileName.clear();
    }
    platform::SetLastError(error);
    return false;
  }
  m_memory.reset();
  m_capacity = capacity;
  m_type = FileBlob;
  m_automatic = false;
  return true;
}

bool TavixBlob::OpenFileBlob() {
  if (m_file.IsOpen()) return true;
  if (m_fileName.empty()) {
    if (!CreateTemporaryFile()) return false;
  } else if (!m_file.Open(PathOf(m_fileName), platform::File::Mode::kReadWrite)) {
    return false;
  }
  if (m_type == FileBlob) {
    // A length the platform cannot tell is taken as an empty file.
    const int64_t length = m_file.Size();
    m_size = m_capacity = length < 0 ? 0 : static_cast<uint64_t>(length);
  }
  return true;
}

void TavixBlob::CloseFileBlob() { m_file.Close(); }

int32_t TavixBlob::WriteToFile(const void* data, int32_t count, uint64_t offset) {
  if (m_file.WriteAt(data, static_cast<size_t>(count), offset) < 0) {
    CloseFileBlob();
    return kFailed;
  }
  m_size = std::max(m_size, offset + static_cast<uint64_t>(count));
  return count;
}

int32_t TavixBlob::ReadFromFile(void* data, int32_t count, uint64_t offset) {
  const int64_t n = m_file.ReadAt(data, static_cast<size_t>(count), offset);
  if (n < 0) {
    CloseFileBlob();
    return kFailed;
  }
  return static_cast<int32_t>(n);
}

int32_t TavixBlob::WriteToMem(const void* data, int32_t count, uint64_t offset) {
  std::memcpy(m_memory.get() + offset, data, static_cast<size_t>(count));
  m_size = std::max(m_size, offset + static_cast<uint64_t>(count));
  return count;
}

int32_t TavixBlob::ReadFromMem(void* data, int32_t count, uint64_t offset) const {
  std::memcpy(data, m_memory.get() + offset, static_cast<size_t>(count));
  return count;
}

std::string TavixBlob::TemporaryFolder() {
  const std::string library = platform::LibraryPath();
  if (!library.empty()) {
    const std::string folder = library.substr(0, library.rfind('/') + 1) + "TavixBuffer/";
    if (platform::File::MakeDirectory(folder) && platform::File::IsWritableDirectory(folder)) return folder;
  }
  return platform::File::TemporaryDirectory();
}

bool TavixBlob::CreateTemporaryFile() {
  const std::u16string folder = WiddenString(TemporaryFolder());
  const uint32_t pid = platform::ProcessId();
  const uint32_t tid = platform::ThreadId();
  for (;;) {
    const uint32_t k = g_temporaryFileCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    const std::u16string path = folder + FormatString(u"%05d%05d%07d.tmp", pid, tid, k);
    if (m_file.Open(PathOf(path), platform::File::Mode::kCreateNew)) {
      m_fileName = path;
      return true;
    }
    if (platform::LastError() != EEXIST) {
      return false;
    }
  }
}

SmartPtr<ITavixBlob> CreateTavixBlob() { return SmartPtr<ITavixBlob>(new TavixBlob()); }

SmartPtr<ITavixBlob> CreateTavixBlob(uint64_t size) {
  return SmartPtr<ITavixBlob>(new TavixBlob(size < kBlobFileThreshold ? MemBlob : FileBlob));
}

SmartPtr<ITavixBlob> CreateTavixMemBlob() { return SmartPtr<ITavixBlob>(new TavixBlob(MemBlob)); }

SmartPtr<ITavixBlob> CreateTavixFileBlob() { return SmartPtr<ITavixBlob>(new TavixBlob(FileBlob)); }

SmartPtr<ITavixBlob> CreateTavixFileBlob(const char16_t* name) {
  return SmartPtr<ITavixBlob>(new TavixBlob(name));
}

SmartPtr<ITavixBlob> CreateTavixFileBlob(const char* name) {
  return SmartPtr<ITavixBlob>(new TavixBlob(name));
}

}  // namespace TAVIX
