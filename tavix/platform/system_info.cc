#include "tavix/platform/system_info.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <charconv>
#include <string_view>

#include "tavix/platform/process.h"

namespace TAVIX::platform {
namespace {

// The first `limit` bytes of a file; "" when it cannot be read. Only the
// beginning of /proc/cpuinfo (the first processor) is ever needed.
std::string ReadHead(const char* path, size_t limit = 16384) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  std::string text(limit, '\0');
  size_t used = 0;
  while (used < limit) {
    const auto n = read(fd, text.data() + used, limit - used);
    if (n <= 0) break;
    used += static_cast<size_t>(n);
  }
  close(fd);
  text.resize(used);
  return text;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '"')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '"' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

// The value of the first line "key<sep>value" (key compared after
// trimming), "" when there is none.
std::string_view Field(std::string_view text, std::string_view key, char separator) {
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    const size_t at = line.find(separator);
    if (at != std::string_view::npos && Trim(line.substr(0, at)) == key) return Trim(line.substr(at + 1));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return {};
}

// The leading whole number of a field ("2096.008" gives 2096, "16 kB"
// gives 16); `fallback` when there is none.
template <class Int>
Int Number(std::string_view text, Int fallback) {
  Int value = fallback;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() ? value : fallback;
}

}  // namespace

std::string OperatingSystemText() {
  std::string text(Field(ReadHead("/etc/os-release"), "PRETTY_NAME", '='));
  utsname name{};
  if (uname(&name) == 0) {
    if (!text.empty()) text += ' ';
    text = text + name.sysname + ' ' + name.release + ' ' + name.version + ' ' + name.machine;
  }
  return text;
}

ProcessorInfo ReadProcessorInfo() {
  const std::string cpuinfo = ReadHead("/proc/cpuinfo");
  ProcessorInfo info;
  info.vendor = Field(cpuinfo, "vendor_id", ':');
  info.mhz = Number<int32_t>(Field(cpuinfo, "cpu MHz", ':'), -1);
  info.model = Field(cpuinfo, "model name", ':');
  info.family = Number<int32_t>(Field(cpuinfo, "cpu family", ':'), -1);
  info.modelNumber = Number<int32_t>(Field(cpuinfo, "model", ':'), -1);
  info.stepping = Number<int32_t>(Field(cpuinfo, "stepping", ':'), -1);
  info.count = NumberOfProcessors();
  utsname name{};
  if (uname(&name) == 0) info.architecture = name.machine;
  return info;
}

MemoryInfo ReadMemoryInfo() {
  const std::string meminfo = ReadHead("/proc/meminfo");
  const std::string status = ReadHead("/proc/self/status");
  MemoryInfo info;
  info.physicalTotal = Number<uint64_t>(Field(meminfo, "MemTotal", ':'), 0);
  info.physicalAvailable = Number<uint64_t>(Field(meminfo, "MemAvailable", ':'), 0);
  info.addressSpaceUsed = Number<uint64_t>(Field(status, "VmSize", ':'), 0);
  info.resident = Number<uint64_t>(Field(status, "VmRSS", ':'), 0);
  info.residentPeak = Number<uint64_t>(Field(status, "VmHWM", ':'), 0);
  // Without a limit the process may use the user half of the 48-bit space.
  constexpr uint64_t kUserSpaceKb = (uint64_t{1} << 47) / 1024;
  rlimit limit{};
  info.addressSpaceTotal =
      getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY ? limit.rlim_cur / 1024 : kUserSpaceKb;
  return info;
}

}  // namespace TAVIX::platform
