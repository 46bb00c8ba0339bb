#pragma once

#include <memory>
#include <vector>

#include "libKestrel/IGPU.h"
#include "libKestrel/vendor/cuda.h"
#include "tova/String.h"

// The CUDA source (queryNVidiaCudaGPUsMulti, Sources.h) and its steps.
namespace libKestrel {

// One record per device the CUDA runtime reports, in device order; empty when
// the driver or runtime version or the device count cannot be read. Holds the
// driver for the whole enumeration and releases it before returning.
std::vector<std::shared_ptr<IGPU>> queryNVidiaGPUsMultiWorker();

// The record of the device at 'deviceIndex', or nothing when its properties
// cannot be read.
std::vector<std::shared_ptr<IGPU>> queryNVidiaGPU(int deviceIndex);

// "<name>: <description>" of a CUDA runtime code, for the log.
tova::String cudaErrorText(cuda::cudaError_t code);

} // namespace libKestrel
