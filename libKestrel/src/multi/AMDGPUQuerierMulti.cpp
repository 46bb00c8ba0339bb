#include "libKestrel/internal/multi/AMDGPUQuerierMulti.h"

#include <algorithm>
#include <functional>
#include <optional>

#include "libKestrel/GPU.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/Location.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/multi/AMD/AdlReadingContext.h"
#include "libKestrel/internal/multi/AMD/adlcontrol.h"
#include "libKestrel/internal/multi/AMD/adlwrapper.h"
#include "libKestrel/internal/multi/AMD/amd_adl.h"
#include "libKestrel/internal/multi/AMD/amd_adl2.h"

namespace libKestrel {
namespace {

using adlwrapper::adlBinding;
using adlwrapper::adlMainMemoryAlloc;
using adlwrapper::adlString;
using logging::log;
using logging::Priority;
using Records = std::vector<std::shared_ptr<IGPU>>;

logging::LogSite site("libKestrel.AMDGPUQuerierMulti", "libKestrel/src/multi/AMDGPUQuerierMulti.cpp");

// Both passes enumerate alike and say the same words; only the tags differ.
struct PassTags {
    const char* countMissing;
    const char* countFailed;
    const char* counted;
    const char* countAbsurd;
    const char* infoMissing;
    const char* infoFailed;
    const char* unfilled;
    const char* location;
    const char* misplaced;
};
constexpr PassTags adlTags{"156 ", "164 ", "171 ", "172 ", "174 ", "182 ", "183 ", "57 ", "58 "};
constexpr PassTags adl2Tags{"214 ", "221 ", "228 ", "229 ", "232 ", "239 ", "240 ", "108 ", "109 "};

// ADL's adapter list through one interface's count and list entries; 'context'
// is the ADL2 context, or nothing for the first interface. Empty after a logged
// failure. Entries ADL leaves unfilled read as zeros.
template <class CountEntry, class InfoEntry, class... Context>
std::optional<std::vector<adl::AdapterInfo>> readAdapters(const PassTags& tags, CountEntry countEntry,
                                                          InfoEntry infoEntry, Context... context)
{
    if (!countEntry) {
        log(site, Priority::WARNING, tags.countMissing, "Adapter_NumberOfAdapters_Get not available");
        return std::nullopt;
    }
    int count = 0;
    const int counted = countEntry(context..., &count);
    if (counted != adl::ADL_OK) {
        log(site, Priority::CRITICAL, tags.countFailed, "Failed to retrieve the adapter count: ", counted);
        return std::nullopt;
    }
    log(site, Priority::TRACE, tags.counted, "Enumerated AMD adapter count: ", count);
    if (count > adlwrapper::mostAdapters) {
        log(site, Priority::CRITICAL, tags.countAbsurd, "Adapter count beyond any machine, not enumerating: ", count);
        return std::nullopt;
    }
    if (!infoEntry) {
        log(site, Priority::WARNING, tags.infoMissing, "Adapter_AdapterInfo_Get not available");
        return std::nullopt;
    }
    std::vector<adl::AdapterInfo> adapters;
    if (count < 1)
        return adapters; // nothing to ask for
    adapters.resize(static_cast<std::size_t>(count));
    const int size = count * static_cast<int>(sizeof(adl::AdapterInfo));
    const int filled = infoEntry(context..., adapters.data(), size);
    if (filled != adl::ADL_OK) {
        log(site, Priority::CRITICAL, tags.infoFailed, "Failed to retrieve the adapter info: ", filled);
        return std::nullopt;
    }
    // ADL writes iSize into every entry it fills; a count larger than its list
    // leaves zeros behind, which would read as a GPU at 00:00.0.
    const auto unfilled = std::remove_if(adapters.begin(), adapters.end(),
                                         [](const adl::AdapterInfo& info) { return info.iSize == 0; });
    if (unfilled != adapters.end())
        log(site, Priority::WARNING, tags.unfilled, "Adapter entries ADL did not fill, skipped: ",
            adapters.end() - unfilled);
    adapters.erase(unfilled, adapters.end());
    return adapters;
}

void append(Records& result, const Records& records) { result.insert(result.end(), records.begin(), records.end()); }

// The adapter's place on the bus (ADL has no domain), or nothing when ADL places
// it where no PCI device can be.
std::optional<pci::PciLocation> adapterLocation(const adl::AdapterInfo& info, const PassTags& tags)
{
    const auto location = pciLocationOf(info.iBusNumber, info.iDeviceNumber, info.iFunctionNumber);
    if (!location) {
        log(site, Priority::WARNING, tags.misplaced, "Adapter outside the PCI bus, skipped: bus ", info.iBusNumber,
            ", device ", info.iDeviceNumber, ", function ", info.iFunctionNumber);
        return std::nullopt;
    }
    log(site, Priority::TRACE, tags.location, "Found PCI location information: ", *location);
    return location;
}

// The readings that change while the GPU runs, in the order a record reads them.
void readTemperatureClocksAndUse(const adlwrapper::ADLCalls& calls, int index, GPU& gpu)
{
    gpu.setTemperatureCurrent(query_TemperatureCurrent(calls, index));
    const AMDClockFrequencies clocks = query_ClockFrequencies(calls, index);
    gpu.setGraphicsClock(clocks.engine);
    gpu.setMemoryClock(clocks.memory);
    gpu.setUtilizationGPU(query_UtilizationGPU(calls, index));
}

void readFan(const adlwrapper::ADLCalls& calls, int index, GPU& gpu)
{
    const AMDFanSpeed fan = query_FanSpeed(calls, index);
    gpu.setFanSpeedPercent(fan.percent);
    gpu.setFanSpeedRPM(fan.rpm);
}

void readPowerAndHeat(const adlwrapper::ADLCalls& calls, int index, GPU& gpu)
{
    const AMDPowerAndHeat read = query_PowerAndHeat(calls, index);
    gpu.setPowerDraw(read.power);
    gpu.setTemperatureHotspot(read.hotspot);
    gpu.setTemperatureMemory(read.memory);
}

// What a session reads again: the temperature, one reading of the current
// status (clocks and utilisation), the fan, and the power and hot temperatures.
void readReadings(const adlwrapper::ADLCalls& calls, int index, GPU& gpu)
{
    gpu.setTemperatureCurrent(query_TemperatureCurrent(calls, index));
    const AMDActivity activity = query_Activity(calls, index);
    gpu.setGraphicsClock(activity.clocks.engine);
    gpu.setMemoryClock(activity.clocks.memory);
    gpu.setUtilizationGPU(activity.utilization);
    readFan(calls, index, gpu);
    readPowerAndHeat(calls, index, gpu);
}

// Runs 'use' inside a share of the process's one first-interface control, and
// under the lock of its calls. 'start' starts the control when no one in the
// process holds it; false, without running 'use', when it does not start.
bool withFirstInterface(const adlwrapper::ADLFunctions& f, const std::function<bool()>& start,
                        const std::function<void()>& use)
{
    const auto calls = adlcontrol::lockCalls();
    if (!adlcontrol::acquire(calls, start))
        return false;
    // A library without the destroy entry has nothing to call.
    ScopeExit end([&calls, destroy = f.ADL_Main_Control_Destroy] {
        adlcontrol::release(calls, [destroy] {
            if (destroy)
                destroy();
        });
    });
    use();
    return true;
}

// Each adapter with its records, as a pass hands them on.
using Take = std::function<void(const adl::AdapterInfo&, const Records&)>;

// First pass, through ADL's first interface, with the readings ADL has in their
// ADL2 form alone on 'adl2Only' when it is given. False when it ended early, in
// which case the second pass is not tried.
bool queryAdapters(const Take& take, const adlwrapper::ADL2OnlyReadings* adl2Only)
{
    const adlwrapper::ADLFunctions& f = adlBinding().functions;
    if (!f.ADL_Main_Control_Create) {
        log(site, Priority::WARNING, "142 ", "Main_Control_Create not available");
        return false;
    }
    const auto start = [&f] {
        // 1: enumerate connected adapters only.
        const int created = f.ADL_Main_Control_Create(adlMainMemoryAlloc, 1);
        if (created != adl::ADL_OK)
            log(site, Priority::WARNING, "149 ", "Failed to create main control: ", created);
        return created == adl::ADL_OK;
    };
    bool listed = false;
    withFirstInterface(f, start, [&] {
        const auto adapters = readAdapters(adlTags, f.ADL_Adapter_NumberOfAdapters_Get, f.ADL_Adapter_AdapterInfo_Get);
        if (!adapters)
            return;
        const adlwrapper::ADLCalls calls{f, nullptr, adl2Only};
        for (const adl::AdapterInfo& info : *adapters)
            take(info, queryAMDGPU(calls, info)); // present or not
        listed = true;
    });
    return listed;
}

// Second pass, through an ADL2 context of its own.
void queryPresentAdapters(const Take& take)
{
    const adlwrapper::ADLFunctions& f = adlBinding().functions;
    if (!f.ADL2_Main_Control_Create) {
        log(site, Priority::WARNING, "197 ", "Main_Control_Create not available");
        return;
    }
    adl::ADL_CONTEXT_HANDLE context = nullptr;
    const int created = f.ADL2_Main_Control_Create(adlMainMemoryAlloc, 1, &context);
    if (created != adl::ADL_OK) {
        log(site, Priority::WARNING, "205 ", "Error initializing ADL2: ", created);
        return;
    }
    ScopeExit destroy([destroyContext = f.ADL2_Main_Control_Destroy, context] {
        if (destroyContext)
            destroyContext(context);
    });
    const auto adapters =
        readAdapters(adl2Tags, f.ADL2_Adapter_NumberOfAdapters_Get, f.ADL2_Adapter_AdapterInfo_Get, context);
    if (!adapters)
        return;
    for (const adl::AdapterInfo& info : *adapters)
        take(info, queryPresentAMDGPU(info));
}

// Both passes with ADL loaded, the second only when the first ran to its end.
// 'opened' takes an ADL2 context of its own (null when none can be made), made
// first, while ADL's entries are bound; the first pass reads through it what ADL
// has in an ADL2 form alone. It keeps ADL loaded for as long as it is held.
void queryBothPasses(const Take& first, const Take& second,
                     const std::function<void(std::shared_ptr<const AdlReadingContext>)>& opened)
{
    if (!adlwrapper::initializeLibrary()) {
        log(site, Priority::WARNING, "134 ", "Failed to load AMD Display Library");
        return;
    }
    ScopeExit unload(adlwrapper::uninitializeLibrary);
    const std::shared_ptr<const AdlReadingContext> context = AdlReadingContext::open();
    opened(context);
    if (queryAdapters(first, context ? context->adl2Only() : nullptr))
        queryPresentAdapters(second);
}

} // namespace

Records queryAMDGPU(const adlwrapper::ADLCalls& calls, const adl::AdapterInfo& info)
{
    auto trace = site.trace("queryAMDGPU", 150);
    log(site, Priority::TRACE, "49 ", "Adapter present: ", info.iPresent);
    const auto location = adapterLocation(info, adlTags);
    if (!location)
        return {};
    const auto gpu = std::make_shared<GPU>(*location);
    const int index = info.iAdapterIndex;
    gpu->setName(adlString(info.strAdapterName));
    gpu->setUUID(adlString(info.strUDID));
    gpu->setHardwareAcceleration(true);
    gpu->setVBIOSVersion(query_VBIOSVersionString(calls, index));
    gpu->setCrossfire(query_Crossfire(calls, index));
    readTemperatureClocksAndUse(calls, index, *gpu);
    const AMDMemoryInfo memory = query_DedicatedMemory(calls, index);
    gpu->setDedicatedMemory(memory.size);
    gpu->setMemoryBandwidth(memory.bandwidth);
    readFan(calls, index, *gpu);
    readPowerAndHeat(calls, index, *gpu);
    return {gpu};
}

Records queryPresentAMDGPU(const adl::AdapterInfo& info)
{
    auto trace = site.trace("queryPresentAMDGPU", 175);
    log(site, Priority::TRACE, "96 ", "Adapter present: ", info.iPresent);
    if (info.iPresent == 0) {
        log(site, Priority::WARNING, "98 ", "Adapter considered not present, not enumerating");
        return {};
    }
    const auto location = adapterLocation(info, adl2Tags);
    if (!location)
        return {};
    const auto gpu = std::make_shared<GPU>(*location);
    gpu->setCoreCount(query_CoreInfo());
    return {gpu};
}

Records queryAMDGPUsMulti(std::bitset<4>&)
{
    auto trace = site.trace("queryAMDGPUsMulti", 188);
    Records result;
    const Take collect = [&result](const adl::AdapterInfo&, const Records& records) { append(result, records); };
    queryBothPasses(collect, collect, [](std::shared_ptr<const AdlReadingContext>) {});
    return result;
}

LiveSource enumerateAdlLive(std::bitset<4>&)
{
    LiveSource live;
    // Opened before the passes, while their load of ADL holds the module.
    std::shared_ptr<const AdlReadingContext> context;
    // ADL lists a GPU once per display output; one adapter index per GPU is read,
    // the others' records keep what does not change.
    std::vector<pci::PciLocation> read;
    const Take first = [&live, &read, &context](const adl::AdapterInfo& info, const Records& records) {
        for (const auto& record : records) {
            auto gpu = std::static_pointer_cast<GPU>(record);
            const pci::PciLocation location = *gpu->pciLocation();
            if (!context || std::find(read.begin(), read.end(), location) != read.end()) {
                clearReadings(*gpu);
                live.gpus.push_back({gpu, {}});
                continue;
            }
            read.push_back(location);
            live.gpus.push_back({gpu, [context, index = info.iAdapterIndex](GPU& fresh) {
                                     readReadings(context->calls(), index, fresh);
                                 }});
        }
    };
    const Take second = [&live](const adl::AdapterInfo&, const Records& records) {
        for (const auto& record : records)
            live.gpus.push_back({std::static_pointer_cast<GPU>(record), {}});
    };
    const auto open = [&live, &context](std::shared_ptr<const AdlReadingContext> opened) {
        context = std::move(opened);
        live.vendor = context;
        live.around = readDirectly;
        if (!context || context->readsThroughContext())
            return;
        // A driver without the ADL2 forms of the readings is read through the
        // first interface, with a share of its control for each refresh.
        live.around = [context](const std::function<void()>& reads) {
            const adlwrapper::ADLFunctions& f = context->calls().functions;
            const auto start = [&f] {
                return f.ADL_Main_Control_Create && f.ADL_Main_Control_Create(adlMainMemoryAlloc, 1) == adl::ADL_OK;
            };
            return withFirstInterface(f, start, reads);
        };
    };
    queryBothPasses(first, second, open);
    return live;
}

} // namespace libKestrel
