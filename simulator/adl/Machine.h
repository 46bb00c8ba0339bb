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

// What one GPU reports; an absent feature is one the GPU does not support.
struct Gpu {
    std::optional<vendor::ADLBiosInfo> bios;
    std::optional<int> temperature; // Overdrive 5, millidegrees Celsius
    std::optional<vendor::ADLOD6CurrentStatus> currentStatus;
    std::optional<vendor::ADLOD6FanSpeedInfo> fanSpeed;
    std::optional<vendor::ADLMemoryInfo> memory;
    std::optional<Crossfire> crossfire;
};

struct Adapter {
    vendor::AdapterInfo info{};
    std::size_t gpu = 0; // index into Machine::gpus
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
