#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "libKestrel/vendor/nvml.h"

namespace libKestrel {

// Per-property NVML queries. Each reads one thing about a device through the
// NVML binding and gives it back as optional values: all present when NVML
// answered, all absent when the entry point is missing or the call failed.

// The device's PCI bus and device numbers, each cut to the 8 bits a location holds.
// As NVML reports them, unchecked.
struct NvmlBusAndDevice {
    std::optional<unsigned int> bus;
    std::optional<unsigned int> device;
};

struct NvmlUtilization {
    std::optional<std::uint32_t> gpu;    // percent
    std::optional<std::uint32_t> memory; // percent
};

// ECC error counts of one (error type, counter type) pair, per memory location.
struct NvmlEccCounts {
    std::optional<std::uint64_t> deviceMemory;
    std::optional<std::uint64_t> l1Cache;
    std::optional<std::uint64_t> l2Cache;
    std::optional<std::uint64_t> registerFile;
};

NvmlBusAndDevice query_PciLocation(nvml::nvmlDevice_t const& device);
std::optional<std::string> query_ProductName(nvml::nvmlDevice_t const& device);
std::optional<std::string> query_UUID(nvml::nvmlDevice_t const& device);
std::optional<std::string> query_VBIOSVersionString(nvml::nvmlDevice_t const& device);
// Degrees Celsius: the GPU's current temperature, and the thresholds at which
// it slows down and at which it shuts down.
std::optional<std::uint32_t> query_TemperatureCurrent(nvml::nvmlDevice_t const& device);
std::optional<std::uint32_t> query_TemperatureSlowdown(nvml::nvmlDevice_t const& device);
std::optional<std::uint32_t> query_TemperatureShutdown(nvml::nvmlDevice_t const& device);
NvmlUtilization query_GPUAndMemoryUtilization(nvml::nvmlDevice_t const& device);
// errorType: NVML_MEMORY_ERROR_TYPE_*; counterType: NVML_VOLATILE_ECC or NVML_AGGREGATE_ECC.
NvmlEccCounts query_ECCMemoryErrors(nvml::nvmlDevice_t const& device, unsigned int errorType, unsigned int counterType);
std::optional<std::uint32_t> query_FanSpeedPercent(nvml::nvmlDevice_t const& device);

} // namespace libKestrel
