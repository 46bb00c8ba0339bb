#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "libKestrel/vendor/nvapi.h"

// The per-property queries of the NVAPI source: each asks NVAPI one question
// about one GPU, logs what it read, and gives an empty optional on any failure.
namespace libKestrel {

// Where NVAPI places the GPU: its bus and slot numbers, as 8-bit PCI numbers.
// As NVAPI reports them, unchecked.
struct NvBusLocation {
    std::uint32_t bus;
    std::uint32_t slot;
};

// Sizes in kilobytes.
struct NvDedicatedMemory {
    std::uint64_t dedicated;
    std::uint64_t available;
};

// Current frequencies in kHz; a domain the GPU does not have is empty.
struct NvClockFrequencies {
    std::optional<std::uint32_t> graphics;
    std::optional<std::uint32_t> memory;
    std::optional<std::uint32_t> shader;
};

struct NvECCMemory {
    bool supported;
    bool enabled;
    std::string configuration; // "Not Supported", "Deferred", "Immediate" or empty
};

std::optional<NvBusLocation> query_PciLocation(nvapi::NvPhysicalGpuHandle handle);
std::optional<std::string> query_ProductName(nvapi::NvPhysicalGpuHandle handle);
// The system's driver version as "major.minor" ("452.6" for 45206).
std::optional<std::string> query_DriverVersion();
std::optional<std::string> query_VBIOSVersionString(nvapi::NvPhysicalGpuHandle handle);
std::optional<NvDedicatedMemory> query_DedicatedMemory(nvapi::NvPhysicalGpuHandle handle);
NvClockFrequencies query_ClockFrequencies(nvapi::NvPhysicalGpuHandle handle);
std::optional<std::string> query_BusType(nvapi::NvPhysicalGpuHandle handle);
std::optional<std::uint32_t> query_CoreCount(nvapi::NvPhysicalGpuHandle handle);
// True when the GPU's logical GPU spans more than one physical GPU.
std::optional<bool> query_ScalableLinkInterface(nvapi::NvPhysicalGpuHandle handle);
std::optional<NvECCMemory> query_ECCMemory(nvapi::NvPhysicalGpuHandle handle);

} // namespace libKestrel
