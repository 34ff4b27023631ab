// Planted for the layer check to refuse: library code using a test helper.
#include "tavix/testing/wire.h"
