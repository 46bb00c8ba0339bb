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
};

struct Module {
    sim::adl::Machine machine;
    int controls = 0; // main controls of the first interface now open
    ADL_MAIN_MALLOC_CALLBACK allocate = nullptr;
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

// A fresh look at the scenario, when a client starts ADL.
void reloadMachine()
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
    else if (adapter)
        call.gpu = &machine.gpus[adapter->gpu];
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

// A main control of the first interface, or with 'context' an ADL2 context.
int createControl(const Caller& caller, ADL_MAIN_MALLOC_CALLBACK callback, ADL_CONTEXT_HANDLE* context)
{
    reloadMachine();
    const auto fault = sim::enter(caller.entry);
    if (fault && fault->returnCode)
        return static_cast<int>(*fault->returnCode);
    if (!callback)
        return ADL_ERR_INVALID_CALLBACK;
    Module& state = module();
    if (!caller.adl2) {
        ++state.controls;
        state.allocate = callback;
        sim::record("ADL main control created");
        return ADL_OK;
    }
    if (!context)
        return ADL_ERR_NULL_POINTER;
    auto created = std::make_unique<Context>();
    created->id = state.nextContext++;
    created->allocate = callback;
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
    const auto size = static_cast<std::int64_t>(module().machine.adapters.size());
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
    const auto& adapters = module().machine.adapters;
    const std::size_t room = static_cast<std::size_t>(size) / sizeof(AdapterInfo);
    for (std::size_t i = 0; i < std::min(room, adapters.size()); ++i) {
        info[i] = adapters[i].info;
        if (call.unterminated())
            sim::adl::unterminate(info[i]);
    }
    return ADL_OK;
}

} // namespace

