#include "libKestrel/internal/multi/NVidiaCudaGPUQuerierMulti.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>

#include "libKestrel/GPU.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/Location.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/multi/NVidia/cudaRuntime.h"
#include "pci/PciLocation.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;

logging::LogSite site("libKestrel.NVidiaCudaGPUQuerierMulti", "libKestrel/src/multi/NVidiaCudaGPUQuerierMulti.cpp");

// CUDA gives every property as a signed int; a negative one is no value.
std::optional<std::uint32_t> nonNegative(const char* label, int value)
{
    if (value >= 0)
        return static_cast<std::uint32_t>(value);
    log(site, Priority::WARNING, "64 ", "Ignoring a negative ", label, " reported by CUDA: ", value);
    return std::nullopt;
}

} // namespace

tova::String describeCudaError(cuda::cudaError_t code)
{
    return tova::String(cudaGetErrorName(code)) + ": " + cudaGetErrorString(code);
}

std::vector<std::shared_ptr<IGPU>> queryNVidiaGPU(int deviceIndex)
{
    auto trace = site.trace("queryNVidiaGPU", 43);
    cuda::cudaDeviceProp prop{};
    if (const cuda::cudaError_t code = cudaGetDeviceProperties(&prop, deviceIndex)) {
        log(site, Priority::WARNING, "47 ", "Could not obtain the device properties for CUDA device at index '",
            deviceIndex, "': ", cudaErrorText(code));
        return {};
    }

    // The function is always 0: that is where the other NVIDIA sources place the
    // GPU, so the records merge. CUDA gives the domain as an int: its 32 bits are
    // the domain NVML gives unsigned, so a domain past 2^31 meets NVML's too.
    const auto location =
        pciLocationOf(prop.pciBusID, prop.pciDeviceID, 0, static_cast<std::uint32_t>(prop.pciDomainID));
    if (!location) {
        log(site, Priority::WARNING, "58 ", "Device outside the PCI bus, skipped: bus ", prop.pciBusID, ", device ",
            prop.pciDeviceID);
        return {};
    }
    log(site, Priority::TRACE, "57 ", "Found PCI location information: ", *location);

    auto gpu = std::make_shared<GPU>(*location);
    // The name ends at its terminator, and never beyond the buffer.
    const char* const name = prop.name;
    gpu->setName(std::string(name, std::find(name, name + sizeof prop.name, '\0')));
    gpu->setVersionMajor(nonNegative("compute capability major", prop.major));
    gpu->setVersionMinor(nonNegative("compute capability minor", prop.minor));
    gpu->setGraphicsClock(nonNegative("clock rate", prop.clockRate));
    gpu->setMemoryClock(nonNegative("memory clock rate", prop.memoryClockRate));
    gpu->setMemoryWidth(nonNegative("memory bus width", prop.memoryBusWidth));
    return {gpu};
}

std::vector<std::shared_ptr<IGPU>> queryNVidiaGPUsMultiWorker()
{
    auto trace = site.trace("queryNVidiaGPUsMultiWorker", 80);
    std::vector<std::shared_ptr<IGPU>> result;

    int driverVersion = 0;
    if (const cuda::cudaError_t code = cudaDriverGetVersion(&driverVersion)) {
        log(site, Priority::WARNING, "87 ", "Could not retrieve the CUDA driver version: ", cudaErrorText(code));
        return result;
    }
    int runtimeVersion = 0;
    if (const cuda::cudaError_t code = cudaRuntimeGetVersion(&runtimeVersion)) {
        log(site, Priority::WARNING, "94 ", "Could not retrieve the CUDA runtime version: ", cudaErrorText(code));
        return result;
    }
    log(site, Priority::INFO, "98 ", "Retrieved driver version '", driverVersion, "' and runtime version '",
        runtimeVersion, "'");

    int count = 0;
    const cuda::cudaError_t code = cudaGetDeviceCount(&count);
    // Having no device is no failure here: the count CUDA gives back (0) stands.
    if (code != cuda::cudaSuccess && code != cuda::cudaErrorNoDevice) {
        log(site, Priority::WARNING, "107 ", "Failed to get CUDA device count: ", cudaErrorText(code));
        return result;
    }
    log(site, Priority::INFO, "111 ", "Discovered ", count, " CUDA devices");

    for (int index = 0; index < count; ++index) {
        const auto records = queryNVidiaGPU(index);
        result.insert(result.end(), records.begin(), records.end());
    }
    return result;
}

std::vector<std::shared_ptr<IGPU>> queryNVidiaCudaGPUsMulti(std::bitset<4>&)
{
    auto trace = site.trace("queryNVidiaCudaGPUsMulti", 121);
    return queryNVidiaGPUsMultiWorker();
}

} // namespace libKestrel
