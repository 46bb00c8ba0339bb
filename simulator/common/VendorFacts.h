#pragma once
// The vendor facts that matter most, declared here on their own from the vendors'
// published interfaces, not taken from the library's vendor headers: the
// simulated modules must not share a wrong constant with the library, so
// VendorFactsCheck.cpp holds each library declaration against these.
#include <cstddef>
#include <cstdint>

namespace sim::facts {

// NVAPI: nvapi_QueryInterface ids, and version words (size | revision << 16).
namespace nvapi {
constexpr std::uint32_t Initialize = 0x0150E828;
constexpr std::uint32_t Unload = 0xD22BDD7E;
constexpr std::uint32_t GetErrorMessage = 0x6C2D048C;
constexpr std::uint32_t EnumPhysicalGPUs = 0xE5AC921F;
constexpr std::uint32_t GetBusId = 0x1BE0B8E5;
constexpr std::uint32_t GetBusSlotId = 0x2A0A350F;
constexpr std::uint32_t GetFullName = 0xCEEE8E9F;
constexpr std::uint32_t GetDriverAndBranchVersion = 0x2926AAAD;
constexpr std::uint32_t GetVbiosVersionString = 0xA561FD7D;
constexpr std::uint32_t GetMemoryInfo = 0x07F9B368;
constexpr std::uint32_t GetAllClockFrequencies = 0xDCB616C3;
constexpr std::uint32_t GetBusType = 0x1BB18724;
constexpr std::uint32_t GetGpuCoreCount = 0xC7026A87;
constexpr std::uint32_t GetLogicalGPUFromPhysicalGPU = 0xADD604D1;
constexpr std::uint32_t GetPhysicalGPUsFromLogicalGPU = 0xAEA3FA32;
constexpr std::uint32_t GetECCStatusInfo = 0xCA1DDAF3;
constexpr std::uint32_t GetThermalSettings = 0xE3640A56;
constexpr std::uint32_t GetTachReading = 0x5F608315;
constexpr std::uint32_t GetSystemType = 0xBAAABFCC;
constexpr std::uint32_t StereoIsEnabled = 0x348FF8E1;

constexpr std::uint32_t memoryInfoVersion3 = 0x30020;
constexpr std::uint32_t clockFrequenciesVersion3 = 0x30108;
constexpr std::uint32_t eccStatusVersion1 = 0x10010;
constexpr std::uint32_t thermalSettingsVersion1 = 0x10044;
constexpr std::uint32_t thermalSettingsVersion2 = 0x20044;
constexpr std::size_t shortString = 64;
constexpr std::size_t graphicsClockOffset = 12; // domain[0].frequency
constexpr std::size_t memoryClockOffset = 44;   // domain[4].frequency
constexpr std::size_t firstSensorTemperatureOffset = 20;
} // namespace nvapi

// NVML.
namespace nvml {
constexpr int temperatureGpu = 0;
constexpr int thresholdShutdown = 0;
constexpr int thresholdSlowdown = 1;
constexpr std::size_t pciInfoSize = 68;
constexpr std::size_t memorySize = 24;
constexpr std::size_t utilizationSize = 8;
constexpr std::size_t nameBuffer = 64;
// Performance states P0 to P15, and the one NVML cannot tell.
constexpr int pstate15 = 15;
constexpr int pstateUnknown = 32;
// nvmlDeviceGetFieldValues: the memory temperature's field id, the value types,
// and nvmlFieldValue_t's layout (fieldId, scopeId, two 64-bit times, valueType,
// nvmlReturn, an 8-byte union of the value).
constexpr unsigned int fieldMemoryTemperature = 82;
constexpr int valueTypeDouble = 0;
constexpr int valueTypeUnsignedInt = 1;
constexpr int valueTypeUnsignedLong = 2;
constexpr int valueTypeUnsignedLongLong = 3;
constexpr int valueTypeSignedLongLong = 4;
constexpr int valueTypeSignedInt = 5;
constexpr int valueTypeUnsignedShort = 6;
constexpr std::size_t fieldValueSize = 40;
constexpr std::size_t fieldValueTypeOffset = 24;
constexpr std::size_t fieldValueValueOffset = 32;
// Clocks event (formerly throttle) reason bits.
constexpr unsigned long long reasonGpuIdle = 0x1;
constexpr unsigned long long reasonApplicationsClocksSetting = 0x2;
constexpr unsigned long long reasonSwPowerCap = 0x4;
constexpr unsigned long long reasonHwSlowdown = 0x8;
constexpr unsigned long long reasonSyncBoost = 0x10;
constexpr unsigned long long reasonSwThermalSlowdown = 0x20;
constexpr unsigned long long reasonHwThermalSlowdown = 0x40;
constexpr unsigned long long reasonHwPowerBrakeSlowdown = 0x80;
constexpr unsigned long long reasonDisplayClockSetting = 0x100;
} // namespace nvml

// CUDA driver device attributes.
namespace cuda {
constexpr int clockRate = 13;
constexpr int pciBusId = 33;
constexpr int pciDeviceId = 34;
constexpr int memoryClockRate = 36;
constexpr int memoryBusWidth = 37;
constexpr int pciDomainId = 50;
constexpr int computeCapabilityMajor = 75;
constexpr int computeCapabilityMinor = 76;
} // namespace cuda

// ADL: structure sizes, Overdrive 8 capability bits and PM-log sensors.
namespace adl {
#if defined(_WIN32)
constexpr std::size_t adapterInfoSize = 1572;
#else
constexpr std::size_t adapterInfoSize = 1060; // with the Linux X screen fields
#endif
constexpr std::size_t biosInfoSize = 768;
constexpr std::size_t temperatureSize = 8;
constexpr std::size_t crossfireCombSize = 16;
constexpr std::size_t crossfireInfoSize = 12;
constexpr std::size_t od6CurrentStatusSize = 36;
constexpr std::size_t memoryInfoSize = 272;
constexpr std::size_t od6FanSpeedInfoSize = 20;
constexpr std::size_t odClockInfoSize = 56;
constexpr std::size_t pmActivitySize = 40;
constexpr std::size_t pmLogDataOutputSize = 2052;
constexpr int od8GraphicsClockLimits = 1 << 0;
constexpr int od8GraphicsClockCurve = 1 << 1;
constexpr int od8MemoryClockMax = 1 << 2;
constexpr int od8PowerLimit = 1 << 3;
constexpr int od8TemperatureFan = 1 << 6;
constexpr int od8TemperatureSystem = 1 << 7;
constexpr int pmLogGraphicsClock = 1;
constexpr int pmLogMemoryClock = 2;
constexpr int pmLogTemperatureEdge = 8;
constexpr int pmLogTemperatureMemory = 9;
constexpr int pmLogAsicPower = 23;         // whole watts
constexpr int pmLogTemperatureHotspot = 27;
constexpr std::size_t pmLogSensorsOffset = 4; // after the size field, 8 bytes a sensor {supported, value}
constexpr std::size_t pmLogSensorSize = 8;
// ADL2_Overdrive6_CurrentPower_Get: power type 0 is the ASIC's total, in watts
// with 8 fractional bits.
constexpr int od6PowerTypeAsicTotal = 0;
constexpr int od6PowerFractionBits = 8;
} // namespace adl

// GLFW window hints.
namespace glfw {
constexpr int visible = 0x00020004;
constexpr int contextVersionMajor = 0x00022002;
constexpr int contextVersionMinor = 0x00022003;
} // namespace glfw

} // namespace sim::facts
