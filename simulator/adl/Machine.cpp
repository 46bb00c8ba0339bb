#include "adl/Machine.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "common/Simulator.h"

namespace sim::adl {
namespace {

using nlohmann::json;

const json& none()
{
    static const json empty;
    return empty;
}

// A member of an object, or null when absent (or when 'object' is no object).
const json& member(const json& object, const char* key)
{
    if (!object.is_object())
        return none();
    const auto found = object.find(key);
    return found == object.end() ? none() : *found;
}

std::int64_t wide(const json& object, const char* key, std::int64_t fallback)
{
    const json& value = member(object, key);
    return value.is_number_integer() ? value.get<std::int64_t>() : fallback;
}

// ADL's fields are ints; larger numbers wrap as a driver's would.
int integer(const json& object, const char* key, int fallback)
{
    return static_cast<int>(wide(object, key, fallback));
}

// The first of the objects that has a string under 'key'.
std::string firstText(std::initializer_list<const json*> objects, const char* key, const std::string& fallback)
{
    for (const json* object : objects)
        if (member(*object, key).is_string())
            return member(*object, key).get<std::string>();
    return fallback;
}

const json& firstObject(std::initializer_list<const json*> objects, const char* key)
{
    for (const json* object : objects)
        if (member(*object, key).is_object())
            return member(*object, key);
    return none();
}

template <std::size_t N>
void copyText(char (&field)[N], const std::string& text)
{
    const std::size_t length = std::min(text.size(), N - 1);
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

template <std::size_t N>
void fill(char (&field)[N])
{
    const std::size_t used = std::strlen(field);
    for (std::size_t i = used; i < N; ++i)
        field[i] = used ? field[i % used] : 'x';
}

std::optional<vendor::ADLBiosInfo> readBios(const json& section)
{
    if (!section.is_object())
        return std::nullopt;
    vendor::ADLBiosInfo bios{};
    copyText(bios.strPartNumber, sim::text(section, "partNumber", "113-SIMULATED-001"));
    copyText(bios.strVersion, sim::text(section, "version", "015.001.000.000"));
    copyText(bios.strDate, sim::text(section, "date", "2024/01/01 00:00"));
    return bios;
}

std::optional<int> readTemperature(const json& overdrive5)
{
    const json& value = member(overdrive5, "temperature");
    if (!value.is_number_integer())
        return std::nullopt;
    return static_cast<int>(value.get<std::int64_t>());
}

std::optional<vendor::ADLOD6CurrentStatus> readCurrentStatus(const json& overdrive6)
{
    if (!overdrive6.is_object())
        return std::nullopt;
    vendor::ADLOD6CurrentStatus status{};
    status.iEngineClock = integer(overdrive6, "engineClock", 0);
    status.iMemoryClock = integer(overdrive6, "memoryClock", 0);
    status.iActivityPercent = integer(overdrive6, "activity", 0);
    status.iCurrentPerformanceLevel = integer(overdrive6, "performanceLevel", 0);
    status.iCurrentBusSpeed = integer(overdrive6, "busSpeed", 0);
    status.iCurrentBusLanes = integer(overdrive6, "busLanes", 0);
    status.iMaximumBusLanes = integer(overdrive6, "maxBusLanes", 0);
    return status;
}

std::optional<vendor::ADLOD6FanSpeedInfo> readFanSpeed(const json& overdrive6)
{
    const json& section = member(overdrive6, "fan");
    if (!section.is_object())
        return std::nullopt;
    vendor::ADLOD6FanSpeedInfo fan{};
    fan.iSpeedType = integer(section, "type", vendor::ADL_OD6_FANSPEED_TYPE_PERCENT | vendor::ADL_OD6_FANSPEED_TYPE_RPM);
    fan.iFanSpeedPercent = integer(section, "percent", 0);
    fan.iFanSpeedRPM = integer(section, "rpm", 0);
    return fan;
}

std::optional<vendor::ADLMemoryInfo> readMemory(const json& section)
{
    if (!section.is_object())
        return std::nullopt;
    vendor::ADLMemoryInfo memory{};
    memory.iMemorySize = wide(section, "size", 0);
    copyText(memory.strMemoryType, sim::text(section, "type", "GDDR6"));
    memory.iMemoryBandwidth = wide(section, "bandwidth", 0);
    return memory;
}

// The adapter indices a combination links; ADL links at most three.
vendor::ADLCrossfireComb readLinks(const json& links)
{
    vendor::ADLCrossfireComb combination{};
    if (links.is_array())
        for (const json& link : links)
            if (link.is_number_integer() && combination.iNumLinkAdapter < 3)
                combination.iAdaptLink[combination.iNumLinkAdapter++] = static_cast<int>(link.get<std::int64_t>());
    return combination;
}

vendor::ADLCrossfireInfo readCrossfireInfo(const json& object, const vendor::ADLCrossfireInfo& fallback)
{
    vendor::ADLCrossfireInfo info{};
    info.iErrorCode = integer(object, "errorCode", fallback.iErrorCode);
    info.iState = integer(object, "state", fallback.iState);
    info.iSupported = integer(object, "supported", fallback.iSupported);
    return info;
}

// "combinations": each a list of linked adapter indices, or an object with
// "adapters" and its own "state", "supported", "errorCode".
std::optional<Crossfire> readCrossfire(const json& section)
{
    if (!section.is_object())
        return std::nullopt;
    Crossfire crossfire;
    crossfire.preferred = integer(section, "preferred", 0);
    const vendor::ADLCrossfireInfo shared = readCrossfireInfo(section, {});
    const json& combinations = member(section, "combinations");
    if (combinations.is_array())
        for (const json& entry : combinations) {
            const json& links = entry.is_object() ? member(entry, "adapters") : entry;
            crossfire.combinations.push_back({readLinks(links), readCrossfireInfo(entry, shared)});
        }
    return crossfire;
}

Gpu readGpu(const json& adl)
{
    Gpu gpu;
    gpu.bios = readBios(member(adl, "bios"));
    gpu.temperature = readTemperature(member(adl, "overdrive5"));
    gpu.currentStatus = readCurrentStatus(member(adl, "overdrive6"));
    gpu.fanSpeed = readFanSpeed(member(adl, "overdrive6"));
    gpu.memory = readMemory(member(adl, "memory"));
    gpu.crossfire = readCrossfire(member(adl, "crossfire"));
    return gpu;
}

// One adapter: its own keys first, then the GPU's "adl" section, then the GPU.
vendor::AdapterInfo readAdapter(const json& adapter, const json& adl, const json& gpu, int position)
{
    vendor::AdapterInfo info{};
    info.iSize = sizeof(vendor::AdapterInfo);
    info.iAdapterIndex = integer(adapter, "index", position);
    const json& pci = firstObject({&adapter, &adl, &gpu}, "pci");
    info.iBusNumber = integer(pci, "bus", 0);
    info.iDeviceNumber = integer(pci, "device", 0);
    info.iFunctionNumber = integer(pci, "function", 0);
    info.iVendorID = static_cast<int>(wide(adapter, "vendorId", wide(adl, "vendorId", 0x1002)));
    const std::string location = std::to_string(info.iBusNumber) + "&" + std::to_string(info.iDeviceNumber) + "&" +
                                 std::to_string(info.iFunctionNumber);
    copyText(info.strUDID, firstText({&adapter, &adl}, "udid", "PCI_VEN_1002&SIMULATED&" + location));
    copyText(info.strAdapterName, firstText({&adapter, &adl, &gpu}, "name", "Simulated AMD GPU"));
    copyText(info.strDisplayName, firstText({&adapter}, "displayName", ""));
    info.iPresent = integer(adapter, "present", 1);
#if defined(_WIN32)
    info.iExist = integer(adapter, "exist", 1);
    info.iOSDisplayIndex = position;
#else
    info.iXScreenNum = -1;
#endif
    return info;
}

} // namespace

const Adapter* Machine::find(int adapterIndex) const
{
    for (const Adapter& adapter : adapters)
        if (adapter.info.iAdapterIndex == adapterIndex)
            return &adapter;
    return nullptr;
}

Machine readMachine(const json& scenario)
{
    Machine machine;
    const json& gpus = member(scenario, "gpus");
    if (!gpus.is_array())
        return machine;
    for (const json& gpu : gpus) {
        const json& adl = member(gpu, "adl");
        if (!adl.is_object())
            continue; // not a GPU ADL sees
        const std::size_t gpuIndex = machine.gpus.size();
        machine.gpus.push_back(readGpu(adl));
        // "adapters": a list of adapter objects, or how many plain ones; one by default.
        const json& adapters = member(adl, "adapters");
        json list = adapters.is_array() ? adapters : json::array();
        if (adapters.is_number_integer())
            for (std::int64_t i = 0; i < std::min<std::int64_t>(adapters.get<std::int64_t>(), 64); ++i)
                list.push_back(json::object());
        else if (!adapters.is_array())
            list.push_back(json::object());
        for (const json& adapter : list) {
            const int position = static_cast<int>(machine.adapters.size());
            machine.adapters.push_back({readAdapter(adapter, adl, gpu, position), gpuIndex});
        }
    }
    return machine;
}

void unterminate(vendor::AdapterInfo& info)
{
    fill(info.strUDID);
    fill(info.strAdapterName);
    fill(info.strDisplayName);
}

void unterminate(vendor::ADLBiosInfo& bios)
{
    fill(bios.strPartNumber);
    fill(bios.strVersion);
    fill(bios.strDate);
}

void unterminate(vendor::ADLMemoryInfo& memory) { fill(memory.strMemoryType); }

} // namespace sim::adl
