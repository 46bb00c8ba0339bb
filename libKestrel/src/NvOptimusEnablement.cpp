#include "libKestrel/Optimus.h"

extern "C" {
LIBKESTREL_API std::uint32_t NvOptimusEnablementCuda = 1;
}
static_assert(sizeof(NvOptimusEnablementCuda) == 4, "the driver reads a 32-bit value");
