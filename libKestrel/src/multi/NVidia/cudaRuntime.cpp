#include "libKestrel/internal/multi/NVidia/cudaRuntime.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include "libKestrel/internal/Lookup.h"
#include "tova/DynamicLibrary.h"

namespace libKestrel {

using namespace cuda;

// The driver entry points the runtime calls, null until resolved.
struct CudaDriverFunctions {
    PFN_cuInit cuInit = nullptr;
    PFN_cuDriverGetVersion cuDriverGetVersion = nullptr;
    PFN_cuDeviceGetCount cuDeviceGetCount = nullptr;
    PFN_cuDeviceGet cuDeviceGet = nullptr;
    PFN_cuDeviceGetName cuDeviceGetName = nullptr;
    PFN_cuDeviceGetAttribute cuDeviceGetAttribute = nullptr;
};

namespace {

#if defined(_WIN32)
const char* const cudaDriverModuleName = "nvcuda.dll";
#else
const char* const cudaDriverModuleName = "libcuda.so.1";
#endif

// NVIDIA's kernel driver manages at most 32 GPUs (NV_MAX_DEVICES). A larger count
// is the driver's error: ordinals past it are never asked about, so an absurd
// count cannot keep a caller looping.
constexpr int maxCudaDevices = 32;

template <class Visit>
void listEntries(CudaDriverFunctions& f, Visit visit)
{
    visit("cuInit", &f.cuInit);
    visit("cuDriverGetVersion", &f.cuDriverGetVersion);
    visit("cuDeviceGetCount", &f.cuDeviceGetCount);
    visit("cuDeviceGet", &f.cuDeviceGet);
    visit("cuDeviceGetName", &f.cuDeviceGetName);
    visit("cuDeviceGetAttribute", &f.cuDeviceGetAttribute);
}

} // namespace

// The process's driver.
struct CudaDriver {
    tova::DynamicLibrary library{tova::String(cudaDriverModuleName)};
    CudaDriverFunctions functions;
    bool initialised = false; // cuInit succeeded and the version test passed
};

namespace {

std::mutex driverMutex;
// Never deleted: the driver stays mapped until the process ends.
CudaDriver* processDriver = nullptr;

// The process's driver, loaded now if this is the first call to find it; null
// while no usable driver is installed. Called with driverMutex held.
CudaDriver* loadedDriver()
{
    if (processDriver)
        return processDriver;
    auto driver = std::make_unique<CudaDriver>();
    if (!driver->library.load())
        return nullptr;
    resolveEntries(driver->library, [&driver](auto visit) { listEntries(driver->functions, visit); });
    if (firstMissingEntry([&driver](auto visit) { listEntries(driver->functions, visit); }))
        return nullptr; // released here, before anything of it ran
    processDriver = driver.release();
    return processDriver;
}

// Runs 'call' on the process's driver, or answers cudaErrorInsufficientDriver.
template <class Call>
cudaError_t withDriver(Call call)
{
    CudaDriver* driver = nullptr;
    {
        const std::lock_guard<std::mutex> lock(driverMutex);
        driver = loadedDriver();
    }
    return driver ? call(*driver) : cudaErrorInsufficientDriver;
}

// The runtime's code for a driver result. The runtime of this numbering knows no
// stub library and no driver mismatch: to it, both are a driver it cannot use.
cudaError_t translate(CUresult result)
{
    switch (result) {
    case CUDA_SUCCESS:
        return cudaSuccess;
    case CUDA_ERROR_INVALID_VALUE:
        return cudaErrorInvalidValue;
    case CUDA_ERROR_NOT_INITIALIZED:
    case CUDA_ERROR_DEINITIALIZED:
        return cudaErrorInitializationError;
    case CUDA_ERROR_STUB_LIBRARY:
    case CUDA_ERROR_SYSTEM_DRIVER_MISMATCH:
        return cudaErrorInsufficientDriver;
    case CUDA_ERROR_DEVICE_UNAVAILABLE:
        return cudaErrorDevicesUnavailable;
    case CUDA_ERROR_NO_DEVICE:
        return cudaErrorNoDevice;
    case CUDA_ERROR_INVALID_DEVICE:
        return cudaErrorInvalidDevice;
    default:
        return cudaErrorUnknown;
    }
}

// The device calls need an initialised driver no older than our runtime version.
// Once that holds it holds for the process, and cuInit is not called again; a
// failure is tried again by the next call (a driver answers a repeated cuInit
// with the outcome of its first).
cudaError_t initialise(CudaDriver& driver)
{
    const std::lock_guard<std::mutex> lock(driverMutex);
    if (driver.initialised)
        return cudaSuccess;
    cudaError_t outcome = translate(driver.functions.cuInit(0));
    int version = 0;
    if (outcome == cudaSuccess)
        outcome = translate(driver.functions.cuDriverGetVersion(&version));
    if (outcome == cudaSuccess && version < cudaBindingRuntimeVersion)
        outcome = cudaErrorInsufficientDriver;
    driver.initialised = outcome == cudaSuccess;
    return outcome;
}

// Where each property the library reads comes from.
struct AttributeField {
    CUdevice_attribute attribute;
    int cudaDeviceProp::*field;
};

constexpr AttributeField attributeFields[] = {
    {CU_DEVICE_ATTRIBUTE_CLOCK_RATE, &cudaDeviceProp::clockRate},
    {CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MAJOR, &cudaDeviceProp::major},
    {CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MINOR, &cudaDeviceProp::minor},
    {CU_DEVICE_ATTRIBUTE_PCI_BUS_ID, &cudaDeviceProp::pciBusID},
    {CU_DEVICE_ATTRIBUTE_PCI_DEVICE_ID, &cudaDeviceProp::pciDeviceID},
    {CU_DEVICE_ATTRIBUTE_PCI_DOMAIN_ID, &cudaDeviceProp::pciDomainID},
    {CU_DEVICE_ATTRIBUTE_MEMORY_CLOCK_RATE, &cudaDeviceProp::memoryClockRate},
    {CU_DEVICE_ATTRIBUTE_GLOBAL_MEMORY_BUS_WIDTH, &cudaDeviceProp::memoryBusWidth},
};

cudaError_t readProperties(const CudaDriverFunctions& f, int ordinal, cudaDeviceProp& prop)
{
    CUdevice device = 0;
    if (const CUresult result = f.cuDeviceGet(&device, ordinal))
        return translate(result);
    if (const CUresult result = f.cuDeviceGetName(prop.name, static_cast<int>(sizeof prop.name), device))
        return translate(result);
    // A driver that fills the whole buffer leaves no terminator; the name ends
    // within it whatever the driver wrote.
    prop.name[sizeof prop.name - 1] = '\0';
    for (const AttributeField& entry : attributeFields)
        if (const CUresult result = f.cuDeviceGetAttribute(&(prop.*entry.field), entry.attribute, device))
            return translate(result);
    return cudaSuccess;
}

struct ErrorText {
    cudaError_t code;
    const char* name;
    const char* description;
};

// The runtime's own names and texts for the codes these calls return. They are
// ours, not the driver's: the driver names its own codes, and its texts would
// not outlive its release.
constexpr ErrorText errorTexts[] = {
    {cudaSuccess, "cudaSuccess", "no error"},
    {cudaErrorInitializationError, "cudaErrorInitializationError", "initialization error"},
    {cudaErrorInvalidDevice, "cudaErrorInvalidDevice", "invalid device ordinal"},
    {cudaErrorInvalidValue, "cudaErrorInvalidValue", "invalid argument"},
    {cudaErrorUnknown, "cudaErrorUnknown", "unknown error"},
    {cudaErrorInsufficientDriver, "cudaErrorInsufficientDriver",
     "CUDA driver version is insufficient for CUDA runtime version"},
    {cudaErrorNoDevice, "cudaErrorNoDevice", "no CUDA-capable device is detected"},
    {cudaErrorDevicesUnavailable, "cudaErrorDevicesUnavailable", "CUDA-capable device(s) is/are busy or unavailable"},
};

constexpr ErrorText unrecognised = {cudaErrorUnknown, "unrecognized error code", "unrecognized error code"};

const ErrorText& errorText(cudaError_t error)
{
    const auto found = std::find_if(std::begin(errorTexts), std::end(errorTexts),
                                    [error](const ErrorText& entry) { return entry.code == error; });
    return found != std::end(errorTexts) ? *found : unrecognised;
}

} // namespace

cudaError_t cudaDriverGetVersion(int* driverVersion)
{
    if (!driverVersion)
        return cudaErrorInvalidValue;
    *driverVersion = 0;
    return withDriver([driverVersion](CudaDriver& driver) {
        int version = 0;
        const cudaError_t result = translate(driver.functions.cuDriverGetVersion(&version));
        if (result == cudaSuccess)
            *driverVersion = version;
        return result;
    });
}

cudaError_t cudaRuntimeGetVersion(int* runtimeVersion)
{
    if (!runtimeVersion)
        return cudaErrorInvalidValue;
    *runtimeVersion = cudaBindingRuntimeVersion;
    return cudaSuccess;
}

cudaError_t cudaGetDeviceCount(int* count)
{
    if (!count)
        return cudaErrorInvalidValue;
    *count = 0;
    return withDriver([count](CudaDriver& driver) {
        if (const cudaError_t result = initialise(driver))
            return result;
        int reported = 0;
        if (const CUresult result = driver.functions.cuDeviceGetCount(&reported))
            return translate(result);
        if (reported <= 0)
            return cudaErrorNoDevice;
        *count = std::min(reported, maxCudaDevices);
        return cudaSuccess;
    });
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* prop, int device)
{
    if (!prop)
        return cudaErrorInvalidValue;
    *prop = cudaDeviceProp{};
    return withDriver([prop, device](CudaDriver& driver) {
        if (const cudaError_t result = initialise(driver))
            return result;
        if (device < 0 || device >= maxCudaDevices)
            return cudaErrorInvalidDevice;
        cudaDeviceProp read{};
        const cudaError_t result = readProperties(driver.functions, device, read);
        if (result == cudaSuccess)
            *prop = read;
        return result;
    });
}

const char* cudaGetErrorName(cudaError_t error) { return errorText(error).name; }

const char* cudaGetErrorString(cudaError_t error) { return errorText(error).description; }

} // namespace libKestrel
