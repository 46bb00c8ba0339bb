#include "libKestrel/internal/windows/NVidiaGPUQuerier.h"

#include <algorithm>
#include <functional>

#include "libKestrel/GPU.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/Location.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/windows/NVidia/nv_api.h"
#include "libKestrel/internal/windows/NVidia/nvapiwrapper.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;
using logging::shown;

logging::LogSite site("libKestrel.NVidiaGPUQuerier", "libKestrel/src/windows/NVidiaGPUQuerier.cpp");

// One field of a query's result, empty when the query failed.
template <class Result, class Field>
std::optional<Field> fieldOf(const std::optional<Result>& result, Field Result::*field)
{
    return result ? std::optional<Field>((*result).*field) : std::nullopt;
}

using Records = std::vector<std::shared_ptr<IGPU>>;

void readClocks(nvapi::NvPhysicalGpuHandle handle, GPU& gpu)
{
    const NvClockFrequencies clocks = query_ClockFrequencies(handle);
    gpu.setGraphicsClock(clocks.graphics);
    gpu.setMemoryClock(clocks.memory);
    gpu.setShaderClock(clocks.shader);
}

// The readings that change while the GPU runs, in the order a record reads them.
void readReadings(nvapi::NvPhysicalGpuHandle handle, GPU& gpu)
{
    gpu.setAvailableDedicatedMemory(fieldOf(query_DedicatedMemory(handle), &NvDedicatedMemory::available));
    readClocks(handle, gpu);
}

// Initialises NVAPI, hands every physical GPU to 'take' with its records, in
// NVAPI's order, and releases NVAPI again.
void enumeratePhysicalGpus(const std::function<void(nvapi::NvPhysicalGpuHandle, const Records&)>& take);

} // namespace

std::vector<std::shared_ptr<IGPU>> queryNVidiaGPU(nvapi::NvPhysicalGpuHandle const& handle)
{
    auto trace = site.trace("queryNVidiaGPU", 45);
    std::vector<std::shared_ptr<IGPU>> result;
    const auto bus = query_PciLocation(handle);
    if (!bus) {
        log(site, Priority::WARNING, "52 ", "Could not obtain PCI Location information for nvidia device");
        return result;
    }
    const auto location = pciLocationOf(bus->bus, bus->slot, 0);
    if (!location) {
        log(site, Priority::WARNING, "53 ", "Device outside the PCI bus, skipped: bus ", bus->bus, ", device ",
            bus->slot);
        return result;
    }
    log(site, Priority::TRACE, "61 ", "Found PCI location information: ", *location);

    // Every query runs whatever the earlier ones gave.
    auto gpu = std::make_shared<GPU>(*location);
    gpu->setName(query_ProductName(handle));
    gpu->setHardwareAcceleration(true);
    gpu->setDriverVersion(query_DriverVersion());
    gpu->setVBIOSVersion(query_VBIOSVersionString(handle));
    gpu->setCoreCount(query_CoreCount(handle));
    const auto memory = query_DedicatedMemory(handle);
    gpu->setDedicatedMemory(fieldOf(memory, &NvDedicatedMemory::dedicated));
    gpu->setAvailableDedicatedMemory(fieldOf(memory, &NvDedicatedMemory::available));
    readClocks(handle, *gpu);
    gpu->setBusType(query_BusType(handle));
    const auto ecc = query_ECCMemory(handle);
    gpu->setECCSupported(fieldOf(ecc, &NvECCMemory::supported));
    gpu->setECCEnabled(fieldOf(ecc, &NvECCMemory::enabled));
    gpu->setSLI(query_ScalableLinkInterface(handle));
    result.push_back(gpu);
    return result;
}

std::vector<std::shared_ptr<IGPU>> queryNVidiaGPUs(std::bitset<4>&)
{
    auto trace = site.trace("queryNVidiaGPUs", 98);
    Records result;
    enumeratePhysicalGpus([&result](nvapi::NvPhysicalGpuHandle, const Records& records) {
        result.insert(result.end(), records.begin(), records.end());
    });
    return result;
}

namespace {

void enumeratePhysicalGpus(const std::function<void(nvapi::NvPhysicalGpuHandle, const Records&)>& take)
{
    if (nvapi::NvAPI_Initialize() != nvapi::NVAPI_OK) {
        log(site, Priority::WARNING, "105 ", "Could not initialize NVAPI");
        return;
    }
    ScopeExit unload(nvapi::NvAPI_Unload);

    nvapi::NvPhysicalGpuHandle handles[nvapi::NVAPI_MAX_PHYSICAL_GPUS] = {};
    nvapi::NvU32 count = 0;
    const bool failed = nvapi::NvAPI_EnumPhysicalGPUs(handles, &count) != nvapi::NVAPI_OK;
    if (failed) {
        // The message carries the failure flag, not NVAPI's status.
        log(site, Priority::WARNING, "114 ", "Could not enumerate physical GPUs: ", static_cast<int>(failed));
        return;
    }
    log(site, Priority::TRACE, "119 ", "Enumerated physical NVidia GPU count: ", shown(count));

    // NVAPI never has more handles than its array holds, whatever count it reports.
    const nvapi::NvU32 usable = std::min(count, nvapi::NVAPI_MAX_PHYSICAL_GPUS);
    for (nvapi::NvU32 i = 0; i < usable; ++i)
        take(handles[i], queryNVidiaGPU(handles[i]));
}

} // namespace

LiveSource enumerateNvapiLive(std::bitset<4>&)
{
    LiveSource live;
    live.around = readDirectly;
    // NVAPI counts its initialisations: one more keeps it initialised while the
    // source lives, so the GPU handles stay valid and the entries resolved.
    if (nvapi::NvAPI_Initialize() == nvapi::NVAPI_OK)
        live.vendor = releasedWhenLetGo([] { nvapi::NvAPI_Unload(); });
    enumeratePhysicalGpus([&live](nvapi::NvPhysicalGpuHandle handle, const Records& records) {
        for (const auto& record : records)
            live.gpus.push_back(
                {std::static_pointer_cast<GPU>(record), [handle](GPU& gpu) { readReadings(handle, gpu); }});
    });
    return live;
}

} // namespace libKestrel
