// Planted for the layer check to refuse.
#include "tavix/adapter/object_adapter.h"
