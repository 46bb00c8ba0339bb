// A simulated AMD Display Library: ADL's adapter list built from the scenario's
// GPUs, the per-adapter answers of their "adl" sections, the first interface's
// main control and ADL2 contexts, and buffers handed back through the caller's
// memory callback, as the driver does. See README.md for the scenario keys.
#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "adl/Machine.h"
#include "common/Simulator.h"

using namespace libKestrel::adl;
using sim::adl::Gpu;

namespace {

struct Context {
    int id = 0;
    ADL_MAIN_MALLOC_CALLBACK allocate = nullptr;
    bool connectedOnly = true; // iEnumConnectedAdapters of its create call
};

struct Module {
    sim::adl::Machine machine;
    // Creates of the first interface's main control since it was last ended. The
    // first interface keeps one state per process: every create while it is
    // started joins it, and one destroy ends it for every client.
    int controls = 0;
    ADL_MAIN_MALLOC_CALLBACK allocate = nullptr;
    bool connectedOnly = true;
    std::vector<std::unique_ptr<Context>> contexts;
    int nextContext = 1;

    // What a client forgot to close is said in the journal when the module goes.
    ~Module()
    {
        if (controls > 0)
            sim::record("ADL main controls left open at unload: " + std::to_string(controls));
        if (!contexts.empty())
            sim::record("ADL2 contexts left open at unload: " + std::to_string(contexts.size()));
    }
};

Module& module()
{
    static Module state;
    return state;
}

bool started() { return module().controls > 0 || !module().contexts.empty(); }

// A fresh look at the scenario when a client starts ADL. The driver starts
// once: while a control or context is open, another is cheap, and it and every
// call see the scenario again only when a new one was set (followScenario).
void readScenario()
{
    sim::reload();
    module().machine = sim::adl::readMachine(sim::scenario());
}

Context* liveContext(ADL_CONTEXT_HANDLE handle)
{
    for (const auto& context : module().contexts)
        if (context.get() == handle)
            return context.get();
    return nullptr;
}

// Who calls: the first interface, or ADL2 with a context.
struct Caller {
    const char* entry;
    bool adl2 = false;
    ADL_CONTEXT_HANDLE context = nullptr;
};

// The memory callback of the caller's interface; null when it is not started.
ADL_MAIN_MALLOC_CALLBACK allocator(const Caller& caller)
{
    if (caller.adl2) {
        const Context* context = liveContext(caller.context);
        return context ? context->allocate : nullptr;
    }
    return module().controls > 0 ? module().allocate : nullptr;
}

// How one call begins: journaled, then ended at once by an injected code, by an
// interface that was never started (or a context that is not live), or by an
// adapter index ADL does not know.
struct Call {
    std::optional<int> early;
    std::optional<sim::Fault> fault;
    const sim::adl::Adapter* adapter = nullptr;
    const Gpu* gpu = nullptr;

