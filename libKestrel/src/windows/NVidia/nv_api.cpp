#include "libKestrel/internal/windows/NVidia/nv_api.h"

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/windows/NVidia/nvapiwrapper.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;
using logging::shown;
using namespace nvapi;

logging::LogSite site("libKestrel.NVAPI", "libKestrel/src/windows/NVidia/nv_api.cpp");

// True when the call succeeded; otherwise logs the failure with NVAPI's status,
// a negative number.
bool succeeded(NvAPI_Status status, const char* tag, const char* text)
{
    if (status == NVAPI_OK)
        return true;
    log(site, Priority::WARNING, tag, text, shown(static_cast<int>(status)));
    return false;
}

const char* busTypeText(NV_GPU_BUS_TYPE type)
{
    switch (type) {
    case NVAPI_GPU_BUS_TYPE_PCI:
        return "PCI";
    case NVAPI_GPU_BUS_TYPE_AGP:
        return "AGP";
    case NVAPI_GPU_BUS_TYPE_PCI_EXPRESS:
        return "PCI Express";
    case NVAPI_GPU_BUS_TYPE_FPCI:
        return "FPCI";
    case NVAPI_GPU_BUS_TYPE_AXI:
        return "AXI";
    default:
        return nullptr;
    }
}

const char* eccConfigurationText(NV_ECC_CONFIGURATION configuration)
{
    switch (configuration) {
    case NV_ECC_CONFIGURATION_NOT_SUPPORTED:
        return "Not Supported";
    case NV_ECC_CONFIGURATION_DEFERRED:
        return "Deferred";
    case NV_ECC_CONFIGURATION_IMMEDIATE:
        return "Immediate";
    default:
        return "";
    }
}

} // namespace

std::optional<NvBusLocation> query_PciLocation(NvPhysicalGpuHandle handle)
{
    auto trace = site.trace("query_PciLocation", 30);
    NvU32 bus = 0;
    NvU32 slot = 0;
    // Without a location there is no record, and the caller says so.
    if (NvAPI_GPU_GetBusId(handle, &bus) != NVAPI_OK || NvAPI_GPU_GetBusSlotId(handle, &slot) != NVAPI_OK)
        return std::nullopt;
    const NvBusLocation location{bus, slot};
    log(site, Priority::TRACE, "44 ", "PCI location: Bus: ", shown(location.bus), ", Device: ", shown(location.slot));
    return location;
}

std::optional<std::string> query_ProductName(NvPhysicalGpuHandle handle)
{
    auto trace = site.trace("query_ProductName", 57);
    NvAPI_ShortString name = {};
    if (!succeeded(NvAPI_GPU_GetFullName(handle, name), "62 ", "Could not retrieve GPU full name: "))
        return std::nullopt;
    std::string text = shortStringText(name);
    log(site, Priority::TRACE, "66 ", "Product name: ", text);
    return text;
}

std::optional<std::string> query_DriverVersion()
{
    auto trace = site.trace("query_DriverVersion", 72);
    NvU32 version = 0;
    NvAPI_ShortString branch = {};
    if (!succeeded(NvAPI_SYS_GetDriverAndBranchVersion(&version, branch), "78 ",
                   "Could not retrieve driver version: "))
        return std::nullopt;
    log(site, Priority::TRACE, "82 ", "Driver version: ", shown(version));
    log(site, Priority::TRACE, "83 ", "Driver version branch: ",
        logging::deferred([&branch] { return shortStringText(branch); }));
    // 45206 is 452.6 and 45190 is 451.90: the minor part keeps no leading zero.
    return std::to_string(version / 100) + "." + std::to_string(version % 100);
}

std::optional<std::string> query_VBIOSVersionString(NvPhysicalGpuHandle handle)
{
    auto trace = site.trace("query_VBIOSVersionString", 90);
    NvAPI_ShortString revision = {};
    if (!succeeded(NvAPI_GPU_GetVbiosVersionString(handle, revision), "95 ",
                   "Could not retrieve GPU VBIOS version string: "))
        return std::nullopt;
    std::string text = shortStringText(revision);
    log(site, Priority::TRACE, "99 ", "VBIOS version: ", text);
    return text;
}

std::optional<NvDedicatedMemory> query_DedicatedMemory(NvPhysicalGpuHandle handle)
{
    auto trace = site.trace("query_DedicatedMemory", 105);
    NV_DISPLAY_DRIVER_MEMORY_INFO info{};
    info.version = NV_DISPLAY_DRIVER_MEMORY_INFO_VER_3;
    if (!succeeded(NvAPI_GPU_GetMemoryInfo(handle, &info), "112 ", "Could not retrieve GPU memory info: "))
        return std::nullopt;
    log(site, Priority::TRACE, "119 ", "Dedicated memory (kb): ", shown(info.dedicatedVideoMemory));
    log(site, Priority::TRACE, "120 ", "Available dedicated memory (kb): ", shown(info.availableDedicatedVideoMemory));
    return NvDedicatedMemory{info.dedicatedVideoMemory, info.availableDedicatedVideoMemory};
}

