// A simulated NVAPI driver: the GPUs of the scenario with an "nvapi" section,
// the way NVIDIA's nvapi64.dll reports them. It counts initialisations as the
// driver does (every call outside one answers NVAPI_API_NOT_INITIALIZED), checks
// the version word of every structure it fills, and writes no more than the
// caller's arrays hold, even when a fault makes it report a larger count.
#include "nvapi/Entries.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "common/Simulator.h"
#include "nvapi/Machine.h"

using namespace libKestrel::nvapi;

// Handles are the addresses of these tokens: only ever compared, never read.
struct libKestrel::nvapi::NvPhysicalGpu {
    char token;
};
struct libKestrel::nvapi::NvLogicalGpu {
    char token;
};

namespace simnvapi {
namespace {

NvPhysicalGpu physicalHandles[maxGpus];
NvLogicalGpu logicalHandles[maxGpus];

struct Driver {
    unsigned int initializations = 0;
    Machine machine;
};

Driver& driver()
{
    static Driver state;
    return state;
}

const Machine& machine() { return driver().machine; }

// A fresh look at the scenario: when the driver starts, and when a new one was
// set while it runs (followScenario).
void readScenario()
{
    sim::reload();
    driver().machine = readMachine(sim::scenario());
}

template <class Token>
long indexOf(const Token* handle, const Token* tokens, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        if (handle == &tokens[i])
            return static_cast<long>(i);
    return -1;
}

// What every entry answers before doing its work: not initialised, an injected
// failure, or a missing argument.
NvAPI_Status precheck(const std::optional<sim::Fault>& fault, bool argumentsValid, bool needsDriver = true)
{
    if (needsDriver && driver().initializations == 0)
        return NVAPI_API_NOT_INITIALIZED;
    if (fault && fault->returnCode && *fault->returnCode != NVAPI_OK)
        return static_cast<NvAPI_Status>(*fault->returnCode);
    return argumentsValid ? NVAPI_OK : NVAPI_INVALID_ARGUMENT;
}

// A call about one physical GPU: 'gpu' is set exactly when the call may proceed.
struct GpuCall {
    NvAPI_Status status;
    std::optional<sim::Fault> fault;
    const Gpu* gpu;
};

GpuCall enterGpu(const char* entry, NvPhysicalGpuHandle handle, bool argumentsValid)
{
    const long index = indexOf(handle, physicalHandles, machine().gpus.size());
    GpuCall call{NVAPI_OK, sim::enter(entry, index), nullptr};
    call.status = precheck(call.fault, argumentsValid && handle != nullptr);
    if (call.status == NVAPI_OK && index < 0)
        call.status = NVAPI_EXPECTED_PHYSICAL_GPU_HANDLE;
    if (call.status == NVAPI_OK)
        call.gpu = &machine().gpus[static_cast<std::size_t>(index)];
    return call;
}

bool faultSays(const std::optional<sim::Fault>& fault, const char* key)
{
    if (!fault)
        return false;
    const auto found = fault->spec.find(key);
    return found != fault->spec.end() && found->is_boolean() && found->get<bool>();
}

// The count to report: the true one, or the fault's, which may exceed what was written.
NvU32 reportedCount(const std::optional<sim::Fault>& fault, std::size_t count)
{
    return static_cast<NvU32>(fault && fault->count ? *fault->count : static_cast<std::int64_t>(count));
}

// A short string as NVAPI writes it: at most 63 characters and a NUL. The
// "unterminated" fault fills all 64 bytes instead.
void writeShortString(char* out, const std::string& text, const std::optional<sim::Fault>& fault)
{
    if (faultSays(fault, "unterminated")) {
        std::memset(out, '#', NVAPI_SHORT_STRING_MAX);
        std::memcpy(out, text.data(), std::min<std::size_t>(text.size(), NVAPI_SHORT_STRING_MAX));
        return;
    }
    const std::size_t length = std::min<std::size_t>(text.size(), NVAPI_SHORT_STRING_MAX - 1);
    std::memcpy(out, text.data(), length);
    out[length] = '\0';
}

// A per-GPU scalar: the GPU's field, in the output's type.
template <class Output, class Field>
NvAPI_Status answer(const char* entry, NvPhysicalGpuHandle handle, Output* output, Field Gpu::*field)
{
    const GpuCall call = enterGpu(entry, handle, output != nullptr);
    if (call.gpu)
        *output = static_cast<Output>(call.gpu->*field);
    return call.status;
}

// A per-GPU short string.
NvAPI_Status answerText(const char* entry, NvPhysicalGpuHandle handle, char* output, std::string Gpu::*field)
{
    const GpuCall call = enterGpu(entry, handle, output != nullptr);
    if (call.gpu)
        writeShortString(output, call.gpu->*field, call.fault);
    return call.status;
}

std::string statusName(NvAPI_Status status)
{
    switch (status) {
    case NVAPI_OK: return "NVAPI_OK";
    case NVAPI_ERROR: return "NVAPI_ERROR";
    case NVAPI_LIBRARY_NOT_FOUND: return "NVAPI_LIBRARY_NOT_FOUND";
    case NVAPI_NO_IMPLEMENTATION: return "NVAPI_NO_IMPLEMENTATION";
    case NVAPI_API_NOT_INITIALIZED: return "NVAPI_API_NOT_INITIALIZED";
    case NVAPI_INVALID_ARGUMENT: return "NVAPI_INVALID_ARGUMENT";
    case NVAPI_NVIDIA_DEVICE_NOT_FOUND: return "NVAPI_NVIDIA_DEVICE_NOT_FOUND";
    case NVAPI_END_ENUMERATION: return "NVAPI_END_ENUMERATION";
    case NVAPI_INVALID_HANDLE: return "NVAPI_INVALID_HANDLE";
    case NVAPI_INCOMPATIBLE_STRUCT_VERSION: return "NVAPI_INCOMPATIBLE_STRUCT_VERSION";
    case NVAPI_HANDLE_INVALIDATED: return "NVAPI_HANDLE_INVALIDATED";
    case NVAPI_EXPECTED_PHYSICAL_GPU_HANDLE: return "NVAPI_EXPECTED_PHYSICAL_GPU_HANDLE";
    case NVAPI_NOT_SUPPORTED: return "NVAPI_NOT_SUPPORTED";
    }
    return "Unknown NVAPI status " + std::to_string(static_cast<int>(status));
}

NvAPI_Status NvAPI_Initialize()
{
    const sim::Guard guard;
    Driver& state = driver();
    // The scenario is read when the driver starts, so its faults already apply here.
    if (state.initializations == 0) {
        readScenario();
        sim::initLatency("nvapi");
    }
    const auto fault = sim::enter("NvAPI_Initialize");
    const NvAPI_Status status = precheck(fault, true, false);
    if (status == NVAPI_OK)
        ++state.initializations;
    return status;
}

NvAPI_Status NvAPI_Unload()
{
    const sim::Guard guard;
    const NvAPI_Status status = precheck(sim::enter("NvAPI_Unload"), true);
    if (status == NVAPI_OK)
        --driver().initializations;
    return status;
}

// Answers whether or not the driver is initialised.
NvAPI_Status NvAPI_GetErrorMessage(NvAPI_Status status, char* description)
{
    const sim::Guard guard;
    const auto fault = sim::enter("NvAPI_GetErrorMessage");
    const NvAPI_Status checked = precheck(fault, description != nullptr, false);
    if (checked == NVAPI_OK)
        writeShortString(description, statusName(status), fault);
    return checked;
}

NvAPI_Status NvAPI_EnumPhysicalGPUs(NvPhysicalGpuHandle* handles, NvU32* count)
{
    const sim::Guard guard;
    const auto fault = sim::enter("NvAPI_EnumPhysicalGPUs");
    const NvAPI_Status status = precheck(fault, handles && count);
    if (status != NVAPI_OK)
        return status;
    const std::size_t gpus = machine().gpus.size();
    for (std::size_t i = 0; i < gpus; ++i)
        handles[i] = &physicalHandles[i];
    *count = reportedCount(fault, gpus);
    return NVAPI_OK;
}

NvAPI_Status NvAPI_GPU_GetBusId(NvPhysicalGpuHandle gpu, NvU32* busId)
{
    const sim::Guard guard;
    return answer("NvAPI_GPU_GetBusId", gpu, busId, &Gpu::busId);
}

NvAPI_Status NvAPI_GPU_GetBusSlotId(NvPhysicalGpuHandle gpu, NvU32* slotId)
{
    const sim::Guard guard;
    return answer("NvAPI_GPU_GetBusSlotId", gpu, slotId, &Gpu::slotId);
}

NvAPI_Status NvAPI_GPU_GetFullName(NvPhysicalGpuHandle gpu, char* name)
{
    const sim::Guard guard;
    return answerText("NvAPI_GPU_GetFullName", gpu, name, &Gpu::name);
}

NvAPI_Status NvAPI_SYS_GetDriverAndBranchVersion(NvU32* driverVersion, char* branch)
{
    const sim::Guard guard;
    const auto fault = sim::enter("NvAPI_SYS_GetDriverAndBranchVersion");
    const NvAPI_Status status = precheck(fault, driverVersion && branch);
    if (status == NVAPI_OK) {
        *driverVersion = machine().driverVersion;
        writeShortString(branch, machine().branch, fault);
    }
    return status;
}

NvAPI_Status NvAPI_GPU_GetVbiosVersionString(NvPhysicalGpuHandle gpu, char* revision)
{
    const sim::Guard guard;
    return answerText("NvAPI_GPU_GetVbiosVersionString", gpu, revision, &Gpu::vbios);
}

NvAPI_Status NvAPI_GPU_GetMemoryInfo(NvPhysicalGpuHandle gpu, NV_DISPLAY_DRIVER_MEMORY_INFO* info)
{
    const sim::Guard guard;
    const GpuCall call = enterGpu("NvAPI_GPU_GetMemoryInfo", gpu, info != nullptr);
    if (!call.gpu)
        return call.status;
    const NvU32 version = info->version;
    if (version != NV_DISPLAY_DRIVER_MEMORY_INFO_VER_1 && version != NV_DISPLAY_DRIVER_MEMORY_INFO_VER_2 &&
        version != NV_DISPLAY_DRIVER_MEMORY_INFO_VER_3)
        return NVAPI_INCOMPATIBLE_STRUCT_VERSION;
    // Older revisions are shorter: fill only the fields the caller's revision has.
    const std::size_t fields = ((version & 0xFFFF) - sizeof(NvU32)) / sizeof(NvU32);
    std::memcpy(reinterpret_cast<unsigned char*>(info) + offsetof(NV_DISPLAY_DRIVER_MEMORY_INFO, dedicatedVideoMemory),
                call.gpu->memory, fields * sizeof(NvU32));
    return NVAPI_OK;
}

NvAPI_Status NvAPI_GPU_GetAllClockFrequencies(NvPhysicalGpuHandle gpu, NV_GPU_CLOCK_FREQUENCIES* frequencies)
{
    const sim::Guard guard;
    const GpuCall call = enterGpu("NvAPI_GPU_GetAllClockFrequencies", gpu, frequencies != nullptr);
    if (!call.gpu)
        return call.status;
    const NvU32 version = frequencies->version;
    if (version != NV_GPU_CLOCK_FREQUENCIES_VER_1 && version != NV_GPU_CLOCK_FREQUENCIES_VER_2 &&
        version != NV_GPU_CLOCK_FREQUENCIES_VER_3)
        return NVAPI_INCOMPATIBLE_STRUCT_VERSION;
    // Revision 1 has no clock type and reads current frequencies.
    const NvU32 type = version == NV_GPU_CLOCK_FREQUENCIES_VER_1 ? 0 : frequencies->ClockType;
    if (frequencies->reserved != 0 || frequencies->reserved1 != 0 || type >= clockTypes)
        return NVAPI_INVALID_ARGUMENT;
    for (std::size_t d = 0; d < clockDomains; ++d) {
        NV_GPU_CLOCK_DOMAIN& domain = frequencies->domain[d];
        domain.bIsPresent = call.gpu->clocks[type][d].present ? 1 : 0;
        domain.reserved = 0;
        domain.frequency = call.gpu->clocks[type][d].frequency;
    }
    return NVAPI_OK;
}

NvAPI_Status NvAPI_GPU_GetBusType(NvPhysicalGpuHandle gpu, NV_GPU_BUS_TYPE* busType)
{
    const sim::Guard guard;
    return answer("NvAPI_GPU_GetBusType", gpu, busType, &Gpu::busType);
}

NvAPI_Status NvAPI_GPU_GetGpuCoreCount(NvPhysicalGpuHandle gpu, NvU32* count)
{
    const sim::Guard guard;
    return answer("NvAPI_GPU_GetGpuCoreCount", gpu, count, &Gpu::coreCount);
}

// The "null" fault hands out a null logical GPU with success.
NvAPI_Status NvAPI_GetLogicalGPUFromPhysicalGPU(NvPhysicalGpuHandle gpu, NvLogicalGpuHandle* logical)
{
    const sim::Guard guard;
    const GpuCall call = enterGpu("NvAPI_GetLogicalGPUFromPhysicalGPU", gpu, logical != nullptr);
    if (call.gpu)
        *logical = call.fault && call.fault->null ? nullptr : &logicalHandles[call.gpu->logical];
    return call.status;
}

// A fault's "device" here is the logical GPU's index.
NvAPI_Status NvAPI_GetPhysicalGPUsFromLogicalGPU(NvLogicalGpuHandle logical, NvPhysicalGpuHandle* handles,
                                                 NvU32* count)
{
    const sim::Guard guard;
    const long index = indexOf(logical, logicalHandles, machine().logicalGpus.size());
    const auto fault = sim::enter("NvAPI_GetPhysicalGPUsFromLogicalGPU", index);
    const NvAPI_Status status = precheck(fault, logical && handles && count);
    if (status != NVAPI_OK)
        return status;
    if (index < 0)
        return NVAPI_INVALID_HANDLE;
    const auto& members = machine().logicalGpus[static_cast<std::size_t>(index)];
    for (std::size_t i = 0; i < members.size(); ++i)
        handles[i] = &physicalHandles[members[i]];
    *count = reportedCount(fault, members.size());
    return NVAPI_OK;
}

NvAPI_Status NvAPI_GPU_GetECCStatusInfo(NvPhysicalGpuHandle gpu, NV_GPU_ECC_STATUS_INFO* info)
{
    const sim::Guard guard;
    const GpuCall call = enterGpu("NvAPI_GPU_GetECCStatusInfo", gpu, info != nullptr);
    if (!call.gpu)
        return call.status;
    if (info->version != NV_GPU_ECC_STATUS_INFO_VER_1)
        return NVAPI_INCOMPATIBLE_STRUCT_VERSION;
    info->isSupported = call.gpu->eccSupported ? 1 : 0;
    info->configurationOptions = static_cast<NV_ECC_CONFIGURATION>(call.gpu->eccConfiguration);
    info->isEnabled = call.gpu->eccEnabled ? 1 : 0;
    return NVAPI_OK;
}

// Index NVAPI_THERMAL_TARGET_ALL reads every sensor; a sensor's index reads that
// one into the first entry. An old driver knows revision 1 only.
NvAPI_Status NvAPI_GPU_GetThermalSettings(NvPhysicalGpuHandle gpu, NvU32 sensorIndex,
                                          NV_GPU_THERMAL_SETTINGS* settings)
{
    const sim::Guard guard;
    const GpuCall call = enterGpu("NvAPI_GPU_GetThermalSettings", gpu, settings != nullptr);
    if (!call.gpu)
        return call.status;
    const NvU32 version = settings->version;
    if (version != NV_GPU_THERMAL_SETTINGS_VER_1 && (version != NV_GPU_THERMAL_SETTINGS_VER_2 || machine().oldDriver))
        return NVAPI_INCOMPATIBLE_STRUCT_VERSION;
    const auto& sensors = call.gpu->sensors;
    std::size_t first = 0;
    std::size_t count = sensors.size();
    if (sensorIndex != static_cast<NvU32>(NVAPI_THERMAL_TARGET_ALL)) {
        if (sensorIndex >= sensors.size())
            return NVAPI_INVALID_ARGUMENT;
        first = sensorIndex;
        count = 1;
    }
    for (std::size_t i = 0; i < count; ++i) {
        const Sensor& sensor = sensors[first + i];
        settings->sensor[i] = {static_cast<NV_THERMAL_CONTROLLER>(sensor.controller), sensor.minimum, sensor.maximum,
                               sensor.current, static_cast<NV_THERMAL_TARGET>(sensor.target)};
    }
    settings->count = reportedCount(call.fault, count);
    return NVAPI_OK;
}

NvAPI_Status NvAPI_GPU_GetTachReading(NvPhysicalGpuHandle gpu, NvU32* rpm)
{
    const sim::Guard guard;
    return answer("NvAPI_GPU_GetTachReading", gpu, rpm, &Gpu::tach);
}

NvAPI_Status NvAPI_GPU_GetSystemType(NvPhysicalGpuHandle gpu, NV_SYSTEM_TYPE* systemType)
{
    const sim::Guard guard;
    return answer("NvAPI_GPU_GetSystemType", gpu, systemType, &Gpu::systemType);
}

NvAPI_Status NvAPI_Stereo_IsEnabled(NvU8* enabled)
{
    const sim::Guard guard;
    const NvAPI_Status status = precheck(sim::enter("NvAPI_Stereo_IsEnabled"), enabled != nullptr);
    if (status == NVAPI_OK)
        *enabled = machine().stereo ? 1 : 0;
    return status;
}

} // namespace

// Each entry converts to exactly the pointer type the library calls it through.
#define ENTRY(function) \
    Entry { interface_id::function, #function, reinterpret_cast<void*>(static_cast<PFN_##function>(&function)) }

const Entry entries[] = {
    ENTRY(NvAPI_Initialize),
    ENTRY(NvAPI_Unload),
    ENTRY(NvAPI_GetErrorMessage),
    ENTRY(NvAPI_EnumPhysicalGPUs),
    ENTRY(NvAPI_GPU_GetBusId),
    ENTRY(NvAPI_GPU_GetBusSlotId),
    ENTRY(NvAPI_GPU_GetFullName),
    ENTRY(NvAPI_SYS_GetDriverAndBranchVersion),
    ENTRY(NvAPI_GPU_GetVbiosVersionString),
    ENTRY(NvAPI_GPU_GetMemoryInfo),
    ENTRY(NvAPI_GPU_GetAllClockFrequencies),
    ENTRY(NvAPI_GPU_GetBusType),
    ENTRY(NvAPI_GPU_GetGpuCoreCount),
    ENTRY(NvAPI_GetLogicalGPUFromPhysicalGPU),
    ENTRY(NvAPI_GetPhysicalGPUsFromLogicalGPU),
    ENTRY(NvAPI_GPU_GetECCStatusInfo),
    ENTRY(NvAPI_GPU_GetThermalSettings),
    ENTRY(NvAPI_GPU_GetTachReading),
    ENTRY(NvAPI_GPU_GetSystemType),
    ENTRY(NvAPI_Stereo_IsEnabled),
};
const std::size_t entryCount = sizeof(entries) / sizeof(entries[0]);

} // namespace simnvapi

// A scenario set while the driver runs: a GPU's handle, its place in the list,
// reads the new values, the handle of a GPU gone is refused, and the new faults
// apply from this call on.
void sim::followScenario()
{
    if (simnvapi::driver().initializations > 0 && sim::scenarioChanged())
        simnvapi::readScenario();
}
