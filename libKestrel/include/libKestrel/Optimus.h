#pragma once

#include <cstdint>

#include "libKestrel/Export.h"

// Exported with the value 1, it asks NVIDIA's Optimus driver to run the host
// process's CUDA work on the discrete NVIDIA GPU rather than the integrated one.
// The driver finds it by this exact, undecorated name.
extern "C" LIBKESTREL_API std::uint32_t NvOptimusEnablementCuda;
