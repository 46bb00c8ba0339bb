#pragma once

// The machine as the simulated ADL sees it: the "gpus" of the scenario that have
// an "adl" section, turned into ADL's adapter list and the ready-made structures
// each entry point hands out (see README.md for the keys).
#include <cstddef>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "libKestrel/vendor/adl.h"

namespace sim::adl {

namespace vendor = libKestrel::adl;

// One CrossFire combination and what ADL_Adapter_Crossfire_Get says about it.
struct Combination {
    vendor::ADLCrossfireComb links{};
    vendor::ADLCrossfireInfo info{};
};

struct Crossfire {
    int preferred = 0;
    std::vector<Combination> combinations;
};

// Adapter_ASICFamilyType_Get: the family bits and which of them are valid.
struct AsicFamily {
    int types = 0;
    int valids = 0;
};

// Overdrive_Caps; version 5, 6, 7 (OverdriveN) or 8.
struct OverdriveCaps {
    int supported = 0;
    int enabled = 0;
    int version = 0;
};

// Overdrive 8: the initial settings and current values, as long as the scenario
// makes them (the X2 calls hand out every entry, the fixed records at most
// OD8_COUNT), and the PM log's sensors.
struct Overdrive8 {
    int capabilities = 0;
    std::vector<vendor::ADLOD8SingleInitSetting> settings;
    std::vector<int> current;
    vendor::ADLPMLogDataOutput pmLog{};
};

// What one GPU reports; an absent feature is one the GPU does not support.
struct Gpu {
    std::optional<vendor::ADLBiosInfo> bios;
    std::optional<int> temperature; // Overdrive 5, millidegrees Celsius
    std::optional<vendor::ADLOD6CurrentStatus> currentStatus;
    std::optional<vendor::ADLOD6FanSpeedInfo> fanSpeed;
    std::optional<vendor::ADLMemoryInfo> memory;
    std::optional<Crossfire> crossfire;
    std::optional<vendor::ADLPMActivity> activity;                                // Overdrive 5
    std::optional<std::vector<vendor::ADLThermalControllerInfo>> thermalControllers; // Overdrive 5
    std::optional<int> overdrive6Temperature;                                      // millidegrees Celsius
    std::optional<int> overdriveNTemperature;                                      // millidegrees Celsius
    std::optional<int> overdrive6Power; // the ASIC's total power, watts with 8 fractional bits
    std::optional<vendor::ADLAdapterODClockInfo> odClock;                          // 10 kHz
    std::optional<Overdrive8> overdrive8;
    int adapterId = 0;
};

struct Adapter {
    vendor::AdapterInfo info{};
    std::size_t gpu = 0; // index into Machine::gpus
    // Per adapter, as ADL answers them; the GPU's unless the adapter sets its own.
    std::optional<AsicFamily> asic;
    std::optional<OverdriveCaps> overdrive;
    int displays = 0; // Display_NumberOfDisplays_Get
    bool connected = true; // listed to a client that asked for connected adapters only
};

struct Machine {
    std::vector<Gpu> gpus;
    std::vector<Adapter> adapters; // in ADL's order

    // The adapter with this ADL index, or null.
    const Adapter* find(int adapterIndex) const;
};

// Never throws: keys of the wrong type fall back to their defaults.
Machine readMachine(const nlohmann::json& scenario);

// Fills every string of the structure to its last byte, leaving no terminating
// zero, the way a faulty driver might.
void unterminate(vendor::AdapterInfo& info);
void unterminate(vendor::ADLBiosInfo& bios);
void unterminate(vendor::ADLMemoryInfo& memory);
template <class WithoutStrings>
void unterminate(WithoutStrings&)
{
}

} // namespace sim::adl
