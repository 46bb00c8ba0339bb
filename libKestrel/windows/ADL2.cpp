#include "libKestrel/ADLWrapper.h"

#include <cstring>
#include <mutex>

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Lookup.h"
#include "libKestrel/internal/windows/ADL.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;

logging::LogSite site("libKestrel", "libKestrel/windows/ADL2");

// The context-based entries: the three that start and end a context, then rows
// 1-23.
struct ADL2Entries {
    adl::PFN_ADL2_Main_ControlX2_Create ADL2_Main_ControlX2_Create;
    adl::PFN_ADL2_Main_Control_Create ADL2_Main_Control_Create;
    adl::PFN_ADL2_Main_Control_Destroy ADL2_Main_Control_Destroy;
    adl::PFN_ADL2_Main_Control_Refresh ADL2_Main_Control_Refresh;
    adl::PFN_ADL2_Adapter_ASICFamilyType_Get ADL2_Adapter_ASICFamilyType_Get;
    adl::PFN_ADL2_Adapter_NumberOfAdapters_Get ADL2_Adapter_NumberOfAdapters_Get;
    adl::PFN_ADL2_Adapter_AdapterInfoX2_Get ADL2_Adapter_AdapterInfoX2_Get;
    adl::PFN_ADL2_Adapter_AdapterInfo_Get ADL2_Adapter_AdapterInfo_Get;
    adl::PFN_ADL2_Adapter_Crossfire_Caps ADL2_Adapter_Crossfire_Caps;
    adl::PFN_ADL2_Adapter_Crossfire_Get ADL2_Adapter_Crossfire_Get;
    adl::PFN_ADL2_Adapter_ID_Get ADL2_Adapter_ID_Get;
    adl::PFN_ADL2_Overdrive5_Temperature_Get ADL2_Overdrive5_Temperature_Get;
    adl::PFN_ADL2_Overdrive6_Temperature_Get ADL2_Overdrive6_Temperature_Get;
    adl::PFN_ADL2_OverdriveN_Temperature_Get ADL2_OverdriveN_Temperature_Get;
    adl::PFN_ADL2_Overdrive5_ThermalDevices_Enum ADL2_Overdrive5_ThermalDevices_Enum;
    adl::PFN_ADL2_Overdrive_Caps ADL2_Overdrive_Caps;
    adl::PFN_ADL2_Overdrive5_CurrentActivity_Get ADL2_Overdrive5_CurrentActivity_Get;
    adl::PFN_ADL2_Display_DisplayInfo_Get ADL2_Display_DisplayInfo_Get;
    adl::PFN_ADL2_Display_ODClockInfo_Get ADL2_Display_ODClockInfo_Get;
    adl::PFN_ADL2_Display_NumberOfDisplays_Get ADL2_Display_NumberOfDisplays_Get;
    adl::PFN_ADL2_Overdrive8_Init_Setting_Get ADL2_Overdrive8_Init_Setting_Get;
    adl::PFN_ADL2_Overdrive8_Current_Setting_Get ADL2_Overdrive8_Current_Setting_Get;
    adl::PFN_ADL2_Overdrive8_Setting_Set ADL2_Overdrive8_Setting_Set;
    adl::PFN_ADL2_New_QueryPMLogData_Get ADL2_New_QueryPMLogData_Get;
    adl::PFN_ADL2_Overdrive8_Init_SettingX2_Get ADL2_Overdrive8_Init_SettingX2_Get;
    adl::PFN_ADL2_Overdrive8_Current_SettingX2_Get ADL2_Overdrive8_Current_SettingX2_Get;
};

// Process-wide, like the library they come from: written under adl2Mutex, read
// by every ADL2 table without it.
ADL2Entries entries;
std::unique_ptr<tova::DynamicLibrary> library;

// Guards the once-only load and the look-up of the lifetime entries.
std::mutex adl2Mutex;

template <class Visit>
void listLifetimeEntries(ADL2Entries& table, Visit visit)
{
    visit("ADL2_Main_ControlX2_Create", &table.ADL2_Main_ControlX2_Create);
    visit("ADL2_Main_Control_Create", &table.ADL2_Main_Control_Create);
    visit("ADL2_Main_Control_Destroy", &table.ADL2_Main_Control_Destroy);
}

