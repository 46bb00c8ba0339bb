#pragma once

#include <shared_mutex>

#include <string>

#include "libKestrel/vendor/nvapi.h"
#include "tova/DynamicLibrary.h"

// NVAPI's entry points as the library calls them: functions named as NVAPI's,
// forwarded to the driver's module ("nvapi64.dll"; "libnvapi64.so" elsewhere),
// whose entries are resolved by interface id through its nvapi_QueryInterface.
//
// Lifetime, as NVAPI documents it: NvAPI_Initialize counts a reference and
// NvAPI_Unload drops one; the module is loaded by the first successful
// NvAPI_Initialize and released when the count returns to zero. Outside such a
// span every call answers NVAPI_API_NOT_INITIALIZED (the driver's implicit
// initialisation by a first call is not offered: nothing would ever balance it).
// A module that is missing, will not load or lacks nvapi_QueryInterface makes
// NvAPI_Initialize answer NVAPI_LIBRARY_NOT_FOUND; an id the module does not
// answer makes that call answer NVAPI_NO_IMPLEMENTATION. Neither ever crashes.
//
// Like the other vendor bindings the state is process-wide and unguarded:
// initialise and unload from one thread at a time.
namespace libKestrel::nvapi {

NvAPI_Status NvAPI_Initialize();
NvAPI_Status NvAPI_Unload();
NvAPI_Status NvAPI_GetErrorMessage(NvAPI_Status status, NvAPI_ShortString description);
NvAPI_Status NvAPI_EnumPhysicalGPUs(NvPhysicalGpuHandle handles[NVAPI_MAX_PHYSICAL_GPUS], NvU32* count);
NvAPI_Status NvAPI_GPU_GetBusId(NvPhysicalGpuHandle gpu, NvU32* busId);
NvAPI_Status NvAPI_GPU_GetBusSlotId(NvPhysicalGpuHandle gpu, NvU32* slotId);
NvAPI_Status NvAPI_GPU_GetFullName(NvPhysicalGpuHandle gpu, NvAPI_ShortString name);
NvAPI_Status NvAPI_SYS_GetDriverAndBranchVersion(NvU32* driverVersion, NvAPI_ShortString branch);
NvAPI_Status NvAPI_GPU_GetVbiosVersionString(NvPhysicalGpuHandle gpu, NvAPI_ShortString revision);
NvAPI_Status NvAPI_GPU_GetMemoryInfo(NvPhysicalGpuHandle gpu, NV_DISPLAY_DRIVER_MEMORY_INFO* info);
NvAPI_Status NvAPI_GPU_GetAllClockFrequencies(NvPhysicalGpuHandle gpu, NV_GPU_CLOCK_FREQUENCIES* frequencies);
NvAPI_Status NvAPI_GPU_GetBusType(NvPhysicalGpuHandle gpu, NV_GPU_BUS_TYPE* busType);
NvAPI_Status NvAPI_GPU_GetGpuCoreCount(NvPhysicalGpuHandle gpu, NvU32* count);
NvAPI_Status NvAPI_GetLogicalGPUFromPhysicalGPU(NvPhysicalGpuHandle gpu, NvLogicalGpuHandle* logical);
NvAPI_Status NvAPI_GetPhysicalGPUsFromLogicalGPU(NvLogicalGpuHandle logical,
                                                 NvPhysicalGpuHandle handles[NVAPI_MAX_PHYSICAL_GPUS], NvU32* count);
NvAPI_Status NvAPI_GPU_GetECCStatusInfo(NvPhysicalGpuHandle gpu, NV_GPU_ECC_STATUS_INFO* info);
NvAPI_Status NvAPI_GPU_GetThermalSettings(NvPhysicalGpuHandle gpu, NvU32 sensorIndex,
                                          NV_GPU_THERMAL_SETTINGS* settings);
NvAPI_Status NvAPI_GPU_GetTachReading(NvPhysicalGpuHandle gpu, NvU32* rpm);
NvAPI_Status NvAPI_GPU_GetSystemType(NvPhysicalGpuHandle gpu, NV_SYSTEM_TYPE* systemType);
NvAPI_Status NvAPI_Stereo_IsEnabled(NvU8* enabled);

// An NVAPI short string as text: up to its first NUL, and never past its 64
// bytes, since a driver may fill all of them.
std::string shortStringText(const NvAPI_ShortString text);

} // namespace libKestrel::nvapi

namespace libKestrel {

// The driver's entry points, null until resolved and again once released.
struct NvAPIFunctions {
    nvapi::PFN_NvAPI_Initialize NvAPI_Initialize = nullptr;
    nvapi::PFN_NvAPI_Unload NvAPI_Unload = nullptr;
    nvapi::PFN_NvAPI_GetErrorMessage NvAPI_GetErrorMessage = nullptr;
    nvapi::PFN_NvAPI_EnumPhysicalGPUs NvAPI_EnumPhysicalGPUs = nullptr;
    nvapi::PFN_NvAPI_GPU_GetBusId NvAPI_GPU_GetBusId = nullptr;
    nvapi::PFN_NvAPI_GPU_GetBusSlotId NvAPI_GPU_GetBusSlotId = nullptr;
    nvapi::PFN_NvAPI_GPU_GetFullName NvAPI_GPU_GetFullName = nullptr;
    nvapi::PFN_NvAPI_SYS_GetDriverAndBranchVersion NvAPI_SYS_GetDriverAndBranchVersion = nullptr;
    nvapi::PFN_NvAPI_GPU_GetVbiosVersionString NvAPI_GPU_GetVbiosVersionString = nullptr;
    nvapi::PFN_NvAPI_GPU_GetMemoryInfo NvAPI_GPU_GetMemoryInfo = nullptr;
    nvapi::PFN_NvAPI_GPU_GetAllClockFrequencies NvAPI_GPU_GetAllClockFrequencies = nullptr;
    nvapi::PFN_NvAPI_GPU_GetBusType NvAPI_GPU_GetBusType = nullptr;
    nvapi::PFN_NvAPI_GPU_GetGpuCoreCount NvAPI_GPU_GetGpuCoreCount = nullptr;
    nvapi::PFN_NvAPI_GetLogicalGPUFromPhysicalGPU NvAPI_GetLogicalGPUFromPhysicalGPU = nullptr;
    nvapi::PFN_NvAPI_GetPhysicalGPUsFromLogicalGPU NvAPI_GetPhysicalGPUsFromLogicalGPU = nullptr;
    nvapi::PFN_NvAPI_GPU_GetECCStatusInfo NvAPI_GPU_GetECCStatusInfo = nullptr;
    nvapi::PFN_NvAPI_GPU_GetThermalSettings NvAPI_GPU_GetThermalSettings = nullptr;
    nvapi::PFN_NvAPI_GPU_GetTachReading NvAPI_GPU_GetTachReading = nullptr;
    nvapi::PFN_NvAPI_GPU_GetSystemType NvAPI_GPU_GetSystemType = nullptr;
    nvapi::PFN_NvAPI_Stereo_IsEnabled NvAPI_Stereo_IsEnabled = nullptr;
};

// Process-wide binding state: the module, the count of NvAPI_Initialize calls not
// yet balanced by NvAPI_Unload, and the resolved entries. NVIDIAGPU values are
// copied and destroyed on any thread, each changing the count: initialise and
// unload hold the mutex alone, and every other call shares it while it runs, so
// no call runs into a module being released.
struct NvAPIBinding {
    std::shared_mutex mutex;
    tova::DynamicLibrary library;
    unsigned int references = 0;
    NvAPIFunctions functions;
};

NvAPIBinding& nvapiBinding();

} // namespace libKestrel
