#include "libKestrel/internal/multi/AMD/amd_adl.h"

#include <cstdlib>

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Plausible.h"
#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/multi/AMD/adlwrapper.h"

namespace libKestrel {
namespace {

using adlwrapper::adlString;
using logging::log;
using logging::Priority;
using logging::shown;

logging::LogSite site("libKestrel.ADL", "libKestrel/src/multi/AMD/amd_adl.cpp");

struct Message {
    const char* tag;
    const char* text;
    // A refusal is a warning, but for readings a GPU of another generation
    // lacks, which only trace.
    Priority::LOGGER_PRIORITY priority = Priority::WARNING;
};

// Calls one ADL entry for a query. A missing entry, or any result but ADL_OK
// (warnings included), is logged and gives false.
template <class Entry, class... Args>
bool callADL(Entry entry, const Message& missing, const Message& failed, Args... args)
{
    if (!entry) {
        log(site, Priority::WARNING, missing.tag, missing.text);
        return false;
    }
    const int code = entry(args...);
    if (code != adl::ADL_OK) {
        log(site, failed.priority, failed.tag, failed.text, code);
        return false;
    }
    return true;
}

// A reading of one of ADL's signed fields for an unsigned property, scaled by
// 'times' / 'per' in 64 bits. No reading ADL gives is below zero, nor, scaled,
// above 'most' (libKestrel/internal/Plausible.h): such a one is the driver's
// error, and the property is left out.
template <class T>
std::optional<T> reading(std::int64_t value, const char* label, std::int64_t times = 1, std::int64_t per = 1,
                         std::uint64_t most = UINT64_MAX)
{
    if (value < 0) {
        log(site, Priority::WARNING, "300 ", "Negative reading left out: ", label, value);
        return std::nullopt;
    }
    // ADL's fields are 32-bit and the scales small: the product fits in 64 bits.
    const auto scaled = static_cast<std::uint64_t>(value * times / per);
    if (scaled > most) {
        log(site, Priority::WARNING, "301 ", "Reading beyond any GPU left out: ", label, value);
        return std::nullopt;
    }
    return static_cast<T>(scaled);
}

// One of the three readings a session repeats: through its ADL2 context when
// the calls have one, else through the first interface's entry. Tests as null
// when the entry it would call is missing.
template <class First, class Second>
struct Reading {
    First first;
    Second second;
    adl::ADL_CONTEXT_HANDLE context;

    explicit operator bool() const { return context ? second != nullptr : first != nullptr; }

