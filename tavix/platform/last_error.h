// The thread's last-error slot. Platform calls that fail copy errno here at
// the point of failure; library codes are stored here by the failing
// operation. One slot serves sockets and everything else alike.
#ifndef TAVIX_PLATFORM_LAST_ERROR_H_
#define TAVIX_PLATFORM_LAST_ERROR_H_

#include <cstdint>
#include <string>

namespace TAVIX::platform {

uint32_t LastError() noexcept;
void SetLastError(uint32_t code) noexcept;

// Copies errno into the slot; returns the copied value.
uint32_t SaveErrno() noexcept;

// The C library's text for an errno value, "" when it knows none.
std::string ErrnoText(uint32_t code);

}  // namespace TAVIX::platform

#endif  // TAVIX_PLATFORM_LAST_ERROR_H_