// Rows 1-23, in order.
template <class Visit>
void listOperationEntries(ADL2Entries& table, Visit visit)
{
    visit("ADL2_Main_Control_Refresh", &table.ADL2_Main_Control_Refresh);
    visit("ADL2_Adapter_ASICFamilyType_Get", &table.ADL2_Adapter_ASICFamilyType_Get);
    visit("ADL2_Adapter_NumberOfAdapters_Get", &table.ADL2_Adapter_NumberOfAdapters_Get);
    visit("ADL2_Adapter_AdapterInfoX2_Get", &table.ADL2_Adapter_AdapterInfoX2_Get);
    visit("ADL2_Adapter_AdapterInfo_Get", &table.ADL2_Adapter_AdapterInfo_Get);
    visit("ADL2_Adapter_Crossfire_Caps", &table.ADL2_Adapter_Crossfire_Caps);
    visit("ADL2_Adapter_Crossfire_Get", &table.ADL2_Adapter_Crossfire_Get);
    visit("ADL2_Adapter_ID_Get", &table.ADL2_Adapter_ID_Get);
    visit("ADL2_Overdrive5_Temperature_Get", &table.ADL2_Overdrive5_Temperature_Get);
    visit("ADL2_Overdrive6_Temperature_Get", &table.ADL2_Overdrive6_Temperature_Get);
    visit("ADL2_OverdriveN_Temperature_Get", &table.ADL2_OverdriveN_Temperature_Get);
    visit("ADL2_Overdrive5_ThermalDevices_Enum", &table.ADL2_Overdrive5_ThermalDevices_Enum);
    visit("ADL2_Overdrive_Caps", &table.ADL2_Overdrive_Caps);
    visit("ADL2_Overdrive5_CurrentActivity_Get", &table.ADL2_Overdrive5_CurrentActivity_Get);
    visit("ADL2_Display_DisplayInfo_Get", &table.ADL2_Display_DisplayInfo_Get);
    visit("ADL2_Display_ODClockInfo_Get", &table.ADL2_Display_ODClockInfo_Get);
    visit("ADL2_Display_NumberOfDisplays_Get", &table.ADL2_Display_NumberOfDisplays_Get);
    visit("ADL2_Overdrive8_Init_Setting_Get", &table.ADL2_Overdrive8_Init_Setting_Get);
    visit("ADL2_Overdrive8_Current_Setting_Get", &table.ADL2_Overdrive8_Current_Setting_Get);
    visit("ADL2_Overdrive8_Setting_Set", &table.ADL2_Overdrive8_Setting_Set);
    visit("ADL2_New_QueryPMLogData_Get", &table.ADL2_New_QueryPMLogData_Get);
    visit("ADL2_Overdrive8_Init_SettingX2_Get", &table.ADL2_Overdrive8_Init_SettingX2_Get);
    visit("ADL2_Overdrive8_Current_SettingX2_Get", &table.ADL2_Overdrive8_Current_SettingX2_Get);
}

// Looks the lifetime entries up again, as every new table does. Tables already
// made read the entries without the lock (their destructors end their contexts),
// so the process-wide table is written only when the library gives other
// addresses, which it never does while it stays loaded.
void refreshLifetimeEntries()
{
    ADL2Entries fresh = entries;
    resolveEntries(*library, [&fresh](auto visit) { listLifetimeEntries(fresh, visit); });
    if (std::memcmp(&fresh, &entries, sizeof fresh) != 0)
        entries = fresh;
}

} // namespace

// An entry of the ADL2 table, and the name it is missing under.
#define LIBKESTREL_ADL2_ROW(entry) entries.entry, #entry

std::shared_ptr<ADL2> instantiateADL2()
{
    auto trace = site.trace("std::shared_ptr<libKestrel::ADL2> instantiateADL2()", 111);
    try {
        return ADLTables::makeADL2();
    } catch (const std::exception&) {
        log(site, Priority::TRACE, "46 ", "Unable to create ADL2 object");
        return nullptr;
    }
}

