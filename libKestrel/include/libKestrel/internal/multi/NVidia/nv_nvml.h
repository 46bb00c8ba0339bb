#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"
#include "libKestrel/vendor/nvml.h"

namespace libKestrel {

// Per-property NVML queries. Each reads one thing about a device through the
// NVML entries it is given (the binding's, while a query holds it loaded, or a
// session's own copy) and gives it back as optional values: all present when
// NVML answered, all absent when the entry point is missing or the call failed.

// The device's PCI bus and device numbers, each cut to the 8 bits a location holds,
// and its domain, 32 bits whole. As NVML reports them, unchecked.
struct NvmlBusAndDevice {
    std::optional<unsigned int> bus;
    std::optional<unsigned int> device;
    std::optional<unsigned int> domain;
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

NvmlBusAndDevice query_PciLocation(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
std::optional<std::string> query_ProductName(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
std::optional<std::string> query_UUID(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
std::optional<std::string> query_VBIOSVersionString(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
// Degrees Celsius: the GPU's current temperature, and the thresholds at which
// it slows down and at which it shuts down.
std::optional<std::uint32_t> query_TemperatureCurrent(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
std::optional<std::uint32_t> query_TemperatureSlowdown(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
std::optional<std::uint32_t> query_TemperatureShutdown(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
NvmlUtilization query_GPUAndMemoryUtilization(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
// errorType: NVML_MEMORY_ERROR_TYPE_*; counterType: NVML_VOLATILE_ECC or NVML_AGGREGATE_ECC.
NvmlEccCounts query_ECCMemoryErrors(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device,
                                    unsigned int errorType, unsigned int counterType);
std::optional<std::uint32_t> query_FanSpeedPercent(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);

// The PCIe link: its generation and its width in lanes.
struct NvmlPcieLink {
    std::optional<std::uint32_t> generation;
    std::optional<std::uint32_t> width;
};

// Milliwatts: what the board draws, and the limit the driver enforces.
std::optional<std::uint32_t> query_PowerDraw(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
std::optional<std::uint32_t> query_PowerLimit(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
// Millijoules since the driver was loaded.
std::optional<std::uint64_t> query_EnergyConsumed(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
// Degrees Celsius, NVML's memory-temperature field.
std::optional<std::uint64_t> query_TemperatureMemory(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
// The link as it runs, and the most the GPU and its slot allow.
NvmlPcieLink query_PcieLinkCurrent(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
NvmlPcieLink query_PcieLinkMax(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
// 0 (P0) to 15; absent when NVML cannot tell.
std::optional<std::uint32_t> query_PerformanceState(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);
// libKestrel/ClockEventReasons.h's bits, through the newer entry or, in drivers
// that predate it, the older one.
std::optional<std::uint64_t> query_ClockEventReasons(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);

} // namespace libKestrel
