#pragma once

#include <cstdint>

namespace libKestrel {

// Why a GPU's clocks are where they are: the bits of IGPU::clockEventReasons.
// Several may hold at once; none (0) means that nothing holds the clocks back.
// The bits are those NVIDIA's driver reports, the one driver that says.
namespace clockEventReason {
constexpr std::uint64_t gpuIdle = 0x1;                    // nothing runs: the clocks go down
constexpr std::uint64_t applicationsClocksSetting = 0x2;  // clocks set for applications
constexpr std::uint64_t softwarePowerCap = 0x4;           // kept within the power limit
constexpr std::uint64_t hardwareSlowdown = 0x8;           // halved or more: heat, power brake or power draw
constexpr std::uint64_t syncBoost = 0x10;                 // held to the slowest GPU of a sync boost group
constexpr std::uint64_t softwareThermalSlowdown = 0x20;   // kept below the GPU's or memory's highest temperature
constexpr std::uint64_t hardwareThermalSlowdown = 0x40;   // halved or more: too hot
constexpr std::uint64_t hardwarePowerBrakeSlowdown = 0x80; // halved or more: the power supply asks
constexpr std::uint64_t displayClockSetting = 0x100;      // held by the display clock
} // namespace clockEventReason

// Each reason's bit, its name as a label value (lower case, underscores) and as
// a reader takes it in.
struct ClockEventReason {
    std::uint64_t bit;
    const char* name;
    const char* text;
};

inline constexpr ClockEventReason clockEventReasons[] = {
    {clockEventReason::gpuIdle, "gpu_idle", "GPU idle"},
    {clockEventReason::applicationsClocksSetting, "applications_clocks_setting", "applications clocks setting"},
    {clockEventReason::softwarePowerCap, "sw_power_cap", "software power cap"},
    {clockEventReason::hardwareSlowdown, "hw_slowdown", "hardware slowdown"},
    {clockEventReason::syncBoost, "sync_boost", "sync boost"},
    {clockEventReason::softwareThermalSlowdown, "sw_thermal_slowdown", "software thermal slowdown"},
    {clockEventReason::hardwareThermalSlowdown, "hw_thermal_slowdown", "hardware thermal slowdown"},
    {clockEventReason::hardwarePowerBrakeSlowdown, "hw_power_brake_slowdown", "hardware power brake slowdown"},
    {clockEventReason::displayClockSetting, "display_clock_setting", "display clock setting"},
};

} // namespace libKestrel
