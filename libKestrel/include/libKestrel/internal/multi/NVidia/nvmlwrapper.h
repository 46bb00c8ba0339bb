#pragma once

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
};

// Process-wide binding state. No lock guards it: one NVML query at a time.
struct NVMLBinding {
    tova::DynamicLibrary library;
    NVMLFunctions functions;
};

NVMLBinding& nvmlBinding();

// Loads NVML (on Windows "%ProgramW6432%\NVIDIA Corporation\NVSMI\nvml.dll", on
// Linux "libnvidia-ml.so.1") and fills the table; a missing export leaves its
// entry null. False, with the binding unchanged, when the module would not load.
bool initializeLibrary();

// Releases the module and clears the table.
void uninitializeLibrary();

// NVML's text for a return code. NVML may give no text (or lack
// nvmlErrorString); the code's number stands in for it then.
std::string describeNvmlError(nvml::nvmlReturn_t code);

// That text as a log value, asked of NVML only when the message is written: a
// failure logged below the threshold (an unsupported reading, at every refresh
// of a session) costs no call and no allocation.
inline auto nvmlErrorText(nvml::nvmlReturn_t code)
{
    return logging::deferred([code] { return describeNvmlError(code); });
}

} // namespace libKestrel
