#include "libKestrel/internal/multi/AMD/adlwrapper.h"

#include <cstdint>
#include <cstdlib>

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Lookup.h"

namespace libKestrel::adlwrapper {
namespace {

logging::LogSite site("libKestrel.ADL", "libKestrel/src/multi/AMD/adlwrapper.cpp");

// The eighteen look-ups, in order.
template <class Visit>
void listEntries(ADLFunctions& f, Visit visit)
{
    visit("ADL_Main_Control_Create", &f.ADL_Main_Control_Create);
    visit("ADL_Main_Control_Destroy", &f.ADL_Main_Control_Destroy);
    visit("ADL_Adapter_NumberOfAdapters_Get", &f.ADL_Adapter_NumberOfAdapters_Get);
    visit("ADL_Adapter_AdapterInfo_Get", &f.ADL_Adapter_AdapterInfo_Get);
    visit("ADL_Display_DisplayInfo_Get", dropped);
    visit("ADL_Adapter_VideoBiosInfo_Get", &f.ADL_Adapter_VideoBiosInfo_Get);
    visit("ADL_Overdrive5_Temperature_Get", &f.ADL_Overdrive5_Temperature_Get);
    visit("ADL_Overdrive5_CurrentActivity_Get", dropped);
    visit("ADL_Overdrive6_FanSpeed_Get", &f.ADL_Overdrive6_FanSpeed_Get);
    visit("ADL_Overdrive6_StateInfo_Get", dropped);
    visit("ADL_Overdrive6_CurrentStatus_Get", &f.ADL_Overdrive6_CurrentStatus_Get);
    visit("ADL_Adapter_Crossfire_Get", &f.ADL_Adapter_Crossfire_Get);
    visit("ADL_Adapter_Crossfire_Caps", &f.ADL_Adapter_Crossfire_Caps);
    visit("ADL_Adapter_MemoryInfo_Get", &f.ADL_Adapter_MemoryInfo_Get);
    visit("ADL2_Main_Control_Create", &f.ADL2_Main_Control_Create);
    visit("ADL2_Main_Control_Destroy", &f.ADL2_Main_Control_Destroy);
    visit("ADL2_Adapter_NumberOfAdapters_Get", &f.ADL2_Adapter_NumberOfAdapters_Get);
    visit("ADL2_Adapter_AdapterInfo_Get", &f.ADL2_Adapter_AdapterInfo_Get);
}

} // namespace

ADLBinding& adlBinding()
{
    static ADLBinding binding;
    return binding;
}

bool initializeLibrary()
{
    auto trace = site.trace("initializeLibrary", 46);
    ADLBinding& binding = adlBinding();
    const std::lock_guard<std::mutex> lock(binding.mutex);
    if (binding.loads > 0) {
        ++binding.loads;
        return true;
    }
    bool loaded = false;
    for (const char* name : adl::ADL_LIBRARY_NAMES) {
        tova::DynamicLibrary candidate{tova::String(name)};
        if (candidate.load()) {
            binding.library = candidate;
            loaded = true;
            break;
        }
    }
    resolveEntries(binding.library, [&binding](auto visit) { listEntries(binding.functions, visit); });
    binding.loads = loaded ? 1 : 0;
    return loaded;
}

void uninitializeLibrary()
{
    // The release is traced under the load's name.
    auto trace = site.trace("initializeLibrary", 63);
    ADLBinding& binding = adlBinding();
    const std::lock_guard<std::mutex> lock(binding.mutex);
    if (binding.loads == 0 || --binding.loads > 0)
        return;
    binding.library.unload();
    const adl::PFN_ADL_Overdrive6_FanSpeed_Get fanSpeed = binding.functions.ADL_Overdrive6_FanSpeed_Get;
    binding.functions = ADLFunctions();
    // Left as it is on purpose: the next first load overwrites it before anything
    // can call it.
    binding.functions.ADL_Overdrive6_FanSpeed_Get = fanSpeed;
}

void* adlMainMemoryAlloc(int size)
{
    // A negative size, widened, asks for more than any heap has: malloc would
    // give null, so give it without asking (a sanitizer's malloc aborts instead).
    const std::int64_t bytes = size;
    if (bytes < 0)
        return nullptr;
    return std::malloc(static_cast<std::size_t>(bytes));
}

} // namespace libKestrel::adlwrapper
