#pragma once

#include <cstdint>
#include <optional>
#include <string>

// The per-property queries of the AMD record source, each about one ADL adapter
// index, through the table of the ADL binding (which must be loaded and started).
// Every failure is logged and leaves the result, or its part, empty.
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

std::optional<std::string> query_VBIOSVersionString(int adapterIndex);
// Whole degrees Celsius, truncated toward zero.
std::optional<std::uint64_t> query_TemperatureCurrent(int adapterIndex);
// Whether the adapter's preferred CrossFire combination is supported.
std::optional<bool> query_Crossfire(int adapterIndex);
AMDClockFrequencies query_ClockFrequencies(int adapterIndex);
// The clocks and the utilisation from one reading of the adapter's current
// status, as a session reads them again.
struct AMDActivity {
    AMDClockFrequencies clocks;
    std::optional<std::uint32_t> utilization; // percent
};
AMDActivity query_Activity(int adapterIndex);
std::optional<std::uint32_t> query_UtilizationGPU(int adapterIndex);
AMDMemoryInfo query_DedicatedMemory(int adapterIndex);
AMDFanSpeed query_FanSpeed(int adapterIndex);

} // namespace libKestrel
