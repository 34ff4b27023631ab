#include "tavix/platform/net.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tavix/platform/last_error.h"

namespace TAVIX::platform {

uint32_t ParseIPv4(const char* text) { return inet_addr(text); }

bool ResolveIPv4(const char* host, std::vector<uint32_t>& addresses) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &list) != 0 || list == nullptr) {
    SetLastError(EINVAL);
    return false;
  }
  addresses.clear();
  for (const addrinfo* a = list; a != nullptr; a = a->ai_next) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(a->ai_addr);
    bool seen = false;
    for (uint32_t known : addresses) seen = seen || known == in->sin_addr.s_addr;
    if (!seen) addresses.push_back(in->sin_addr.s_addr);
  }
  freeaddrinfo(list);
  return !addresses.empty();
}

std::string FormatIPv4(uint32_t address) {
  in_addr in{};
  in.s_addr = address;
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &in, text, sizeof text);
  return text;
}

bool LocalHostName(char* buffer, size_t size) {
  std::memset(buffer, 0, size);
  if (gethostname(buffer, size) != 0) {
    SaveErrno();
    return false;
  }
  // A name that fills the buffer was cut: treat it as too long.
  if (buffer[size - 1] != '\0') {
    std::memset(buffer, 0, size);
    SetLastError(ENAMETOOLONG);
    return false;
  }
  return true;
}

}  // namespace TAVIX::platform
