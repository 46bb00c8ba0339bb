// A simulated NVML: the devices of the scenario, answered the way NVML answers
// its clients (reference-counted initialisation, NVML_ERROR_UNINITIALIZED
// outside it, NVML_ERROR_INSUFFICIENT_SIZE for a short buffer,
// NVML_ERROR_INVALID_ARGUMENT for a handle that is not ours or a missing
// output), with per-call faults from the scenario. See README.md.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

#include "NvmlMachine.h"
#include "common/Simulator.h"

using namespace libKestrel::nvml;

namespace {

struct Nvml {
    int initializations = 0; // nvmlInit_v2 calls not yet matched by nvmlShutdown
    simnvml::Machine machine;
    // Devices whose GPU left the scenario while NVML was initialised: their
    // handles answer NVML_ERROR_GPU_IS_LOST.
    std::vector<std::unique_ptr<nvmlDevice_st>> lost;

    // A client that unloads NVML without shutting it down shows in the journal.
    // (snprintf, not std::to_string: libstdc++'s digit table is a unique symbol,
    // which would keep the module mapped after its last dlclose.)
    ~Nvml()
    {
        if (initializations <= 0)
            return;
        char event[64];
        std::snprintf(event, sizeof event, "nvml left initialized: %d", initializations);
        sim::record(event);
    }
};

Nvml& nvml()
{
    static Nvml state;
    return state;
}

// How a call starts: journaled, then ended early with an injected code, with
// NVML_ERROR_UNINITIALIZED outside an NVML session, or with
// NVML_ERROR_INVALID_ARGUMENT for a handle that is not ours or a missing output.
struct Call {
    nvmlReturn_t status = NVML_SUCCESS;
    std::optional<sim::Fault> fault;

    bool proceeds() const { return status == NVML_SUCCESS; }
    bool faultSays(const char* flag) const
    {
        if (!fault)
            return false;
        const auto found = fault->spec.find(flag);
        return found != fault->spec.end() && found->is_boolean() && found->get<bool>();
    }
};

Call begin(const char* entry, std::int64_t device, bool argumentsValid)
{
    Call call;
    call.fault = sim::enter(entry, device);
    if (call.fault && call.fault->returnCode)
        call.status = static_cast<nvmlReturn_t>(*call.fault->returnCode);
    else if (nvml().initializations == 0)
        call.status = NVML_ERROR_UNINITIALIZED;
    else if (!argumentsValid)
        call.status = NVML_ERROR_INVALID_ARGUMENT;
    return call;
}

bool holds(const std::vector<std::unique_ptr<nvmlDevice_st>>& devices, nvmlDevice_t handle)
{
    return std::any_of(devices.begin(), devices.end(), [handle](const auto& d) { return d.get() == handle; });
}

} // namespace

// A scenario set while NVML is initialised, seen as a running driver sees its
// GPUs change: a device already handed out keeps its handle and takes the new
// readings, a device whose GPU is gone is lost, and a new GPU is listed last.
// Its faults apply from this call on.
void sim::followScenario()
{
    Nvml& state = nvml();
    if (state.initializations == 0 || !sim::scenarioChanged())
        return;
    sim::reload();
    simnvml::Machine fresh = simnvml::readMachine(sim::scenario());
    auto& devices = state.machine.devices;
    std::vector<std::unique_ptr<nvmlDevice_st>> listed;
    for (auto& incoming : fresh.devices) {
        const auto same = std::find_if(devices.begin(), devices.end(), [&incoming](const auto& device) {
            return device && device->pci.domain == incoming->pci.domain && device->pci.bus == incoming->pci.bus &&
                   device->pci.device == incoming->pci.device;
        });
        if (same == devices.end()) {
            listed.push_back(std::move(incoming));
            continue;
        }
        **same = std::move(*incoming);
        listed.push_back(std::move(*same));
    }
    for (auto& device : devices)
        if (device)
            state.lost.push_back(std::move(device));
    devices = std::move(listed);
    state.machine.driverVersion = fresh.driverVersion;
}

