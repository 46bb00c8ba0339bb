#include "libKestrel/internal/windows/NVidia/nvapiwrapper.h"

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <type_traits>

namespace libKestrel {
namespace {

#if defined(_WIN32)
const char* const nvapiModuleName = "nvapi64.dll";
#else
const char* const nvapiModuleName = "libnvapi64.so";
#endif

// Every entry the library calls, with its interface id.
template <class Visit>
void listEntries(NvAPIFunctions& f, Visit visit)
{
    namespace id = nvapi::interface_id;
    visit(id::NvAPI_Initialize, &f.NvAPI_Initialize);
    visit(id::NvAPI_Unload, &f.NvAPI_Unload);
    visit(id::NvAPI_GetErrorMessage, &f.NvAPI_GetErrorMessage);
    visit(id::NvAPI_EnumPhysicalGPUs, &f.NvAPI_EnumPhysicalGPUs);
    visit(id::NvAPI_GPU_GetBusId, &f.NvAPI_GPU_GetBusId);
    visit(id::NvAPI_GPU_GetBusSlotId, &f.NvAPI_GPU_GetBusSlotId);
    visit(id::NvAPI_GPU_GetFullName, &f.NvAPI_GPU_GetFullName);
    visit(id::NvAPI_SYS_GetDriverAndBranchVersion, &f.NvAPI_SYS_GetDriverAndBranchVersion);
    visit(id::NvAPI_GPU_GetVbiosVersionString, &f.NvAPI_GPU_GetVbiosVersionString);
    visit(id::NvAPI_GPU_GetMemoryInfo, &f.NvAPI_GPU_GetMemoryInfo);
    visit(id::NvAPI_GPU_GetAllClockFrequencies, &f.NvAPI_GPU_GetAllClockFrequencies);
    visit(id::NvAPI_GPU_GetBusType, &f.NvAPI_GPU_GetBusType);
    visit(id::NvAPI_GPU_GetGpuCoreCount, &f.NvAPI_GPU_GetGpuCoreCount);
    visit(id::NvAPI_GetLogicalGPUFromPhysicalGPU, &f.NvAPI_GetLogicalGPUFromPhysicalGPU);
    visit(id::NvAPI_GetPhysicalGPUsFromLogicalGPU, &f.NvAPI_GetPhysicalGPUsFromLogicalGPU);
    visit(id::NvAPI_GPU_GetECCStatusInfo, &f.NvAPI_GPU_GetECCStatusInfo);
    visit(id::NvAPI_GPU_GetThermalSettings, &f.NvAPI_GPU_GetThermalSettings);
    visit(id::NvAPI_GPU_GetTachReading, &f.NvAPI_GPU_GetTachReading);
    visit(id::NvAPI_GPU_GetSystemType, &f.NvAPI_GPU_GetSystemType);
    visit(id::NvAPI_Stereo_IsEnabled, &f.NvAPI_Stereo_IsEnabled);
}

// Loads the module and resolves every entry through its nvapi_QueryInterface.
nvapi::NvAPI_Status open(NvAPIBinding& binding)
{
    tova::DynamicLibrary candidate{tova::String(nvapiModuleName)};
    if (!candidate.load())
        return nvapi::NVAPI_LIBRARY_NOT_FOUND;
    const auto queryInterface =
        reinterpret_cast<nvapi::PFN_nvapi_QueryInterface>(candidate.getSymbol("nvapi_QueryInterface"));
    // A module without it is not NVAPI.
    if (!queryInterface)
        return nvapi::NVAPI_LIBRARY_NOT_FOUND;
    binding.library = candidate;
    listEntries(binding.functions, [queryInterface](nvapi::NvU32 id, auto* slot) {
        *slot = reinterpret_cast<std::remove_pointer_t<decltype(slot)>>(queryInterface(id));
    });
    return nvapi::NVAPI_OK;
}

void close(NvAPIBinding& binding)
{
    binding.functions = NvAPIFunctions();
    binding.library.unload();
}

// Calls the driver's entry, or answers for it when there is none to call.
template <class Entry, class... Arguments>
nvapi::NvAPI_Status forward(Entry NvAPIFunctions::*slot, Arguments... arguments)
{
    NvAPIBinding& binding = nvapiBinding();
    const std::shared_lock<std::shared_mutex> lock(binding.mutex);
    if (binding.references == 0)
        return nvapi::NVAPI_API_NOT_INITIALIZED;
    const Entry entry = binding.functions.*slot;
    if (!entry)
        return nvapi::NVAPI_NO_IMPLEMENTATION;
    return entry(arguments...);
}

} // namespace

NvAPIBinding& nvapiBinding()
{
    static NvAPIBinding binding;
    return binding;
}

namespace nvapi {

NvAPI_Status NvAPI_Initialize()
{
    NvAPIBinding& binding = nvapiBinding();
    const std::lock_guard<std::shared_mutex> lock(binding.mutex);
    if (binding.references == 0) {
        if (const NvAPI_Status opened = open(binding); opened != NVAPI_OK)
            return opened;
    }
    const PFN_NvAPI_Initialize initialize = binding.functions.NvAPI_Initialize;
    const NvAPI_Status status = initialize ? initialize() : NVAPI_NO_IMPLEMENTATION;
    if (status == NVAPI_OK)
        ++binding.references;
    else if (binding.references == 0)
        close(binding);
    return status;
}

NvAPI_Status NvAPI_Unload()
{
    NvAPIBinding& binding = nvapiBinding();
    const std::lock_guard<std::shared_mutex> lock(binding.mutex);
    if (binding.references == 0)
        return NVAPI_API_NOT_INITIALIZED;
    // A driver that still holds resources refuses (NVAPI_ERROR): the reference
    // stays, as NVAPI documents, until an unload succeeds. A driver without the
    // entry has nothing to refuse with.
    const PFN_NvAPI_Unload unload = binding.functions.NvAPI_Unload;
    const NvAPI_Status status = unload ? unload() : NVAPI_OK;
    if (status != NVAPI_OK)
        return status;
    if (--binding.references == 0)
        close(binding);
    return NVAPI_OK;
}

NvAPI_Status NvAPI_GetErrorMessage(NvAPI_Status status, NvAPI_ShortString description)
{
    return forward(&NvAPIFunctions::NvAPI_GetErrorMessage, status, description);
}

NvAPI_Status NvAPI_EnumPhysicalGPUs(NvPhysicalGpuHandle handles[NVAPI_MAX_PHYSICAL_GPUS], NvU32* count)
{
    return forward(&NvAPIFunctions::NvAPI_EnumPhysicalGPUs, handles, count);
}

NvAPI_Status NvAPI_GPU_GetBusId(NvPhysicalGpuHandle gpu, NvU32* busId)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetBusId, gpu, busId);
}