NvClockFrequencies query_ClockFrequencies(NvPhysicalGpuHandle handle)
{
    auto trace = site.trace("query_ClockFrequencies", 129);
    NV_GPU_CLOCK_FREQUENCIES frequencies{};
    frequencies.version = NV_GPU_CLOCK_FREQUENCIES_VER_3;
    frequencies.ClockType = NV_GPU_CLOCK_FREQUENCIES_CURRENT_FREQ;
    if (!succeeded(NvAPI_GPU_GetAllClockFrequencies(handle, &frequencies), "137 ",
                   "Could not retrieve current GPU clock frequencies: "))
        return {};
    const auto domain = [&frequencies](NV_GPU_PUBLIC_CLOCK_ID id, const char* tag,
                                       const char* label) -> std::optional<std::uint32_t> {
        const NV_GPU_CLOCK_DOMAIN& clock = frequencies.domain[id];
        if (!clock.bIsPresent)
            return std::nullopt;
        log(site, Priority::TRACE, tag, label, shown(clock.frequency));
        return clock.frequency;
    };
    NvClockFrequencies result;
    result.graphics = domain(NVAPI_GPU_PUBLIC_CLOCK_GRAPHICS, "159 ", "Frequency graphics (kHz): ");
    result.memory = domain(NVAPI_GPU_PUBLIC_CLOCK_MEMORY, "162 ", "Frequency memory (kHz): ");
    result.shader = domain(NVAPI_GPU_PUBLIC_CLOCK_PROCESSOR, "165 ", "Frequency shader (kHz): ");
    return result;
}

std::optional<std::string> query_BusType(NvPhysicalGpuHandle handle)
{
    auto trace = site.trace("query_BusType", 176);
    NV_GPU_BUS_TYPE type = NVAPI_GPU_BUS_TYPE_UNDEFINED;
    if (!succeeded(NvAPI_GPU_GetBusType(handle, &type), "181 ", "Could not retrieve GPU bus type: "))
        return std::nullopt;
    log(site, Priority::TRACE, "185 ", "Bus type: ", shown(static_cast<int>(type)));
    const char* text = busTypeText(type);
    return text ? std::optional<std::string>(text) : std::nullopt;
}

std::optional<std::uint32_t> query_CoreCount(NvPhysicalGpuHandle handle)
{
    auto trace = site.trace("query_CoreCount", 207);
    NvU32 count = 0;
    if (!succeeded(NvAPI_GPU_GetGpuCoreCount(handle, &count), "212 ", "Could not retrieve GPU core count: "))
        return std::nullopt;
    log(site, Priority::TRACE, "216 ", "Core count: ", shown(count));
    return count;
}

std::optional<bool> query_ScalableLinkInterface(NvPhysicalGpuHandle handle)
{
    auto trace = site.trace("query_ScalableLinkInterface", 222);
    NvLogicalGpuHandle logical = nullptr;
    if (!succeeded(NvAPI_GetLogicalGPUFromPhysicalGPU(handle, &logical), "232 ",
                   "Could not retrieve the logical GPU from the physical GPU handle: "))
        return std::nullopt;
    NvPhysicalGpuHandle handles[NVAPI_MAX_PHYSICAL_GPUS] = {};
    NvU32 count = 0;
    if (!succeeded(NvAPI_GetPhysicalGPUsFromLogicalGPU(logical, handles, &count), "240 ",
                   "Could not retrieve the physical GPUs from the logical GPU handle: "))
        return std::nullopt;
    log(site, Priority::TRACE, "244 ", "Physical GPU count: ", shown(count));
    // Only the count matters, so a count larger than the array reads nothing from it.
    return count > 1;
}

std::optional<NvECCMemory> query_ECCMemory(NvPhysicalGpuHandle handle)
{
    auto trace = site.trace("query_ECCMemory", 250);
    NV_GPU_ECC_STATUS_INFO info{};
    info.version = NV_GPU_ECC_STATUS_INFO_VER_1;
    if (!succeeded(NvAPI_GPU_GetECCStatusInfo(handle, &info), "257 ",
                   "Could not retrieve current ECC memory information: "))
        return std::nullopt;
    const NvECCMemory ecc{info.isSupported != 0, info.isEnabled != 0, eccConfigurationText(info.configurationOptions)};
    log(site, Priority::TRACE, "268 ", "ECC supported: ", shown(ecc.supported));
    log(site, Priority::TRACE, "269 ", "ECC enabled: ", shown(ecc.enabled));
    return ecc;
}

} // namespace libKestrel
