#include "libKestrel/internal/multi/NVidiaNvmlGPUQuerierMulti.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>

#include "libKestrel/GPU.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/Location.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/multi/NVidia/nv_nvml.h"
#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"
#include "pci/PciLocation.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;

logging::LogSite site("libKestrel.NVidiaNvmlGPUQuerierMulti", "libKestrel/src/multi/NVidiaNvmlGPUQuerierMulti.cpp");

// The most device indices we walk. A record's location is NVML's bus and device
// number, so no more than 256 x 32 devices can be told apart; a larger count is
// a broken driver, whose every extra index would only fail.
constexpr unsigned int maximumDevices = 256 * 32;

// One ECC property from the four memory locations NVML counts: present when any
// count is, and then the sum of the present ones (modulo 2^64, as unsigned sums are).
std::optional<std::uint64_t> sumOfCounts(const NvmlEccCounts& counts)
{
    std::optional<std::uint64_t> sum;
    for (const auto& part : {counts.deviceMemory, counts.l1Cache, counts.l2Cache, counts.registerFile})
        if (part)
            sum = sum.value_or(0) + *part;
    return sum;
}

using Records = std::vector<std::shared_ptr<IGPU>>;

// The readings that change while the GPU runs, in the order a record reads them.
void readUtilization(const NVMLFunctions& entries, nvml::nvmlDevice_t device, GPU& gpu)
{
    const NvmlUtilization utilization = query_GPUAndMemoryUtilization(entries, device);
    gpu.setUtilizationGPU(utilization.gpu);
    gpu.setUtilizationMemory(utilization.memory);
}

void readEccCounts(const NVMLFunctions& entries, nvml::nvmlDevice_t device, GPU& gpu)
{
    using namespace nvml;
    const auto sum = [&entries, device](unsigned int type, unsigned int counter) {
        return sumOfCounts(query_ECCMemoryErrors(entries, device, type, counter));
    };
    gpu.setECCErrorsCorrectedVolatile(sum(NVML_MEMORY_ERROR_TYPE_CORRECTED, NVML_VOLATILE_ECC));
    gpu.setECCErrorsUncorrectedVolatile(sum(NVML_MEMORY_ERROR_TYPE_UNCORRECTED, NVML_VOLATILE_ECC));
    gpu.setECCErrorsCorrectedAggregate(sum(NVML_MEMORY_ERROR_TYPE_CORRECTED, NVML_AGGREGATE_ECC));
    gpu.setECCErrorsUncorrectedAggregate(sum(NVML_MEMORY_ERROR_TYPE_UNCORRECTED, NVML_AGGREGATE_ECC));
}

// Power, energy, the memory's temperature, the link as it runs, the
// performance state and why the clocks are held back.
void readPowerAndState(const NVMLFunctions& entries, nvml::nvmlDevice_t device, GPU& gpu)
{
    gpu.setPowerDraw(query_PowerDraw(entries, device));
    gpu.setEnergyConsumed(query_EnergyConsumed(entries, device));
    gpu.setTemperatureMemory(query_TemperatureMemory(entries, device));
    const NvmlPcieLink link = query_PcieLinkCurrent(entries, device);
    gpu.setPCIeLinkGeneration(link.generation);
    gpu.setPCIeLinkWidth(link.width);
    gpu.setPerformanceState(query_PerformanceState(entries, device));
    gpu.setClockEventReasons(query_ClockEventReasons(entries, device));
}

void readReadings(const NVMLFunctions& entries, nvml::nvmlDevice_t device, GPU& gpu)
{
    readUtilization(entries, device, gpu);
    readEccCounts(entries, device, gpu);
    gpu.setTemperatureCurrent(query_TemperatureCurrent(entries, device));
    gpu.setFanSpeedPercent(query_FanSpeedPercent(entries, device));
    readPowerAndState(entries, device, gpu);
}

// Initialises NVML, hands every device NVML places on the PCI bus to 'take'
// with its records, in NVML's order, and shuts NVML down again.
void enumerateDevices(const NVMLFunctions& entries, std::bitset<4>& status,
                      const std::function<void(nvml::nvmlDevice_t, const Records&)>& take);

// Runs 'enumerate' with NVML loaded; false when it cannot be loaded.
bool withNvmlLoaded(const std::function<void()>& enumerate)
{
    if (!initializeLibrary()) {
        log(site, Priority::WARNING, "195 ", "Failed to load NVML");
        return false;
    }
    // Runs after the enumeration has shut NVML down.
    ScopeExit release(uninitializeLibrary);
    enumerate();
    return true;
}

// NVML kept loaded and initialised for a session's readers, so that the device
// handles stay valid: one more load of the binding, whose table does not change
// while it is held, and one more initialisation of NVML. Null when NVML will not
// initialise. Called while the enumeration holds NVML loaded.
std::shared_ptr<const NVMLFunctions> holdNvml()
{
    if (!initializeLibrary())
        return nullptr;
    const NVMLFunctions& entries = nvmlBinding().functions;
    if (!entries.nvmlInit_v2 || !entries.nvmlShutdown || entries.nvmlInit_v2() != nvml::NVML_SUCCESS) {
        uninitializeLibrary();
        return nullptr;
    }
    // The deleter gives both back, also when the pointer itself cannot be made.
    return std::shared_ptr<const NVMLFunctions>(&entries, [](const NVMLFunctions* held) {
        held->nvmlShutdown();
        uninitializeLibrary();
    });
}

} // namespace

