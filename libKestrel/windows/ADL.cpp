#include "libKestrel/ADLWrapper.h"

#include <cstdlib>
#include <mutex>
#include <new>

#include <malloc.h> // _msize, malloc_usable_size

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Lookup.h"
#include "libKestrel/internal/multi/AMD/adlcontrol.h"
#include "libKestrel/internal/windows/ADL.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;

logging::LogSite site("libKestrel", "libKestrel/windows/ADL");

// The classic entries: the three that start and end ADL, then rows 1-17.
struct ADLEntries {
    adl::PFN_ADL_Main_ControlX2_Create ADL_Main_ControlX2_Create;
    adl::PFN_ADL_Main_Control_Create ADL_Main_Control_Create;
    adl::PFN_ADL_Main_Control_Destroy ADL_Main_Control_Destroy;
    adl::PFN_ADL_Main_Control_Refresh ADL_Main_Control_Refresh;
    adl::PFN_ADL_Adapter_ASICFamilyType_Get ADL_Adapter_ASICFamilyType_Get;
    adl::PFN_ADL_Adapter_NumberOfAdapters_Get ADL_Adapter_NumberOfAdapters_Get;
    adl::PFN_ADL_Adapter_AdapterInfoX2_Get ADL_Adapter_AdapterInfoX2_Get;
    adl::PFN_ADL_Adapter_AdapterInfo_Get ADL_Adapter_AdapterInfo_Get;
    adl::PFN_ADL_Adapter_Crossfire_Caps ADL_Adapter_Crossfire_Caps;
    adl::PFN_ADL_Adapter_Crossfire_Get ADL_Adapter_Crossfire_Get;
    adl::PFN_ADL_Adapter_ID_Get ADL_Adapter_ID_Get;
    adl::PFN_ADL_Overdrive5_Temperature_Get ADL_Overdrive5_Temperature_Get;
    adl::PFN_ADL_Overdrive6_Temperature_Get ADL_Overdrive6_Temperature_Get;
    adl::PFN_ADL_OverdriveN_Temperature_Get ADL_OverdriveN_Temperature_Get;
    adl::PFN_ADL_Overdrive5_ThermalDevices_Enum ADL_Overdrive5_ThermalDevices_Enum;
    adl::PFN_ADL_Overdrive_Caps ADL_Overdrive_Caps;
    adl::PFN_ADL_Overdrive5_CurrentActivity_Get ADL_Overdrive5_CurrentActivity_Get;
    adl::PFN_ADL_Display_DisplayInfo_Get ADL_Display_DisplayInfo_Get;
    adl::PFN_ADL_Display_ODClockInfo_Get ADL_Display_ODClockInfo_Get;
    adl::PFN_ADL_Display_NumberOfDisplays_Get ADL_Display_NumberOfDisplays_Get;
};

// Process-wide, like the library they come from: written while the initializer
// is built (under adlMutex), read by every ADL table afterwards.
ADLEntries entries;
std::unique_ptr<tova::DynamicLibrary> library;

// Guards the once-only start of the classic interface.
std::mutex adlMutex;

// The entries that start and end ADL, looked up before it is started.
template <class Visit>
void listLifetimeEntries(Visit visit)
{
    visit("ADL_Main_ControlX2_Create", &entries.ADL_Main_ControlX2_Create);
    visit("ADL_Main_Control_Create", &entries.ADL_Main_Control_Create);
    visit("ADL_Main_Control_Destroy", &entries.ADL_Main_Control_Destroy);
}

// The table's rows, in look-up order, once ADL is started.
template <class Visit>
void listOperationEntries(Visit visit)
{
    visit("ADL_Main_Control_Refresh", &entries.ADL_Main_Control_Refresh);
    visit("ADL_Adapter_ASICFamilyType_Get", &entries.ADL_Adapter_ASICFamilyType_Get);
    visit("ADL_Adapter_NumberOfAdapters_Get", &entries.ADL_Adapter_NumberOfAdapters_Get);
    visit("ADL_Adapter_AdapterInfoX2_Get", &entries.ADL_Adapter_AdapterInfoX2_Get);
    visit("ADL_Adapter_AdapterInfo_Get", &entries.ADL_Adapter_AdapterInfo_Get);
    visit("ADL_Adapter_Crossfire_Caps", &entries.ADL_Adapter_Crossfire_Caps);
    visit("ADL_Adapter_Crossfire_Get", &entries.ADL_Adapter_Crossfire_Get);
    visit("ADL_Display_DisplayInfo_Get", &entries.ADL_Display_DisplayInfo_Get);
    visit("ADL_Adapter_ID_Get", &entries.ADL_Adapter_ID_Get);
    visit("ADL_Overdrive5_Temperature_Get", &entries.ADL_Overdrive5_Temperature_Get);
    visit("ADL_Overdrive6_Temperature_Get", &entries.ADL_Overdrive6_Temperature_Get);
    visit("ADL_OverdriveN_Temperature_Get", &entries.ADL_OverdriveN_Temperature_Get);
    visit("ADL_Overdrive5_ThermalDevices_Enum", &entries.ADL_Overdrive5_ThermalDevices_Enum);
    visit("ADL_Display_ODClockInfo_Get", &entries.ADL_Display_ODClockInfo_Get);
    visit("ADL_Display_NumberOfDisplays_Get", &entries.ADL_Display_NumberOfDisplays_Get);
    visit("ADL_Overdrive_Caps", &entries.ADL_Overdrive_Caps);
    visit("ADL_Overdrive5_CurrentActivity_Get", &entries.ADL_Overdrive5_CurrentActivity_Get);
}

