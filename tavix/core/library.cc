// Process-wide start-up and clean-up, run by the shared library's load and
// unload hooks: the log writer first, then the rest; the reverse at unload.
// Linux needs no sockets start-up. The hooks carry priority 200: the
// exception report's hooks (diag/, priority 201) run after this load hook
// and before this unload hook, so that the log writer is there throughout.
#include "tavix/core/library.h"

#include "tavix/core/trace_log.h"

namespace TAVIX {
namespace {

[[gnu::constructor(200)]] void OnLibraryLoad() {
  TraceLog::CreateGlobal();
  TavixInit();
}

[[gnu::destructor(200)]] void OnLibraryUnload() {
  TavixUninit();
  TraceLog::DestroyGlobal();
}

}  // namespace

bool TavixInit() {
  return true;
}

bool TavixUninit() {
  return true;
}

}  // namespace TAVIX
