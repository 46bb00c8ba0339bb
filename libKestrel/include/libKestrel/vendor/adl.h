#pragma once

#include <cstddef>

// Our declarations of the AMD Display Library (ADL and its context-based form,
// ADL2). ADL is reached only at run time, through the pointer types below; the
// layouts are those of ADL's own structures, checked by size against what the
// driver's library expects on each platform.
namespace libKestrel::adl {

// The driver's ADL library: on Windows the 64-bit DLL first, then the 32-bit
// name as a fallback.
#if defined(_WIN32)
inline constexpr const char* ADL_LIBRARY_NAMES[] = {"atiadlxx.dll", "atiadlxy.dll"};
#else
inline constexpr const char* ADL_LIBRARY_NAMES[] = {"libatiadlxx.so"};
#endif

// ---------------------------------------------------------------------------
// Basic types

// ADL allocates the buffers it hands back (CrossFire combinations, X2 adapter
// lists, OD8 setting lists) through this callback; the caller frees them. ADL
// declares it __stdcall, which on x86-64 is the one and only calling convention.
using ADL_MAIN_MALLOC_CALLBACK = void* (*)(int size);

// One ADL2 instance; every ADL2 entry takes it first.
using ADL_CONTEXT_HANDLE = void*;

enum ADLThreadingModel {
    ADL_THREADING_UNLOCKED = 0,
    ADL_THREADING_LOCKED = 1,
};
static_assert(sizeof(ADLThreadingModel) == 4, "ADLThreadingModel is passed as a 32-bit value");

constexpr int ADL_MAX_PATH = 256;
constexpr int ADL_TRUE = 1;
constexpr int ADL_FALSE = 0;

// ---------------------------------------------------------------------------
// Result codes. Positive values are warnings, negative ones errors; only
// ADL_OK means the call did what was asked.
constexpr int ADL_OK_WAIT = 4;
constexpr int ADL_OK_RESTART = 3;
constexpr int ADL_OK_MODE_CHANGE = 2;
constexpr int ADL_OK_WARNING = 1;
constexpr int ADL_OK = 0;
constexpr int ADL_ERR = -1;
constexpr int ADL_ERR_NOT_INIT = -2;
constexpr int ADL_ERR_INVALID_PARAM = -3;
constexpr int ADL_ERR_INVALID_PARAM_SIZE = -4;
constexpr int ADL_ERR_INVALID_ADL_IDX = -5;
constexpr int ADL_ERR_INVALID_CONTROLLER_IDX = -6;
constexpr int ADL_ERR_INVALID_DIPLAY_IDX = -7; // ADL's own spelling
constexpr int ADL_ERR_NOT_SUPPORTED = -8;
constexpr int ADL_ERR_NULL_POINTER = -9;
constexpr int ADL_ERR_DISABLED_ADAPTER = -10;
constexpr int ADL_ERR_INVALID_CALLBACK = -11;
constexpr int ADL_ERR_RESOURCE_CONFLICT = -12;
constexpr int ADL_ERR_SET_INCOMPLETE = -20;
constexpr int ADL_ERR_NO_XDISPLAY = -21;
constexpr int ADL_ERR_CALL_TO_INCOMPATIABLE_DRIVER = -22; // ADL's own spelling
constexpr int ADL_ERR_NO_ADMINISTRATOR_PRIVILEGES = -23;
constexpr int ADL_ERR_FEATURESYNC_NOT_STARTED = -24;
constexpr int ADL_ERR_INVALID_POWER_STATE = -25;
constexpr int ADL_ERR_SERVER_BUSY = -26;
constexpr int ADL_ERR_GPU_IN_USE = -27;
constexpr int ADL_ERR_RPC = -28;

// ---------------------------------------------------------------------------
// ASIC family bits (Adapter_ASICFamilyType_Get)
constexpr int ADL_ASIC_UNDEFINED = 0;
constexpr int ADL_ASIC_DISCRETE = 1 << 0;
constexpr int ADL_ASIC_INTEGRATED = 1 << 1;
constexpr int ADL_ASIC_WORKSTATION = 1 << 2;
constexpr int ADL_ASIC_FIREGL = ADL_ASIC_WORKSTATION;
constexpr int ADL_ASIC_FIREMV = 1 << 3;
constexpr int ADL_ASIC_XGP = 1 << 4;
constexpr int ADL_ASIC_FUSION = 1 << 5;
constexpr int ADL_ASIC_FIRESTREAM = 1 << 6;
constexpr int ADL_ASIC_EMBEDDED = 1 << 7;

// Thermal controllers (Overdrive5_ThermalDevices_Enum)
constexpr int ADL_DL_THERMAL_DOMAIN_OTHER = 0;
constexpr int ADL_DL_THERMAL_DOMAIN_GPU = 1;
constexpr int ADL_DL_THERMAL_FLAG_INTERRUPT = 1;
constexpr int ADL_DL_THERMAL_FLAG_FANCONTROL = 2;

// Overdrive 6 fan speed (ADLOD6FanSpeedInfo::iSpeedType bits) and state types
constexpr int ADL_OD6_FANSPEED_TYPE_PERCENT = 1;
constexpr int ADL_OD6_FANSPEED_TYPE_RPM = 2;
constexpr int ADL_OD6_FANSPEED_USER_DEFINED = 0x100;
constexpr int ADL_OD6_GETSTATEINFO_DEFAULT_PERFORMANCE = 1;
constexpr int ADL_OD6_GETSTATEINFO_DEFAULT_POWER_SAVING = 2;
constexpr int ADL_OD6_GETSTATEINFO_CURRENT = 3;
constexpr int ADL_OD6_GETSTATEINFO_CUSTOM_PERFORMANCE = 4;
constexpr int ADL_OD6_GETSTATEINFO_CUSTOM_POWER_SAVING = 5;

// Overdrive 8 capability bits (ADLOD8InitSetting::overdrive8Capabilities)
constexpr int ADL_OD8_GFXCLK_LIMITS = 1 << 0;
constexpr int ADL_OD8_GFXCLK_CURVE = 1 << 1;
constexpr int ADL_OD8_UCLK_MAX = 1 << 2;
constexpr int ADL_OD8_POWER_LIMIT = 1 << 3;
constexpr int ADL_OD8_ACOUSTIC_LIMIT_SCLK = 1 << 4;
constexpr int ADL_OD8_FAN_SPEED_MIN = 1 << 5;
constexpr int ADL_OD8_TEMPERATURE_FAN = 1 << 6;
constexpr int ADL_OD8_TEMPERATURE_SYSTEM = 1 << 7;
constexpr int ADL_OD8_MEMORY_TIMING_TUNE = 1 << 8;
constexpr int ADL_OD8_FAN_ZERO_RPM_CONTROL = 1 << 9;

// Overdrive 8 setting ids: positions in the OD8 setting tables.
enum ADLOD8SettingId {
    OD8_GFXCLK_FMAX = 0,
    OD8_GFXCLK_FMIN = 1,
    OD8_GFXCLK_FREQ1 = 2,
    OD8_GFXCLK_VOLTAGE1 = 3,
    OD8_GFXCLK_FREQ2 = 4,
    OD8_GFXCLK_VOLTAGE2 = 5,
    OD8_GFXCLK_FREQ3 = 6,
    OD8_GFXCLK_VOLTAGE3 = 7,
    OD8_UCLK_FMAX = 8,
    OD8_POWER_PERCENTAGE = 9,
    OD8_FAN_MIN_SPEED = 10,
    OD8_FAN_ACOUSTIC_LIMIT = 11,
    OD8_FAN_TARGET_TEMP = 12,
    OD8_OPERATING_TEMP_MAX = 13,
};

// Capacity of the fixed OD8 tables. It grew with every ADL release (16, 29, 31,
// 39, 52, 77); the library reads 29 entries, the table of the release it was
// written against. Longer lists come through the X2 calls, counted.
constexpr int OD8_COUNT = 29;

// PM log sensor indices (ADLPMLogDataOutput::sensors)
constexpr int ADL_PMLOG_MAX_SENSORS = 256;
constexpr int PMLOG_CLK_GFXCLK = 1;           // MHz
constexpr int PMLOG_CLK_MEMCLK = 2;           // MHz
constexpr int PMLOG_CLK_SOCCLK = 3;
constexpr int PMLOG_TEMPERATURE_EDGE = 8;     // degrees Celsius
constexpr int PMLOG_TEMPERATURE_MEM = 9;      // degrees Celsius, as the other temperatures
constexpr int PMLOG_FAN_RPM = 14;
constexpr int PMLOG_FAN_PERCENTAGE = 15;
constexpr int PMLOG_INFO_ACTIVITY_GFX = 19;   // percent
constexpr int PMLOG_INFO_ACTIVITY_MEM = 20;   // percent
constexpr int PMLOG_GFX_VOLTAGE = 21;         // mV
constexpr int PMLOG_ASIC_POWER = 23;          // W, whole
constexpr int PMLOG_TEMPERATURE_HOTSPOT = 27; // degrees Celsius, the hottest point of the die

// Overdrive 6 current power (ADL2_Overdrive6_CurrentPower_Get): the power type
// ADL documents, 0 for the ASIC's total power, whose value is in watts with 8
// fractional bits (256 is one watt). ADL gives the value no name; this is ours.
constexpr int OD6_POWER_TYPE_ASIC_TOTAL = 0;
constexpr int OD6_POWER_FRACTION_BITS = 8;

// ---------------------------------------------------------------------------
// Structures. Strings are fixed char arrays that ADL means to terminate, but a
// reader must never rely on it: read at most the array's size.

// One ADL adapter (a GPU shows up as one adapter per output). The tail after
// iPresent differs: Windows drivers add iExist and driver paths; the Linux
// driver (last described by ADL SDK 17.1) has X screen fields instead.
struct AdapterInfo {
    int iSize;
    int iAdapterIndex;
    char strUDID[ADL_MAX_PATH];
    int iBusNumber;
    int iDeviceNumber;
    int iFunctionNumber;
    int iVendorID;
    char strAdapterName[ADL_MAX_PATH];
    char strDisplayName[ADL_MAX_PATH];
    int iPresent;
#if defined(_WIN32)
    int iExist;
    char strDriverPath[ADL_MAX_PATH];
    char strDriverPathExt[ADL_MAX_PATH];
    char strPNPString[ADL_MAX_PATH];
    int iOSDisplayIndex;
#else
    int iXScreenNum;
    int iDrvIndex;
    char strXScreenConfigName[ADL_MAX_PATH];
#endif
};
using LPAdapterInfo = AdapterInfo*;
static_assert(offsetof(AdapterInfo, iBusNumber) == 264 && offsetof(AdapterInfo, strAdapterName) == 280 &&
                  offsetof(AdapterInfo, iPresent) == 792,
              "AdapterInfo head");
#if defined(_WIN32)
static_assert(offsetof(AdapterInfo, iExist) == 796 && sizeof(AdapterInfo) == 1572, "AdapterInfo (Windows)");
#else
static_assert(sizeof(AdapterInfo) == 1060, "AdapterInfo (Linux)");
#endif

// Whether the adapter exists: the Windows driver says so in iExist; the Linux
// driver has no such field and iPresent stands for it.
inline int adapterExists(const AdapterInfo& info)
{
#if defined(_WIN32)
    return info.iExist;
#else
    return info.iPresent;
#endif
}

// The Windows layout with two more fields, on every platform.
struct AdapterInfoX2 {
    int iSize;
    int iAdapterIndex;
    char strUDID[ADL_MAX_PATH];
    int iBusNumber;
    int iDeviceNumber;
    int iFunctionNumber;
    int iVendorID;
    char strAdapterName[ADL_MAX_PATH];
    char strDisplayName[ADL_MAX_PATH];
    int iPresent;
    int iExist;
    char strDriverPath[ADL_MAX_PATH];
    char strDriverPathExt[ADL_MAX_PATH];
    char strPNPString[ADL_MAX_PATH];
    int iOSDisplayIndex;
    int iInfoMask;
    int iInfoValue;
};
static_assert(sizeof(AdapterInfoX2) == 1580, "AdapterInfoX2");

struct ADLBiosInfo {
    char strPartNumber[ADL_MAX_PATH];
    char strVersion[ADL_MAX_PATH];
    char strDate[ADL_MAX_PATH];
};
static_assert(sizeof(ADLBiosInfo) == 768, "ADLBiosInfo");

struct ADLTemperature {
    int iSize;        // set to sizeof(ADLTemperature) by the caller
    int iTemperature; // millidegrees Celsius
};
static_assert(sizeof(ADLTemperature) == 8, "ADLTemperature");

struct ADLCrossfireComb {
    int iNumLinkAdapter;
    int iAdaptLink[3];
};
static_assert(sizeof(ADLCrossfireComb) == 16, "ADLCrossfireComb");

struct ADLCrossfireInfo {
    int iErrorCode;
    int iState;
    int iSupported;
};
static_assert(sizeof(ADLCrossfireInfo) == 12, "ADLCrossfireInfo");

// Clocks in units of 10 kHz.
struct ADLOD6CurrentStatus {
    int iEngineClock;
    int iMemoryClock;
    int iActivityPercent;
    int iCurrentPerformanceLevel;
    int iCurrentBusSpeed;
    int iCurrentBusLanes;
    int iMaximumBusLanes;
    int iExtValue;
    int iExtMask;
};
static_assert(sizeof(ADLOD6CurrentStatus) == 36, "ADLOD6CurrentStatus");

struct ADLMemoryInfo {
    long long iMemorySize; // bytes
    char strMemoryType[ADL_MAX_PATH];
    long long iMemoryBandwidth;
};
static_assert(sizeof(ADLMemoryInfo) == 272, "ADLMemoryInfo");

struct ADLMemoryInfo2 {
    long long iMemorySize;
    char strMemoryType[ADL_MAX_PATH];
    long long iMemoryBandwidth;
    long long iHyperMemorySize;
    long long iInvisibleMemorySize;
    long long iVisibleMemorySize;
};
static_assert(sizeof(ADLMemoryInfo2) == 296, "ADLMemoryInfo2");

struct ADLOD6FanSpeedInfo {
    int iSpeedType; // ADL_OD6_FANSPEED_TYPE_* bits: what the caller asks for, then what was filled
    int iFanSpeedPercent;
    int iFanSpeedRPM;
    int iExtValue;
    int iExtMask;
};
static_assert(sizeof(ADLOD6FanSpeedInfo) == 20, "ADLOD6FanSpeedInfo");

struct ADLODClockSetting {
    int iDefaultClock;
    int iCurrentClock;
    int iMaxClock;
    int iMinClock;
    int iRequestedClock;
    int iStepClock;
};
static_assert(sizeof(ADLODClockSetting) == 24, "ADLODClockSetting");

struct ADLAdapterODClockInfo {
    int iSize;
    int iFlags;
    ADLODClockSetting sMemoryClock;
    ADLODClockSetting sEngineClock;
};
static_assert(sizeof(ADLAdapterODClockInfo) == 56, "ADLAdapterODClockInfo");

// Clocks in units of 10 kHz.
struct ADLPMActivity {
    int iSize;
    int iEngineClock;
    int iMemoryClock;
    int iVddc;
    int iActivityPercent;
    int iCurrentPerformanceLevel;
    int iCurrentBusSpeed;
    int iCurrentBusLanes;
    int iMaximumBusLanes;
    int iReserved;
};
static_assert(sizeof(ADLPMActivity) == 40, "ADLPMActivity");

struct ADLThermalControllerInfo {
    int iSize;
    int iThermalDomain; // ADL_DL_THERMAL_DOMAIN_*
    int iDomainIndex;
    int iFlags;         // ADL_DL_THERMAL_FLAG_*
};
static_assert(sizeof(ADLThermalControllerInfo) == 16, "ADLThermalControllerInfo");

struct ADLOD6PerformanceLevel {
    int iEngineClock;
    int iMemoryClock;
};
static_assert(sizeof(ADLOD6PerformanceLevel) == 8, "ADLOD6PerformanceLevel");

// Declared with one level; ADL fills as many as iNumberOfPerformanceLevels, so a
// caller allocates room for more.
struct ADLOD6StateInfo {
    int iNumberOfPerformanceLevels;
    int iExtValue;
    int iExtMask;
    ADLOD6PerformanceLevel aLevels[1];
};
static_assert(sizeof(ADLOD6StateInfo) == 20, "ADLOD6StateInfo");

struct ADLOD8SingleInitSetting {
    int featureID;
    int minValue;
    int maxValue;
    int defaultValue;
};
static_assert(sizeof(ADLOD8SingleInitSetting) == 16, "ADLOD8SingleInitSetting");

struct ADLOD8InitSetting {
    int count;
    int overdrive8Capabilities; // ADL_OD8_* bits
    ADLOD8SingleInitSetting od8SettingTable[OD8_COUNT];
};
static_assert(sizeof(ADLOD8InitSetting) == 472, "ADLOD8InitSetting with 29 settings");

struct ADLOD8CurrentSetting {
    int count;
    int Od8SettingTable[OD8_COUNT];
};
static_assert(sizeof(ADLOD8CurrentSetting) == 120, "ADLOD8CurrentSetting with 29 settings");

struct ADLOD8SingleSetSetting {
    int value;
    int requested;
    int reset;
};
static_assert(sizeof(ADLOD8SingleSetSetting) == 12, "ADLOD8SingleSetSetting");

struct ADLOD8SetSetting {
    int count;
    ADLOD8SingleSetSetting od8SettingTable[OD8_COUNT];
};
static_assert(sizeof(ADLOD8SetSetting) == 4 + 12 * OD8_COUNT, "ADLOD8SetSetting");

struct ADLSingleSensorData {
    int supported;
    int value;
};
static_assert(sizeof(ADLSingleSensorData) == 8, "ADLSingleSensorData");

struct ADLPMLogDataOutput {
    int size;
    ADLSingleSensorData sensors[ADL_PMLOG_MAX_SENSORS];
};
static_assert(sizeof(ADLPMLogDataOutput) == 2052, "ADLPMLogDataOutput");

// Only ever handled by pointer here.
struct ADLDisplayInfo;

// ---------------------------------------------------------------------------
// Entry points. Every one returns an ADL result code and uses the compiler's
// default calling convention. The ADL2 form of an entry takes the context
// first; the create calls return it through a pointer instead.

using PFN_ADL_Main_Control_Create = int (*)(ADL_MAIN_MALLOC_CALLBACK callback, int iEnumConnectedAdapters);
using PFN_ADL2_Main_Control_Create = int (*)(ADL_MAIN_MALLOC_CALLBACK callback, int iEnumConnectedAdapters,
                                             ADL_CONTEXT_HANDLE* context);
using PFN_ADL_Main_ControlX2_Create = int (*)(ADL_MAIN_MALLOC_CALLBACK callback, int iEnumConnectedAdapters,
                                              ADLThreadingModel threadingModel);
using PFN_ADL2_Main_ControlX2_Create = int (*)(ADL_MAIN_MALLOC_CALLBACK callback, int iEnumConnectedAdapters,
                                               ADL_CONTEXT_HANDLE* context, ADLThreadingModel threadingModel);
using PFN_ADL_Main_Control_Destroy = int (*)();
using PFN_ADL2_Main_Control_Destroy = int (*)(ADL_CONTEXT_HANDLE context);
using PFN_ADL_Main_Control_Refresh = int (*)();
using PFN_ADL2_Main_Control_Refresh = int (*)(ADL_CONTEXT_HANDLE context);

// Entries with both forms, as X(name without prefix, parameters of the ADL_ form).
// ADL documents no ADL_ form of OverdriveN_Temperature_Get; drivers that have one
// take the ADL2 parameters without the context.
#define LIBKESTREL_ADL_ENTRIES(X)                                                                        \
    X(Adapter_NumberOfAdapters_Get, int* lpNumAdapters)                                                  \
    X(Adapter_AdapterInfo_Get, LPAdapterInfo lpInfo, int iInputSize)                                     \
    X(Adapter_AdapterInfoX2_Get, AdapterInfo** lppAdapterInfo)                                           \
    X(Adapter_ASICFamilyType_Get, int iAdapterIndex, int* lpAsicTypes, int* lpValids)                    \
    X(Adapter_Crossfire_Caps, int iAdapterIndex, int* lpPreferred, int* lpNumComb,                       \
      ADLCrossfireComb** ppCrossfireComb)                                                                \
    X(Adapter_Crossfire_Get, int iAdapterIndex, ADLCrossfireComb* lpCrossfireComb,                       \
      ADLCrossfireInfo* lpCrossfireInfo)                                                                 \
    X(Adapter_ID_Get, int iAdapterIndex, int* lpAdapterID)                                               \
    X(Adapter_VideoBiosInfo_Get, int iAdapterIndex, ADLBiosInfo* lpBiosInfo)                             \
    X(Adapter_MemoryInfo_Get, int iAdapterIndex, ADLMemoryInfo* lpMemoryInfo)                            \
    X(Adapter_MemoryInfo2_Get, int iAdapterIndex, ADLMemoryInfo2* lpMemoryInfo)                          \
    X(Display_DisplayInfo_Get, int iAdapterIndex, int* lpNumDisplays, ADLDisplayInfo** lppInfo,          \
      int iForceDetect)                                                                                  \
    X(Display_ODClockInfo_Get, int iAdapterIndex, ADLAdapterODClockInfo* lpOdClockInfo)                  \
    X(Display_NumberOfDisplays_Get, int iAdapterIndex, int* lpNumDisplays)                               \
    X(Overdrive_Caps, int iAdapterIndex, int* iSupported, int* iEnabled, int* iVersion)                  \
    X(Overdrive5_Temperature_Get, int iAdapterIndex, int iThermalControllerIndex,                        \
      ADLTemperature* lpTemperature)                                                                     \
    X(Overdrive5_CurrentActivity_Get, int iAdapterIndex, ADLPMActivity* lpActivity)                      \
    X(Overdrive5_ThermalDevices_Enum, int iAdapterIndex, int iThermalControllerIndex,                    \
      ADLThermalControllerInfo* lpThermalControllerInfo)                                                 \
    X(Overdrive6_Temperature_Get, int iAdapterIndex, int* lpTemperature)                                 \
    X(Overdrive6_FanSpeed_Get, int iAdapterIndex, ADLOD6FanSpeedInfo* lpFanSpeedInfo)                    \
    X(Overdrive6_StateInfo_Get, int iAdapterIndex, int iStateType, ADLOD6StateInfo* lpStateInfo)         \
    X(Overdrive6_CurrentStatus_Get, int iAdapterIndex, ADLOD6CurrentStatus* lpCurrentStatus)             \
    X(OverdriveN_Temperature_Get, int iAdapterIndex, int iTemperatureType, int* iTemperature)

// Entries with only an ADL2 form, as X(name without prefix, parameters after the context).
#define LIBKESTREL_ADL2_ONLY_ENTRIES(X)                                                                  \
    X(Overdrive8_Init_Setting_Get, int iAdapterIndex, ADLOD8InitSetting* lpInitSetting)                  \
    X(Overdrive8_Current_Setting_Get, int iAdapterIndex, ADLOD8CurrentSetting* lpCurrentSetting)         \
    X(Overdrive8_Setting_Set, int iAdapterIndex, ADLOD8SetSetting* lpSetSetting,                         \
      ADLOD8CurrentSetting* lpCurrentSetting)                                                            \
    X(New_QueryPMLogData_Get, int iAdapterIndex, ADLPMLogDataOutput* lpDataOutput)                       \
    X(Overdrive8_Init_SettingX2_Get, int iAdapterIndex, int* lpOverdrive8Capabilities,                   \
      int* lpNumberOfFeatures, ADLOD8SingleInitSetting** lppInitSettingList)                             \
    X(Overdrive8_Current_SettingX2_Get, int iAdapterIndex, int* lpNumberOfFeatures,                      \
      int** lppCurrentSettingList)                                                                       \
    X(Overdrive6_CurrentPower_Get, int iAdapterIndex, int iPowerType, int* lpCurrentValue)

#define LIBKESTREL_ADL_BOTH_FORMS(name, ...)                                                             \
    using PFN_ADL_##name = int (*)(__VA_ARGS__);                                                         \
    using PFN_ADL2_##name = int (*)(ADL_CONTEXT_HANDLE context, __VA_ARGS__);
#define LIBKESTREL_ADL2_FORM(name, ...) using PFN_ADL2_##name = int (*)(ADL_CONTEXT_HANDLE context, __VA_ARGS__);

LIBKESTREL_ADL_ENTRIES(LIBKESTREL_ADL_BOTH_FORMS)
LIBKESTREL_ADL2_ONLY_ENTRIES(LIBKESTREL_ADL2_FORM)

#undef LIBKESTREL_ADL_BOTH_FORMS
#undef LIBKESTREL_ADL2_FORM

} // namespace libKestrel::adl
