// The running process and thread as the operating system sees them.
#ifndef TAVIX_PLATFORM_PROCESS_H_
#define TAVIX_PLATFORM_PROCESS_H_

#include <cstdint>
#include <string>

namespace TAVIX::platform {

uint32_t ProcessId() noexcept;
// The kernel thread id of the calling thread.
uint32_t ThreadId() noexcept;
int32_t NumberOfProcessors() noexcept;

// Full path of the running program, "" when it cannot be read.
std::string ExecutablePath();
// Full path of the shared object that holds this library's code, "" when
// it cannot be found.
std::string LibraryPath();

// Gives the processor to another ready thread; false when none was ready
// (the scheduler does not tell, so this always reports true).
bool YieldProcessor() noexcept;
void SleepMs(uint32_t milliseconds) noexcept;

}  // namespace TAVIX::platform

#endif  // TAVIX_PLATFORM_PROCESS_H_
