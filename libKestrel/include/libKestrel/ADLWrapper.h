#pragma once

#include <memory>

#include "libKestrel/Export.h"
#include "libKestrel/vendor/adl.h"

namespace libKestrel {

class ADLWrapper;
class ADL2;
struct ADLTables;

// A call table for ADL: an ADL2 table when the driver can make an ADL2 context,
// else a table over the classic entries. Throws std::runtime_error only when
// neither kind can be made (ADL missing, or refusing to start).
LIBKESTREL_API std::shared_ptr<ADLWrapper> instantiateADL();

// An ADL2 table with a context of its own, or an empty pointer when none can be
// made.
LIBKESTREL_API std::shared_ptr<ADL2> instantiateADL2();

// The ADL calls of the device classes, each taking the arguments of the ADL
// entry of the same name (less the ADL2 context) and returning its status as ADL
// gives it. A call whose entry the driver lacks throws std::runtime_error naming
// the entry, followed by " not in the driver".
//
// The driver's ADL library behind every table is loaded once per process, on
// the first table, and stays loaded until the process ends.
class LIBKESTREL_API ADLWrapper {
public:
    virtual ~ADLWrapper();

    virtual int Main_Control_Refresh() = 0;
    virtual int Adapter_ASICFamilyType_Get(int iAdapterIndex, int* lpAsicTypes, int* lpValids) = 0;
    virtual int Adapter_NumberOfAdapters_Get(int* lpNumAdapters) = 0;
    // ADL allocates the list through the memory callback; release it with free.
    virtual int Adapter_AdapterInfoX2_Get(adl::AdapterInfo** lppAdapterInfo) = 0;
    virtual int Adapter_AdapterInfo_Get(adl::LPAdapterInfo lpInfo, int iInputSize) = 0;
    // ADL allocates the combinations through the memory callback; release them with free.
    virtual int Adapter_Crossfire_Caps(int iAdapterIndex, int* lpPreferred, int* lpNumComb,
                                       adl::ADLCrossfireComb** ppCrossfireComb) = 0;
    virtual int Adapter_Crossfire_Get(int iAdapterIndex, adl::ADLCrossfireComb* lpCrossfireComb,
                                      adl::ADLCrossfireInfo* lpCrossfireInfo) = 0;
    virtual int Adapter_ID_Get(int iAdapterIndex, int* lpAdapterID) = 0;
    virtual int Overdrive5_Temperature_Get(int iAdapterIndex, int iThermalControllerIndex,
                                           adl::ADLTemperature* lpTemperature) = 0;
    virtual int Overdrive6_Temperature_Get(int iAdapterIndex, int* lpTemperature) = 0;
    virtual int OverdriveN_Temperature_Get(int iAdapterIndex, int iTemperatureType, int* iTemperature) = 0;
    virtual int Overdrive5_ThermalDevices_Enum(int iAdapterIndex, int iThermalControllerIndex,
                                               adl::ADLThermalControllerInfo* lpThermalControllerInfo) = 0;
    virtual int Overdrive_Caps(int iAdapterIndex, int* iSupported, int* iEnabled, int* iVersion) = 0;
    virtual int Overdrive5_CurrentActivity_Get(int iAdapterIndex, adl::ADLPMActivity* lpActivity) = 0;
    virtual int Display_DisplayInfo_Get(int iAdapterIndex, int* lpNumDisplays, adl::ADLDisplayInfo** lppInfo,
                                        int iForceDetect) = 0;
    virtual int Display_ODClockInfo_Get(int iAdapterIndex, adl::ADLAdapterODClockInfo* lpOdClockInfo) = 0;
    virtual int Display_NumberOfDisplays_Get(int iAdapterIndex, int* lpNumDisplays) = 0;
};

// The classic, context-free entries. Every ADL table shares the one main control
// that the first of them started.
class LIBKESTREL_API ADL : public ADLWrapper {
public:
    ~ADL() override;
    ADL(const ADL&) = delete;
    ADL& operator=(const ADL&) = delete;

    int Main_Control_Refresh() override;
    int Adapter_ASICFamilyType_Get(int iAdapterIndex, int* lpAsicTypes, int* lpValids) override;
    int Adapter_NumberOfAdapters_Get(int* lpNumAdapters) override;
    int Adapter_AdapterInfoX2_Get(adl::AdapterInfo** lppAdapterInfo) override;
    int Adapter_AdapterInfo_Get(adl::LPAdapterInfo lpInfo, int iInputSize) override;
    int Adapter_Crossfire_Caps(int iAdapterIndex, int* lpPreferred, int* lpNumComb,
                               adl::ADLCrossfireComb** ppCrossfireComb) override;
    int Adapter_Crossfire_Get(int iAdapterIndex, adl::ADLCrossfireComb* lpCrossfireComb,
                              adl::ADLCrossfireInfo* lpCrossfireInfo) override;
    int Adapter_ID_Get(int iAdapterIndex, int* lpAdapterID) override;
    int Overdrive5_Temperature_Get(int iAdapterIndex, int iThermalControllerIndex,
                                   adl::ADLTemperature* lpTemperature) override;
    int Overdrive6_Temperature_Get(int iAdapterIndex, int* lpTemperature) override;
    int OverdriveN_Temperature_Get(int iAdapterIndex, int iTemperatureType, int* iTemperature) override;
    int Overdrive5_ThermalDevices_Enum(int iAdapterIndex, int iThermalControllerIndex,
                                       adl::ADLThermalControllerInfo* lpThermalControllerInfo) override;
    int Overdrive_Caps(int iAdapterIndex, int* iSupported, int* iEnabled, int* iVersion) override;
    int Overdrive5_CurrentActivity_Get(int iAdapterIndex, adl::ADLPMActivity* lpActivity) override;
    int Display_DisplayInfo_Get(int iAdapterIndex, int* lpNumDisplays, adl::ADLDisplayInfo** lppInfo,
                                int iForceDetect) override;
    int Display_ODClockInfo_Get(int iAdapterIndex, adl::ADLAdapterODClockInfo* lpOdClockInfo) override;
    int Display_NumberOfDisplays_Get(int iAdapterIndex, int* lpNumDisplays) override;

private:
    friend struct ADLTables; // makes the tables

