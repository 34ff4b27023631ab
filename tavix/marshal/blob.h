// Byte containers of 64-bit length, held in process memory or in a file.
// Small content stays in memory; an automatic blob moves itself into a
// temporary file once it needs 1 MiB of room, so content of any size can be
// sent and received without being held in memory whole.
#ifndef TAVIX_MARSHAL_BLOB_H_
#define TAVIX_MARSHAL_BLOB_H_

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "tavix/core/shared.h"
#include "tavix/platform/file.h"

namespace TAVIX {

enum BlobType : int32_t {
  FileBlob = 0,  // bytes in a file
  MemBlob = 1,   // bytes in process memory
};

// From this much room on, content goes to a temporary file.
inline constexpr uint64_t kBlobFileThreshold = 0x100000;
// The failure result of the 64-bit operations (-2 as unsigned).
inline constexpr uint64_t kBlobFailure = static_cast<uint64_t>(-2);
// The room all temporary blob files of a process may take together unless
// the application sets another limit.
inline constexpr uint64_t kDefaultTemporaryBlobLimit = uint64_t{4} << 30;

// Sets the process-wide limit on temporary blob room. A blob that would
// pass it fails to grow with Err::PacketTooLarge, so one peer cannot fill
// the disk.
void SetTemporaryBlobLimit(uint64_t bytes);
// The room temporary blob files hold right now.
uint64_t TemporaryBlobBytes();

// Counts are 32-bit, offsets and sizes 64-bit. File failures give -2 and
// leave the platform error as the thread's last error.
class ITavixBlob : public virtual Shared {
 public:
  // Stores count bytes at offset, growing the content; 0 when count < 1.
  virtual int32_t Write(const void* data, int32_t count, uint64_t offset) = 0;
  // Copies up to count bytes from offset; 0 when count < 1 or at the end.
  virtual int32_t Read(void* data, int32_t count, uint64_t offset) = 0;
  virtual int32_t Append(const void* data, int32_t count) = 0;
  // Size 0; the room, memory and file stay.
  virtual void Clear() = 0;
  // The new size, or kBlobFailure. Bytes exposed by growing are not set.
  virtual uint64_t Resize(uint64_t size) = 0;
  // Opens a file blob's file first when needed (kBlobFailure if it cannot).
  virtual uint64_t Size() = 0;
  // The memory block of a memory blob; null for a file blob.
  virtual void* Data() = 0;
  virtual BlobType Type() = 0;
  // Forces a file blob's written data to disk.
  virtual void Commit() = 0;
};

class TavixBlob : public ITavixBlob {
 public:
  // Automatic: starts in memory, moves to a temporary file at 1 MiB.
  TavixBlob();
  // A memory blob, or a file blob over a temporary file deleted with it.
  explicit TavixBlob(BlobType type);
  // A file blob over the named file, which is kept and trimmed to the
  // content's size when the blob goes. A null name means a temporary name
  // for a file that is nevertheless kept.
  explicit TavixBlob(const char16_t* name);
  explicit TavixBlob(const char* name);
  ~TavixBlob() override;
  TavixBlob(const TavixBlob&) = delete;
  TavixBlob& operator=(const TavixBlob&) = delete;

  int32_t Write(const void* data, int32_t count, uint64_t offset) override;
  int32_t Read(void* data, int32_t count, uint64_t offset) override;
  int32_t Append(const void* data, int32_t count) override;
  void Clear() override;
  uint64_t Resize(uint64_t size) override;
  uint64_t Size() override;
  void* Data() override;
  BlobType Type() override;
  void Commit() override;

  // Full path of the file; empty until given or made.
  const std::u16string& FileName() const { return m_fileName; }
  // Room: bytes of the memory block, or the length the file was extended to.
  uint64_t Capacity() const { return m_capacity; }

  // Where temporary blob files go: "TavixBuffer/" beside the library's own
  // file, or the system's temporary directory when that folder cannot be
  // made or written (a read-only installation).
  static std::string TemporaryFolder();

 private:
  struct FreeDeleter {
    void operator()(void* p) const noexcept { std::free(p); }
  };

  bool GrowTo(uint64_t capacity);
  void CapacityOfMem(uint64_t capacity);
  bool CapacityOfFile(uint64_t capacity);
  bool MoveToFile(uint64_t capacity);
  bool OpenFileBlob();
  void CloseFileBlob();
  int32_t WriteToFile(const void* data, int32_t count, uint64_t offset);
  int32_t ReadFromFile(void* data, int32_t count, uint64_t offset);
  int32_t WriteToMem(const void* data, int32_t count, uint64_t offset);
  int32_t ReadFromMem(void* data, int32_t count, uint64_t offset) const;
  // Creates a new file under a fresh temporary name, never an existing one.
  bool CreateTemporaryFile();
  // Takes (or, with a smaller capacity, gives back) temporary room.
  bool ChargeTemporaryRoom(uint64_t capacity);

  platform::File m_file;
  std::u16string m_fileName;
  bool m_deleteOnClose = true;
  std::unique_ptr<uint8_t, FreeDeleter> m_memory;
  uint64_t m_size = 0;
  uint64_t m_capacity = 0;
  BlobType m_type = MemBlob;
  bool m_automatic = false;
  uint64_t m_charged = 0;  // temporary room taken from the process's limit
};

SmartPtr<ITavixBlob> CreateTavixBlob();
// A memory blob below kBlobFileThreshold, else a temporary file blob; the
// size only chooses the kind.
SmartPtr<ITavixBlob> CreateTavixBlob(uint64_t size);
SmartPtr<ITavixBlob> CreateTavixMemBlob();
// A temporary file, deleted with the blob.
SmartPtr<ITavixBlob> CreateTavixFileBlob();
// The named file, kept.
SmartPtr<ITavixBlob> CreateTavixFileBlob(const char16_t* name);
SmartPtr<ITavixBlob> CreateTavixFileBlob(const char* name);

}  // namespace TAVIX

#endif  // TAVIX_MARSHAL_BLOB_H_
