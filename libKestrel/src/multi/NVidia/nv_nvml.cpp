#include "libKestrel/internal/multi/NVidia/nv_nvml.h"

#include <algorithm>

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;
using logging::shown;

logging::LogSite site("libKestrel.NVML", "libKestrel/src/multi/NVidia/nv_nvml.cpp");

// What a query logs when its entry point is missing (always at priority 3) and
// when NVML refuses the call (with NVML's text for the code).
struct Messages {
    const char* missingTag;
    const char* missingText;
    const char* failureTag;
    const char* failureText;
    Priority::LOGGER_PRIORITY failurePriority = Priority::TRACE;
};

// Calls 'entry' and says whether NVML answered, logging why not otherwise.
template <class Entry, class... Arguments>
bool answered(const NVMLFunctions& entries, Entry entry, const Messages& messages, Arguments... arguments)
{
    if (!entry) {
        log(site, Priority::WARNING, messages.missingTag, messages.missingText);
        return false;
    }
    const nvml::nvmlReturn_t code = entry(arguments...);
    if (code != nvml::NVML_SUCCESS) {
        log(site, messages.failurePriority, messages.failureTag, messages.failureText, nvmlErrorText(entries, code));
        return false;
    }
    return true;
}

// A text that NVML writes into our buffer of Size bytes: up to its first NUL,
// and never past the buffer when NVML left no NUL in it.
template <unsigned int Size, class Entry>
std::optional<std::string> readText(const NVMLFunctions& entries, Entry entry, nvml::nvmlDevice_t const& device,
                                    const Messages& messages, const char* tag, const char* label)
{
    char buffer[Size] = {}; // a call that writes nothing reads as an empty text
    if (!answered(entries, entry, messages, device, buffer, Size))
        return std::nullopt;
    std::string text(buffer, std::find(buffer, buffer + Size, '\0'));
    log(site, Priority::TRACE, tag, label, text);
    return text;
}

// A number that NVML writes through the last argument of 'entry'.
template <class Entry, class... Arguments>
std::optional<std::uint32_t> readNumber(const NVMLFunctions& entries, Entry entry, const Messages& messages,
                                        const char* tag, const char* label, Arguments... arguments)
{
    unsigned int value = 0;
    if (!answered(entries, entry, messages, arguments..., &value))
        return std::nullopt;
    log(site, Priority::TRACE, tag, label, shown(value));
    return value;
}

} // namespace

NvmlBusAndDevice query_PciLocation(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_PciLocation", 50);
    nvml::nvmlPciInfo_t info{};
    if (!answered(entries, entries.nvmlDeviceGetPciInfo_v2,
                  {"53 ", "NvmlDeviceGetPciInfo not available", "61 ", "Failed to retrieve NVML PCI location: ",
                   Priority::WARNING},
                  device, &info))
        return {};
    log(site, Priority::TRACE, "67 ", "PCI location: ", "Bus: ", shown(info.bus), ", ", "Device: ",
        shown(info.device));
    return {info.bus, info.device, info.domain};
}

std::optional<std::string> query_ProductName(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_ProductName", 75);
    return readText<nvml::NVML_DEVICE_NAME_BUFFER_SIZE>(
        entries, entries.nvmlDeviceGetName, device,
        {"78 ", "NvmlDeviceGetName not available", "85 ", "Failed to retrieve NVML device name: "}, "89 ",
        "Product name: ");
}

std::optional<std::string> query_UUID(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_UUID", 95);
    return readText<nvml::NVML_DEVICE_UUID_BUFFER_SIZE>(
        entries, entries.nvmlDeviceGetUUID, device,
        {"98 ", "NvmlDeviceGetUUID not available", "105 ", "Failed to retrieve NVML UUID: "}, "109 ", "UUID: ");
}

std::optional<std::string> query_VBIOSVersionString(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_VBIOSVersionString", 115);
    return readText<nvml::NVML_DEVICE_VBIOS_VERSION_BUFFER_SIZE>(
        entries, entries.nvmlDeviceGetVbiosVersion, device,
        {"118 ", "NvmlDeviceGetVbiosVersion not available", "125 ", "Failed to retrieve NVML VBIOS version string: "},
        "136 ", "VBIOS version: ");
}

