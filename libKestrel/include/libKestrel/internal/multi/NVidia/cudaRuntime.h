#pragma once

#include <memory>

#include "libKestrel/vendor/cuda.h"

// The six CUDA runtime calls the library makes, answered from the driver API of
// the driver's own CUDA library ("nvcuda.dll", "libcuda.so.1"), which is loaded
// at run time as the runtime itself finds it: no CUDA toolkit is needed to build,
// and a machine without the driver behaves as one without CUDA. The calls log
// nothing; they report through their codes, in the runtime's numbering up to
// CUDA 10.0 (cuda.h). They may be called from any thread.
namespace libKestrel {

// The runtime version these calls present: CUDA 5.0, the oldest CUDA whose
// driver has every call and device attribute they use (the compute capability
// attributes arrived with 5.0; the other calls and attributes are older). The
// device calls refuse an older driver with cudaErrorInsufficientDriver.
constexpr int cudaBindingRuntimeVersion = 5000;

// The driver is loaded on the first call that needs it and kept for the life of
// the process, initialised by cuInit until that succeeds once, as NVIDIA's runtime
// does: a driver that has started its threads cannot be unloaded safely, nor
// initialised again after a reload. A
// driver that is missing or lacks an entry point is let go (nothing of it has
// run) and looked for again by the next call. Every call is thread-safe.

// The driver's CUDA version (1000 x major + 10 x minor). Without a usable driver:
// cudaErrorInsufficientDriver and 0, which is what the runtime answers elsewhere
// when the driver is missing.
cuda::cudaError_t cudaDriverGetVersion(int* driverVersion);

// cudaBindingRuntimeVersion; needs no driver.
cuda::cudaError_t cudaRuntimeGetVersion(int* runtimeVersion);

// The number of devices; 0 with cudaErrorNoDevice when the driver sees none.
cuda::cudaError_t cudaGetDeviceCount(int* count);

// The properties of the device at 'device'. All fields are zero unless it succeeds.
cuda::cudaError_t cudaGetDeviceProperties(cuda::cudaDeviceProp* prop, int device);

// The runtime's name ("cudaErrorNoDevice") and description of a code; never null,
// valid for the life of the process. Unknown codes give "unrecognized error code".
const char* cudaGetErrorName(cuda::cudaError_t error);
const char* cudaGetErrorString(cuda::cudaError_t error);

} // namespace libKestrel
