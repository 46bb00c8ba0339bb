#include "libKestrel/internal/multi/NVidia/nv_nvml.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <type_traits>

#include "libKestrel/ClockEventReasons.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Plausible.h"
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
template <class Value = unsigned int, class Entry, class... Arguments>
std::optional<Value> readNumber(const NVMLFunctions& entries, Entry entry, const Messages& messages, const char* tag,
                                const char* label, Arguments... arguments)
{
    Value value = 0;
    if (!answered(entries, entry, messages, arguments..., &value))
        return std::nullopt;
    log(site, Priority::TRACE, tag, label, shown(value));
    return value;
}

// A reading no GPU could give (libKestrel/internal/Plausible.h) is the driver's
// error: left out, and said.
template <class T>
std::optional<T> believable(const std::optional<T>& value, std::uint64_t least, std::uint64_t most, const char* label)
{
    if (!value)
        return value;
    bool outside = false;
    if constexpr (std::is_signed_v<T>)
        outside = *value < 0;
    outside = outside || static_cast<std::uint64_t>(*value) < least || static_cast<std::uint64_t>(*value) > most;
    if (!outside)
        return value;
    log(site, Priority::WARNING, "370 ", "Reading beyond any GPU left out: ", label, *value);
    return std::nullopt;
}

// An unsigned number NVML writes for the device, which no GPU gives outside
// [least, most].
struct NumberQuery {
    nvml::PFN_nvmlDeviceGetPowerUsage entry; // (device, unsigned int*), as every such entry
    Messages messages;
    const char* tag;
    const char* label;
    std::uint64_t least;
    std::uint64_t most;
};

std::optional<std::uint32_t> readPlausible(const NVMLFunctions& entries, nvml::nvmlDevice_t device,
                                           const NumberQuery& query)
{
    return believable(readNumber(entries, query.entry, query.messages, query.tag, query.label, device), query.least,
                     query.most, query.label);
}

// nvmlDeviceGetFieldValues asked for one field. The call succeeds when NVML
// answers at all; the field's own code says whether it has the value.
struct OneField {
    nvml::PFN_nvmlDeviceGetFieldValues entry;

    explicit operator bool() const { return entry != nullptr; }
    nvml::nvmlReturn_t operator()(nvml::nvmlDevice_t device, nvml::nvmlFieldValue_t* field) const
    {
        const nvml::nvmlReturn_t code = entry(device, 1, field);
        return code == nvml::NVML_SUCCESS ? field->nvmlReturn : code;
    }
};

// A field's value as a whole number (a fraction cut toward zero), whatever type
// NVML gave it in; nothing for a type NVML does not document. A value beyond
// the range is held at its end, which no reading reaches.
std::optional<long long> wholeNumber(const nvml::nvmlFieldValue_t& field)
{
    const auto held = [](unsigned long long value) {
        return static_cast<long long>(std::min<unsigned long long>(value, LLONG_MAX));
    };
    const nvml::nvmlValue_t& value = field.value;
    switch (field.valueType) {
    case nvml::NVML_VALUE_TYPE_DOUBLE:
        if (std::isnan(value.dVal))
            return LLONG_MAX;
        return std::fabs(value.dVal) < 1e18 ? static_cast<long long>(value.dVal)
                                             : (value.dVal < 0 ? LLONG_MIN : LLONG_MAX);
    case nvml::NVML_VALUE_TYPE_UNSIGNED_INT: return value.uiVal;
    case nvml::NVML_VALUE_TYPE_UNSIGNED_LONG: return held(value.ulVal);
    case nvml::NVML_VALUE_TYPE_UNSIGNED_LONG_LONG: return held(value.ullVal);
    case nvml::NVML_VALUE_TYPE_SIGNED_LONG_LONG: return value.sllVal;
    case nvml::NVML_VALUE_TYPE_SIGNED_INT: return value.siVal;
    case nvml::NVML_VALUE_TYPE_UNSIGNED_SHORT: return value.usVal;
    }
    return std::nullopt;
}

// NVML's reasons are ours bit for bit.
static_assert(nvml::nvmlClocksEventReasonGpuIdle == clockEventReason::gpuIdle &&
              nvml::nvmlClocksEventReasonApplicationsClocksSetting == clockEventReason::applicationsClocksSetting &&
              nvml::nvmlClocksEventReasonSwPowerCap == clockEventReason::softwarePowerCap &&
              nvml::nvmlClocksThrottleReasonHwSlowdown == clockEventReason::hardwareSlowdown &&
              nvml::nvmlClocksEventReasonSyncBoost == clockEventReason::syncBoost &&
              nvml::nvmlClocksEventReasonSwThermalSlowdown == clockEventReason::softwareThermalSlowdown &&
              nvml::nvmlClocksThrottleReasonHwThermalSlowdown == clockEventReason::hardwareThermalSlowdown &&
              nvml::nvmlClocksThrottleReasonHwPowerBrakeSlowdown == clockEventReason::hardwarePowerBrakeSlowdown &&
              nvml::nvmlClocksEventReasonDisplayClockSetting == clockEventReason::displayClockSetting);

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

std::optional<std::uint32_t> query_PowerDraw(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_PowerDraw", 268);
    return readPlausible(entries, device,
                         {entries.nvmlDeviceGetPowerUsage,
                          {"320 ", "NvmlDeviceGetPowerUsage not available", "321 ",
                           "Failed to retrieve NVML power usage: "},
                          "322 ", "Power draw (milliwatts): ", 0, plausible::mostMilliwatts});
}

