#include "libKestrel/internal/Kestrel.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "libKestrel/GPU.h"
#include "libKestrel/internal/Assert.h"
#include "libKestrel/internal/Identity.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Main.h"
#include "libKestrel/internal/Properties.h"

namespace libKestrel {
namespace {

logging::LogSite site("libKestrel.Kestrel", "libKestrel/src/Kestrel.cpp");

// The common frame of every property merge: an empty side never overrides or
// weakens a present one; with both present, 'combine' decides.
template <class T, class Combine>
std::optional<T> merged(const char* function, int line, const std::optional<T>& lhs, const std::optional<T>& rhs,
                        Combine combine)
{
    auto trace = site.trace(function, line);
    if (lhs && rhs)
        return combine(*lhs, *rhs);
    return lhs ? lhs : rhs;
}

// Length in bytes decides, never content; a tie goes to the right-hand text.
const std::string& longerText(const std::string& lhs, const std::string& rhs)
{
    return lhs.size() > rhs.size() ? lhs : rhs;
}

bool bothTrue(bool lhs, bool rhs) { return lhs && rhs; }

template <class T>
T smaller(T lhs, T rhs)
{
    return std::min(lhs, rhs);
}

template <class T>
T larger(T lhs, T rhs)
{
    return std::max(lhs, rhs);
}

template <class T>
T left(T lhs, T)
{
    return lhs;
}

std::uint64_t either(std::uint64_t lhs, std::uint64_t rhs) { return lhs | rhs; }

// A copy of 'gpu' at 'location'.
std::shared_ptr<IGPU> relocated(const IGPU& gpu, const pci::PciLocation& location)
{
    auto copy = std::make_shared<GPU>(location);
#define LIBKESTREL_COPY_PROPERTY(type, getter, setter, unit) copy->setter(gpu.getter());
    LIBKESTREL_ALL_GPU_PROPERTIES(LIBKESTREL_COPY_PROPERTY)
#undef LIBKESTREL_COPY_PROPERTY
    return copy;
}

} // namespace

// clang-format off
OptionalText mergeNames(const OptionalText& l, const OptionalText& r) { return merged("mergeNames", 54, l, r, longerText); }
OptionalText mergeDriverVersions(const OptionalText& l, const OptionalText& r) { return merged("mergeDriverVersions", 55, l, r, longerText); }
OptionalText mergeVBIOSVersions(const OptionalText& l, const OptionalText& r) { return merged("mergeVBIOSVersions", 56, l, r, longerText); }
OptionalText mergeBusType(const OptionalText& l, const OptionalText& r) { return merged("mergeBusType", 57, l, r, longerText); }
OptionalText mergeUUIDs(const OptionalText& l, const OptionalText& r) { return merged("mergeUUIDs", 58, l, r, longerText); }
OptionalFlag mergeHardwareAcceleration(const OptionalFlag& l, const OptionalFlag& r) { return merged("mergeHardwareAcceleration", 59, l, r, bothTrue); }
OptionalFlag mergeSLI(const OptionalFlag& l, const OptionalFlag& r) { return merged("mergeSLI", 60, l, r, bothTrue); }
OptionalFlag mergeCrossfire(const OptionalFlag& l, const OptionalFlag& r) { return merged("mergeCrossfire", 61, l, r, bothTrue); }
OptionalFlag mergeECCMemory(const OptionalFlag& l, const OptionalFlag& r) { return merged("mergeECCMemory", 62, l, r, bothTrue); }
Optional32 mergeCoreCount(const Optional32& l, const Optional32& r) { return merged("mergeCoreCount", 63, l, r, smaller<std::uint32_t>); }
Optional64 mergeMemory(const Optional64& l, const Optional64& r) { return merged("mergeMemory", 64, l, r, smaller<std::uint64_t>); }
Optional32 mergeMemoryWidth(const Optional32& l, const Optional32& r) { return merged("mergeMemoryWidth", 65, l, r, smaller<std::uint32_t>); }
Optional64 mergeMemoryBandwidth(const Optional64& l, const Optional64& r) { return merged("mergeMemoryBandwidth", 66, l, r, smaller<std::uint64_t>); }
Optional32 mergeClockFrequencies(const Optional32& l, const Optional32& r) { return merged("mergeClockFrequencies", 67, l, r, larger<std::uint32_t>); }
Optional32 mergeUtilizationPercent(const Optional32& l, const Optional32& r) { return merged("mergeUtilizationPercent", 68, l, r, larger<std::uint32_t>); }
Optional64 mergeECCErrorCounts(const Optional64& l, const Optional64& r) { return merged("mergeECCErrorCounts", 69, l, r, larger<std::uint64_t>); }
Optional64 mergeTemperature(const Optional64& l, const Optional64& r) { return merged("mergeTemperature", 70, l, r, larger<std::uint64_t>); }
Optional32 mergeFanSpeed(const Optional32& l, const Optional32& r) { return merged("mergeFanSpeed", 71, l, r, larger<std::uint32_t>); }
Optional32 mergeVersion(const Optional32& l, const Optional32& r) { return merged("mergeVersion", 72, l, r, larger<std::uint32_t>); }
OptionalHandle mergeNativeMonitorHandle(const OptionalHandle& l, const OptionalHandle& r) { return merged("mergeNativeMonitorHandle", 73, l, r, left<void*>); }
// clang-format on

Optional32 mergePowerDraw(const Optional32& l, const Optional32& r)
{
    return merged("mergePowerDraw", 85, l, r, left<std::uint32_t>);
}

Optional64 mergeEnergy(const Optional64& l, const Optional64& r)
{
    return merged("mergeEnergy", 90, l, r, left<std::uint64_t>);
}

Optional32 mergePowerLimit(const Optional32& l, const Optional32& r)
{
    return merged("mergePowerLimit", 95, l, r, smaller<std::uint32_t>);
}

Optional32 mergePCIeLink(const Optional32& l, const Optional32& r)
{
    return merged("mergePCIeLink", 100, l, r, smaller<std::uint32_t>);
}

Optional32 mergePerformanceState(const Optional32& l, const Optional32& r)
{
    return merged("mergePerformanceState", 105, l, r, larger<std::uint32_t>);
}

Optional64 mergeClockEventReasons(const Optional64& l, const Optional64& r)
{
    return merged("mergeClockEventReasons", 110, l, r, either);
}

std::shared_ptr<IGPU> mergeTwoGPUs(const std::shared_ptr<IGPU>& gpuLHS, const std::shared_ptr<IGPU>& gpuRHS)
{
    auto trace = site.trace("mergeTwoGPUs", 76);
    KESTREL_ASSERT(*(gpuLHS->pciLocation()) == *(gpuRHS->pciLocation()));

    const IGPU& l = *gpuLHS;
    const IGPU& r = *gpuRHS;
    auto gpu = std::make_shared<GPU>(*l.pciLocation());
    gpu->setName(mergeNames(l.name(), r.name()));
    gpu->setDriverVersion(mergeDriverVersions(l.driverVersion(), r.driverVersion()));
    gpu->setVBIOSVersion(mergeVBIOSVersions(l.vbiosVersion(), r.vbiosVersion()));
    gpu->setCoreCount(mergeCoreCount(l.coreCount(), r.coreCount()));
    gpu->setHardwareAcceleration(mergeHardwareAcceleration(l.hardwareAcceleration(), r.hardwareAcceleration()));
    gpu->setTotalMemory(mergeMemory(l.totalMemory(), r.totalMemory()));
    gpu->setDedicatedMemory(mergeMemory(l.dedicatedMemory(), r.dedicatedMemory()));
    gpu->setAvailableDedicatedMemory(mergeMemory(l.availableDedicatedMemory(), r.availableDedicatedMemory()));
    gpu->setGraphicsClock(mergeClockFrequencies(l.graphicsClock(), r.graphicsClock()));
    gpu->setMemoryClock(mergeClockFrequencies(l.memoryClock(), r.memoryClock()));
    gpu->setShaderClock(mergeClockFrequencies(l.shaderClock(), r.shaderClock()));
    gpu->setMemoryWidth(mergeMemoryWidth(l.memoryWidth(), r.memoryWidth()));
    gpu->setMemoryBandwidth(mergeMemoryBandwidth(l.memoryBandwidth(), r.memoryBandwidth()));
    gpu->setBusType(mergeBusType(l.busType(), r.busType()));
    gpu->setECCSupported(mergeECCMemory(l.eccSupported(), r.eccSupported()));
    gpu->setECCEnabled(mergeECCMemory(l.eccEnabled(), r.eccEnabled()));
    gpu->setUtilizationGPU(mergeUtilizationPercent(l.utilizationGPU(), r.utilizationGPU()));
    gpu->setUtilizationMemory(mergeUtilizationPercent(l.utilizationMemory(), r.utilizationMemory()));
    gpu->setECCErrorsCorrectedVolatile(mergeECCErrorCounts(l.eccErrorsCorrectedVolatile(), r.eccErrorsCorrectedVolatile()));
    gpu->setECCErrorsUncorrectedVolatile(mergeECCErrorCounts(l.eccErrorsUncorrectedVolatile(), r.eccErrorsUncorrectedVolatile()));
    gpu->setECCErrorsCorrectedAggregate(mergeECCErrorCounts(l.eccErrorsCorrectedAggregate(), r.eccErrorsCorrectedAggregate()));
    gpu->setECCErrorsUncorrectedAggregate(mergeECCErrorCounts(l.eccErrorsUncorrectedAggregate(), r.eccErrorsUncorrectedAggregate()));
    gpu->setTemperatureCurrent(mergeTemperature(l.temperatureCurrent(), r.temperatureCurrent()));
    gpu->setTemperatureSlowdown(mergeTemperature(l.temperatureSlowdown(), r.temperatureSlowdown()));
    gpu->setTemperatureShutdown(mergeTemperature(l.temperatureShutdown(), r.temperatureShutdown()));
    gpu->setUUID(mergeUUIDs(l.uuid(), r.uuid()));
    gpu->setFanSpeedPercent(mergeFanSpeed(l.fanSpeedPercent(), r.fanSpeedPercent()));
    gpu->setFanSpeedRPM(mergeFanSpeed(l.fanSpeedRPM(), r.fanSpeedRPM()));
    gpu->setSLI(mergeSLI(l.sli(), r.sli()));
    gpu->setVersionMajor(mergeVersion(l.versionMajor(), r.versionMajor()));
    gpu->setVersionMinor(mergeVersion(l.versionMinor(), r.versionMinor()));
    gpu->setCrossfire(mergeCrossfire(l.crossfire(), r.crossfire()));
    gpu->setNativeMonitorHandle(mergeNativeMonitorHandle(l.nativeMonitorHandle(), r.nativeMonitorHandle()));
    gpu->setPowerDraw(mergePowerDraw(l.powerDraw(), r.powerDraw()));
    gpu->setPowerLimit(mergePowerLimit(l.powerLimit(), r.powerLimit()));
    gpu->setEnergyConsumed(mergeEnergy(l.energyConsumed(), r.energyConsumed()));
    gpu->setTemperatureHotspot(mergeTemperature(l.temperatureHotspot(), r.temperatureHotspot()));
    gpu->setTemperatureMemory(mergeTemperature(l.temperatureMemory(), r.temperatureMemory()));
    gpu->setPCIeLinkGeneration(mergePCIeLink(l.pcieLinkGeneration(), r.pcieLinkGeneration()));
    gpu->setPCIeLinkWidth(mergePCIeLink(l.pcieLinkWidth(), r.pcieLinkWidth()));
    gpu->setPCIeLinkGenerationMax(mergePCIeLink(l.pcieLinkGenerationMax(), r.pcieLinkGenerationMax()));
    gpu->setPCIeLinkWidthMax(mergePCIeLink(l.pcieLinkWidthMax(), r.pcieLinkWidthMax()));
    gpu->setPerformanceState(mergePerformanceState(l.performanceState(), r.performanceState()));
    gpu->setClockEventReasons(mergeClockEventReasons(l.clockEventReasons(), r.clockEventReasons()));
    return gpu;
}

Merged mergePlaced(const std::vector<std::shared_ptr<IGPU>>& gpus)
{
    auto trace = site.trace("mergeGPUs", 120);
    Merged merged;
    merged.places.reserve(gpus.size());
    const Identities identities(gpus);
    // Each GPU's place in the result: one lookup per record, not a scan of
    // every record before it (a helper's answer may hold many thousands).
    std::map<std::tuple<bool, std::uint32_t, std::uint8_t, std::uint8_t, std::uint8_t>, std::size_t> placeOf;
    for (const auto& gpu : gpus) {
        const auto location = identities.of(gpu.get());
        if (!location) {
            merged.places.push_back(leftOut);
            continue;
        }
        const auto [place, first] = placeOf.try_emplace(
            std::make_tuple(location->domainKnown, location->domain, location->bus, location->device,
                            location->function),
            merged.gpus.size());
        // A record without domain that is a GPU of a known domain merges as that GPU.
        const auto record = gpu->pciLocation()->domainKnown == location->domainKnown ? gpu : relocated(*gpu, *location);
        if (first)
            merged.gpus.push_back(record);
        else
            merged.gpus[place->second] = mergeTwoGPUs(merged.gpus[place->second], record);
        merged.places.push_back(place->second);
    }
    return merged;
}

std::vector<std::shared_ptr<IGPU>> mergeGPUs(const std::vector<std::shared_ptr<IGPU>>& gpus)
{
    return mergePlaced(gpus).gpus;
}

std::vector<std::shared_ptr<IGPU>> queryAllMonitorGPUs(const std::vector<MonitorGPUQuerier>& monitorQueriers,
                                                       void* const& first, void* const& second)
{
    auto trace = site.trace("queryAllMonitorGPUs", 141);
    std::vector<std::shared_ptr<IGPU>> records;
    for (MonitorGPUQuerier querier : monitorQueriers) {
        if (!querier)
            continue; // a null entry in the host's list is skipped, not called
        auto found = querier(first, second);
        records.insert(records.end(), found.begin(), found.end());
    }
    return records;
}

std::vector<std::shared_ptr<IGPU>> queryAllGPUs(const std::vector<MonitorGPUQuerier>& monitorQueriers,
                                                const std::vector<GPUQuerier>& gpuQueriers, std::bitset<4>& status)
{
    std::vector<std::shared_ptr<IGPU>> all = queryAvailableMonitorInfo(monitorQueriers);
    for (GPUQuerier querier : gpuQueriers) {
        if (!querier)
            continue;
        auto found = querier(status);
        all.insert(all.end(), found.begin(), found.end());
    }
    return mergeGPUs(all);
}

} // namespace libKestrel
