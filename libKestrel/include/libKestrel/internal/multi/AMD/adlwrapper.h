#pragma once

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <string>

#include "libKestrel/vendor/adl.h"
#include "tova/DynamicLibrary.h"

// The ADL binding of the AMD record source: loads the driver's ADL library while
// a query or a session needs it, keeps its entry points in one process-wide
// table, and empties the table again when the last of them is done. Its
// functions live in a namespace of their own because the NVML binding has
// functions of the same names.
namespace libKestrel::adlwrapper {

// The ADL entry points the AMD source calls, null until resolved.
// ADL_Display_DisplayInfo_Get, ADL_Overdrive5_CurrentActivity_Get and
// ADL_Overdrive6_StateInfo_Get are looked up but not kept.
struct ADLFunctions {
    adl::PFN_ADL_Main_Control_Create ADL_Main_Control_Create = nullptr;
    adl::PFN_ADL_Main_Control_Destroy ADL_Main_Control_Destroy = nullptr;
    adl::PFN_ADL_Adapter_NumberOfAdapters_Get ADL_Adapter_NumberOfAdapters_Get = nullptr;
    adl::PFN_ADL_Adapter_AdapterInfo_Get ADL_Adapter_AdapterInfo_Get = nullptr;
    adl::PFN_ADL_Adapter_VideoBiosInfo_Get ADL_Adapter_VideoBiosInfo_Get = nullptr;
    adl::PFN_ADL_Overdrive5_Temperature_Get ADL_Overdrive5_Temperature_Get = nullptr;
    adl::PFN_ADL_Overdrive6_FanSpeed_Get ADL_Overdrive6_FanSpeed_Get = nullptr;
    adl::PFN_ADL_Overdrive6_CurrentStatus_Get ADL_Overdrive6_CurrentStatus_Get = nullptr;
    adl::PFN_ADL_Adapter_Crossfire_Get ADL_Adapter_Crossfire_Get = nullptr;
    adl::PFN_ADL_Adapter_Crossfire_Caps ADL_Adapter_Crossfire_Caps = nullptr;
    adl::PFN_ADL_Adapter_MemoryInfo_Get ADL_Adapter_MemoryInfo_Get = nullptr;
    adl::PFN_ADL2_Main_Control_Create ADL2_Main_Control_Create = nullptr;
    adl::PFN_ADL2_Main_Control_Destroy ADL2_Main_Control_Destroy = nullptr;
    adl::PFN_ADL2_Adapter_NumberOfAdapters_Get ADL2_Adapter_NumberOfAdapters_Get = nullptr;
    adl::PFN_ADL2_Adapter_AdapterInfo_Get ADL2_Adapter_AdapterInfo_Get = nullptr;
};

// Process-wide binding state. Loads are counted: the first initializeLibrary
// loads the module and fills the table, the uninitializeLibrary that balances
// the last one unloads it and clears the table. In between neither changes, so
// every holder of a load may call through the table from any thread; 'mutex'
// guards the count and the two changes.
struct ADLBinding {
    std::mutex mutex;
    unsigned int loads = 0;
    tova::DynamicLibrary library;
    ADLFunctions functions;
};

ADLBinding& adlBinding();

// Loads ADL ("atiadlxx.dll", else "atiadlxy.dll"; "libatiadlxx.so" on Linux) and
// looks up every entry, or counts one more load of the module already loaded.
// False when no candidate loaded; the look-ups then run on the empty holder,
// so the slots end up null.
bool initializeLibrary();

// Balances one successful initializeLibrary. The last one unloads ADL and clears
// the table, all but the ADL_Overdrive6_FanSpeed_Get slot, which the next first
// load overwrites.
void uninitializeLibrary();

// The ADL2 forms of the readings a session takes again, with the context they
// run on: a session reads through a context of its own, so it needs no control
// of the first interface, which ADL keeps once per process.
struct ADL2Readings {
    adl::ADL_CONTEXT_HANDLE context = nullptr;
    adl::PFN_ADL2_Overdrive5_Temperature_Get temperature = nullptr;
    adl::PFN_ADL2_Overdrive6_CurrentStatus_Get currentStatus = nullptr;
    adl::PFN_ADL2_Overdrive6_FanSpeed_Get fanSpeed = nullptr;
};

// The readings ADL has in their ADL2 form alone (the Overdrive 8 PM log, the
// Overdrive 6 current power), with the context they run on.
struct ADL2OnlyReadings {
    adl::ADL_CONTEXT_HANDLE context = nullptr;
    adl::PFN_ADL2_New_QueryPMLogData_Get pmLog = nullptr;
    adl::PFN_ADL2_Overdrive6_CurrentPower_Get currentPower = nullptr;
};

// What the AMD source's queries call: the first interface's entries, and, when
// given, the ADL2 readings that stand in for its temperature, current-status
// and fan entries, and the readings ADL has in their ADL2 form alone.
struct ADLCalls {
    const ADLFunctions& functions;
    const ADL2Readings* readings = nullptr;
    const ADL2OnlyReadings* adl2Only = nullptr;
};

// More adapters than any machine has (a GPU has one per output): an adapter
// count above it comes from a broken driver, and nothing is allocated for it.
constexpr int mostAdapters = 4096;

// ADL's memory callback: malloc of the size. What ADL allocates through it is
// released with free.
void* adlMainMemoryAlloc(int size);

// The text of a fixed ADL string field: up to its first zero, and never past the
// array, since the driver does not promise the zero.
template <std::size_t N>
std::string adlString(const char (&field)[N])
{
    return std::string(field, std::find(field, field + N, '\0'));
}

} // namespace libKestrel::adlwrapper