// A row of the classic table, called under the lock of the first interface's
// calls, which other users of the first interface in the library take too.
template <class Entry, class... Args>
int classic(Entry entry, const char* missing, Args... args)
{
    const auto calls = adlcontrol::lockCalls();
    return forwardToADL(entry, missing, args...);
}

} // namespace

// An entry of the classic table, and the name it is missing under.
#define LIBKESTREL_ADL_ROW(entry) entries.entry, #entry

void* adlMemoryAlloc(int size)
{
    if (size < 1)
        return nullptr;
    void* block = std::malloc(static_cast<std::size_t>(size));
    if (!block)
        throw std::bad_alloc();
    return block;
}

std::size_t allocatedBytes(const void* block)
{
    if (!block)
        return 0;
#if defined(_WIN32)
    return _msize(const_cast<void*>(block));
#else
    return malloc_usable_size(const_cast<void*>(block));
#endif
}

bool loadADL(std::unique_ptr<tova::DynamicLibrary>& holder)
{
    for (const char* name : adl::ADL_LIBRARY_NAMES) {
        holder = std::make_unique<tova::DynamicLibrary>(tova::String(name));
        if (holder->load())
            return true;
    }
    log(site, Priority::WARNING, "23 ", "Unable to load either atiadlxx.dll or atiadlxy.dll.");
    return false;
}

void startADL(const ADLStart& newer, const ADLStart& older, const char* failedTag)
{
    for (const ADLStart* start : {&newer, &older}) {
        if (!start->present)
            continue;
        const int status = start->create();
        log(site, Priority::TRACE, start->tag, start->text, status);
        if (status >= 0)
            return;
    }
    log(site, Priority::WARNING, failedTag, "Unable to initialize ADL");
    throw std::runtime_error("Unable to initialize ADL");
}

ADLWrapper::~ADLWrapper() = default;

ADL::Initializer::Initializer()
{
    auto trace = site.trace("ADL::Initializer::Initializer()", 138);
    library.reset();
    if (!loadADL(library))
        throw std::runtime_error("Unable to load ADL binary.");
    resolveEntries(*library, [](auto visit) { listLifetimeEntries(visit); });
    // A share of the process's one control: started here unless the library's
    // AMD source or a session holds it already.
    const auto calls = adlcontrol::lockCalls();
    adlcontrol::acquire(calls, [this] {
        initialize();
        return true;
    });
    resolveEntries(*library, [](auto visit) { listOperationEntries(visit); });
}

void ADL::Initializer::initialize()
{
    auto trace = site.trace("ADL::Initializer::initialize()", 149);
    // Enumerate connected adapters only; ADL serialises the calls itself.
    startADL({entries.ADL_Main_ControlX2_Create != nullptr,
              [] { return entries.ADL_Main_ControlX2_Create(adlMemoryAlloc, 1, adl::ADL_THREADING_LOCKED); }, "87 ",
              "ADL_Main_ControlX2_Create returns "},
             {entries.ADL_Main_Control_Create != nullptr,
              [] { return entries.ADL_Main_Control_Create(adlMemoryAlloc, 1); }, "95 ",
              "ADL_Main_Control_Create returns "},
             "99 ");
}

// At process exit: the share of the one main control is given back (the last
// share ends it), and a table that outlives the library finds no entry to call
// into the unloaded module.
ADL::Initializer::~Initializer()
{
    {
        const auto calls = adlcontrol::lockCalls();
        adlcontrol::release(calls, [] {
            if (entries.ADL_Main_Control_Destroy)
                entries.ADL_Main_Control_Destroy();
        });
    }
    library.reset();
    entries = ADLEntries{};
}

ADL::~ADL() = default;

