// The parameters and local variables of one frame, with their values, read
// from the frame's debug information (elfutils libdw: scopes, locations
// evaluated against the frame's registers and frame base, types). Every
// value is read through a checked read, so an unreadable address prints
// "(E_ADDR:...)" instead of faulting.
#ifndef TAVIX_DIAG_VARIABLES_H_
#define TAVIX_DIAG_VARIABLES_H_

#include <cstdint>

namespace TAVIX {

class DebugSession;
class ReportFile;
struct StackFrame;

// Limits of the type walk: nesting depth, members of one structure,
// elements of one array, characters of one string.
inline constexpr int32_t kTypeDepthLimit = 8;
inline constexpr int32_t kMemberLimit = 256;
inline constexpr int32_t kElementLimit = 16;
inline constexpr int32_t kStringLimit = 63;

// Writes one entry per parameter and local of the frame's function, each
// followed by CR LF, then CR LF.
void WriteFrameVariables(const DebugSession& session, const StackFrame& frame, ReportFile& out);

}  // namespace TAVIX

#endif  // TAVIX_DIAG_VARIABLES_H_