    bool unterminated() const
    {
        if (!fault)
            return false;
        const auto flag = fault->spec.find("unterminated");
        return flag != fault->spec.end() && flag->is_boolean() && flag->get<bool>();
    }
};

Call begin(const Caller& caller, std::optional<int> adapterIndex = std::nullopt)
{
    const sim::adl::Machine& machine = module().machine;
    const sim::adl::Adapter* adapter = adapterIndex ? machine.find(*adapterIndex) : nullptr;
    Call call;
    call.fault = sim::enter(caller.entry, adapter ? adapter - machine.adapters.data() : -1);
    if (call.fault && call.fault->returnCode)
        call.early = static_cast<int>(*call.fault->returnCode);
    else if (!allocator(caller))
        call.early = ADL_ERR_NOT_INIT;
    else if (adapterIndex && !adapter)
        call.early = ADL_ERR_INVALID_ADL_IDX;
    else if (adapter) {
        call.adapter = adapter;
        call.gpu = &machine.gpus[adapter->gpu];
    }
    return call;
}

// The common shape of a per-adapter query: the GPU's copy of the structure, or
// ADL_ERR_NOT_SUPPORTED when the GPU has no such feature.
template <class Out>
int answer(const Caller& caller, int adapterIndex, Out* out, std::optional<Out> Gpu::*feature)
{
    const Call call = begin(caller, adapterIndex);
    if (call.early)
        return *call.early;
    if (!out)
        return ADL_ERR_NULL_POINTER;
    const std::optional<Out>& value = call.gpu->*feature;
    if (!value)
        return ADL_ERR_NOT_SUPPORTED;
    *out = *value;
    if (call.unterminated())
        sim::adl::unterminate(*out);
    return ADL_OK;
}

// The adapters a caller is shown: every one, or only the connected ones when
// its main control or context was created for those.
std::vector<const sim::adl::Adapter*> listedAdapters(const Caller& caller)
{
    const Context* context = caller.adl2 ? liveContext(caller.context) : nullptr;
    const bool connectedOnly = context ? context->connectedOnly : module().connectedOnly;
    std::vector<const sim::adl::Adapter*> listed;
    for (const sim::adl::Adapter& adapter : module().machine.adapters)
        if (adapter.connected || !connectedOnly)
            listed.push_back(&adapter);
    return listed;
}

// A main control of the first interface, or with 'context' an ADL2 context.
// 'enumConnected' is 1 for connected adapters only, 0 for all; the X2 forms
// also say how ADL is to serialise the calls.
int createControl(const Caller& caller, ADL_MAIN_MALLOC_CALLBACK callback, int enumConnected,
                  ADL_CONTEXT_HANDLE* context, std::optional<ADLThreadingModel> threading = std::nullopt)
{
    if (!started()) {
        readScenario();
        sim::initLatency("adl");
    }
    const auto fault = sim::enter(caller.entry);
    if (fault && fault->returnCode)
        return static_cast<int>(*fault->returnCode);
    if (!callback)
        return ADL_ERR_INVALID_CALLBACK;
    if (enumConnected != 0 && enumConnected != 1)
        return ADL_ERR_INVALID_PARAM;
    if (threading)
        sim::record(std::string("ADL threading model ") +
                    (*threading == ADL_THREADING_LOCKED ? "locked" : "unlocked"));
    Module& state = module();
    if (!caller.adl2) {
        ++state.controls;
        state.allocate = callback;
        state.connectedOnly = enumConnected == 1;
        sim::record("ADL main control created");
        return ADL_OK;
    }
    if (!context)
        return ADL_ERR_NULL_POINTER;
    auto created = std::make_unique<Context>();
    created->id = state.nextContext++;
    created->allocate = callback;
    created->connectedOnly = enumConnected == 1;
    *context = created.get();
    sim::record("ADL2 context " + std::to_string(created->id) + " created");
    state.contexts.push_back(std::move(created));
    return ADL_OK;
}

int numberOfAdapters(const Caller& caller, int* count)
{
    const Call call = begin(caller);
    if (call.early)
        return *call.early;
    if (!count)
        return ADL_ERR_NULL_POINTER;
    const auto size = static_cast<std::int64_t>(listedAdapters(caller).size());
    *count = static_cast<int>(call.fault && call.fault->count ? *call.fault->count : size);
    return ADL_OK;
}

// Fills as many whole entries as the caller's buffer holds.
int adapterInfo(const Caller& caller, LPAdapterInfo info, int size)
{
    const Call call = begin(caller);
    if (call.early)
        return *call.early;
    if (!info)
        return ADL_ERR_NULL_POINTER;
    if (size < static_cast<int>(sizeof(AdapterInfo)))
        return ADL_ERR_INVALID_PARAM_SIZE;
    const auto adapters = listedAdapters(caller);
    const std::size_t room = static_cast<std::size_t>(size) / sizeof(AdapterInfo);
    for (std::size_t i = 0; i < std::min(room, adapters.size()); ++i) {
        info[i] = adapters[i]->info;
        if (call.unterminated())
            sim::adl::unterminate(info[i]);
    }
    return ADL_OK;
}

// Hands a list to the caller in a block from its memory callback, which the
// caller frees: no block for an empty list, or under a "null" fault. 'count',
// when the call reports one, gets the list's length, or a "count" fault's.
// The list is the call's own copy: the callback runs without the module's lock.
template <class T>
int handOut(const Caller& caller, const Call& call, std::vector<T> items, T** list, int* count = nullptr)
{
    if (count)
        *count = static_cast<int>(call.fault && call.fault->count ? *call.fault->count
                                                                 : static_cast<std::int64_t>(items.size()));
    *list = nullptr;
    if (items.empty() || (call.fault && call.fault->null))
        return ADL_OK;
    constexpr std::size_t most = INT_MAX / sizeof(T);
    if (items.size() > most)
        return ADL_ERR;
    void* memory = sim::callBack(allocator(caller), static_cast<int>(items.size() * sizeof(T)));
    if (!memory)
        return ADL_ERR;
    std::memcpy(memory, items.data(), items.size() * sizeof(T));
    *list = static_cast<T*>(memory);
    return ADL_OK;
}

// Answers that a variant of the module may leave without an entry point are
// marked [[maybe_unused]].

// The whole adapter list, allocated for the caller.
[[maybe_unused]] int adapterInfoX2(const Caller& caller, AdapterInfo** list)
{
    const Call call = begin(caller);
    if (call.early)
        return *call.early;
    if (!list)
        return ADL_ERR_NULL_POINTER;
    std::vector<AdapterInfo> infos;
    for (const sim::adl::Adapter* adapter : listedAdapters(caller)) {
        infos.push_back(adapter->info);
        if (call.unterminated())
            sim::adl::unterminate(infos.back());
    }
    return handOut(caller, call, std::move(infos), list);
}

int asicFamily(const Caller& caller, int adapterIndex, int* types, int* valids)
{
    const Call call = begin(caller, adapterIndex);
    if (call.early)
        return *call.early;
    if (!types || !valids)
        return ADL_ERR_NULL_POINTER;
    if (!call.adapter->asic)
        return ADL_ERR_NOT_SUPPORTED;
    *types = call.adapter->asic->types;
    *valids = call.adapter->asic->valids;
    return ADL_OK;
}

[[maybe_unused]] int overdriveCaps(const Caller& caller, int adapterIndex, int* supported, int* enabled, int* version)
{
    const Call call = begin(caller, adapterIndex);
    if (call.early)
        return *call.early;
    if (!supported || !enabled || !version)
        return ADL_ERR_NULL_POINTER;
    if (!call.adapter->overdrive)
        return ADL_ERR_NOT_SUPPORTED;
    *supported = call.adapter->overdrive->supported;
    *enabled = call.adapter->overdrive->enabled;
    *version = call.adapter->overdrive->version;
    return ADL_OK;
}

// A single number about the adapter or its GPU; 'value' gives it, or nothing for
// a feature the GPU does not have.
template <class Value>
int number(const Caller& caller, int adapterIndex, int* out, Value value)
{
    const Call call = begin(caller, adapterIndex);
    if (call.early)
        return *call.early;
    if (!out)
        return ADL_ERR_NULL_POINTER;
    const std::optional<int> found = value(*call.adapter, *call.gpu);
    if (!found)
        return ADL_ERR_NOT_SUPPORTED;
    *out = *found;
    return ADL_OK;
}

int adapterId(const Caller& caller, int adapterIndex, int* id)
{
    return number(caller, adapterIndex, id,
                  [](const sim::adl::Adapter&, const Gpu& gpu) { return std::optional<int>(gpu.adapterId); });
}

int numberOfDisplays(const Caller& caller, int adapterIndex, int* displays)
{
    return number(caller, adapterIndex, displays, [](const sim::adl::Adapter& adapter, const Gpu&) {
        return std::optional<int>(adapter.displays);
    });
}

int overdrive6Temperature(const Caller& caller, int adapterIndex, int* temperature)
{
    return number(caller, adapterIndex, temperature,
                  [](const sim::adl::Adapter&, const Gpu& gpu) { return gpu.overdrive6Temperature; });
}

// Overdrive 6 knows the ASIC's total power, type 0.
[[maybe_unused]] int overdrive6CurrentPower(const Caller& caller, int adapterIndex, int type, int* power)
{
    return number(caller, adapterIndex, power, [type](const sim::adl::Adapter&, const Gpu& gpu) {
        return type == OD6_POWER_TYPE_ASIC_TOTAL ? gpu.overdrive6Power : std::nullopt;
    });
}

// OverdriveN knows the GPU core's temperature, type 1.
int overdriveNTemperature(const Caller& caller, int adapterIndex, int type, int* temperature)
{
    return number(caller, adapterIndex, temperature, [type](const sim::adl::Adapter&, const Gpu& gpu) {
        return type == 1 ? gpu.overdriveNTemperature : std::nullopt;
    });
}

// One thermal controller per GPU for the temperature: controller 0.
[[maybe_unused]] int overdrive5Temperature(const Caller& caller, int adapterIndex, int thermalController, ADLTemperature* temperature)
{
    const Call call = begin(caller, adapterIndex);
    if (call.early)
        return *call.early;
    if (!temperature)
        return ADL_ERR_NULL_POINTER;
    if (thermalController != 0)
        return ADL_ERR_INVALID_CONTROLLER_IDX;
    if (!call.gpu->temperature)
        return ADL_ERR_NOT_SUPPORTED;
    temperature->iTemperature = *call.gpu->temperature;
    return ADL_OK;
}

[[maybe_unused]] int thermalDevices(const Caller& caller, int adapterIndex, int thermalController, ADLThermalControllerInfo* info)
{
    const Call call = begin(caller, adapterIndex);
    if (call.early)
        return *call.early;
    if (!info)
        return ADL_ERR_NULL_POINTER;
    if (!call.gpu->thermalControllers)
        return ADL_ERR_NOT_SUPPORTED;
    const auto& controllers = *call.gpu->thermalControllers;
    if (thermalController < 0 || static_cast<std::size_t>(thermalController) >= controllers.size())
        return ADL_ERR_INVALID_CONTROLLER_IDX;
    *info = controllers[static_cast<std::size_t>(thermalController)];
    return ADL_OK;
}

int currentActivity(const Caller& caller, int adapterIndex, ADLPMActivity* activity)
{
    return answer(caller, adapterIndex, activity, &Gpu::activity);
}

[[maybe_unused]] int odClockInfo(const Caller& caller, int adapterIndex, ADLAdapterODClockInfo* info)
{
    return answer(caller, adapterIndex, info, &Gpu::odClock);
}

// The combinations are allocated through the caller's memory callback, and the
// caller frees them.
int crossfireCaps(const Caller& caller, int adapterIndex, int* preferred, int* numComb,
                  ADLCrossfireComb** combinations)
{
    const Call call = begin(caller, adapterIndex);
    if (call.early)
        return *call.early;
    if (!preferred || !numComb || !combinations)
        return ADL_ERR_NULL_POINTER;
    if (!call.gpu->crossfire)
        return ADL_ERR_NOT_SUPPORTED;
    const sim::adl::Crossfire& crossfire = *call.gpu->crossfire;
    // A "count" fault reports that many combinations; the list holds them, the
    // missing ones empty, up to what a driver could hand out (a larger count is
    // a lie the list does not back).
    constexpr std::int64_t most = 1024;
    const std::int64_t reported = call.fault && call.fault->count
                                      ? std::clamp<std::int64_t>(*call.fault->count, INT_MIN, INT_MAX)
                                      : static_cast<std::int64_t>(crossfire.combinations.size());
    std::vector<ADLCrossfireComb> list;
    for (std::int64_t i = 0; i < std::min(reported, most); ++i)
        list.push_back(static_cast<std::size_t>(i) < crossfire.combinations.size() ? crossfire.combinations[i].links
                                                                                   : ADLCrossfireComb{});
    *preferred = crossfire.preferred;
    *numComb = static_cast<int>(reported);
    return handOut(caller, call, std::move(list), combinations);
}

// Answers for the combination the caller passes, found by its links.
int crossfireGet(const Caller& caller, int adapterIndex, ADLCrossfireComb* combination, ADLCrossfireInfo* info)
{
    const Call call = begin(caller, adapterIndex);
    if (call.early)
        return *call.early;
    if (!combination || !info)
        return ADL_ERR_NULL_POINTER;
    if (!call.gpu->crossfire)
        return ADL_ERR_NOT_SUPPORTED;
    for (const sim::adl::Combination& known : call.gpu->crossfire->combinations)
        if (std::memcmp(&known.links, combination, sizeof(ADLCrossfireComb)) == 0) {
            *info = known.info;
            return ADL_OK;
        }
    return ADL_ERR_INVALID_PARAM;
}

// The start of every Overdrive 8 call: the GPU's Overdrive 8 state (which a
// setting changes until the scenario is read again), or the status to return.
struct Overdrive8Call {
    Call call;
    sim::adl::Overdrive8* overdrive8 = nullptr;
    std::optional<int> early;
};

Overdrive8Call beginOverdrive8(const Caller& caller, int adapterIndex, std::initializer_list<const void*> outputs)
{
    Overdrive8Call od8;
    od8.call = begin(caller, adapterIndex);
    if (od8.call.early)
        od8.early = od8.call.early;
    else if (std::find(outputs.begin(), outputs.end(), nullptr) != outputs.end())
        od8.early = ADL_ERR_NULL_POINTER;
    else if (!module().machine.gpus[od8.call.adapter->gpu].overdrive8)
        od8.early = ADL_ERR_NOT_SUPPORTED;
    else
        od8.overdrive8 = &*module().machine.gpus[od8.call.adapter->gpu].overdrive8;
    return od8;
}

// The fixed records hold the first OD8_COUNT entries.
void fill(ADLOD8CurrentSetting& record, const std::vector<int>& current)
{
    record.count = static_cast<int>(std::min<std::size_t>(current.size(), OD8_COUNT));
    std::copy_n(current.begin(), record.count, record.Od8SettingTable);
}

int od8InitSetting(const Caller& caller, int adapterIndex, ADLOD8InitSetting* init)
{
    const Overdrive8Call od8 = beginOverdrive8(caller, adapterIndex, {init});
    if (od8.early)
        return *od8.early;
    init->overdrive8Capabilities = od8.overdrive8->capabilities;
    init->count = static_cast<int>(std::min<std::size_t>(od8.overdrive8->settings.size(), OD8_COUNT));
    std::copy_n(od8.overdrive8->settings.begin(), init->count, init->od8SettingTable);
    return ADL_OK;
}

int od8CurrentSetting(const Caller& caller, int adapterIndex, ADLOD8CurrentSetting* current)
{
    const Overdrive8Call od8 = beginOverdrive8(caller, adapterIndex, {current});
    if (od8.early)
        return *od8.early;
    fill(*current, od8.overdrive8->current);
    return ADL_OK;
}

// Applies the requested settings (a reset one goes back to its default) and
// reports the current values.
[[maybe_unused]] int od8SettingSet(const Caller& caller, int adapterIndex, ADLOD8SetSetting* set, ADLOD8CurrentSetting* current)
{
    const Overdrive8Call od8 = beginOverdrive8(caller, adapterIndex, {set, current});
    if (od8.early)
        return *od8.early;
    std::vector<int>& values = od8.overdrive8->current;
    const int count = std::clamp(set->count, 0, OD8_COUNT);
    for (int i = 0; i < count; ++i) {
        const ADLOD8SingleSetSetting& setting = set->od8SettingTable[i];
        if (!setting.requested)
            continue;
        const auto& defaults = od8.overdrive8->settings;
        const int value = setting.reset && static_cast<std::size_t>(i) < defaults.size() ? defaults[i].defaultValue
                                                                                        : setting.value;
        if (values.size() <= static_cast<std::size_t>(i))
            values.resize(static_cast<std::size_t>(i) + 1);
        values[i] = value;
        sim::record("ADL2 OD8 setting " + std::to_string(i) + " set to " + std::to_string(value));
    }
    fill(*current, values);
    return ADL_OK;
}

// The PM log; a "null" fault answers ADL_OK and writes nothing.
[[maybe_unused]] int pmLogData(const Caller& caller, int adapterIndex, ADLPMLogDataOutput* output)
{
    const Overdrive8Call od8 = beginOverdrive8(caller, adapterIndex, {output});
    if (od8.early)
        return *od8.early;
    if (!(od8.call.fault && od8.call.fault->null))
        *output = od8.overdrive8->pmLog;
    return ADL_OK;
}

int od8InitSettingX2(const Caller& caller, int adapterIndex, int* capabilities, int* numberOfFeatures,
                     ADLOD8SingleInitSetting** list)
{
    const Overdrive8Call od8 = beginOverdrive8(caller, adapterIndex, {capabilities, numberOfFeatures, list});
    if (od8.early)
        return *od8.early;
    *capabilities = od8.overdrive8->capabilities;
    return handOut(caller, od8.call, od8.overdrive8->settings, list, numberOfFeatures);
}

int od8CurrentSettingX2(const Caller& caller, int adapterIndex, int* numberOfFeatures, int** list)
{
    const Overdrive8Call od8 = beginOverdrive8(caller, adapterIndex, {numberOfFeatures, list});
    if (od8.early)
        return *od8.early;
    return handOut(caller, od8.call, od8.overdrive8->current, list, numberOfFeatures);
}

// The caller says in iSpeedType which speeds it wants: only those are filled.
int fanSpeed(const Caller& caller, int adapterIndex, ADLOD6FanSpeedInfo* fan)
{
    const int wanted = fan ? fan->iSpeedType : 0;
    const int status = answer(caller, adapterIndex, fan, &Gpu::fanSpeed);
    if (status == ADL_OK) {
        fan->iSpeedType &= wanted;
        if (!(wanted & ADL_OD6_FANSPEED_TYPE_PERCENT))
            fan->iFanSpeedPercent = 0;
        if (!(wanted & ADL_OD6_FANSPEED_TYPE_RPM))
            fan->iFanSpeedRPM = 0;
    }
    return status;
}

int currentStatus(const Caller& caller, int adapterIndex, ADLOD6CurrentStatus* status)
{
    return answer(caller, adapterIndex, status, &Gpu::currentStatus);
}

int refreshControl(const Caller& caller)
{
    const Call call = begin(caller);
    return call.early ? *call.early : ADL_OK;
}

} // namespace