std::vector<std::shared_ptr<IGPU>> queryNVidiaGPU(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("queryNVidiaGPU", 55);
    const NvmlBusAndDevice where = query_PciLocation(entries, device);
    if (!where.bus || !where.device) {
        log(site, Priority::WARNING, "63 ", "Could not obtain PCI Location information for nvidia device");
        return {};
    }
    // The function is always 0, so that these records meet the other NVIDIA
    // sources' records of the same GPU; the domain is NVML's.
    const auto location = pciLocationOf(*where.bus, *where.device, 0, where.domain);
    if (!location) {
        log(site, Priority::WARNING, "64 ", "Device outside the PCI bus, skipped: bus ", *where.bus, ", device ",
            *where.device);
        return {};
    }
    log(site, Priority::TRACE, "72 ", "Found PCI location information: ", *location);

    auto gpu = std::make_shared<GPU>(*location);
    gpu->setName(query_ProductName(entries, device));
    gpu->setUUID(query_UUID(entries, device));
    gpu->setHardwareAcceleration(true);
    readUtilization(entries, device, *gpu);
    gpu->setVBIOSVersion(query_VBIOSVersionString(entries, device));
    readEccCounts(entries, device, *gpu);
    gpu->setTemperatureCurrent(query_TemperatureCurrent(entries, device));
    gpu->setTemperatureSlowdown(query_TemperatureSlowdown(entries, device));
    gpu->setTemperatureShutdown(query_TemperatureShutdown(entries, device));
    gpu->setFanSpeedPercent(query_FanSpeedPercent(entries, device));
    readPowerAndState(entries, device, *gpu);
    gpu->setPowerLimit(query_PowerLimit(entries, device));
    const NvmlPcieLink most = query_PcieLinkMax(entries, device);
    gpu->setPCIeLinkGenerationMax(most.generation);
    gpu->setPCIeLinkWidthMax(most.width);
    return {gpu};
}

std::vector<std::shared_ptr<IGPU>> queryNVidiaGPUsMultiWorker(std::bitset<4>& status)
{
    auto trace = site.trace("queryNVidiaGPUsMultiWorker", 119);
    Records result;
    enumerateDevices(nvmlBinding().functions, status, [&result](nvml::nvmlDevice_t, const Records& records) {
        result.insert(result.end(), records.begin(), records.end());
    });
    return result;
}

namespace {

void enumerateDevices(const NVMLFunctions& functions, std::bitset<4>& status,
                      const std::function<void(nvml::nvmlDevice_t, const Records&)>& take)
{
    if (!functions.nvmlInit_v2) {
        log(site, Priority::WARNING, "124 ", "NvmlInit not available");
        return;
    }
    if (const nvml::nvmlReturn_t code = functions.nvmlInit_v2(); code != nvml::NVML_SUCCESS) {
        log(site, Priority::WARNING, "131 ", "Could not initialize NVML: ", nvmlErrorText(functions, code));
        return;
    }
    ScopeExit shutdown([&functions] {
        // A module that initialises but cannot shut down is reported with NVML's
        // own code for a missing function, rather than called through null.
        const nvml::nvmlReturn_t code =
            functions.nvmlShutdown ? functions.nvmlShutdown() : nvml::NVML_ERROR_FUNCTION_NOT_FOUND;
        if (code != nvml::NVML_SUCCESS)
            log(site, Priority::CRITICAL, "138 ", "Error shutting down NVML: ", nvmlErrorText(functions, code));
    });

    if (!functions.nvmlDeviceGetCount_v2) {
        log(site, Priority::WARNING, "146 ", "NvmlDeviceGetCount not available");
        return;
    }
    unsigned int count = 0;
    if (const nvml::nvmlReturn_t code = functions.nvmlDeviceGetCount_v2(&count); code != nvml::NVML_SUCCESS) {
        log(site, Priority::CRITICAL, "152 ", "Failed to retrieve device count: ", nvmlErrorText(functions, code));
        return;
    }
    log(site, Priority::TRACE, "158 ", "Enumerated physical NVidia GPU count: ", count);
    if (!functions.nvmlDeviceGetHandleByIndex) {
        log(site, Priority::WARNING, "162 ", "NvmlDeviceGetHandleByIndex not available");
        return;
    }

    for (unsigned int index = 0; index < std::min(count, maximumDevices); ++index) {
        nvml::nvmlDevice_t device = nullptr;
        if (const nvml::nvmlReturn_t code = functions.nvmlDeviceGetHandleByIndex(index, &device);
            code != nvml::NVML_SUCCESS) {
            log(site, Priority::CRITICAL, "171 ", "Failed to retrieve device handle: ", nvmlErrorText(functions, code));
            if (code == nvml::NVML_ERROR_INSUFFICIENT_POWER)
                status.set(0);
            continue;
        }
        take(device, queryNVidiaGPU(functions, device));
    }
}

} // namespace

std::vector<std::shared_ptr<IGPU>> queryNVidiaNvmlGPUsMulti(std::bitset<4>& status)
{
    auto trace = site.trace("queryNVidiaNvmlGPUsMulti", 189);
    Records result;
    withNvmlLoaded([&] { result = queryNVidiaGPUsMultiWorker(status); });
    return result;
}

LiveSource enumerateNvmlLive(std::bitset<4>& status)
{
    LiveSource live;
    live.around = readDirectly;
    withNvmlLoaded([&] {
        const std::shared_ptr<const NVMLFunctions> held = holdNvml();
        live.vendor = held;
        const auto take = [&live, &held](nvml::nvmlDevice_t device, const Records& records) {
            for (const auto& record : records)
                live.gpus.push_back({std::static_pointer_cast<GPU>(record),
                                     held ? Reader([held, device](GPU& gpu) { readReadings(*held, device, gpu); })
                                          : Reader()});
        };
        enumerateDevices(nvmlBinding().functions, status, take);
    });
    return live;
}

} // namespace libKestrel
