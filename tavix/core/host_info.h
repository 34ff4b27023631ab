// The local host's name and IPv4 addresses, read once per process.
#ifndef TAVIX_CORE_HOST_INFO_H_
#define TAVIX_CORE_HOST_INFO_H_

#include <string>
#include <vector>

namespace TAVIX {

const std::u16string& GetLocalHostName();
// Dotted-quad texts in the resolver's order.
const std::vector<std::u16string>& GetLocalHostIP();

class HostInfo {
 public:
  static const HostInfo& Instance();

  const std::u16string& Name() const { return m_name; }
  const std::vector<std::u16string>& Addresses() const { return m_addresses; }

 private:
  HostInfo();

  std::u16string m_name;
  std::vector<std::u16string> m_addresses;
};

}  // namespace TAVIX

#endif  // TAVIX_CORE_HOST_INFO_H_
