#pragma once

#include <memory>
#include <vector>

#include "libKestrel/IGPU.h"
#include "libKestrel/internal/Logging.h"
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

// "<name>: <description>" of a CUDA runtime code.
tova::String describeCudaError(cuda::cudaError_t code);

// That text as a log value, asked of the runtime only when the message is written.
inline auto cudaErrorText(cuda::cudaError_t code)
{
    return logging::deferred([code] { return describeCudaError(code); });
}

} // namespace libKestrel