std::shared_ptr<ADL> ADLTables::makeADL()
{
    std::shared_ptr<ADL> table(new ADL);
    std::lock_guard<std::mutex> lock(adlMutex);
    // Built on the first table; a constructor that throws leaves it unbuilt, and
    // the next table tries again from the library load on.
    static ADL::Initializer initializer;
    return table;
}

std::shared_ptr<ADLWrapper> instantiateADL()
{
    auto trace = site.trace("std::shared_ptr<libKestrel::ADLWrapper> instantiateADL()", 182);
    try {
        return ADLTables::makeADL2();
    } catch (const std::exception&) {
        return ADLTables::makeADL();
    }
}

int ADL::Main_Control_Refresh() { return classic(LIBKESTREL_ADL_ROW(ADL_Main_Control_Refresh)); }

int ADL::Adapter_ASICFamilyType_Get(int iAdapterIndex, int* lpAsicTypes, int* lpValids)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Adapter_ASICFamilyType_Get), iAdapterIndex, lpAsicTypes, lpValids);
}

int ADL::Adapter_NumberOfAdapters_Get(int* lpNumAdapters)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Adapter_NumberOfAdapters_Get), lpNumAdapters);
}

int ADL::Adapter_AdapterInfoX2_Get(adl::AdapterInfo** lppAdapterInfo)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Adapter_AdapterInfoX2_Get), lppAdapterInfo);
}

int ADL::Adapter_AdapterInfo_Get(adl::LPAdapterInfo lpInfo, int iInputSize)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Adapter_AdapterInfo_Get), lpInfo, iInputSize);
}

int ADL::Adapter_Crossfire_Caps(int iAdapterIndex, int* lpPreferred, int* lpNumComb,
                                adl::ADLCrossfireComb** ppCrossfireComb)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Adapter_Crossfire_Caps), iAdapterIndex, lpPreferred, lpNumComb,
                        ppCrossfireComb);
}

int ADL::Adapter_Crossfire_Get(int iAdapterIndex, adl::ADLCrossfireComb* lpCrossfireComb,
                               adl::ADLCrossfireInfo* lpCrossfireInfo)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Adapter_Crossfire_Get), iAdapterIndex, lpCrossfireComb,
                        lpCrossfireInfo);
}

int ADL::Adapter_ID_Get(int iAdapterIndex, int* lpAdapterID)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Adapter_ID_Get), iAdapterIndex, lpAdapterID);
}

int ADL::Overdrive5_Temperature_Get(int iAdapterIndex, int iThermalControllerIndex, adl::ADLTemperature* lpTemperature)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Overdrive5_Temperature_Get), iAdapterIndex, iThermalControllerIndex,
                        lpTemperature);
}

int ADL::Overdrive6_Temperature_Get(int iAdapterIndex, int* lpTemperature)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Overdrive6_Temperature_Get), iAdapterIndex, lpTemperature);
}

int ADL::OverdriveN_Temperature_Get(int iAdapterIndex, int iTemperatureType, int* iTemperature)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_OverdriveN_Temperature_Get), iAdapterIndex, iTemperatureType,
                        iTemperature);
}

int ADL::Overdrive5_ThermalDevices_Enum(int iAdapterIndex, int iThermalControllerIndex,
                                        adl::ADLThermalControllerInfo* lpThermalControllerInfo)
{
    // This row has always reported its entry without the "ADL_" prefix.
    return classic(entries.ADL_Overdrive5_ThermalDevices_Enum, "Overdrive5_ThermalDevices_Enum", iAdapterIndex,
                        iThermalControllerIndex, lpThermalControllerInfo);
}

int ADL::Overdrive_Caps(int iAdapterIndex, int* iSupported, int* iEnabled, int* iVersion)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Overdrive_Caps), iAdapterIndex, iSupported, iEnabled, iVersion);
}

int ADL::Overdrive5_CurrentActivity_Get(int iAdapterIndex, adl::ADLPMActivity* lpActivity)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Overdrive5_CurrentActivity_Get), iAdapterIndex, lpActivity);
}

int ADL::Display_DisplayInfo_Get(int iAdapterIndex, int* lpNumDisplays, adl::ADLDisplayInfo** lppInfo,
                                 int iForceDetect)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Display_DisplayInfo_Get), iAdapterIndex, lpNumDisplays, lppInfo,
                        iForceDetect);
}

int ADL::Display_ODClockInfo_Get(int iAdapterIndex, adl::ADLAdapterODClockInfo* lpOdClockInfo)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Display_ODClockInfo_Get), iAdapterIndex, lpOdClockInfo);
}

int ADL::Display_NumberOfDisplays_Get(int iAdapterIndex, int* lpNumDisplays)
{
    return classic(LIBKESTREL_ADL_ROW(ADL_Display_NumberOfDisplays_Get), iAdapterIndex, lpNumDisplays);
}

} // namespace libKestrel