    // Loads ADL, starts its main control and looks up the entries; once per
    // process, and again after a start that failed.
    class Initializer {
    public:
        Initializer();
        ~Initializer();
        Initializer(const Initializer&) = delete;
        Initializer& operator=(const Initializer&) = delete;

    private:
        void initialize();
    };

    ADL() = default;
};

// The context-based entries, on a context of this table's own, and the
// Overdrive 8 entries that only ADL2 has.
class LIBKESTREL_API ADL2 : public ADLWrapper {
public:
    ~ADL2() override;
    ADL2(const ADL2&) = delete;
    ADL2& operator=(const ADL2&) = delete;

    int Main_Control_Refresh() override;
    int Adapter_ASICFamilyType_Get(int iAdapterIndex, int* lpAsicTypes, int* lpValids) override;
    int Adapter_NumberOfAdapters_Get(int* lpNumAdapters) override;
    int Adapter_AdapterInfoX2_Get(adl::AdapterInfo** lppAdapterInfo) override;
    int Adapter_AdapterInfo_Get(adl::LPAdapterInfo lpInfo, int iInputSize) override;
    int Adapter_Crossfire_Caps(int iAdapterIndex, int* lpPreferred, int* lpNumComb,
                               adl::ADLCrossfireComb** ppCrossfireComb) override;
    int Adapter_Crossfire_Get(int iAdapterIndex, adl::ADLCrossfireComb* lpCrossfireComb,
                              adl::ADLCrossfireInfo* lpCrossfireInfo) override;
    int Adapter_ID_Get(int iAdapterIndex, int* lpAdapterID) override;
    int Overdrive5_Temperature_Get(int iAdapterIndex, int iThermalControllerIndex,
                                   adl::ADLTemperature* lpTemperature) override;
    int Overdrive6_Temperature_Get(int iAdapterIndex, int* lpTemperature) override;
    int OverdriveN_Temperature_Get(int iAdapterIndex, int iTemperatureType, int* iTemperature) override;
    int Overdrive5_ThermalDevices_Enum(int iAdapterIndex, int iThermalControllerIndex,
                                       adl::ADLThermalControllerInfo* lpThermalControllerInfo) override;
    int Overdrive_Caps(int iAdapterIndex, int* iSupported, int* iEnabled, int* iVersion) override;
    int Overdrive5_CurrentActivity_Get(int iAdapterIndex, adl::ADLPMActivity* lpActivity) override;
    int Display_DisplayInfo_Get(int iAdapterIndex, int* lpNumDisplays, adl::ADLDisplayInfo** lppInfo,
                                int iForceDetect) override;
    int Display_ODClockInfo_Get(int iAdapterIndex, adl::ADLAdapterODClockInfo* lpOdClockInfo) override;
    int Display_NumberOfDisplays_Get(int iAdapterIndex, int* lpNumDisplays) override;

    virtual int Overdrive8_Init_Setting_Get(int iAdapterIndex, adl::ADLOD8InitSetting* lpInitSetting);
    virtual int Overdrive8_Current_Setting_Get(int iAdapterIndex, adl::ADLOD8CurrentSetting* lpCurrentSetting);
    virtual int Overdrive8_Setting_Set(int iAdapterIndex, adl::ADLOD8SetSetting* lpSetSetting,
                                       adl::ADLOD8CurrentSetting* lpCurrentSetting);
    virtual int New_QueryPMLogData_Get(int iAdapterIndex, adl::ADLPMLogDataOutput* lpDataOutput);
    // ADL allocates the list through the memory callback; release it with free.
    virtual int Overdrive8_Init_SettingX2_Get(int iAdapterIndex, int* lpOverdrive8Capabilities,
                                              int* lpNumberOfFeatures,
                                              adl::ADLOD8SingleInitSetting** lppInitSettingList);
    // ADL allocates the list through the memory callback; release it with free.
    virtual int Overdrive8_Current_SettingX2_Get(int iAdapterIndex, int* lpNumberOfFeatures,
                                                 int** lppCurrentSettingList);

private:
    friend struct ADLTables; // makes the tables

    // Loads ADL and looks up the entries; once per process, and again after a
    // load that failed. Contexts are each table's own.
    class Initializer {
    public:
        Initializer();
        ~Initializer();
        Initializer(const Initializer&) = delete;
        Initializer& operator=(const Initializer&) = delete;
    };

    ADL2() = default;

    adl::ADL_CONTEXT_HANDLE context = nullptr;
};

} // namespace libKestrel
