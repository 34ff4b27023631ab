// The listening side of a stream transport.
#ifndef TAVIX_TRANSPORT_ACCEPTOR_H_
#define TAVIX_TRANSPORT_ACCEPTOR_H_

#include <cstdint>

#include "tavix/core/shared.h"
#include "tavix/transport/passport_type.h"

namespace TAVIX {

class ITransceiver;

class IAcceptor : public virtual Shared {
 public:
  ~IAcceptor() override = default;

  // 0, or -1 with the platform's error as the last error.
  virtual int32_t Open() = 0;
  virtual int32_t Close() = 0;
  // Waits at most `timeoutMs` (0 = no limit) for one client. 0 either way:
  // `holder` then holds the accepted transceiver, or is unchanged when
  // nobody came. A transceiver already in `holder` is closed and reused.
  // -1 when the wait or the accept failed.
  virtual int32_t Accept(SmartPtr<ITransceiver>& holder, uint32_t timeoutMs) = 0;
  virtual PassportType Type() const = 0;
  // Makes an Accept in progress on another thread return at once.
  virtual int32_t Interrupt() = 0;
  // Reserved slots for acceptor-specific controls; both answer their
  // argument unchanged.
  virtual int32_t Extension1(int32_t value) = 0;
  virtual int32_t Extension2(int32_t value) = 0;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_ACCEPTOR_H_