// A scenario set while a control or context is open: adapter indices come from
// it, so a GPU's index reads its new values, and its faults apply from this
// call on. A driver not started reads it when it starts.
void sim::followScenario()
{
    if (started() && sim::scenarioChanged())
        readScenario();
}

// The simulator implements exactly the signatures the library calls through.
#define CHECK_SIGNATURE(function) \
    static_assert(std::is_same_v<decltype(&function), PFN_##function>, #function " has the wrong signature")

#if !defined(SIM_OMIT_ADL_Main_Control_Create)
SIM_EXPORT int ADL_Main_Control_Create(ADL_MAIN_MALLOC_CALLBACK callback, int enumConnected)
{
    const sim::Guard guard;
    return createControl({"ADL_Main_Control_Create"}, callback, enumConnected, nullptr);
}
CHECK_SIGNATURE(ADL_Main_Control_Create);
#endif

SIM_EXPORT int ADL_Main_Control_Destroy()
{
    const sim::Guard guard;
    const Call call = begin({"ADL_Main_Control_Destroy"});
    if (call.early)
        return *call.early;
    module().controls = 0;
    sim::record("ADL main control destroyed");
    return ADL_OK;
}
CHECK_SIGNATURE(ADL_Main_Control_Destroy);

#if !defined(SIM_OMIT_ADL_Adapter_NumberOfAdapters_Get)
SIM_EXPORT int ADL_Adapter_NumberOfAdapters_Get(int* count)
{
    const sim::Guard guard;
    return numberOfAdapters({"ADL_Adapter_NumberOfAdapters_Get"}, count);
}
CHECK_SIGNATURE(ADL_Adapter_NumberOfAdapters_Get);
#endif

#if !defined(SIM_OMIT_ADL_Adapter_AdapterInfo_Get)
SIM_EXPORT int ADL_Adapter_AdapterInfo_Get(LPAdapterInfo info, int size)
{
    const sim::Guard guard;
    return adapterInfo({"ADL_Adapter_AdapterInfo_Get"}, info, size);
}
CHECK_SIGNATURE(ADL_Adapter_AdapterInfo_Get);
#endif

#if !defined(SIM_OMIT_ADL_Adapter_VideoBiosInfo_Get)
SIM_EXPORT int ADL_Adapter_VideoBiosInfo_Get(int adapterIndex, ADLBiosInfo* bios)
{
    const sim::Guard guard;
    return answer({"ADL_Adapter_VideoBiosInfo_Get"}, adapterIndex, bios, &Gpu::bios);
}
CHECK_SIGNATURE(ADL_Adapter_VideoBiosInfo_Get);
#endif

#if !defined(SIM_OMIT_ADL_Adapter_MemoryInfo_Get)
SIM_EXPORT int ADL_Adapter_MemoryInfo_Get(int adapterIndex, ADLMemoryInfo* memory)
{
    const sim::Guard guard;
    return answer({"ADL_Adapter_MemoryInfo_Get"}, adapterIndex, memory, &Gpu::memory);
}
CHECK_SIGNATURE(ADL_Adapter_MemoryInfo_Get);
#endif

// The entries below exist in both forms: ADL_<name>(parameters) for the first
// interface, ADL2_<name>(context, parameters) on a context, with one answer.
#define SIM_UNPAREN(...) __VA_ARGS__
#define SIM_ADL_FORM(name, answer, parameters, arguments)                                                     \
    SIM_EXPORT int ADL_##name parameters                                                                      \
    {                                                                                                         \
        const sim::Guard guard;                                                                               \
        return answer({"ADL_" #name}, SIM_UNPAREN arguments);                                                 \
    }                                                                                                         \
    CHECK_SIGNATURE(ADL_##name);
#define SIM_ADL2_FORM(name, answer, parameters, arguments)                                                    \
    SIM_EXPORT int ADL2_##name(ADL_CONTEXT_HANDLE context, SIM_UNPAREN parameters)                            \
    {                                                                                                         \
        const sim::Guard guard;                                                                               \
        return answer({"ADL2_" #name, true, context}, SIM_UNPAREN arguments);                                 \
    }                                                                                                         \
    CHECK_SIGNATURE(ADL2_##name);
#define SIM_BOTH_FORMS(name, answer, parameters, arguments)                                                   \
    SIM_ADL_FORM(name, answer, parameters, arguments)                                                         \
    SIM_ADL2_FORM(name, answer, parameters, arguments)

#if !defined(SIM_OMIT_ADL_Main_ControlX2_Create)
SIM_EXPORT int ADL_Main_ControlX2_Create(ADL_MAIN_MALLOC_CALLBACK callback, int enumConnected,
                                         ADLThreadingModel threading)
{
    const sim::Guard guard;
    return createControl({"ADL_Main_ControlX2_Create"}, callback, enumConnected, nullptr, threading);
}
CHECK_SIGNATURE(ADL_Main_ControlX2_Create);
#endif

#if !defined(SIM_OMIT_ADL2_Main_ControlX2_Create)
SIM_EXPORT int ADL2_Main_ControlX2_Create(ADL_MAIN_MALLOC_CALLBACK callback, int enumConnected,
                                          ADL_CONTEXT_HANDLE* context, ADLThreadingModel threading)
{
    const sim::Guard guard;
    return createControl({"ADL2_Main_ControlX2_Create", true}, callback, enumConnected, context, threading);
}
CHECK_SIGNATURE(ADL2_Main_ControlX2_Create);
#endif

SIM_EXPORT int ADL_Main_Control_Refresh()
{
    const sim::Guard guard;
    return refreshControl({"ADL_Main_Control_Refresh"});
}
CHECK_SIGNATURE(ADL_Main_Control_Refresh);

#if !defined(SIM_OMIT_ADL2_Main_Control_Refresh)
SIM_EXPORT int ADL2_Main_Control_Refresh(ADL_CONTEXT_HANDLE context)
{
    const sim::Guard guard;
    return refreshControl({"ADL2_Main_Control_Refresh", true, context});
}
CHECK_SIGNATURE(ADL2_Main_Control_Refresh);
#endif

#if !defined(SIM_OMIT_ADL_Adapter_AdapterInfoX2_Get)
SIM_ADL_FORM(Adapter_AdapterInfoX2_Get, adapterInfoX2, (AdapterInfo** list), (list))
#endif
#if !defined(SIM_OMIT_ADL2_Adapter_AdapterInfoX2_Get)
SIM_ADL2_FORM(Adapter_AdapterInfoX2_Get, adapterInfoX2, (AdapterInfo** list), (list))
#endif

#if !defined(SIM_OMIT_ADL_Overdrive5_Temperature_Get)
SIM_ADL_FORM(Overdrive5_Temperature_Get, overdrive5Temperature,
             (int adapterIndex, int thermalController, ADLTemperature* temperature),
             (adapterIndex, thermalController, temperature))
#endif
#if !defined(SIM_OMIT_ADL2_Overdrive5_Temperature_Get)
SIM_ADL2_FORM(Overdrive5_Temperature_Get, overdrive5Temperature,
              (int adapterIndex, int thermalController, ADLTemperature* temperature),
              (adapterIndex, thermalController, temperature))
#endif

#if !defined(SIM_OMIT_ADL_Overdrive6_FanSpeed_Get)
SIM_ADL_FORM(Overdrive6_FanSpeed_Get, fanSpeed, (int adapterIndex, ADLOD6FanSpeedInfo* fan), (adapterIndex, fan))
#endif
#if !defined(SIM_OMIT_ADL2_Overdrive6_FanSpeed_Get)
SIM_ADL2_FORM(Overdrive6_FanSpeed_Get, fanSpeed, (int adapterIndex, ADLOD6FanSpeedInfo* fan), (adapterIndex, fan))
#endif
#if !defined(SIM_OMIT_ADL_Overdrive6_CurrentStatus_Get)
SIM_ADL_FORM(Overdrive6_CurrentStatus_Get, currentStatus, (int adapterIndex, ADLOD6CurrentStatus* status),
             (adapterIndex, status))
#endif
#if !defined(SIM_OMIT_ADL2_Overdrive6_CurrentStatus_Get)
SIM_ADL2_FORM(Overdrive6_CurrentStatus_Get, currentStatus, (int adapterIndex, ADLOD6CurrentStatus* status),
              (adapterIndex, status))
#endif

#if !defined(SIM_OMIT_ADL_Overdrive5_ThermalDevices_Enum)
SIM_ADL_FORM(Overdrive5_ThermalDevices_Enum, thermalDevices,
             (int adapterIndex, int thermalController, ADLThermalControllerInfo* info),
             (adapterIndex, thermalController, info))
#endif
#if !defined(SIM_OMIT_ADL2_Overdrive5_ThermalDevices_Enum)
SIM_ADL2_FORM(Overdrive5_ThermalDevices_Enum, thermalDevices,
              (int adapterIndex, int thermalController, ADLThermalControllerInfo* info),
              (adapterIndex, thermalController, info))
#endif

SIM_BOTH_FORMS(Adapter_ASICFamilyType_Get, asicFamily, (int adapterIndex, int* types, int* valids),
               (adapterIndex, types, valids))
#define SIM_CROSSFIRE_CAPS                                                                                    \
    (Adapter_Crossfire_Caps, crossfireCaps,                                                                   \
     (int adapterIndex, int* preferred, int* numComb, ADLCrossfireComb** combinations),                       \
     (adapterIndex, preferred, numComb, combinations))
#define SIM_CROSSFIRE_GET                                                                                     \
    (Adapter_Crossfire_Get, crossfireGet, (int adapterIndex, ADLCrossfireComb* combination, ADLCrossfireInfo* info), \
     (adapterIndex, combination, info))
#define SIM_APPLY(form, arguments) form arguments
#if !defined(SIM_OMIT_ADL_Adapter_Crossfire_Caps)
SIM_APPLY(SIM_ADL_FORM, SIM_CROSSFIRE_CAPS)
#endif
SIM_APPLY(SIM_ADL2_FORM, SIM_CROSSFIRE_CAPS)
#if !defined(SIM_OMIT_ADL_Adapter_Crossfire_Get)
SIM_APPLY(SIM_ADL_FORM, SIM_CROSSFIRE_GET)
#endif
SIM_APPLY(SIM_ADL2_FORM, SIM_CROSSFIRE_GET)
SIM_BOTH_FORMS(Adapter_ID_Get, adapterId, (int adapterIndex, int* id), (adapterIndex, id))
SIM_BOTH_FORMS(Overdrive6_Temperature_Get, overdrive6Temperature, (int adapterIndex, int* temperature),
               (adapterIndex, temperature))
SIM_BOTH_FORMS(OverdriveN_Temperature_Get, overdriveNTemperature,
               (int adapterIndex, int type, int* temperature), (adapterIndex, type, temperature))
#if !defined(SIM_OMIT_Overdrive_Caps)
SIM_BOTH_FORMS(Overdrive_Caps, overdriveCaps, (int adapterIndex, int* supported, int* enabled, int* version),
               (adapterIndex, supported, enabled, version))
#endif
SIM_BOTH_FORMS(Overdrive5_CurrentActivity_Get, currentActivity, (int adapterIndex, ADLPMActivity* activity),
               (adapterIndex, activity))
#if !defined(SIM_OMIT_Display_ODClockInfo_Get)
SIM_BOTH_FORMS(Display_ODClockInfo_Get, odClockInfo, (int adapterIndex, ADLAdapterODClockInfo* info),
               (adapterIndex, info))
#endif
SIM_BOTH_FORMS(Display_NumberOfDisplays_Get, numberOfDisplays, (int adapterIndex, int* displays),
               (adapterIndex, displays))

SIM_ADL2_FORM(Overdrive8_Init_Setting_Get, od8InitSetting, (int adapterIndex, ADLOD8InitSetting* init),
              (adapterIndex, init))
SIM_ADL2_FORM(Overdrive8_Current_Setting_Get, od8CurrentSetting, (int adapterIndex, ADLOD8CurrentSetting* current),
              (adapterIndex, current))
#if !defined(SIM_OMIT_ADL2_Overdrive8_Setting_Set)
SIM_ADL2_FORM(Overdrive8_Setting_Set, od8SettingSet,
              (int adapterIndex, ADLOD8SetSetting* set, ADLOD8CurrentSetting* current),
              (adapterIndex, set, current))
#endif
#if !defined(SIM_OMIT_ADL2_Overdrive6_CurrentPower_Get)
SIM_ADL2_FORM(Overdrive6_CurrentPower_Get, overdrive6CurrentPower, (int adapterIndex, int type, int* power),
              (adapterIndex, type, power))
#endif
#if !defined(SIM_OMIT_ADL2_New_QueryPMLogData_Get)
SIM_ADL2_FORM(New_QueryPMLogData_Get, pmLogData, (int adapterIndex, ADLPMLogDataOutput* output),
              (adapterIndex, output))
#endif
SIM_ADL2_FORM(Overdrive8_Init_SettingX2_Get, od8InitSettingX2,
              (int adapterIndex, int* capabilities, int* numberOfFeatures, ADLOD8SingleInitSetting** list),
              (adapterIndex, capabilities, numberOfFeatures, list))
SIM_ADL2_FORM(Overdrive8_Current_SettingX2_Get, od8CurrentSettingX2,
              (int adapterIndex, int* numberOfFeatures, int** list), (adapterIndex, numberOfFeatures, list))

#if !defined(SIM_OMIT_ADL2_Main_Control_Create)
SIM_EXPORT int ADL2_Main_Control_Create(ADL_MAIN_MALLOC_CALLBACK callback, int enumConnected,
                                        ADL_CONTEXT_HANDLE* context)
{
    const sim::Guard guard;
    return createControl({"ADL2_Main_Control_Create", true}, callback, enumConnected, context);
}
CHECK_SIGNATURE(ADL2_Main_Control_Create);
#endif

SIM_EXPORT int ADL2_Main_Control_Destroy(ADL_CONTEXT_HANDLE context)
{
    const sim::Guard guard;
    const Call call = begin({"ADL2_Main_Control_Destroy", true, context});
    if (call.early)
        return *call.early;
    auto& contexts = module().contexts;
    const auto found = std::find_if(contexts.begin(), contexts.end(),
                                    [context](const auto& live) { return live.get() == context; });
    sim::record("ADL2 context " + std::to_string((*found)->id) + " destroyed");
    contexts.erase(found);
    return ADL_OK;
}
CHECK_SIGNATURE(ADL2_Main_Control_Destroy);

#if !defined(SIM_OMIT_ADL2_Adapter_NumberOfAdapters_Get)
SIM_EXPORT int ADL2_Adapter_NumberOfAdapters_Get(ADL_CONTEXT_HANDLE context, int* count)
{
    const sim::Guard guard;
    return numberOfAdapters({"ADL2_Adapter_NumberOfAdapters_Get", true, context}, count);
}
CHECK_SIGNATURE(ADL2_Adapter_NumberOfAdapters_Get);
#endif

#if !defined(SIM_OMIT_ADL2_Adapter_AdapterInfo_Get)
SIM_EXPORT int ADL2_Adapter_AdapterInfo_Get(ADL_CONTEXT_HANDLE context, LPAdapterInfo info, int size)
{
    const sim::Guard guard;
    return adapterInfo({"ADL2_Adapter_AdapterInfo_Get", true, context}, info, size);
}
CHECK_SIGNATURE(ADL2_Adapter_AdapterInfo_Get);
#endif
