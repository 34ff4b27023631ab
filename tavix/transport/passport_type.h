// The kinds of transport. Passports, transceivers and acceptors report
// their kind with the same numbers.
#ifndef TAVIX_TRANSPORT_PASSPORT_TYPE_H_
#define TAVIX_TRANSPORT_PASSPORT_TYPE_H_

#include <cstdint>

namespace TAVIX {

enum PassportType : int32_t {
  PASSPORT_NONE = 0,
  PASSPORT_TCP = 1,
  PASSPORT_UDP = 2,
  PASSPORT_SSL = 3,  // TCP carrying TLS records
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_PASSPORT_TYPE_H_
