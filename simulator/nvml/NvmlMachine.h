#pragma once

// The machine as the simulated NVML sees it: the scenario's GPUs that have an
// "nvml" section, in order, and NVML's texts for its return codes.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "libKestrel/vendor/nvml.h"

// A device; its address is the handle NVML gives out.
struct libKestrel::nvml::nvmlDevice_st {
    std::int64_t index = 0; // in NVML's enumeration, for the faults' "device" selector
    std::string name;
    std::string uuid;
    std::string vbios;
    nvmlPciInfo_t pci{};
    // Readings and thresholds in degrees Celsius, rates in percent; an absent one
    // is a feature the device does not have (NVML_ERROR_NOT_SUPPORTED).
    std::optional<unsigned int> temperature;
    std::optional<unsigned int> slowdownTemperature;
    std::optional<unsigned int> shutdownTemperature;
    std::optional<unsigned int> fanSpeed;
    std::optional<nvmlUtilization_t> utilization;
    std::optional<nvmlMemory_t> memory;
    // Per [error type][counter type]; absent where ECC counts are not kept.
    std::optional<nvmlEccErrorCounts_t> ecc[NVML_MEMORY_ERROR_TYPE_COUNT][NVML_ECC_COUNTER_TYPE_COUNT];
    // Milliwatts, millijoules, degrees Celsius; the link's generation and lanes,
    // now and at most; the performance state as NVML numbers it; the mask of
    // clocks event reasons.
    std::optional<unsigned int> powerUsage;
    std::optional<unsigned int> powerLimit;
    std::optional<unsigned long long> energy;
    std::optional<nvmlFieldValue_t> memoryTemperature; // fieldId NVML_FI_DEV_MEMORY_TEMP, as NVML fills it
    std::optional<unsigned int> linkGeneration;
    std::optional<unsigned int> linkWidth;
    std::optional<unsigned int> linkGenerationMax;
    std::optional<unsigned int> linkWidthMax;
    std::optional<nvmlPstates_t> performanceState;
    std::optional<unsigned long long> clocksEventReasons;
};

namespace simnvml {

struct Machine {
    std::string driverVersion;
    std::vector<std::unique_ptr<libKestrel::nvml::nvmlDevice_st>> devices;
};

Machine readMachine(const nlohmann::json& scenario);

// NVML's text for a return code; "Unknown Error" for a code it does not know.
const char* errorString(libKestrel::nvml::nvmlReturn_t code);

} // namespace simnvml
