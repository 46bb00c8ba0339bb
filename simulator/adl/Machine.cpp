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
            Combination combination{readLinks(links), readCrossfireInfo(entry, shared)};
            // "linkCount" reports another number of links than the list holds.
            combination.links.iNumLinkAdapter = integer(entry, "linkCount", combination.links.iNumLinkAdapter);
            crossfire.combinations.push_back(combination);
        }
    return crossfire;
}

std::optional<AsicFamily> readAsic(const json& section)
{
    if (!section.is_object())
        return std::nullopt;
    return AsicFamily{integer(section, "types", 0), integer(section, "valids", 0)};
}

std::optional<OverdriveCaps> readOverdriveCaps(const json& section)
{
    if (!section.is_object())
        return std::nullopt;
    return OverdriveCaps{integer(section, "supported", 1), integer(section, "enabled", 1),
                         integer(section, "version", 5)};
}

std::optional<vendor::ADLPMActivity> readActivity(const json& overdrive5)
{
    const json& section = member(overdrive5, "activity");
    if (!section.is_object())
        return std::nullopt;
    vendor::ADLPMActivity activity{};
    activity.iSize = sizeof(activity);
    activity.iEngineClock = integer(section, "engineClock", 0);
    activity.iMemoryClock = integer(section, "memoryClock", 0);
    activity.iVddc = integer(section, "vddc", 0);
    activity.iActivityPercent = integer(section, "percent", 0);
    activity.iCurrentPerformanceLevel = integer(section, "performanceLevel", 0);
    activity.iCurrentBusSpeed = integer(section, "busSpeed", 0);
    activity.iCurrentBusLanes = integer(section, "busLanes", 0);
    activity.iMaximumBusLanes = integer(section, "maxBusLanes", 0);
    return activity;
}

std::optional<std::vector<vendor::ADLThermalControllerInfo>> readThermalControllers(const json& overdrive5)
{
    const json& list = member(overdrive5, "thermalControllers");
    if (!list.is_array())
        return std::nullopt;
    std::vector<vendor::ADLThermalControllerInfo> controllers;
    for (const json& entry : list) {
        vendor::ADLThermalControllerInfo info{};
        info.iSize = sizeof(info);
        info.iThermalDomain = integer(entry, "domain", vendor::ADL_DL_THERMAL_DOMAIN_GPU);
        info.iDomainIndex = integer(entry, "index", 0);
        info.iFlags = integer(entry, "flags", 0);
        controllers.push_back(info);
    }
    return controllers;
}

std::optional<int> readNumber(const json& section, const char* key)
{
    const json& value = member(section, key);
    if (!value.is_number_integer())
        return std::nullopt;
    return static_cast<int>(value.get<std::int64_t>());
}

vendor::ADLODClockSetting readClockSetting(const json& section)
{
    vendor::ADLODClockSetting setting{};
    setting.iDefaultClock = integer(section, "default", 0);
    setting.iCurrentClock = integer(section, "current", 0);
    setting.iMaxClock = integer(section, "max", 0);
    setting.iMinClock = integer(section, "min", 0);
    setting.iRequestedClock = integer(section, "requested", 0);
    setting.iStepClock = integer(section, "step", 0);
    return setting;
}

std::optional<vendor::ADLAdapterODClockInfo> readODClock(const json& section)
{
    if (!section.is_object())
        return std::nullopt;
    vendor::ADLAdapterODClockInfo info{};
    info.iSize = sizeof(info);
    info.iFlags = integer(section, "flags", 0);
    info.sEngineClock = readClockSetting(member(section, "engine"));
    info.sMemoryClock = readClockSetting(member(section, "memory"));
    return info;
}

// "settings" and "current": a list, or how many made-up entries (at most 1024).
std::vector<json> entries(const json& value)
{
    if (value.is_array())
        return value.get<std::vector<json>>();
    std::vector<json> made;
    if (value.is_number_integer())
        for (std::int64_t i = 0; i < std::min<std::int64_t>(value.get<std::int64_t>(), 1024); ++i)
            made.push_back(json());
    return made;
}

