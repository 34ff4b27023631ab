// What the machine and the process look like, for the exception report:
// the operating system (uname, /etc/os-release), the processor
// (/proc/cpuinfo) and memory (/proc/meminfo, /proc/self/status and the
// address-space limit). Each read opens and parses a small file; a value
// that cannot be read is left at its "unknown" default.
#ifndef TAVIX_PLATFORM_SYSTEM_INFO_H_
#define TAVIX_PLATFORM_SYSTEM_INFO_H_

#include <cstdint>
#include <string>

namespace TAVIX::platform {

// "Debian GNU/Linux 12 (bookworm) Linux 6.1.0-18-amd64 #1 SMP ... x86_64":
// the distribution's pretty name, when it has one, then uname's system,
// release, version and machine. "" when neither can be read.
std::string OperatingSystemText();

struct ProcessorInfo {
  std::string vendor;        // "" when unknown
  int32_t mhz = -1;          // -1 when unknown
  std::string model;         // "model name"
  std::string architecture;  // uname's machine
  int32_t family = -1, modelNumber = -1, stepping = -1;
  int32_t count = 0;         // processors online
};
ProcessorInfo ReadProcessorInfo();

// Sizes in KiB; a zero total means the source could not be read.
struct MemoryInfo {
  uint64_t physicalTotal = 0, physicalAvailable = 0;
  uint64_t addressSpaceTotal = 0, addressSpaceUsed = 0;  // limit (or the user half) and VmSize
  uint64_t resident = 0, residentPeak = 0;               // VmRSS and VmHWM
};
MemoryInfo ReadMemoryInfo();

}  // namespace TAVIX::platform

#endif  // TAVIX_PLATFORM_SYSTEM_INFO_H_