ADL2::Initializer::Initializer()
{
    auto trace = site.trace("ADL2::Initializer::Initializer()", 122);
    library.reset();
    if (!loadADL(library))
        throw std::runtime_error("Unable to load either atiadlxx.dll or atiadlxy.dll.");
    resolveEntries(*library, [](auto visit) { listOperationEntries(entries, visit); });
}

// At process exit. A table that outlives the library (a host's own static, say)
// finds its entries null and ends nothing: there is no ADL left to call.
ADL2::Initializer::~Initializer()
{
    library.reset();
    entries = ADL2Entries{};
}

std::shared_ptr<ADL2> ADLTables::makeADL2()
{
    std::shared_ptr<ADL2> table(new ADL2);
    adl::PFN_ADL2_Main_ControlX2_Create createX2 = nullptr;
    adl::PFN_ADL2_Main_Control_Create create = nullptr;
    {
        std::lock_guard<std::mutex> lock(adl2Mutex);
        // Built on the first table; a constructor that throws leaves it unbuilt,
        // and the next table tries again from the library load on.
        static ADL2::Initializer initializer;
        refreshLifetimeEntries();
        createX2 = entries.ADL2_Main_ControlX2_Create;
        create = entries.ADL2_Main_Control_Create;
    }
    // The context is made without the lock; ADL serialises the calls on it.
    adl::ADL_CONTEXT_HANDLE* context = &table->context;
    startADL({createX2 != nullptr,
              [createX2, context] { return createX2(adlMemoryAlloc, 1, context, adl::ADL_THREADING_LOCKED); },
              "176 ", "ADL2_Main_ControlX2_Create returns "},
             {create != nullptr, [create, context] { return create(adlMemoryAlloc, 1, context); }, "184 ",
              "ADL2_Main_Control_Create returns "},
             "188 ");
    return table;
}

ADL2::~ADL2()
{
    if (context && entries.ADL2_Main_Control_Destroy)
        entries.ADL2_Main_Control_Destroy(context);
    context = nullptr;
}

int ADL2::Main_Control_Refresh()
{
    // This row has always reported the classic entry's name.
    return forwardToADL(entries.ADL2_Main_Control_Refresh, "ADL_Main_Control_Refresh", context);
}

int ADL2::Adapter_ASICFamilyType_Get(int iAdapterIndex, int* lpAsicTypes, int* lpValids)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Adapter_ASICFamilyType_Get), context, iAdapterIndex, lpAsicTypes,
                        lpValids);
}

int ADL2::Adapter_NumberOfAdapters_Get(int* lpNumAdapters)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Adapter_NumberOfAdapters_Get), context, lpNumAdapters);
}

int ADL2::Adapter_AdapterInfoX2_Get(adl::AdapterInfo** lppAdapterInfo)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Adapter_AdapterInfoX2_Get), context, lppAdapterInfo);
}

int ADL2::Adapter_AdapterInfo_Get(adl::LPAdapterInfo lpInfo, int iInputSize)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Adapter_AdapterInfo_Get), context, lpInfo, iInputSize);
}

int ADL2::Adapter_Crossfire_Caps(int iAdapterIndex, int* lpPreferred, int* lpNumComb,
                                 adl::ADLCrossfireComb** ppCrossfireComb)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Adapter_Crossfire_Caps), context, iAdapterIndex, lpPreferred,
                        lpNumComb, ppCrossfireComb);
}

int ADL2::Adapter_Crossfire_Get(int iAdapterIndex, adl::ADLCrossfireComb* lpCrossfireComb,
                                adl::ADLCrossfireInfo* lpCrossfireInfo)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Adapter_Crossfire_Get), context, iAdapterIndex, lpCrossfireComb,
                        lpCrossfireInfo);
}

int ADL2::Adapter_ID_Get(int iAdapterIndex, int* lpAdapterID)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Adapter_ID_Get), context, iAdapterIndex, lpAdapterID);
}