std::optional<std::uint32_t> query_TemperatureCurrent(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_TemperatureCurrent", 174);
    return readNumber(entries, entries.nvmlDeviceGetTemperature,
                      {"177 ", "NvmlDeviceGetTemperature not available", "184 ",
                       "Failed to retrieve NVML current temperature: "},
                      "188 ", "Temperature current (Celsius): ", device, nvml::NVML_TEMPERATURE_GPU);
}

// The two threshold queries carry the trace name of the current-temperature query.
std::optional<std::uint32_t> query_TemperatureSlowdown(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_TemperatureCurrent", 194);
    return readNumber(entries, entries.nvmlDeviceGetTemperatureThreshold,
                      {"197 ", "NvmlDeviceGetTemperatureThreshold not available", "204 ",
                       "Failed to retrieve NVML VBIOS slowdown temperature: "},
                      "208 ", "Temperature slowdown (Celsius): ", device, nvml::NVML_TEMPERATURE_THRESHOLD_SLOWDOWN);
}

std::optional<std::uint32_t> query_TemperatureShutdown(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_TemperatureCurrent", 214);
    return readNumber(entries, entries.nvmlDeviceGetTemperatureThreshold,
                      {"217 ", "NvmlDeviceGetTemperatureThreshold not available", "224 ",
                       "Failed to retrieve NVML VBIOS shutdown temperature: "},
                      "228 ", "Temperature shutdown (Celsius): ", device, nvml::NVML_TEMPERATURE_THRESHOLD_SHUTDOWN);
}

NvmlUtilization query_GPUAndMemoryUtilization(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_GPUAndMemoryUtilization", 234);
    nvml::nvmlUtilization_t rates{};
    if (!answered(entries, entries.nvmlDeviceGetUtilizationRates,
                  {"237 ", "NvmlDeviceGetUtilizationRates not available", "246 ",
                   "Failed to retrieve NVML GPU/Memory utilization: "},
                  device, &rates))
        return {};
    log(site, Priority::TRACE, "252 ", "Utilization GPU (percent over pas second): ", shown(rates.gpu));
    log(site, Priority::TRACE, "253 ", "Utilization Memory (percent over pas second): ", shown(rates.memory));
    return {rates.gpu, rates.memory};
}

NvmlEccCounts query_ECCMemoryErrors(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device,
                                    unsigned int errorType, unsigned int counterType)
{
    auto trace = site.trace("query_ECCMemoryErrors", 261);
    nvml::nvmlEccErrorCounts_t counts{};
    if (!answered(entries, entries.nvmlDeviceGetDetailedEccErrors,
                  {"268 ", "NvmlDeviceGetDetailedEccErrors not available", "278 ",
                   "Failed to retrieve NVML ECC memory error count: "},
                  device, static_cast<nvml::nvmlMemoryErrorType_t>(errorType),
                  static_cast<nvml::nvmlEccCounterType_t>(counterType), &counts))
        return {};
    log(site, Priority::TRACE, "284 ", "ECC device memory errors: ", shown(counts.deviceMemory));
    log(site, Priority::TRACE, "285 ", "ECC L1 cache errors: ", shown(counts.l1Cache));
    log(site, Priority::TRACE, "286 ", "ECC L2 cache errors: ", shown(counts.l2Cache));
    log(site, Priority::TRACE, "287 ", "ECC Register file errors: ", shown(counts.registerFile));
    return {counts.deviceMemory, counts.l1Cache, counts.l2Cache, counts.registerFile};
}

std::optional<std::uint32_t> query_FanSpeedPercent(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_FanSpeedPercent", 295);
    return readNumber(entries, entries.nvmlDeviceGetFanSpeed,
                      {"298 ", "NvmlDeviceGetFanSpeed not available", "305 ", "Failed to retrieve NVML fan speed: "},
                      "309 ", "Fan speed (percent): ", device);
}

} // namespace libKestrel