std::optional<std::uint32_t> query_PowerLimit(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_PowerLimit", 277);
    return readPlausible(entries, device,
                         {entries.nvmlDeviceGetEnforcedPowerLimit,
                          {"325 ", "NvmlDeviceGetEnforcedPowerLimit not available", "326 ",
                           "Failed to retrieve NVML enforced power limit: "},
                          "327 ", "Power limit (milliwatts): ", 0, plausible::mostMilliwatts});
}

std::optional<std::uint64_t> query_EnergyConsumed(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_EnergyConsumed", 287);
    return believable(readNumber<unsigned long long>(entries, entries.nvmlDeviceGetTotalEnergyConsumption,
                                                    {"330 ", "NvmlDeviceGetTotalEnergyConsumption not available",
                                                     "331 ", "Failed to retrieve NVML total energy consumption: "},
                                                    "332 ", "Energy since the driver loaded (millijoules): ", device),
                     0, plausible::mostMillijoules, "Energy since the driver loaded (millijoules): ");
}

std::optional<std::uint64_t> query_TemperatureMemory(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_TemperatureMemory", 297);
    nvml::nvmlFieldValue_t field{};
    field.fieldId = nvml::NVML_FI_DEV_MEMORY_TEMP;
    if (!answered(entries, OneField{entries.nvmlDeviceGetFieldValues},
                  {"335 ", "NvmlDeviceGetFieldValues not available", "336 ",
                   "Failed to retrieve NVML memory temperature: "},
                  device, &field))
        return std::nullopt;
    const auto degrees = wholeNumber(field);
    if (!degrees) {
        log(site, Priority::WARNING, "337 ", "Memory temperature of a value type NVML does not name left out: ",
            static_cast<int>(field.valueType));
        return std::nullopt;
    }
    log(site, Priority::TRACE, "338 ", "Temperature memory (Celsius): ", *degrees);
    const auto kept = believable(degrees, 0, plausible::mostDegreesCelsius, "Temperature memory (Celsius): ");
    return kept ? std::optional<std::uint64_t>(static_cast<std::uint64_t>(*kept)) : std::nullopt;
}

NvmlPcieLink query_PcieLinkCurrent(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_PcieLinkCurrent", 318);
    return {readPlausible(entries, device,
                          {entries.nvmlDeviceGetCurrPcieLinkGeneration,
                           {"340 ", "NvmlDeviceGetCurrPcieLinkGeneration not available", "341 ",
                            "Failed to retrieve NVML current PCIe link generation: "},
                           "342 ", "PCIe link generation: ", plausible::leastPCIeGeneration,
                           plausible::mostPCIeGeneration}),
            readPlausible(entries, device,
                          {entries.nvmlDeviceGetCurrPcieLinkWidth,
                           {"344 ", "NvmlDeviceGetCurrPcieLinkWidth not available", "345 ",
                            "Failed to retrieve NVML current PCIe link width: "},
                           "346 ", "PCIe link width (lanes): ", plausible::leastPCIeLanes, plausible::mostPCIeLanes})};
}

NvmlPcieLink query_PcieLinkMax(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_PcieLinkMax", 334);
    return {readPlausible(entries, device,
                          {entries.nvmlDeviceGetMaxPcieLinkGeneration,
                           {"350 ", "NvmlDeviceGetMaxPcieLinkGeneration not available", "351 ",
                            "Failed to retrieve NVML maximum PCIe link generation: "},
                           "352 ", "PCIe link generation at most: ", plausible::leastPCIeGeneration,
                           plausible::mostPCIeGeneration}),
            readPlausible(entries, device,
                          {entries.nvmlDeviceGetMaxPcieLinkWidth,
                           {"354 ", "NvmlDeviceGetMaxPcieLinkWidth not available", "355 ",
                            "Failed to retrieve NVML maximum PCIe link width: "},
                           "356 ", "PCIe link width at most (lanes): ", plausible::leastPCIeLanes,
                           plausible::mostPCIeLanes})};
}

std::optional<std::uint32_t> query_PerformanceState(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_PerformanceState", 351);
    nvml::nvmlPstates_t state = nvml::NVML_PSTATE_UNKNOWN;
    if (!answered(entries, entries.nvmlDeviceGetPerformanceState,
                  {"360 ", "NvmlDeviceGetPerformanceState not available", "361 ",
                   "Failed to retrieve NVML performance state: "},
                  device, &state))
        return std::nullopt;
    log(site, Priority::TRACE, "362 ", "Performance state: ", static_cast<int>(state));
    if (state == nvml::NVML_PSTATE_UNKNOWN)
        return std::nullopt; // NVML cannot tell
    const auto kept = believable(std::optional<int>(state), 0, plausible::mostPerformanceState, "Performance state: ");
    return kept ? std::optional<std::uint32_t>(static_cast<std::uint32_t>(*kept)) : std::nullopt;
}

std::optional<std::uint64_t> query_ClockEventReasons(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device)
{
    auto trace = site.trace("query_ClockEventReasons", 367);
    // Drivers older than the newer name have the older one alone, with the same bits.
    const auto entry = entries.nvmlDeviceGetCurrentClocksEventReasons
                           ? entries.nvmlDeviceGetCurrentClocksEventReasons
                           : entries.nvmlDeviceGetCurrentClocksThrottleReasons;
    return readNumber<unsigned long long>(entries, entry,
                                          {"365 ", "NvmlDeviceGetCurrentClocksEventReasons not available", "366 ",
                                           "Failed to retrieve NVML clock event reasons: "},
                                          "367 ", "Clock event reasons: ", device);
}

} // namespace libKestrel