namespace {

// A device query: also finds the device behind the handle, comparing addresses
// only, so a stale or made-up handle is never dereferenced.
struct DeviceCall : Call {
    nvmlDevice_st* device = nullptr;
};

DeviceCall beginDevice(const char* entry, nvmlDevice_t handle, const void* output)
{
    nvmlDevice_st* device = holds(nvml().machine.devices, handle) ? handle : nullptr;
    DeviceCall call{begin(entry, device ? device->index : -1, device && output)};
    if (call.proceeds() && holds(nvml().lost, handle))
        call.status = NVML_ERROR_GPU_IS_LOST;
    if (call.proceeds())
        call.device = device;
    return call;
}

// Writes a text as NVML does: whole and NUL-terminated, or not at all when the
// buffer is too small. The fault {"unterminated": true} fills the whole buffer
// with the text, repeated, and no NUL, as a broken driver might.
nvmlReturn_t writeText(const Call& call, const std::string& text, char* buffer, unsigned int length)
{
    if (!call.proceeds())
        return call.status;
    if (call.faultSays("unterminated")) {
        for (unsigned int i = 0; i < length; ++i)
            buffer[i] = text.empty() ? ' ' : text[i % text.size()];
        return NVML_SUCCESS;
    }
    if (length < text.size() + 1)
        return NVML_ERROR_INSUFFICIENT_SIZE;
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return NVML_SUCCESS;
}

// Writes a value the device has; one it lacks is a feature it does not support.
template <class T>
nvmlReturn_t writeValue(const Call& call, const std::optional<T>& value, T* output)
{
    if (!call.proceeds())
        return call.status;
    if (!value)
        return NVML_ERROR_NOT_SUPPORTED;
    *output = *value;
    return NVML_SUCCESS;
}

} // namespace

// The simulator implements exactly the signatures the library calls through.
#define CHECK_SIGNATURE(function) \
    static_assert(std::is_same_v<decltype(&function), PFN_##function>, #function " has the wrong signature")

#if !defined(SIM_OMIT_nvmlInit_v2)
// Sessions nest: the first initialisation reads the machine, the last shutdown ends it.
SIM_EXPORT nvmlReturn_t nvmlInit_v2()
{
    const sim::Guard guard;
    Nvml& state = nvml();
    // A nested one has followed a new scenario with the Guard, as every call does.
    if (state.initializations == 0) {
        sim::reload();
        sim::initLatency("nvml");
    }
    if (const auto fault = sim::enter("nvmlInit_v2"); fault && fault->returnCode)
        return static_cast<nvmlReturn_t>(*fault->returnCode);
    if (state.initializations++ == 0) {
        state.machine = simnvml::readMachine(sim::scenario());
        state.lost.clear();
        sim::record("nvml initialized");
    }
    return NVML_SUCCESS;
}
CHECK_SIGNATURE(nvmlInit_v2);
#endif

#if !defined(SIM_OMIT_nvmlShutdown)
SIM_EXPORT nvmlReturn_t nvmlShutdown()
{
    const sim::Guard guard;
    const Call call = begin("nvmlShutdown", -1, true);
    if (!call.proceeds())
        return call.status;
    if (--nvml().initializations == 0)
        sim::record("nvml shut down");
    return NVML_SUCCESS;
}
CHECK_SIGNATURE(nvmlShutdown);
#endif

SIM_EXPORT nvmlReturn_t nvmlSystemGetDriverVersion(char* version, unsigned int length)
{
    const sim::Guard guard;
    return writeText(begin("nvmlSystemGetDriverVersion", -1, version != nullptr), nvml().machine.driverVersion,
                     version, length);
}
CHECK_SIGNATURE(nvmlSystemGetDriverVersion);

#if !defined(SIM_OMIT_nvmlDeviceGetCount_v2)
// The fault {"count": n} reports n devices, however many there are.
SIM_EXPORT nvmlReturn_t nvmlDeviceGetCount_v2(unsigned int* deviceCount)
{
    const sim::Guard guard;
    const Call call = begin("nvmlDeviceGetCount_v2", -1, deviceCount != nullptr);
    if (!call.proceeds())
        return call.status;
    const auto actual = static_cast<std::int64_t>(nvml().machine.devices.size());
    *deviceCount = static_cast<unsigned int>(call.fault && call.fault->count ? *call.fault->count : actual);
    return NVML_SUCCESS;
}
CHECK_SIGNATURE(nvmlDeviceGetCount_v2);
#endif

#if !defined(SIM_OMIT_nvmlDeviceGetHandleByIndex)
// The fault {"null": true} succeeds without writing a handle.
SIM_EXPORT nvmlReturn_t nvmlDeviceGetHandleByIndex(unsigned int index, nvmlDevice_t* device)
{
    const sim::Guard guard;
    const auto& devices = nvml().machine.devices;
    const Call call = begin("nvmlDeviceGetHandleByIndex", index, device && index < devices.size());
    if (!call.proceeds() || call.faultSays("null"))
        return call.status;
    *device = devices[index].get();
    return NVML_SUCCESS;
}
CHECK_SIGNATURE(nvmlDeviceGetHandleByIndex);
#endif

SIM_EXPORT nvmlReturn_t nvmlDeviceGetTemperature(nvmlDevice_t device, nvmlTemperatureSensors_t sensorType,
                                                 unsigned int* temp)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetTemperature", device, temp);
    if (call.proceeds() && sensorType != NVML_TEMPERATURE_GPU)
        return NVML_ERROR_INVALID_ARGUMENT;
    return writeValue(call, call.device ? call.device->temperature : std::nullopt, temp);
}
CHECK_SIGNATURE(nvmlDeviceGetTemperature);

