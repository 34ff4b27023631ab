// `tavix serve`: serves the Echo servant on the given endpoints until the
// process is asked to terminate.
#ifndef TAVIX_TOOLS_SERVE_H_
#define TAVIX_TOOLS_SERVE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tavix/invoke/object_host.h"
#include "tavix/runtime/communicator.h"
#include "tavix/transport/tls_settings.h"

namespace TAVIX::tools {

struct ServeOptions {
  std::vector<std::string> endpoints;  // default: one on every interface, port 5678
  std::string name = "Echo";
  bool allowFaults = false;  // the Echo object also answers "Fault"
  ConnectionLimits limits;
  uint32_t graceMs = Communicator::kDefaultGracePeriodMs;
  // For ssl endpoints; SIGHUP reads the files again.
  TlsSettings tls;
  bool useTls = false;
};

// Exit status: 0 after an orderly shutdown, 1 when an endpoint could not be
// served.
int Serve(const ServeOptions& options);

}  // namespace TAVIX::tools

#endif  // TAVIX_TOOLS_SERVE_H_
