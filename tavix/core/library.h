// Process-wide start-up and clean-up of the library.
#ifndef TAVIX_CORE_LIBRARY_H_
#define TAVIX_CORE_LIBRARY_H_

namespace TAVIX {

// Run once per process from the load and unload hooks; both succeed on
// this platform, whose sockets need no start-up.
bool TavixInit();
bool TavixUninit();

}  // namespace TAVIX

#endif  // TAVIX_CORE_LIBRARY_H_
