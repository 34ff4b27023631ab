#include "tavix/platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "tavix/platform/last_error.h"

namespace TAVIX::platform {
namespace {

template <class Result>
Result Checked(Result result) {
  if (result < 0) SaveErrno();
  return result;
}

}  // namespace

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    Close();
    m_fd = other.m_fd;
    other.m_fd = -1;
  }
  return *this;
}

bool File::Open(const std::string& path, Mode mode) {
  Close();
  int flags = O_RDWR | O_CREAT;
  mode_t permissions = 0644;
  if (mode == Mode::kAppendWrite) flags = O_WRONLY | O_CREAT | O_APPEND;
  if (mode == Mode::kCreateNew) {
    flags = O_RDWR | O_CREAT | O_EXCL;
    permissions = 0600;
  }
  m_fd = Checked(::open(path.c_str(), flags | O_CLOEXEC, permissions));
  return m_fd >= 0;
}

void File::Close() noexcept {
  if (m_fd >= 0) {
    ::close(m_fd);
    m_fd = -1;
  }
}

int64_t File::Size() const {
  struct stat info {};
  if (Checked(::fstat(m_fd, &info)) < 0) return -1;
  return info.st_size;
}

int64_t File::ReadAt(void* data, size_t count, uint64_t offset) const {
  size_t done = 0;
  while (done < count) {
    const ssize_t n = ::pread(m_fd, static_cast<char*>(data) + done, count - done,
                              static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Checked<int64_t>(-1);
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<int64_t>(done);
}

int64_t File::WriteAt(const void* data, size_t count, uint64_t offset) {
  size_t done = 0;
  while (done < count) {
    const ssize_t n = ::pwrite(m_fd, static_cast<const char*>(data) + done, count - done,
                               static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return Checked<int64_t>(-1);
    done += static_cast<size_t>(n);
  }
  return static_cast<int64_t>(done);
}

int64_t File::Write(const void* data, size_t count) {
  size_t done = 0;
  while (done < count) {
    const ssize_t n = ::write(m_fd, static_cast<const char*>(data) + done, count - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return Checked<int64_t>(-1);
    done += static_cast<size_t>(n);
  }
  return static_cast<int64_t>(done);
}

bool File::Truncate(uint64_t length) {
  return Checked(::ftruncate(m_fd, static_cast<off_t>(length))) == 0;
}

bool File::SyncData() { return Checked(::fdatasync(m_fd)) == 0; }

bool File::Remove(const std::string& path) { return Checked(::unlink(path.c_str())) == 0; }

bool File::Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

bool File::MakeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return true;
  SaveErrno();
  return false;
}

bool File::IsWritableDirectory(const std::string& path) { return Checked(::access(path.c_str(), W_OK | X_OK)) == 0; }

std::string File::TemporaryDirectory() {
  const char* configured = std::getenv("TMPDIR");
  std::string folder = configured != nullptr && configured[0] != '\0' ? configured : "/tmp";
  if (folder.back() != '/') folder += '/';
  return folder;
}

}  // namespace TAVIX::platform