    template <class... Args>
    int operator()(Args... args) const
    {
        return context ? second(context, args...) : first(args...);
    }
};

template <class First, class Second>
Reading<First, Second> throughContext(const adlwrapper::ADLCalls& calls, First first,
                                      Second adlwrapper::ADL2Readings::*second)
{
    if (!calls.readings)
        return {first, nullptr, nullptr};
    return {first, calls.readings->*second, calls.readings->context};
}

auto temperatureEntry(const adlwrapper::ADLCalls& calls)
{
    return throughContext(calls, calls.functions.ADL_Overdrive5_Temperature_Get,
                          &adlwrapper::ADL2Readings::temperature);
}

auto currentStatusEntry(const adlwrapper::ADLCalls& calls)
{
    return throughContext(calls, calls.functions.ADL_Overdrive6_CurrentStatus_Get,
                          &adlwrapper::ADL2Readings::currentStatus);
}

auto fanSpeedEntry(const adlwrapper::ADLCalls& calls)
{
    return throughContext(calls, calls.functions.ADL_Overdrive6_FanSpeed_Get, &adlwrapper::ADL2Readings::fanSpeed);
}

} // namespace

std::optional<std::string> query_VBIOSVersionString(const adlwrapper::ADLCalls& calls, int adapterIndex)
{
    auto trace = site.trace("query_VBIOSVersionString", 50);
    adl::ADLBiosInfo bios{};
    if (!callADL(calls.functions.ADL_Adapter_VideoBiosInfo_Get,
                 {"32 ", "Adapter_VideoBiosInfo_Get not available"},
                 {"39 ", "Failed to retrieve ADL VBIOS version string: "}, adapterIndex, &bios))
        return std::nullopt;
    std::string version = adlString(bios.strVersion);
    log(site, Priority::TRACE, "43 ", "VBIOS version: ", version);
    return version;
}

std::optional<std::uint64_t> query_TemperatureCurrent(const adlwrapper::ADLCalls& calls, int adapterIndex)
{
    auto trace = site.trace("query_TemperatureCurrent", 63);
    adl::ADLTemperature temperature{};
    temperature.iSize = sizeof(adl::ADLTemperature);
    // Thermal controller 0, the GPU's own.
    if (!callADL(temperatureEntry(calls),
                 {"52 ", "Overdrive5_Temperature_Get not available"},
                 {"61 ", "Failed to retrieve ADL temperature: "}, adapterIndex, 0, &temperature))
        return std::nullopt;
    log(site, Priority::TRACE, "65 ", "Temperature current (millidegrees Celsius): ", shown(temperature.iTemperature));
    return reading<std::uint64_t>(temperature.iTemperature, "Temperature current (millidegrees Celsius): ", 1, 1000);
}

std::optional<bool> query_Crossfire(const adlwrapper::ADLCalls& calls, int adapterIndex)
{
    auto trace = site.trace("query_Crossfire", 77);
    const adlwrapper::ADLFunctions& f = calls.functions;
    int preferred = 0;
    int numComb = 0;
    adl::ADLCrossfireComb* combinations = nullptr;
    // ADL allocated the list through adlMainMemoryAlloc, that is with malloc.
    ScopeExit release([&combinations] {
        if (combinations) {
            std::free(combinations);
            combinations = nullptr;
        }
    });
    if (!callADL(f.ADL_Adapter_Crossfire_Caps, {"75 ", "Adapter_Crossfire_Caps not available"},
                 {"85 ", "Failed to retrieve ADL capabilities: "}, adapterIndex, &preferred, &numComb, &combinations))
        return std::nullopt;
    log(site, Priority::TRACE, "98 ", "Preferred CrossfireX chain index: ", preferred);
    log(site, Priority::TRACE, "99 ", "Number of crossfire combinations: ", numComb);
    if (numComb == 0) {
        log(site, Priority::WARNING, "104 ", "No crossfire combinations found");
        return std::nullopt;
    }
    // The preferred chain is an index into ADL's list; one outside the list (or
    // no list at all) names no combination, and nothing past the list is read.
    if (!combinations || preferred < 0 || preferred >= numComb) {
        log(site, Priority::WARNING, "106 ", "Preferred crossfire combination outside the list: ", preferred);
        return std::nullopt;
    }
    adl::ADLCrossfireComb& chain = combinations[preferred];
    log(site, Priority::TRACE, "108 ", "Combination adapter count: ", chain.iNumLinkAdapter);

    adl::ADLCrossfireInfo info{};
    if (!callADL(f.ADL_Adapter_Crossfire_Get, {"111 ", "Adapter_Crossfire_Get not available"},
                 {"119 ", "Failed to retrieve ADL crossfire: "}, adapterIndex, &chain, &info))
        return std::nullopt;
    // The third field, iSupported, decides; iState is not consulted.
    const bool enabled = info.iSupported == 1;
    log(site, Priority::TRACE, "130 ", "Croessfire enabled: ", shown(enabled));
    return enabled;
}

namespace {

// The adapter's current status, for its clocks (and its activity).
std::optional<adl::ADLOD6CurrentStatus> currentStatus(const adlwrapper::ADLCalls& calls, int adapterIndex)
{
    adl::ADLOD6CurrentStatus status{};
    if (!callADL(currentStatusEntry(calls),
                 {"177 ", "Overdrive6_CurrentStatus_Get not available"},
                 {"186 ", "Failed to retrieve ADL current activity: "}, adapterIndex, &status))
        return std::nullopt;
    log(site, Priority::TRACE, "192 ", "Engine clock (ten-kHz): ", status.iEngineClock);
    log(site, Priority::TRACE, "193 ", "Memory clock (ten-kHz): ", status.iMemoryClock);
    return status;
}

AMDClockFrequencies clocksOf(const adl::ADLOD6CurrentStatus& status)
{
    // ADL counts in units of 10 kHz.
    return {reading<std::uint32_t>(status.iEngineClock, "Engine clock (ten-kHz): ", 10),
            reading<std::uint32_t>(status.iMemoryClock, "Memory clock (ten-kHz): ", 10)};
}

} // namespace

AMDClockFrequencies query_ClockFrequencies(const adlwrapper::ADLCalls& calls, int adapterIndex)
{
    auto trace = site.trace("query_ClockFrequencies", 119);
    const auto status = currentStatus(calls, adapterIndex);
    return status ? clocksOf(*status) : AMDClockFrequencies{};
}

AMDActivity query_Activity(const adlwrapper::ADLCalls& calls, int adapterIndex)
{
    const auto status = currentStatus(calls, adapterIndex);
    if (!status)
        return {};
    return {clocksOf(*status), reading<std::uint32_t>(status->iActivityPercent, "GPU utilization: ")};
}

std::optional<std::uint32_t> query_UtilizationGPU(const adlwrapper::ADLCalls& calls, int adapterIndex)
{
    auto trace = site.trace("query_UtilizationGPU", 133);
    adl::ADLOD6CurrentStatus status{};
    if (!callADL(currentStatusEntry(calls),
                 {"207 ", "Overdrive6_CurrentStatus_Get not available"},
                 {"214 ", "Failed to retrieve ADL current activity: "}, adapterIndex, &status))
        return std::nullopt;
    log(site, Priority::TRACE, "218 ", "GPU utilization: ", status.iActivityPercent);
    log(site, Priority::TRACE, "219 ", "Engine clock: ", status.iEngineClock);
    log(site, Priority::TRACE, "220 ", "Memory clock: ", status.iMemoryClock);
    log(site, Priority::TRACE, "221 ", "MaximumBusLanes: ", status.iMaximumBusLanes);
    log(site, Priority::TRACE, "222 ", "CurrentBusSpeed: ", status.iCurrentBusSpeed);
    log(site, Priority::TRACE, "223 ", "CurrentBusLanes: ", status.iCurrentBusLanes);
    return reading<std::uint32_t>(status.iActivityPercent, "GPU utilization: ");
}

AMDMemoryInfo query_DedicatedMemory(const adlwrapper::ADLCalls& calls, int adapterIndex)
{
    auto trace = site.trace("query_DedicatedMemory", 150);
    adl::ADLMemoryInfo memory{};
    if (!callADL(calls.functions.ADL_Adapter_MemoryInfo_Get, {"232 ", "Adapter_MemoryInfo_Get not available"},
                 {"241 ", "Failed to retrieve ADL adapter memoryinfo: "}, adapterIndex, &memory))
        return {};
    const std::int64_t kilobytes = memory.iMemorySize / 1024;
    std::string type = adlString(memory.strMemoryType);
    log(site, Priority::TRACE, "250 ", "Memory size: ", kilobytes);
    log(site, Priority::TRACE, "251 ", "Memory type: ", type);
    log(site, Priority::TRACE, "252 ", "Memory bandwidth: ", memory.iMemoryBandwidth);
    return {reading<std::uint64_t>(memory.iMemoryBandwidth, "Memory bandwidth: "), std::move(type),
            reading<std::uint64_t>(memory.iMemorySize, "Memory size: ", 1, 1024)};
}

AMDFanSpeed query_FanSpeed(const adlwrapper::ADLCalls& calls, int adapterIndex)
{
    auto trace = site.trace("query_FanSpeed", 165);
    adl::ADLOD6FanSpeedInfo fan{};
    fan.iSpeedType = adl::ADL_OD6_FANSPEED_TYPE_PERCENT | adl::ADL_OD6_FANSPEED_TYPE_RPM;
    if (!callADL(fanSpeedEntry(calls), {"263 ", "Overdrive6_FanSpeed_Get not available"},
                 {"274 ", "Failed to retrieve ADL fanspeed info: "}, adapterIndex, &fan))
        return {};
    log(site, Priority::TRACE, "280 ", "FanSpeed %: ", fan.iFanSpeedPercent);
    log(site, Priority::TRACE, "281 ", "FanSpeed RPM: ", fan.iFanSpeedRPM);
    // Both are kept whatever iSpeedType says was filled.
    return {reading<std::uint32_t>(fan.iFanSpeedPercent, "FanSpeed %: "),
            reading<std::uint32_t>(fan.iFanSpeedRPM, "FanSpeed RPM: ")};
}

namespace {

// One sensor of the PM log, if the log has it, scaled into its property's unit.
template <class T>
std::optional<T> sensor(const adl::ADLPMLogDataOutput& pmLog, int index, const char* label, std::int64_t times,
                        std::uint64_t most)
{
    const adl::ADLSingleSensorData& data = pmLog.sensors[index];
    if (!data.supported) {
        log(site, Priority::TRACE, "313 ", "Not in the PM log: ", label);
        return std::nullopt;
    }
    log(site, Priority::TRACE, "312 ", label, data.value);
    return reading<T>(data.value, label, times, 1, most);
}

} // namespace

AMDPowerAndHeat query_PowerAndHeat(const adlwrapper::ADLCalls& calls, int adapterIndex)
{
    auto trace = site.trace("query_PowerAndHeat", 286);
    const adlwrapper::ADL2OnlyReadings* adl2 = calls.adl2Only;
    if (!adl2)
        return {}; // no ADL2 context: said where it could not be made
    AMDPowerAndHeat result;
    // A GPU without Overdrive 8 has no PM log; its power may still come from Overdrive 6.
    adl::ADLPMLogDataOutput pmLog{};
    if (callADL(adl2->pmLog, {"310 ", "New_QueryPMLogData_Get not available"},
                {"311 ", "Failed to retrieve ADL PM log: ", Priority::TRACE}, adl2->context, adapterIndex, &pmLog)) {
        result.power = sensor<std::uint32_t>(pmLog, adl::PMLOG_ASIC_POWER, "ASIC power (watts): ", 1000,
                                             plausible::mostMilliwatts);
        result.hotspot = sensor<std::uint64_t>(pmLog, adl::PMLOG_TEMPERATURE_HOTSPOT,
                                               "Temperature hot spot (Celsius): ", 1, plausible::mostDegreesCelsius);
        result.memory = sensor<std::uint64_t>(pmLog, adl::PMLOG_TEMPERATURE_MEM, "Temperature memory (Celsius): ", 1,
                                              plausible::mostDegreesCelsius);
    }
    if (result.power)
        return result;
    int power = 0;
    if (callADL(adl2->currentPower, {"315 ", "Overdrive6_CurrentPower_Get not available"},
                {"316 ", "Failed to retrieve ADL current power: ", Priority::TRACE}, adl2->context, adapterIndex,
                adl::OD6_POWER_TYPE_ASIC_TOTAL, &power)) {
        log(site, Priority::TRACE, "317 ", "ASIC power (1/256 watts): ", power);
        result.power = reading<std::uint32_t>(power, "ASIC power (1/256 watts): ", 1000,
                                              1 << adl::OD6_POWER_FRACTION_BITS, plausible::mostMilliwatts);
    }
    return result;
}

} // namespace libKestrel
