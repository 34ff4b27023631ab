// A test helper is held to the order as well: it may use any library layer.
#include "tavix/client/typed_call.h"
