#include "tavix/core/shared.h"

namespace TAVIX {

void ThrowNullPointer() { throw std::runtime_error("Null pointer referenced"); }

}  // namespace TAVIX