int ADL2::Overdrive5_Temperature_Get(int iAdapterIndex, int iThermalControllerIndex,
                                     adl::ADLTemperature* lpTemperature)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Overdrive5_Temperature_Get), context, iAdapterIndex,
                        iThermalControllerIndex, lpTemperature);
}

int ADL2::Overdrive6_Temperature_Get(int iAdapterIndex, int* lpTemperature)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Overdrive6_Temperature_Get), context, iAdapterIndex, lpTemperature);
}

int ADL2::OverdriveN_Temperature_Get(int iAdapterIndex, int iTemperatureType, int* iTemperature)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_OverdriveN_Temperature_Get), context, iAdapterIndex,
                        iTemperatureType, iTemperature);
}

int ADL2::Overdrive5_ThermalDevices_Enum(int iAdapterIndex, int iThermalControllerIndex,
                                         adl::ADLThermalControllerInfo* lpThermalControllerInfo)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Overdrive5_ThermalDevices_Enum), context, iAdapterIndex,
                        iThermalControllerIndex, lpThermalControllerInfo);
}

int ADL2::Overdrive_Caps(int iAdapterIndex, int* iSupported, int* iEnabled, int* iVersion)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Overdrive_Caps), context, iAdapterIndex, iSupported, iEnabled,
                        iVersion);
}

int ADL2::Overdrive5_CurrentActivity_Get(int iAdapterIndex, adl::ADLPMActivity* lpActivity)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Overdrive5_CurrentActivity_Get), context, iAdapterIndex, lpActivity);
}

int ADL2::Display_DisplayInfo_Get(int iAdapterIndex, int* lpNumDisplays, adl::ADLDisplayInfo** lppInfo,
                                  int iForceDetect)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Display_DisplayInfo_Get), context, iAdapterIndex, lpNumDisplays,
                        lppInfo, iForceDetect);
}

int ADL2::Display_ODClockInfo_Get(int iAdapterIndex, adl::ADLAdapterODClockInfo* lpOdClockInfo)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Display_ODClockInfo_Get), context, iAdapterIndex, lpOdClockInfo);
}

int ADL2::Display_NumberOfDisplays_Get(int iAdapterIndex, int* lpNumDisplays)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Display_NumberOfDisplays_Get), context, iAdapterIndex,
                        lpNumDisplays);
}

int ADL2::Overdrive8_Init_Setting_Get(int iAdapterIndex, adl::ADLOD8InitSetting* lpInitSetting)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Overdrive8_Init_Setting_Get), context, iAdapterIndex,
                        lpInitSetting);
}

int ADL2::Overdrive8_Current_Setting_Get(int iAdapterIndex, adl::ADLOD8CurrentSetting* lpCurrentSetting)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Overdrive8_Current_Setting_Get), context, iAdapterIndex,
                        lpCurrentSetting);
}

int ADL2::Overdrive8_Setting_Set(int iAdapterIndex, adl::ADLOD8SetSetting* lpSetSetting,
                                 adl::ADLOD8CurrentSetting* lpCurrentSetting)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Overdrive8_Setting_Set), context, iAdapterIndex, lpSetSetting,
                        lpCurrentSetting);
}

int ADL2::New_QueryPMLogData_Get(int iAdapterIndex, adl::ADLPMLogDataOutput* lpDataOutput)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_New_QueryPMLogData_Get), context, iAdapterIndex, lpDataOutput);
}

int ADL2::Overdrive8_Init_SettingX2_Get(int iAdapterIndex, int* lpOverdrive8Capabilities, int* lpNumberOfFeatures,
                                        adl::ADLOD8SingleInitSetting** lppInitSettingList)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Overdrive8_Init_SettingX2_Get), context, iAdapterIndex,
                        lpOverdrive8Capabilities, lpNumberOfFeatures, lppInitSettingList);
}

int ADL2::Overdrive8_Current_SettingX2_Get(int iAdapterIndex, int* lpNumberOfFeatures, int** lppCurrentSettingList)
{
    return forwardToADL(LIBKESTREL_ADL2_ROW(ADL2_Overdrive8_Current_SettingX2_Get), context, iAdapterIndex,
                        lpNumberOfFeatures, lppCurrentSettingList);
}

} // namespace libKestrel
