#include "nvapi/Machine.h"

#include <map>
#include <utility>

#include "common/Simulator.h"

namespace simnvapi {
namespace {

using json = nlohmann::json;

// A member of a JSON object; null when it is missing or the value is no object.
// Scenarios may be hostile: a value of the wrong type is the same as none.
const json& member(const json& object, const char* key)
{
    static const json none;
    if (!object.is_object())
        return none;
    const auto found = object.find(key);
    return found == object.end() ? none : *found;
}

std::int64_t integer(const json& object, const char* key, std::int64_t fallback)
{
    const json& value = member(object, key);
    return value.is_number_integer() ? value.get<std::int64_t>() : fallback;
}

std::uint32_t unsigned32(const json& object, const char* key, std::int64_t fallback)
{
    return static_cast<std::uint32_t>(integer(object, key, fallback));
}

std::int32_t signed32(const json& object, const char* key, std::int64_t fallback)
{
    return static_cast<std::int32_t>(integer(object, key, fallback));
}

bool flag(const json& object, const char* key, bool fallback)
{
    const json& value = member(object, key);
    return value.is_boolean() ? value.get<bool>() : fallback;
}

// A clock domain is a frequency in kHz (present), or {"frequency": f, "present": false}.
Clock readClock(const json& value)
{
    Clock clock;
    if (value.is_number_integer()) {
        clock.present = true;
        clock.frequency = static_cast<std::uint32_t>(value.get<std::int64_t>());
    } else if (value.is_object()) {
        clock.present = flag(value, "present", true);
        clock.frequency = unsigned32(value, "frequency", 0);
    }
    return clock;
}

void readClocks(const json& clocks, Gpu& gpu)
{
    const char* const types[clockTypes] = {"current", "base", "boost"};
    const std::pair<const char*, std::size_t> domains[] = {
        {"graphics", 0}, {"memory", 4}, {"processor", 7}, {"video", 8}};
    for (std::size_t type = 0; type < clockTypes; ++type)
        for (const auto& [name, index] : domains)
            gpu.clocks[type][index] = readClock(member(member(clocks, types[type]), name));
}

Gpu readGpu(const json& entry, const json& nvapi)
{
    Gpu gpu;
    gpu.name = sim::text(nvapi, "name", sim::text(entry, "name", "Simulated NVIDIA GPU"));
    const json& pci = member(entry, "pci");
    gpu.busId = unsigned32(nvapi, "busId", integer(pci, "bus", 0));
    gpu.slotId = unsigned32(nvapi, "slotId", integer(pci, "device", 0));
    gpu.vbios = sim::text(nvapi, "vbios", "86.04.50.00.70");
    gpu.coreCount = unsigned32(nvapi, "coreCount", 0);
    const char* const memoryKeys[memoryFields] = {"dedicated",    "available",     "system",       "sharedSystem",
                                                  "curAvailable", "evictionsSize", "evictionCount"};
    for (std::size_t field = 0; field < memoryFields; ++field)
        gpu.memory[field] = unsigned32(member(nvapi, "memory"), memoryKeys[field], 0);
    readClocks(member(nvapi, "clocks"), gpu);
    gpu.busType = signed32(nvapi, "busType", 3);
    const json& ecc = member(nvapi, "ecc");
    gpu.eccSupported = flag(ecc, "supported", false);
    gpu.eccEnabled = flag(ecc, "enabled", false);
    gpu.eccConfiguration = signed32(ecc, "configuration", 0);
    gpu.systemType = signed32(nvapi, "systemType", 2);
    gpu.tach = unsigned32(nvapi, "tach", 0);
    const json& thermal = member(nvapi, "thermal");
    if (thermal.is_array())
        for (const json& sensor : thermal) {
            if (gpu.sensors.size() == maxSensors)
                break;
            gpu.sensors.push_back({signed32(sensor, "controller", 1), signed32(sensor, "min", 0),
                                   signed32(sensor, "max", 127), signed32(sensor, "current", 0),
                                   signed32(sensor, "target", 1)});
        }
    return gpu;
}

// The SLI group of each scenario GPU ("sli": lists of indices into "gpus"), -1
// for none. A GPU named by two groups stays in the first.
std::vector<long> sliGroups(const json& sli, std::size_t gpuCount)
{
    std::vector<long> group(gpuCount, -1);
    if (!sli.is_array())
        return group;
    for (std::size_t g = 0; g < sli.size(); ++g) {
        if (!sli[g].is_array())
            continue;
        for (const json& index : sli[g])
            if (index.is_number_integer() && index.get<std::int64_t>() >= 0 &&
                index.get<std::int64_t>() < static_cast<std::int64_t>(gpuCount) && group[index.get<std::size_t>()] < 0)
                group[index.get<std::size_t>()] = static_cast<long>(g);
    }
    return group;
}

} // namespace

Machine readMachine(const json& scenario)
{
    Machine machine;
    const json& settings = member(scenario, "nvapi");
    machine.driverVersion = unsigned32(settings, "driverVersion", machine.driverVersion);
    machine.branch = sim::text(settings, "branch", machine.branch);
    machine.stereo = flag(settings, "stereo", false);
    machine.oldDriver = flag(settings, "oldDriver", false);

    const json& gpus = member(scenario, "gpus");
    if (!gpus.is_array())
        return machine;
    const std::vector<long> group = sliGroups(member(scenario, "sli"), gpus.size());
    std::map<long, std::size_t> logicalOfGroup;
    for (std::size_t s = 0; s < gpus.size() && machine.gpus.size() < maxGpus; ++s) {
        const json& nvapi = member(gpus[s], "nvapi");
        if (!nvapi.is_object())
            continue;
        Gpu gpu = readGpu(gpus[s], nvapi);
        // A GPU outside every group is a logical GPU of its own.
        const auto known = group[s] < 0 ? logicalOfGroup.end() : logicalOfGroup.find(group[s]);
        if (known == logicalOfGroup.end()) {
            gpu.logical = machine.logicalGpus.size();
            machine.logicalGpus.emplace_back();
            if (group[s] >= 0)
                logicalOfGroup[group[s]] = gpu.logical;
        } else {
            gpu.logical = known->second;
        }
        machine.logicalGpus[gpu.logical].push_back(machine.gpus.size());
        machine.gpus.push_back(std::move(gpu));
    }
    return machine;
}

} // namespace simnvapi