// Only the slowdown and shutdown thresholds are simulated; NVML's other
// thresholds are features the devices lack.
SIM_EXPORT nvmlReturn_t nvmlDeviceGetTemperatureThreshold(nvmlDevice_t device,
                                                          nvmlTemperatureThresholds_t thresholdType,
                                                          unsigned int* temp)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetTemperatureThreshold", device, temp);
    if (call.proceeds() && (thresholdType < NVML_TEMPERATURE_THRESHOLD_SHUTDOWN ||
                            thresholdType > NVML_TEMPERATURE_THRESHOLD_GPS_CURR))
        return NVML_ERROR_INVALID_ARGUMENT;
    std::optional<unsigned int> value;
    if (call.device && thresholdType == NVML_TEMPERATURE_THRESHOLD_SHUTDOWN)
        value = call.device->shutdownTemperature;
    else if (call.device && thresholdType == NVML_TEMPERATURE_THRESHOLD_SLOWDOWN)
        value = call.device->slowdownTemperature;
    return writeValue(call, value, temp);
}
CHECK_SIGNATURE(nvmlDeviceGetTemperatureThreshold);

SIM_EXPORT nvmlReturn_t nvmlDeviceGetPciInfo_v2(nvmlDevice_t device, nvmlPciInfo_t* pci)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetPciInfo_v2", device, pci);
    return writeValue(call, call.device ? std::optional<nvmlPciInfo_t>(call.device->pci) : std::nullopt, pci);
}
CHECK_SIGNATURE(nvmlDeviceGetPciInfo_v2);

SIM_EXPORT nvmlReturn_t nvmlDeviceGetMemoryInfo(nvmlDevice_t device, nvmlMemory_t* memory)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetMemoryInfo", device, memory);
    return writeValue(call, call.device ? call.device->memory : std::nullopt, memory);
}
CHECK_SIGNATURE(nvmlDeviceGetMemoryInfo);

SIM_EXPORT nvmlReturn_t nvmlDeviceGetDetailedEccErrors(nvmlDevice_t device, nvmlMemoryErrorType_t errorType,
                                                       nvmlEccCounterType_t counterType, nvmlEccErrorCounts_t* eccCounts)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetDetailedEccErrors", device, eccCounts);
    if (call.proceeds() && (errorType < 0 || errorType >= NVML_MEMORY_ERROR_TYPE_COUNT || counterType < 0 ||
                            counterType >= NVML_ECC_COUNTER_TYPE_COUNT))
        return NVML_ERROR_INVALID_ARGUMENT;
    return writeValue(call, call.device ? call.device->ecc[errorType][counterType] : std::nullopt, eccCounts);
}
CHECK_SIGNATURE(nvmlDeviceGetDetailedEccErrors);

SIM_EXPORT nvmlReturn_t nvmlDeviceGetName(nvmlDevice_t device, char* name, unsigned int length)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetName", device, name);
    return writeText(call, call.device ? call.device->name : std::string(), name, length);
}
CHECK_SIGNATURE(nvmlDeviceGetName);

SIM_EXPORT nvmlReturn_t nvmlDeviceGetUUID(nvmlDevice_t device, char* uuid, unsigned int length)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetUUID", device, uuid);
    return writeText(call, call.device ? call.device->uuid : std::string(), uuid, length);
}
CHECK_SIGNATURE(nvmlDeviceGetUUID);

SIM_EXPORT nvmlReturn_t nvmlDeviceGetUtilizationRates(nvmlDevice_t device, nvmlUtilization_t* utilization)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetUtilizationRates", device, utilization);
    return writeValue(call, call.device ? call.device->utilization : std::nullopt, utilization);
}
CHECK_SIGNATURE(nvmlDeviceGetUtilizationRates);