NvAPI_Status NvAPI_GPU_GetBusSlotId(NvPhysicalGpuHandle gpu, NvU32* slotId)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetBusSlotId, gpu, slotId);
}

NvAPI_Status NvAPI_GPU_GetFullName(NvPhysicalGpuHandle gpu, NvAPI_ShortString name)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetFullName, gpu, name);
}

NvAPI_Status NvAPI_SYS_GetDriverAndBranchVersion(NvU32* driverVersion, NvAPI_ShortString branch)
{
    return forward(&NvAPIFunctions::NvAPI_SYS_GetDriverAndBranchVersion, driverVersion, branch);
}

NvAPI_Status NvAPI_GPU_GetVbiosVersionString(NvPhysicalGpuHandle gpu, NvAPI_ShortString revision)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetVbiosVersionString, gpu, revision);
}

NvAPI_Status NvAPI_GPU_GetMemoryInfo(NvPhysicalGpuHandle gpu, NV_DISPLAY_DRIVER_MEMORY_INFO* info)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetMemoryInfo, gpu, info);
}

NvAPI_Status NvAPI_GPU_GetAllClockFrequencies(NvPhysicalGpuHandle gpu, NV_GPU_CLOCK_FREQUENCIES* frequencies)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetAllClockFrequencies, gpu, frequencies);
}

NvAPI_Status NvAPI_GPU_GetBusType(NvPhysicalGpuHandle gpu, NV_GPU_BUS_TYPE* busType)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetBusType, gpu, busType);
}

NvAPI_Status NvAPI_GPU_GetGpuCoreCount(NvPhysicalGpuHandle gpu, NvU32* count)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetGpuCoreCount, gpu, count);
}

NvAPI_Status NvAPI_GetLogicalGPUFromPhysicalGPU(NvPhysicalGpuHandle gpu, NvLogicalGpuHandle* logical)
{
    return forward(&NvAPIFunctions::NvAPI_GetLogicalGPUFromPhysicalGPU, gpu, logical);
}

NvAPI_Status NvAPI_GetPhysicalGPUsFromLogicalGPU(NvLogicalGpuHandle logical,
                                                 NvPhysicalGpuHandle handles[NVAPI_MAX_PHYSICAL_GPUS], NvU32* count)
{
    return forward(&NvAPIFunctions::NvAPI_GetPhysicalGPUsFromLogicalGPU, logical, handles, count);
}

NvAPI_Status NvAPI_GPU_GetECCStatusInfo(NvPhysicalGpuHandle gpu, NV_GPU_ECC_STATUS_INFO* info)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetECCStatusInfo, gpu, info);
}

NvAPI_Status NvAPI_GPU_GetThermalSettings(NvPhysicalGpuHandle gpu, NvU32 sensorIndex,
                                          NV_GPU_THERMAL_SETTINGS* settings)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetThermalSettings, gpu, sensorIndex, settings);
}

NvAPI_Status NvAPI_GPU_GetTachReading(NvPhysicalGpuHandle gpu, NvU32* rpm)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetTachReading, gpu, rpm);
}

NvAPI_Status NvAPI_GPU_GetSystemType(NvPhysicalGpuHandle gpu, NV_SYSTEM_TYPE* systemType)
{
    return forward(&NvAPIFunctions::NvAPI_GPU_GetSystemType, gpu, systemType);
}

NvAPI_Status NvAPI_Stereo_IsEnabled(NvU8* enabled)
{
    return forward(&NvAPIFunctions::NvAPI_Stereo_IsEnabled, enabled);
}

std::string shortStringText(const NvAPI_ShortString text)
{
    return std::string(text, std::find(text, text + NVAPI_SHORT_STRING_MAX, '\0'));
}

} // namespace nvapi
} // namespace libKestrel