std::optional<Overdrive8> readOverdrive8(const json& section)
{
    if (!section.is_object())
        return std::nullopt;
    Overdrive8 overdrive8;
    overdrive8.capabilities = integer(section, "capabilities", 0);
    int id = 0;
    for (const json& entry : entries(member(section, "settings"))) {
        vendor::ADLOD8SingleInitSetting setting{};
        setting.featureID = integer(entry, "id", id);
        setting.minValue = integer(entry, "min", 100 * id);
        setting.maxValue = integer(entry, "max", 100 * id + 50);
        setting.defaultValue = integer(entry, "default", 100 * id + 25);
        overdrive8.settings.push_back(setting);
        ++id;
    }
    int position = 0;
    for (const json& value : entries(member(section, "current"))) {
        overdrive8.current.push_back(value.is_number_integer() ? static_cast<int>(value.get<std::int64_t>())
                                                               : 1000 + position);
        ++position;
    }
    overdrive8.pmLog.size = sizeof(overdrive8.pmLog);
    const json& sensors = member(section, "pmlog");
    if (sensors.is_array())
        for (const json& sensor : sensors) {
            const std::int64_t index = wide(sensor, "sensor", -1);
            if (index < 0 || index >= vendor::ADL_PMLOG_MAX_SENSORS)
                continue;
            overdrive8.pmLog.sensors[index].supported = integer(sensor, "supported", 1);
            overdrive8.pmLog.sensors[index].value = integer(sensor, "value", 0);
        }
    return overdrive8;
}

Gpu readGpu(const json& adl, const vendor::AdapterInfo& first)
{
    Gpu gpu;
    gpu.bios = readBios(member(adl, "bios"));
    gpu.temperature = readTemperature(member(adl, "overdrive5"));
    gpu.currentStatus = readCurrentStatus(member(adl, "overdrive6"));
    gpu.fanSpeed = readFanSpeed(member(adl, "overdrive6"));
    gpu.memory = readMemory(member(adl, "memory"));
    gpu.crossfire = readCrossfire(member(adl, "crossfire"));
    gpu.activity = readActivity(member(adl, "overdrive5"));
    gpu.thermalControllers = readThermalControllers(member(adl, "overdrive5"));
    gpu.overdrive6Temperature = readNumber(member(adl, "overdrive6"), "temperature");
    gpu.overdrive6Power = readNumber(member(adl, "overdrive6"), "power");
    gpu.overdriveNTemperature = readNumber(member(adl, "overdriveN"), "temperature");
    gpu.odClock = readODClock(member(adl, "odClock"));
    gpu.overdrive8 = readOverdrive8(member(adl, "overdrive8"));
    // One id per physical adapter, from its PCI location unless the scenario says;
    // made from the location's bits, so any numbers a scenario gives fit.
    const auto bits = [](int field, unsigned width) { return static_cast<unsigned>(field) & ((1u << width) - 1); };
    const unsigned fromLocation =
        (bits(first.iBusNumber, 8) << 8) | (bits(first.iDeviceNumber, 5) << 3) | bits(first.iFunctionNumber, 3);
    gpu.adapterId = integer(adl, "adapterId", static_cast<int>(fromLocation));
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
        // "adapters": a list of adapter objects, or how many plain ones; one by default.
        const json& adapters = member(adl, "adapters");
        json list = adapters.is_array() ? adapters : json::array();
        if (adapters.is_number_integer())
            for (std::int64_t i = 0; i < std::min<std::int64_t>(adapters.get<std::int64_t>(), 64); ++i)
                list.push_back(json::object());
        else if (!adapters.is_array())
            list.push_back(json::object());
        const std::optional<AsicFamily> asic = readAsic(member(adl, "asic"));
        const std::optional<OverdriveCaps> overdrive = readOverdriveCaps(member(adl, "overdrive"));
        for (const json& adapter : list) {
            const int position = static_cast<int>(machine.adapters.size());
            Adapter entry;
            entry.info = readAdapter(adapter, adl, gpu, position);
            entry.gpu = gpuIndex;
            entry.asic = member(adapter, "asic").is_object() ? readAsic(member(adapter, "asic")) : asic;
            entry.overdrive =
                member(adapter, "overdrive").is_object() ? readOverdriveCaps(member(adapter, "overdrive")) : overdrive;
            entry.displays = integer(adapter, "displays", entry.info.strDisplayName[0] != '\0' ? 1 : 0);
            entry.connected = !member(adapter, "connected").is_boolean() || member(adapter, "connected").get<bool>();
            machine.adapters.push_back(entry);
        }
        const vendor::AdapterInfo none{};
        const std::size_t first = machine.adapters.size() - list.size();
        machine.gpus.push_back(readGpu(adl, list.empty() ? none : machine.adapters[first].info));
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