SIM_EXPORT nvmlReturn_t nvmlDeviceGetVbiosVersion(nvmlDevice_t device, char* version, unsigned int length)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetVbiosVersion", device, version);
    return writeText(call, call.device ? call.device->vbios : std::string(), version, length);
}
CHECK_SIGNATURE(nvmlDeviceGetVbiosVersion);

#if !defined(SIM_OMIT_nvmlDeviceGetFanSpeed)
SIM_EXPORT nvmlReturn_t nvmlDeviceGetFanSpeed(nvmlDevice_t device, unsigned int* speed)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetFanSpeed", device, speed);
    return writeValue(call, call.device ? call.device->fanSpeed : std::nullopt, speed);
}
CHECK_SIGNATURE(nvmlDeviceGetFanSpeed);
#endif

// Entries that write one value the device has, or answer that it lacks it.
#define SIM_VALUE_ENTRY(name, type, member)                                                                    \
    SIM_EXPORT nvmlReturn_t name(nvmlDevice_t device, type* value)                                             \
    {                                                                                                          \
        const sim::Guard guard;                                                                                \
        const DeviceCall call = beginDevice(#name, device, value);                                             \
        return writeValue(call, call.device ? call.device->member : std::nullopt, value);                      \
    }                                                                                                          \
    CHECK_SIGNATURE(name);
SIM_VALUE_ENTRY(nvmlDeviceGetPowerUsage, unsigned int, powerUsage)
SIM_VALUE_ENTRY(nvmlDeviceGetEnforcedPowerLimit, unsigned int, powerLimit)
SIM_VALUE_ENTRY(nvmlDeviceGetTotalEnergyConsumption, unsigned long long, energy)
SIM_VALUE_ENTRY(nvmlDeviceGetCurrPcieLinkGeneration, unsigned int, linkGeneration)
SIM_VALUE_ENTRY(nvmlDeviceGetCurrPcieLinkWidth, unsigned int, linkWidth)
SIM_VALUE_ENTRY(nvmlDeviceGetMaxPcieLinkGeneration, unsigned int, linkGenerationMax)
SIM_VALUE_ENTRY(nvmlDeviceGetMaxPcieLinkWidth, unsigned int, linkWidthMax)
SIM_VALUE_ENTRY(nvmlDeviceGetPerformanceState, nvmlPstates_t, performanceState)
// Both names answer the same mask, as NVML's do; a driver older than the newer
// name lacks it (the variant without it).
#if !defined(SIM_OMIT_nvmlDeviceGetCurrentClocksEventReasons)
SIM_VALUE_ENTRY(nvmlDeviceGetCurrentClocksEventReasons, unsigned long long, clocksEventReasons)
#endif
SIM_VALUE_ENTRY(nvmlDeviceGetCurrentClocksThrottleReasons, unsigned long long, clocksEventReasons)
#undef SIM_VALUE_ENTRY

// Fills each field asked for: the memory temperature when the device has it,
// NVML_ERROR_NOT_SUPPORTED in the field otherwise. NVML answers the call itself
// with success whatever the fields' own codes.
SIM_EXPORT nvmlReturn_t nvmlDeviceGetFieldValues(nvmlDevice_t device, int valuesCount, nvmlFieldValue_t* values)
{
    const sim::Guard guard;
    const DeviceCall call = beginDevice("nvmlDeviceGetFieldValues", device, valuesCount > 0 ? values : nullptr);
    if (!call.proceeds())
        return call.status;
    for (int i = 0; i < valuesCount; ++i) {
        nvmlFieldValue_t& field = values[i];
        const auto& known = call.device->memoryTemperature;
        if (field.fieldId == NVML_FI_DEV_MEMORY_TEMP && known) {
            field.valueType = known->valueType;
            field.value = known->value;
            field.nvmlReturn = known->nvmlReturn;
        } else {
            field.nvmlReturn = NVML_ERROR_NOT_SUPPORTED;
        }
    }
    return NVML_SUCCESS;
}
CHECK_SIGNATURE(nvmlDeviceGetFieldValues);

// Answers outside a session too, as NVML does. The fault {"null": true} gives no text.
SIM_EXPORT const char* nvmlErrorString(nvmlReturn_t result)
{
    const sim::Guard guard;
    if (const auto fault = sim::enter("nvmlErrorString"); fault && fault->null)
        return nullptr;
    return simnvml::errorString(result);
}
CHECK_SIGNATURE(nvmlErrorString);