// The simulator implements exactly the signatures the library calls through.
#define CHECK_SIGNATURE(function) \
    static_assert(std::is_same_v<decltype(&function), PFN_##function>, #function " has the wrong signature")

SIM_EXPORT int ADL_Main_Control_Create(ADL_MAIN_MALLOC_CALLBACK callback, int)
{
    return createControl({"ADL_Main_Control_Create"}, callback, nullptr);
}
CHECK_SIGNATURE(ADL_Main_Control_Create);

SIM_EXPORT int ADL_Main_Control_Destroy()
{
    const Call call = begin({"ADL_Main_Control_Destroy"});
    if (call.early)
        return *call.early;
    --module().controls;
    sim::record("ADL main control destroyed");
    return ADL_OK;
}
CHECK_SIGNATURE(ADL_Main_Control_Destroy);

SIM_EXPORT int ADL_Adapter_NumberOfAdapters_Get(int* count)
{
    return numberOfAdapters({"ADL_Adapter_NumberOfAdapters_Get"}, count);
}
CHECK_SIGNATURE(ADL_Adapter_NumberOfAdapters_Get);

SIM_EXPORT int ADL_Adapter_AdapterInfo_Get(LPAdapterInfo info, int size)
{
    return adapterInfo({"ADL_Adapter_AdapterInfo_Get"}, info, size);
}
CHECK_SIGNATURE(ADL_Adapter_AdapterInfo_Get);

SIM_EXPORT int ADL_Adapter_VideoBiosInfo_Get(int adapterIndex, ADLBiosInfo* bios)
{
    return answer({"ADL_Adapter_VideoBiosInfo_Get"}, adapterIndex, bios, &Gpu::bios);
}
CHECK_SIGNATURE(ADL_Adapter_VideoBiosInfo_Get);

SIM_EXPORT int ADL_Overdrive5_Temperature_Get(int adapterIndex, int thermalController, ADLTemperature* temperature)
{
    const Call call = begin({"ADL_Overdrive5_Temperature_Get"}, adapterIndex);
    if (call.early)
        return *call.early;
    if (!temperature)
        return ADL_ERR_NULL_POINTER;
    if (thermalController != 0)
        return ADL_ERR_INVALID_CONTROLLER_IDX; // one thermal controller per GPU
    if (!call.gpu->temperature)
        return ADL_ERR_NOT_SUPPORTED;
    temperature->iTemperature = *call.gpu->temperature;
    return ADL_OK;
}
CHECK_SIGNATURE(ADL_Overdrive5_Temperature_Get);

SIM_EXPORT int ADL_Overdrive6_FanSpeed_Get(int adapterIndex, ADLOD6FanSpeedInfo* fan)
{
    return answer({"ADL_Overdrive6_FanSpeed_Get"}, adapterIndex, fan, &Gpu::fanSpeed);
}
CHECK_SIGNATURE(ADL_Overdrive6_FanSpeed_Get);

SIM_EXPORT int ADL_Overdrive6_CurrentStatus_Get(int adapterIndex, ADLOD6CurrentStatus* status)
{
    return answer({"ADL_Overdrive6_CurrentStatus_Get"}, adapterIndex, status, &Gpu::currentStatus);
}
CHECK_SIGNATURE(ADL_Overdrive6_CurrentStatus_Get);

#if !defined(SIM_OMIT_ADL_Adapter_MemoryInfo_Get)
SIM_EXPORT int ADL_Adapter_MemoryInfo_Get(int adapterIndex, ADLMemoryInfo* memory)
{
    return answer({"ADL_Adapter_MemoryInfo_Get"}, adapterIndex, memory, &Gpu::memory);
}
CHECK_SIGNATURE(ADL_Adapter_MemoryInfo_Get);
#endif

// The combinations are allocated through the caller's memory callback, and the
// caller frees them.
SIM_EXPORT int ADL_Adapter_Crossfire_Caps(int adapterIndex, int* preferred, int* numComb,
                                          ADLCrossfireComb** combinations)
{
    const Caller caller{"ADL_Adapter_Crossfire_Caps"};
    const Call call = begin(caller, adapterIndex);
    if (call.early)
        return *call.early;
    if (!preferred || !numComb || !combinations)
        return ADL_ERR_NULL_POINTER;
    if (!call.gpu->crossfire)
        return ADL_ERR_NOT_SUPPORTED;
    const sim::adl::Crossfire& crossfire = *call.gpu->crossfire;
    // A "count" fault lists that many combinations, the missing ones empty.
    constexpr std::int64_t most = INT_MAX / static_cast<std::int64_t>(sizeof(ADLCrossfireComb));
    const std::int64_t listed = call.fault && call.fault->count ? std::clamp<std::int64_t>(*call.fault->count, 0, most)
                                                                : static_cast<std::int64_t>(crossfire.combinations.size());
    *preferred = crossfire.preferred;
    *numComb = static_cast<int>(listed);
    *combinations = nullptr;
    if (listed == 0 || (call.fault && call.fault->null))
        return ADL_OK;
    void* memory = allocator(caller)(static_cast<int>(listed * static_cast<std::int64_t>(sizeof(ADLCrossfireComb))));
    if (!memory)
        return ADL_ERR;
    auto* list = static_cast<ADLCrossfireComb*>(memory);
    for (std::int64_t i = 0; i < listed; ++i)
        list[i] = static_cast<std::size_t>(i) < crossfire.combinations.size() ? crossfire.combinations[i].links
                                                                              : ADLCrossfireComb{};
    *combinations = list;
    return ADL_OK;
}
CHECK_SIGNATURE(ADL_Adapter_Crossfire_Caps);

// Answers for the combination the caller passes, found by its links.
SIM_EXPORT int ADL_Adapter_Crossfire_Get(int adapterIndex, ADLCrossfireComb* combination, ADLCrossfireInfo* info)
{
    const Call call = begin({"ADL_Adapter_Crossfire_Get"}, adapterIndex);
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
CHECK_SIGNATURE(ADL_Adapter_Crossfire_Get);

#if !defined(SIM_OMIT_ADL2_Main_Control_Create)
SIM_EXPORT int ADL2_Main_Control_Create(ADL_MAIN_MALLOC_CALLBACK callback, int, ADL_CONTEXT_HANDLE* context)
{
    return createControl({"ADL2_Main_Control_Create", true}, callback, context);
}
CHECK_SIGNATURE(ADL2_Main_Control_Create);
#endif

SIM_EXPORT int ADL2_Main_Control_Destroy(ADL_CONTEXT_HANDLE context)
{
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

SIM_EXPORT int ADL2_Adapter_NumberOfAdapters_Get(ADL_CONTEXT_HANDLE context, int* count)
{
    return numberOfAdapters({"ADL2_Adapter_NumberOfAdapters_Get", true, context}, count);
}
CHECK_SIGNATURE(ADL2_Adapter_NumberOfAdapters_Get);

SIM_EXPORT int ADL2_Adapter_AdapterInfo_Get(ADL_CONTEXT_HANDLE context, LPAdapterInfo info, int size)
{
    return adapterInfo({"ADL2_Adapter_AdapterInfo_Get", true, context}, info, size);
}
CHECK_SIGNATURE(ADL2_Adapter_AdapterInfo_Get);
