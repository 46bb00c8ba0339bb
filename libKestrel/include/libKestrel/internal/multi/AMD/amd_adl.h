#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "libKestrel/internal/multi/AMD/adlwrapper.h"

// The per-property queries of the AMD record source, each about one ADL adapter
// index, through the calls they are given: the ADL binding's table (loaded, and
// the first interface started), and for the readings a session repeats, its
// ADL2 context when it has one. Every failure is logged and leaves the result,
// or its part, empty.
namespace libKestrel {

struct AMDClockFrequencies {
    std::optional<std::uint32_t> engine; // kHz
    std::optional<std::uint32_t> memory; // kHz
};

struct AMDFanSpeed {
    std::optional<std::uint32_t> percent;
    std::optional<std::uint32_t> rpm;
};

struct AMDMemoryInfo {
    std::optional<std::uint64_t> bandwidth; // as ADL reports it
    std::optional<std::string> type;
    std::optional<std::uint64_t> size;      // kilobytes
};

std::optional<std::string> query_VBIOSVersionString(const adlwrapper::ADLCalls& calls, int adapterIndex);
// Whole degrees Celsius, truncated toward zero.
std::optional<std::uint64_t> query_TemperatureCurrent(const adlwrapper::ADLCalls& calls, int adapterIndex);
// Whether the adapter's preferred CrossFire combination is supported.
std::optional<bool> query_Crossfire(const adlwrapper::ADLCalls& calls, int adapterIndex);
AMDClockFrequencies query_ClockFrequencies(const adlwrapper::ADLCalls& calls, int adapterIndex);
// The clocks and the utilisation from one reading of the adapter's current
// status, as a session reads them again.
struct AMDActivity {
    AMDClockFrequencies clocks;
    std::optional<std::uint32_t> utilization; // percent
};
AMDActivity query_Activity(const adlwrapper::ADLCalls& calls, int adapterIndex);
std::optional<std::uint32_t> query_UtilizationGPU(const adlwrapper::ADLCalls& calls, int adapterIndex);
AMDMemoryInfo query_DedicatedMemory(const adlwrapper::ADLCalls& calls, int adapterIndex);
AMDFanSpeed query_FanSpeed(const adlwrapper::ADLCalls& calls, int adapterIndex);

// The power the ASIC draws and its hottest temperatures: from the Overdrive 8
// PM log, the power else from Overdrive 6's current power. Both have an ADL2
// form alone, so without the calls' ADL2 context all are absent.
struct AMDPowerAndHeat {
    std::optional<std::uint32_t> power;   // milliwatts
    std::optional<std::uint64_t> hotspot; // degrees Celsius
    std::optional<std::uint64_t> memory;  // degrees Celsius
};
AMDPowerAndHeat query_PowerAndHeat(const adlwrapper::ADLCalls& calls, int adapterIndex);

} // namespace libKestrel
