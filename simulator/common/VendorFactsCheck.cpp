// Each vendor declaration the library and the simulated modules share, held
// against the vendor facts declared independently in VendorFacts.h: a wrong id,
// size, offset or value in the library's vendor headers stops the build here
// instead of passing unseen on both sides.
#include <cstddef>

#include "common/VendorFacts.h"
#include "libKestrel/ClockEventReasons.h"
#include "libKestrel/vendor/adl.h"
#include "libKestrel/vendor/cuda.h"
#include "libKestrel/vendor/glfw.h"
#include "libKestrel/vendor/nvapi.h"
#include "libKestrel/vendor/nvml.h"

namespace {

namespace facts = sim::facts;
namespace nv = libKestrel::nvapi;
namespace id = libKestrel::nvapi::interface_id;

static_assert(id::NvAPI_Initialize == facts::nvapi::Initialize);
static_assert(id::NvAPI_Unload == facts::nvapi::Unload);
static_assert(id::NvAPI_GetErrorMessage == facts::nvapi::GetErrorMessage);
static_assert(id::NvAPI_EnumPhysicalGPUs == facts::nvapi::EnumPhysicalGPUs);
static_assert(id::NvAPI_GPU_GetBusId == facts::nvapi::GetBusId);
static_assert(id::NvAPI_GPU_GetBusSlotId == facts::nvapi::GetBusSlotId);
static_assert(id::NvAPI_GPU_GetFullName == facts::nvapi::GetFullName);
static_assert(id::NvAPI_SYS_GetDriverAndBranchVersion == facts::nvapi::GetDriverAndBranchVersion);
static_assert(id::NvAPI_GPU_GetVbiosVersionString == facts::nvapi::GetVbiosVersionString);
static_assert(id::NvAPI_GPU_GetMemoryInfo == facts::nvapi::GetMemoryInfo);
static_assert(id::NvAPI_GPU_GetAllClockFrequencies == facts::nvapi::GetAllClockFrequencies);
static_assert(id::NvAPI_GPU_GetBusType == facts::nvapi::GetBusType);
static_assert(id::NvAPI_GPU_GetGpuCoreCount == facts::nvapi::GetGpuCoreCount);
static_assert(id::NvAPI_GetLogicalGPUFromPhysicalGPU == facts::nvapi::GetLogicalGPUFromPhysicalGPU);
static_assert(id::NvAPI_GetPhysicalGPUsFromLogicalGPU == facts::nvapi::GetPhysicalGPUsFromLogicalGPU);
static_assert(id::NvAPI_GPU_GetECCStatusInfo == facts::nvapi::GetECCStatusInfo);
static_assert(id::NvAPI_GPU_GetThermalSettings == facts::nvapi::GetThermalSettings);
static_assert(id::NvAPI_GPU_GetTachReading == facts::nvapi::GetTachReading);
static_assert(id::NvAPI_GPU_GetSystemType == facts::nvapi::GetSystemType);
static_assert(id::NvAPI_Stereo_IsEnabled == facts::nvapi::StereoIsEnabled);
static_assert(nv::NV_DISPLAY_DRIVER_MEMORY_INFO_VER_3 == facts::nvapi::memoryInfoVersion3);
static_assert(nv::NV_GPU_CLOCK_FREQUENCIES_VER_3 == facts::nvapi::clockFrequenciesVersion3);
static_assert(nv::NV_GPU_ECC_STATUS_INFO_VER_1 == facts::nvapi::eccStatusVersion1);
static_assert(nv::NV_GPU_THERMAL_SETTINGS_VER_1 == facts::nvapi::thermalSettingsVersion1);
static_assert(nv::NV_GPU_THERMAL_SETTINGS_VER_2 == facts::nvapi::thermalSettingsVersion2);
static_assert(nv::NVAPI_SHORT_STRING_MAX == facts::nvapi::shortString);
static_assert(offsetof(nv::NV_GPU_CLOCK_FREQUENCIES_V2, domain) + offsetof(nv::NV_GPU_CLOCK_DOMAIN, frequency) +
                  nv::NVAPI_GPU_PUBLIC_CLOCK_GRAPHICS * sizeof(nv::NV_GPU_CLOCK_DOMAIN) ==
              facts::nvapi::graphicsClockOffset);
static_assert(offsetof(nv::NV_GPU_CLOCK_FREQUENCIES_V2, domain) + offsetof(nv::NV_GPU_CLOCK_DOMAIN, frequency) +
                  nv::NVAPI_GPU_PUBLIC_CLOCK_MEMORY * sizeof(nv::NV_GPU_CLOCK_DOMAIN) ==
              facts::nvapi::memoryClockOffset);
static_assert(offsetof(nv::NV_GPU_THERMAL_SETTINGS, sensor) + offsetof(nv::NV_GPU_THERMAL_SENSOR<nv::NvS32>, currentTemp) ==
              facts::nvapi::firstSensorTemperatureOffset);

namespace nvml = libKestrel::nvml;
static_assert(nvml::NVML_TEMPERATURE_GPU == facts::nvml::temperatureGpu);
static_assert(nvml::NVML_TEMPERATURE_THRESHOLD_SHUTDOWN == facts::nvml::thresholdShutdown);
static_assert(nvml::NVML_TEMPERATURE_THRESHOLD_SLOWDOWN == facts::nvml::thresholdSlowdown);
static_assert(sizeof(nvml::nvmlPciInfo_t) == facts::nvml::pciInfoSize);
static_assert(sizeof(nvml::nvmlMemory_t) == facts::nvml::memorySize);
static_assert(sizeof(nvml::nvmlUtilization_t) == facts::nvml::utilizationSize);
static_assert(nvml::NVML_DEVICE_NAME_BUFFER_SIZE == facts::nvml::nameBuffer);
static_assert(nvml::NVML_PSTATE_15 == facts::nvml::pstate15);
static_assert(nvml::NVML_PSTATE_UNKNOWN == facts::nvml::pstateUnknown);
static_assert(nvml::NVML_FI_DEV_MEMORY_TEMP == facts::nvml::fieldMemoryTemperature);
static_assert(nvml::NVML_VALUE_TYPE_DOUBLE == facts::nvml::valueTypeDouble);
static_assert(nvml::NVML_VALUE_TYPE_UNSIGNED_INT == facts::nvml::valueTypeUnsignedInt);
static_assert(nvml::NVML_VALUE_TYPE_UNSIGNED_LONG == facts::nvml::valueTypeUnsignedLong);
static_assert(nvml::NVML_VALUE_TYPE_UNSIGNED_LONG_LONG == facts::nvml::valueTypeUnsignedLongLong);
static_assert(nvml::NVML_VALUE_TYPE_SIGNED_LONG_LONG == facts::nvml::valueTypeSignedLongLong);
static_assert(nvml::NVML_VALUE_TYPE_SIGNED_INT == facts::nvml::valueTypeSignedInt);
static_assert(nvml::NVML_VALUE_TYPE_UNSIGNED_SHORT == facts::nvml::valueTypeUnsignedShort);
static_assert(sizeof(nvml::nvmlFieldValue_t) == facts::nvml::fieldValueSize);
static_assert(offsetof(nvml::nvmlFieldValue_t, valueType) == facts::nvml::fieldValueTypeOffset);
static_assert(offsetof(nvml::nvmlFieldValue_t, value) == facts::nvml::fieldValueValueOffset);
// NVML's reason bits, which are also the record's (libKestrel/ClockEventReasons.h).
namespace reason = libKestrel::clockEventReason;
static_assert(nvml::nvmlClocksEventReasonGpuIdle == facts::nvml::reasonGpuIdle &&
              reason::gpuIdle == facts::nvml::reasonGpuIdle);
static_assert(nvml::nvmlClocksEventReasonApplicationsClocksSetting == facts::nvml::reasonApplicationsClocksSetting &&
              reason::applicationsClocksSetting == facts::nvml::reasonApplicationsClocksSetting);
static_assert(nvml::nvmlClocksEventReasonSwPowerCap == facts::nvml::reasonSwPowerCap &&
              reason::softwarePowerCap == facts::nvml::reasonSwPowerCap);
static_assert(nvml::nvmlClocksThrottleReasonHwSlowdown == facts::nvml::reasonHwSlowdown &&
              reason::hardwareSlowdown == facts::nvml::reasonHwSlowdown);
static_assert(nvml::nvmlClocksEventReasonSyncBoost == facts::nvml::reasonSyncBoost &&
              reason::syncBoost == facts::nvml::reasonSyncBoost);
static_assert(nvml::nvmlClocksEventReasonSwThermalSlowdown == facts::nvml::reasonSwThermalSlowdown &&
              reason::softwareThermalSlowdown == facts::nvml::reasonSwThermalSlowdown);
static_assert(nvml::nvmlClocksThrottleReasonHwThermalSlowdown == facts::nvml::reasonHwThermalSlowdown &&
              reason::hardwareThermalSlowdown == facts::nvml::reasonHwThermalSlowdown);
static_assert(nvml::nvmlClocksThrottleReasonHwPowerBrakeSlowdown == facts::nvml::reasonHwPowerBrakeSlowdown &&
              reason::hardwarePowerBrakeSlowdown == facts::nvml::reasonHwPowerBrakeSlowdown);
static_assert(nvml::nvmlClocksEventReasonDisplayClockSetting == facts::nvml::reasonDisplayClockSetting &&
              reason::displayClockSetting == facts::nvml::reasonDisplayClockSetting);

namespace cuda = libKestrel::cuda;
static_assert(cuda::CU_DEVICE_ATTRIBUTE_CLOCK_RATE == facts::cuda::clockRate);
static_assert(cuda::CU_DEVICE_ATTRIBUTE_PCI_BUS_ID == facts::cuda::pciBusId);
static_assert(cuda::CU_DEVICE_ATTRIBUTE_PCI_DEVICE_ID == facts::cuda::pciDeviceId);
static_assert(cuda::CU_DEVICE_ATTRIBUTE_MEMORY_CLOCK_RATE == facts::cuda::memoryClockRate);
static_assert(cuda::CU_DEVICE_ATTRIBUTE_GLOBAL_MEMORY_BUS_WIDTH == facts::cuda::memoryBusWidth);
static_assert(cuda::CU_DEVICE_ATTRIBUTE_PCI_DOMAIN_ID == facts::cuda::pciDomainId);
static_assert(cuda::CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MAJOR == facts::cuda::computeCapabilityMajor);
static_assert(cuda::CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MINOR == facts::cuda::computeCapabilityMinor);

namespace adl = libKestrel::adl;
static_assert(sizeof(adl::AdapterInfo) == facts::adl::adapterInfoSize);
static_assert(sizeof(adl::ADLBiosInfo) == facts::adl::biosInfoSize);
static_assert(sizeof(adl::ADLTemperature) == facts::adl::temperatureSize);
static_assert(sizeof(adl::ADLCrossfireComb) == facts::adl::crossfireCombSize);
static_assert(sizeof(adl::ADLCrossfireInfo) == facts::adl::crossfireInfoSize);
static_assert(sizeof(adl::ADLOD6CurrentStatus) == facts::adl::od6CurrentStatusSize);
static_assert(sizeof(adl::ADLMemoryInfo) == facts::adl::memoryInfoSize);
static_assert(sizeof(adl::ADLOD6FanSpeedInfo) == facts::adl::od6FanSpeedInfoSize);
static_assert(sizeof(adl::ADLAdapterODClockInfo) == facts::adl::odClockInfoSize);
static_assert(sizeof(adl::ADLPMActivity) == facts::adl::pmActivitySize);
static_assert(sizeof(adl::ADLPMLogDataOutput) == facts::adl::pmLogDataOutputSize);
static_assert(adl::ADL_OD8_GFXCLK_LIMITS == facts::adl::od8GraphicsClockLimits);
static_assert(adl::ADL_OD8_GFXCLK_CURVE == facts::adl::od8GraphicsClockCurve);
static_assert(adl::ADL_OD8_UCLK_MAX == facts::adl::od8MemoryClockMax);
static_assert(adl::ADL_OD8_POWER_LIMIT == facts::adl::od8PowerLimit);
static_assert(adl::ADL_OD8_TEMPERATURE_FAN == facts::adl::od8TemperatureFan);
static_assert(adl::ADL_OD8_TEMPERATURE_SYSTEM == facts::adl::od8TemperatureSystem);
static_assert(adl::PMLOG_CLK_GFXCLK == facts::adl::pmLogGraphicsClock);
static_assert(adl::PMLOG_CLK_MEMCLK == facts::adl::pmLogMemoryClock);
static_assert(adl::PMLOG_TEMPERATURE_EDGE == facts::adl::pmLogTemperatureEdge);
static_assert(adl::PMLOG_TEMPERATURE_MEM == facts::adl::pmLogTemperatureMemory);
static_assert(adl::PMLOG_ASIC_POWER == facts::adl::pmLogAsicPower);
static_assert(adl::PMLOG_TEMPERATURE_HOTSPOT == facts::adl::pmLogTemperatureHotspot);
static_assert(offsetof(adl::ADLPMLogDataOutput, sensors) == facts::adl::pmLogSensorsOffset);
static_assert(sizeof(adl::ADLSingleSensorData) == facts::adl::pmLogSensorSize);
static_assert(adl::OD6_POWER_TYPE_ASIC_TOTAL == facts::adl::od6PowerTypeAsicTotal);
static_assert(adl::OD6_POWER_FRACTION_BITS == facts::adl::od6PowerFractionBits);

namespace glfw = libKestrel::glfw;
static_assert(glfw::GLFW_VISIBLE == facts::glfw::visible);
static_assert(glfw::GLFW_CONTEXT_VERSION_MAJOR == facts::glfw::contextVersionMajor);
static_assert(glfw::GLFW_CONTEXT_VERSION_MINOR == facts::glfw::contextVersionMinor);

} // namespace
