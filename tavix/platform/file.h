// A file descriptor owned by one object, with positioned transfers.
#ifndef TAVIX_PLATFORM_FILE_H_
#define TAVIX_PLATFORM_FILE_H_

#include <cstdint>
#include <string>

namespace TAVIX::platform {

class File {
 public:
  enum class Mode {
    kAppendWrite,  // write only, created when absent, mode 0644
    kReadWrite,    // read and write, created when absent, mode 0644
    kCreateNew,    // read and write, a new file only this user reads (0600);
                   // fails with EEXIST when the name is taken
  };

  File() = default;
  ~File() { Close(); }
  File(File&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Every failing call leaves errno in the thread's last error.
  bool Open(const std::string& path, Mode mode);
  bool IsOpen() const noexcept { return m_fd >= 0; }
  void Close() noexcept;

  // Byte counts, or -1 on failure.
  int64_t Size() const;
  int64_t ReadAt(void* data, size_t count, uint64_t offset) const;
  int64_t WriteAt(const void* data, size_t count, uint64_t offset);
  // Writes at the end of the file (the file was opened for appending).
  int64_t Write(const void* data, size_t count);
  bool Truncate(uint64_t length);
  bool SyncData();

  static bool Remove(const std::string& path);
  static bool Exists(const std::string& path);
  // True when the directory exists afterwards.
  static bool MakeDirectory(const std::string& path);
  // True when this process may create files in the directory.
  static bool IsWritableDirectory(const std::string& path);
  // $TMPDIR when set, else /tmp; with a trailing '/'.
  static std::string TemporaryDirectory();

 private:
  int m_fd = -1;
};

}  // namespace TAVIX::platform

#endif  // TAVIX_PLATFORM_FILE_H_
