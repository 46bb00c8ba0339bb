#include "NvmlMachine.h"

#include <cstdio>

#include "common/Simulator.h"

using namespace libKestrel::nvml;

namespace simnvml {
namespace {

// A non-negative integer field, or nothing when it is absent or of another kind:
// a scenario with a wrong value costs that value, not the module.
std::optional<std::uint64_t> number(const nlohmann::json& object, const char* key)
{
    if (!object.is_object())
        return std::nullopt;
    const auto found = object.find(key);
    if (found == object.end())
        return std::nullopt;
    if (found->is_number_unsigned())
        return found->get<std::uint64_t>();
    if (found->is_number_integer() && found->get<std::int64_t>() >= 0)
        return static_cast<std::uint64_t>(found->get<std::int64_t>());
    return std::nullopt;
}

std::optional<unsigned int> reading(const nlohmann::json& object, const char* key)
{
    const auto value = number(object, key);
    return value ? std::optional<unsigned int>(static_cast<unsigned int>(*value)) : std::nullopt;
}

const nlohmann::json& member(const nlohmann::json& object, const char* key)
{
    static const nlohmann::json none;
    if (!object.is_object())
        return none;
    const auto found = object.find(key);
    return found != object.end() ? *found : none;
}

// The GPU's PCI location, each key of the section's "pci" overriding the GPU's.
nlohmann::json location(const nlohmann::json& gpu, const nlohmann::json& section)
{
    nlohmann::json merged = member(gpu, "pci").is_object() ? member(gpu, "pci") : nlohmann::json::object();
    if (member(section, "pci").is_object())
        merged.update(member(section, "pci"));
    return merged;
}

nvmlPciInfo_t pciInfo(const nlohmann::json& gpu, const nlohmann::json& section)
{
    const nlohmann::json where = location(gpu, section);
    nvmlPciInfo_t info{};
    info.domain = static_cast<unsigned int>(number(where, "domain").value_or(0));
    info.bus = static_cast<unsigned int>(number(where, "bus").value_or(0));
    info.device = static_cast<unsigned int>(number(where, "device").value_or(0));
    const auto function = static_cast<unsigned int>(number(where, "function").value_or(0));
    const auto vendorId = static_cast<unsigned int>(number(section, "vendorId").value_or(0x10DE));
    const auto deviceId = static_cast<unsigned int>(number(section, "deviceId").value_or(0));
    info.pciDeviceId = (deviceId << 16) | (vendorId & 0xFFFF);
    info.pciSubSystemId = static_cast<unsigned int>(number(section, "subsystemId").value_or(0));
    std::snprintf(info.busIdLegacy, sizeof info.busIdLegacy, "%04X:%02X:%02X.%X", info.domain, info.bus, info.device,
                  function);
    std::snprintf(info.busId, sizeof info.busId, "%08X:%02X:%02X.%X", info.domain, info.bus, info.device, function);
    return info;
}

std::optional<nvmlMemory_t> memory(const nlohmann::json& section)
{
    const auto total = number(member(section, "memory"), "total");
    if (!total)
        return std::nullopt;
    const std::uint64_t used = number(member(section, "memory"), "used").value_or(0);
    return nvmlMemory_t{*total, used < *total ? *total - used : 0, used};
}

std::optional<nvmlUtilization_t> utilization(const nlohmann::json& section)
{
    const auto gpu = reading(member(section, "utilization"), "gpu");
    const auto memory = reading(member(section, "utilization"), "memory");
    if (!gpu && !memory)
        return std::nullopt;
    return nvmlUtilization_t{gpu.value_or(0), memory.value_or(0)};
}

// "ecc": {"corrected": {"volatile": {...}, "aggregate": {...}}, "uncorrected": {...}};
// a pair left out is not counted, a location left out counts 0.
void readEcc(const nlohmann::json& section, nvmlDevice_st& device)
{
    const char* const errorTypes[] = {"corrected", "uncorrected"};
    const char* const counterTypes[] = {"volatile", "aggregate"};
    const nlohmann::json& ecc = member(section, "ecc");
    for (int error = 0; error < NVML_MEMORY_ERROR_TYPE_COUNT; ++error)
        for (int counter = 0; counter < NVML_ECC_COUNTER_TYPE_COUNT; ++counter) {
            const nlohmann::json& pair = member(member(ecc, errorTypes[error]), counterTypes[counter]);
            if (!pair.is_object())
                continue;
            device.ecc[error][counter] =
                nvmlEccErrorCounts_t{number(pair, "l1Cache").value_or(0), number(pair, "l2Cache").value_or(0),
                                     number(pair, "deviceMemory").value_or(0), number(pair, "registerFile").value_or(0)};
        }
}

// "memoryTemperature": a number of degrees, or {"type": n, "value": v,
// "return": code} for a field of another value type (NVML_VALUE_TYPE_*), or one
// NVML answers with a code of its own.
std::optional<nvmlFieldValue_t> memoryTemperature(const nlohmann::json& section)
{
    const nlohmann::json& given = member(section, "memoryTemperature");
    if (given.is_null())
        return std::nullopt;
    nvmlFieldValue_t field{};
    field.fieldId = NVML_FI_DEV_MEMORY_TEMP;
    field.nvmlReturn = NVML_SUCCESS;
    field.valueType = NVML_VALUE_TYPE_UNSIGNED_INT;
    if (given.is_number_integer()) {
        const auto degrees = reading(section, "memoryTemperature");
        if (!degrees)
            return std::nullopt;
        field.value.uiVal = *degrees;
        return field;
    }
    field.nvmlReturn = static_cast<nvmlReturn_t>(number(given, "return").value_or(NVML_SUCCESS));
    field.valueType = static_cast<nvmlValueType_t>(number(given, "type").value_or(NVML_VALUE_TYPE_UNSIGNED_INT));
    const nlohmann::json& value = member(given, "value");
    if (field.valueType == NVML_VALUE_TYPE_DOUBLE && value.is_number())
        field.value.dVal = value.get<double>();
    else if (value.is_number_integer())
        field.value.sllVal = value.get<long long>(); // the low bytes are every smaller type's
    return field;
}

// "link": {"generation", "width", "maxGeneration", "maxWidth"}.
void readLink(const nlohmann::json& section, nvmlDevice_st& device)
{
    const nlohmann::json& link = member(section, "link");
    device.linkGeneration = reading(link, "generation");
    device.linkWidth = reading(link, "width");
    device.linkGenerationMax = reading(link, "maxGeneration");
    device.linkWidthMax = reading(link, "maxWidth");
}

std::unique_ptr<nvmlDevice_st> readDevice(const nlohmann::json& gpu, const nlohmann::json& section, std::int64_t index)
{
    auto device = std::make_unique<nvmlDevice_st>();
    device->index = index;
    device->name = sim::text(section, "name", sim::text(gpu, "name", "NVIDIA Simulated GPU"));
    char uuid[48];
    std::snprintf(uuid, sizeof uuid, "GPU-00000000-0000-0000-0000-%012llx", static_cast<unsigned long long>(index + 1));
    device->uuid = sim::text(section, "uuid", uuid);
    device->vbios = sim::text(section, "vbios", "90.00.00.00.00");
    device->pci = pciInfo(gpu, section);
    device->temperature = reading(section, "temperature");
    device->slowdownTemperature = reading(section, "slowdownTemperature");
    device->shutdownTemperature = reading(section, "shutdownTemperature");
    device->fanSpeed = reading(section, "fanSpeed");
    device->utilization = utilization(section);
    device->memory = memory(section);
    readEcc(section, *device);
    device->powerUsage = reading(section, "power");
    device->powerLimit = reading(section, "powerLimit");
    device->energy = number(section, "energy");
    device->memoryTemperature = memoryTemperature(section);
    readLink(section, *device);
    if (const auto state = reading(section, "performanceState"))
        device->performanceState = static_cast<nvmlPstates_t>(*state);
    device->clocksEventReasons = number(section, "clocksEventReasons");
    return device;
}

} // namespace

Machine readMachine(const nlohmann::json& scenario)
{
    Machine machine;
    machine.driverVersion = sim::text(member(scenario, "nvml"), "driverVersion", "550.00");
    const nlohmann::json& gpus = member(scenario, "gpus");
    if (!gpus.is_array())
        return machine;
    for (const auto& gpu : gpus) {
        const nlohmann::json& section = member(gpu, "nvml");
        if (section.is_object())
            machine.devices.push_back(readDevice(gpu, section, static_cast<std::int64_t>(machine.devices.size())));
    }
    return machine;
}

const char* errorString(nvmlReturn_t code)
{
    switch (code) {
    case NVML_SUCCESS: return "Success";
    case NVML_ERROR_UNINITIALIZED: return "Uninitialized";
    case NVML_ERROR_INVALID_ARGUMENT: return "Invalid Argument";
    case NVML_ERROR_NOT_SUPPORTED: return "Not Supported";
    case NVML_ERROR_NO_PERMISSION: return "Insufficient Permissions";
    case NVML_ERROR_ALREADY_INITIALIZED: return "Already Initialized";
    case NVML_ERROR_NOT_FOUND: return "Not Found";
    case NVML_ERROR_INSUFFICIENT_SIZE: return "Insufficient Size";
    case NVML_ERROR_INSUFFICIENT_POWER: return "Insufficient External Power";
    case NVML_ERROR_DRIVER_NOT_LOADED: return "Driver Not Loaded";
    case NVML_ERROR_TIMEOUT: return "Timeout";
    case NVML_ERROR_IRQ_ISSUE: return "Interrupt Request Issue";
    case NVML_ERROR_LIBRARY_NOT_FOUND: return "NVML Shared Library Not Found";
    case NVML_ERROR_FUNCTION_NOT_FOUND: return "Function Not Found";
    case NVML_ERROR_CORRUPTED_INFOROM: return "Corrupted infoROM";
    case NVML_ERROR_GPU_IS_LOST: return "GPU is lost";
    case NVML_ERROR_RESET_REQUIRED: return "GPU requires restart";
    case NVML_ERROR_OPERATING_SYSTEM: return "The operating system has blocked the request.";
    case NVML_ERROR_LIB_RM_VERSION_MISMATCH: return "RM has detected an NVML/RM version mismatch.";
    case NVML_ERROR_IN_USE: return "In use by another client";
    case NVML_ERROR_MEMORY: return "Insufficient Memory";
    case NVML_ERROR_NO_DATA: return "No data";
    case NVML_ERROR_VGPU_ECC_NOT_SUPPORTED: return "ECC is not supported on vGPU";
    case NVML_ERROR_INSUFFICIENT_RESOURCES: return "Insufficient resources";
    case NVML_ERROR_FREQ_NOT_SUPPORTED: return "Frequency not supported";
    case NVML_ERROR_ARGUMENT_VERSION_MISMATCH: return "Argument version mismatch";
    case NVML_ERROR_DEPRECATED: return "Deprecated";
    case NVML_ERROR_NOT_READY: return "Not ready";
    case NVML_ERROR_GPU_NOT_FOUND: return "GPU not found";
    case NVML_ERROR_INVALID_STATE: return "Invalid state";
    case NVML_ERROR_RESET_TYPE_NOT_SUPPORTED: return "Reset type not supported";
    default: return "Unknown Error";
    }
}

} // namespace simnvml
