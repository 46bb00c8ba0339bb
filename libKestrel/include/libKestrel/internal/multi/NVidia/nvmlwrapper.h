#pragma once

#include <mutex>
#include <string>

#include "libKestrel/internal/Logging.h"
#include "libKestrel/vendor/nvml.h"
#include "tova/DynamicLibrary.h"

namespace libKestrel {

// The NVML entry points the NVML source calls, null until resolved and null
// again after release. nvmlSystemGetDriverVersion and nvmlDeviceGetMemoryInfo
// are looked up but not kept.
struct NVMLFunctions {
    nvml::PFN_nvmlInit_v2 nvmlInit_v2 = nullptr;
    nvml::PFN_nvmlShutdown nvmlShutdown = nullptr;
    nvml::PFN_nvmlDeviceGetCount_v2 nvmlDeviceGetCount_v2 = nullptr;
    nvml::PFN_nvmlDeviceGetHandleByIndex nvmlDeviceGetHandleByIndex = nullptr;
    nvml::PFN_nvmlDeviceGetTemperature nvmlDeviceGetTemperature = nullptr;
    nvml::PFN_nvmlDeviceGetTemperatureThreshold nvmlDeviceGetTemperatureThreshold = nullptr;
    nvml::PFN_nvmlDeviceGetPciInfo_v2 nvmlDeviceGetPciInfo_v2 = nullptr;
    nvml::PFN_nvmlDeviceGetDetailedEccErrors nvmlDeviceGetDetailedEccErrors = nullptr;
    nvml::PFN_nvmlDeviceGetName nvmlDeviceGetName = nullptr;
    nvml::PFN_nvmlDeviceGetUUID nvmlDeviceGetUUID = nullptr;
    nvml::PFN_nvmlDeviceGetUtilizationRates nvmlDeviceGetUtilizationRates = nullptr;
    nvml::PFN_nvmlDeviceGetVbiosVersion nvmlDeviceGetVbiosVersion = nullptr;
    nvml::PFN_nvmlDeviceGetFanSpeed nvmlDeviceGetFanSpeed = nullptr;
    nvml::PFN_nvmlErrorString nvmlErrorString = nullptr;
    nvml::PFN_nvmlDeviceGetPowerUsage nvmlDeviceGetPowerUsage = nullptr;
    nvml::PFN_nvmlDeviceGetEnforcedPowerLimit nvmlDeviceGetEnforcedPowerLimit = nullptr;
    nvml::PFN_nvmlDeviceGetTotalEnergyConsumption nvmlDeviceGetTotalEnergyConsumption = nullptr;
    nvml::PFN_nvmlDeviceGetCurrPcieLinkGeneration nvmlDeviceGetCurrPcieLinkGeneration = nullptr;
    nvml::PFN_nvmlDeviceGetCurrPcieLinkWidth nvmlDeviceGetCurrPcieLinkWidth = nullptr;
    nvml::PFN_nvmlDeviceGetMaxPcieLinkGeneration nvmlDeviceGetMaxPcieLinkGeneration = nullptr;
    nvml::PFN_nvmlDeviceGetMaxPcieLinkWidth nvmlDeviceGetMaxPcieLinkWidth = nullptr;
    nvml::PFN_nvmlDeviceGetPerformanceState nvmlDeviceGetPerformanceState = nullptr;
    nvml::PFN_nvmlDeviceGetCurrentClocksEventReasons nvmlDeviceGetCurrentClocksEventReasons = nullptr;
    nvml::PFN_nvmlDeviceGetCurrentClocksThrottleReasons nvmlDeviceGetCurrentClocksThrottleReasons = nullptr;
    nvml::PFN_nvmlDeviceGetFieldValues nvmlDeviceGetFieldValues = nullptr;
};

// Process-wide binding state. Loads are counted, as NVML counts its own
// initialisations: the first initializeLibrary loads the module and fills the
// table, the uninitializeLibrary that balances the last one unloads it and
// clears the table. In between neither changes, so every holder of a load may
// call through the table from any thread; 'mutex' guards the count and the two
// changes.
struct NVMLBinding {
    std::mutex mutex;
    unsigned int loads = 0;
    tova::DynamicLibrary library;
    NVMLFunctions functions;
};

NVMLBinding& nvmlBinding();

// Loads NVML (on Windows "%ProgramW6432%\NVIDIA Corporation\NVSMI\nvml.dll", on
// Linux "libnvidia-ml.so.1") and fills the table, or counts one more load of the
// module already loaded; a missing export leaves its entry null. False, with
// the binding unchanged, when the module would not load.
bool initializeLibrary();

// Balances one successful initializeLibrary; the last one releases the module
// and clears the table.
void uninitializeLibrary();

// NVML's text for a return code, through 'functions' (nvmlErrorString). NVML
// may give no text (or lack nvmlErrorString); the code's number stands in for
// it then.
std::string describeNvmlError(const NVMLFunctions& functions, nvml::nvmlReturn_t code);

// That text as a log value, asked of NVML only when the message is written: a
// failure logged below the threshold (an unsupported reading, at every refresh
// of a session) costs no call and no allocation.
inline auto nvmlErrorText(const NVMLFunctions& functions, nvml::nvmlReturn_t code)
{
    return logging::deferred([&functions, code] { return describeNvmlError(functions, code); });
}

} // namespace libKestrel
