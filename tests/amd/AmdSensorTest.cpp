// AMDGPU's live readings: temperatures by Overdrive version, clocks, usage, and
// the Overdrive 8 settings and PM log.
#include <string>
#include <vector>

#include "amd/AmdTesting.h"

namespace {

using namespace kestrel::test::amd;
using namespace libKestrel::adl;

using Readings = std::vector<float>;

// A GPU at bus 3 whose adapters speak the given Overdrive versions, with readings
// for every version: 40 degrees through Overdrive 5, 50 through Overdrive 6, 61.5
// through OverdriveN, 54 in the PM log; clocks of 1350/1200 MHz (engine) and
// 1000/875 MHz (memory), 2100/1100 MHz in the PM log, and 37 % activity.
json gpuSpeaking(const std::vector<int>& versions, int capabilities = ADL_OD8_TEMPERATURE_FAN)
{
    json adl = json::parse(R"({
        "overdrive5": {"temperature": 40000, "activity": {"percent": 37}},
        "overdrive6": {"temperature": 50000}, "overdriveN": {"temperature": 61500},
        "odClock": {"engine": {"current": 135000, "default": 120000}, "memory": {"current": 100000, "default": 87500}},
        "overdrive8": {"settings": 12, "current": 12,
                       "pmlog": [{"sensor": 8, "value": 54}, {"sensor": 1, "value": 2100}, {"sensor": 2, "value": 1100}]}})");
    adl["overdrive8"]["capabilities"] = capabilities;
    for (int version : versions)
        adl["adapters"].push_back({{"overdrive", {{"version", version}}}});
    return gpuAt(3, adl);
}

TEST(AmdTemperature, EachOverdriveVersionReadsItsOwnInterface)
{
    SimulatedMachine machine(scenario({gpuSpeaking({5, 6, 7, 8})}));
    AMDGPU gpu(at(3)); // every adapter at the location
    Readings temperature{-1.0f};
    gpu.currentTemperature(temperature);
    EXPECT_EQ(temperature, (Readings{40.0f, 50.0f, 61.5f, 54.0f}));
    int reading = 0;
    EXPECT_EQ(gpu.retrieveCurrentTemperatureOverdrive8(3, reading), 0);
    EXPECT_EQ(reading, 54000) << "millidegrees, as the older interfaces report";
}

TEST(AmdTemperature, ReadingsAtOrBelowZeroAndAdaptersWithoutTheSensorAddNothing)
{
    {
        json gpu = gpuSpeaking({6, 8, 8}, ADL_OD8_TEMPERATURE_SYSTEM);
        gpu["adl"]["overdrive6"]["temperature"] = -5000;
        // The third adapter's PM log says nothing.
        SimulatedMachine machine(scenario({gpu}, {{"ADL2_New_QueryPMLogData_Get", {{"device", 2}, {"null", true}}}}));
        LogCapture capture;
        AMDGPU amd(at(3));
        Readings temperature;
        amd.currentTemperature(temperature);
        EXPECT_EQ(temperature, (Readings{54.0f})) << "the second adapter's reading is not counted again";
        EXPECT_TRUE(logged(capture, 1, "474 OD8 Failed to get Temperature Settings\n"));

        int reading = 777;
        EXPECT_EQ(amd.retrieveCurrentTemperatureOverdrive8(2, reading), 0);
        EXPECT_EQ(reading, 777) << "a sensor the GPU does not offer leaves the reading alone";
    }
    {
        SimulatedMachine machine(scenario({gpuSpeaking({8})}, {{"ADL2_New_QueryPMLogData_Get", {{"return", -8}}}}));
        LogCapture capture;
        AMDGPU amd(at(3));
        int reading = 777;
        EXPECT_EQ(amd.retrieveCurrentTemperatureOverdrive8(0, reading), -8);
        EXPECT_EQ(reading, 777);
        EXPECT_TRUE(logged(capture, 1, "479 New_QueryPMLogData_Get has failed\n"));
        Readings temperature;
        amd.currentTemperature(temperature);
        EXPECT_TRUE(temperature.empty());
    }
}

TEST(AmdClocks, TheFirstAdapterThatAnswersGivesTheClockInMHz)
{
    {
        // The first adapter cannot say; the second can.
        SimulatedMachine machine(
            scenario({gpuSpeaking({6, 6})}, {{"ADL2_Display_ODClockInfo_Get", {{"device", 0}, {"return", -1}}}}));
        LogCapture capture;
        AMDGPU gpu(at(3));
        EXPECT_EQ(gpu.currentClock(), 1350u);
        EXPECT_EQ(gpu.defaultClock(), 1200u);
        EXPECT_EQ(gpu.currentMemoryClock(), 1000u);
        EXPECT_EQ(gpu.defaultMemoryClock(), 875u);
    }
    {
        SimulatedMachine machine(scenario({gpuSpeaking({6})}, {{"ADL2_Display_ODClockInfo_Get", {{"return", -1}}}}));
        AMDGPU gpu(at(3));
        EXPECT_EQ(gpu.currentClock(), 0u) << "no adapter answered";
        EXPECT_EQ(gpu.defaultMemoryClock(), 0u);
    }
}

// Overdrive 8 GPUs read the PM log for what their capability bits offer, each
// reading for its own bits; the rest comes from the older interfaces.
TEST(AmdOverdrive8, EachPMLogReadingNeedsItsOwnCapabilityBit)
{
    const struct {
        const char* bit;
        int capabilities;
        std::vector<float> temperature;
        unsigned int clock;
        unsigned int memoryClock;
    } rows[] = {
        {"system temperature", ADL_OD8_TEMPERATURE_SYSTEM, {54.0f}, 1350, 1000},
        {"fan temperature", ADL_OD8_TEMPERATURE_FAN, {54.0f}, 1350, 1000},
        {"power limit", ADL_OD8_POWER_LIMIT, {54.0f}, 1350, 1000},
        {"clock limits", ADL_OD8_GFXCLK_LIMITS, {}, 2100, 1000},
        {"clock curve", ADL_OD8_GFXCLK_CURVE, {}, 2100, 1000},
        {"memory clock", ADL_OD8_UCLK_MAX, {}, 1350, 1100},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bit);
        SimulatedMachine machine(scenario({gpuSpeaking({8}, row.capabilities)}));
        AMDGPU gpu(at(3));
        Readings temperature;
        gpu.currentTemperature(temperature);
        EXPECT_EQ(temperature, row.temperature);
        EXPECT_EQ(gpu.currentClock(), row.clock);
        EXPECT_EQ(gpu.currentMemoryClock(), row.memoryClock);
        EXPECT_EQ(gpu.defaultClock(), 1200u) << "defaults never come from the PM log";
    }
    // A PM log that fails leaves the clock that ADL's clock info gave.
    SimulatedMachine machine(scenario({gpuSpeaking({8}, ADL_OD8_GFXCLK_LIMITS | ADL_OD8_UCLK_MAX)},
                                      {{"ADL2_New_QueryPMLogData_Get", {{"return", -1}}}}));
    LogCapture capture;
    AMDGPU gpu(at(3));
    EXPECT_EQ(gpu.currentClock(), 1350u);
    EXPECT_EQ(gpu.currentMemoryClock(), 1000u);
    EXPECT_TRUE(logged(capture, 1, "593 Unsuccessfull retrieving the current clock through Overdrive 8 ADL"));
    EXPECT_TRUE(logged(capture, 1, "645 Unsuccessfull retrieving the current memory clock through Overdrive 8 ADL"));
}

TEST(AmdUsage, UsageAppendsOneReadingPerActiveAdapterAndRefreshReachesTheDriver)
{
    SimulatedMachine machine(
        scenario({gpuSpeaking({6, 6, 6})}, {{"ADL2_Overdrive5_CurrentActivity_Get", {{"device", 1}, {"return", -8}}}}));
    AMDGPU gpu(at(3));
    std::vector<int> usage{5};
    gpu.currentGPUUsage(usage);
    EXPECT_EQ(usage, (std::vector<int>{5, 37, 37}));
    gpu.refresh();
    EXPECT_EQ(machine.count("ADL2_Main_Control_Refresh"), 1u);
}

// 35 settings and current values, more than the records hold.
json overdrive8With35(const json& faults = json::object())
{
    json settings = json::array();
    json current = json::array();
    for (int i = 0; i < 35; ++i) {
        settings.push_back({{"id", i}, {"min", 10 * i}, {"max", 10 * i + 9}, {"default", 10 * i + 5}});
        current.push_back(2000 + i);
    }
    json adl;
    adl["overdrive8"] = {{"capabilities", 0x3FF}, {"settings", settings}, {"current", current}};
    return json::parse(scenario({gpuAt(3, adl)}, faults));
}

TEST(AmdOverdrive8, LongListsAreCutTo29)
{
    SimulatedMachine machine(overdrive8With35().dump());
    AMDGPU gpu(at(3));
    ADLOD8InitSetting init{};
    ASSERT_EQ(gpu.GetOD8InitSetting(0, init), 0);
    EXPECT_EQ(init.count, 29);
    EXPECT_EQ(init.overdrive8Capabilities, 0x3FF);
    const ADLOD8SingleInitSetting& last = init.od8SettingTable[28];
    EXPECT_EQ(last.featureID, 28);
    EXPECT_EQ(last.minValue, 280);
    EXPECT_EQ(last.maxValue, 289);
    EXPECT_EQ(last.defaultValue, 285);
    ADLOD8CurrentSetting current{};
    ASSERT_EQ(gpu.GetOD8CurrentSetting(0, current), 0);
    EXPECT_EQ(current.count, 29);
    EXPECT_EQ(current.Od8SettingTable[0], 2000);
    EXPECT_EQ(current.Od8SettingTable[28], 2028);
    EXPECT_EQ(machine.count("ADL2_Overdrive8_Current_Setting_Get"), 0u) << "the X2 call answered";
}

TEST(AmdOverdrive8, FailingListCallsAndCountsBeyondTheList)
{
    {
        // The current settings fall back to the fixed record.
        json faults = {{"ADL2_Overdrive8_Current_SettingX2_Get", {{"return", -1}}}};
        SimulatedMachine machine(overdrive8With35(faults).dump());
        LogCapture capture;
        AMDGPU gpu(at(3));
        ADLOD8CurrentSetting current{};
        EXPECT_EQ(gpu.GetOD8CurrentSetting(0, current), 0);
        EXPECT_EQ(current.count, 29);
        EXPECT_EQ(current.Od8SettingTable[5], 2005);
        EXPECT_TRUE(logged(capture, 1, "429 ADL2_Overdrive8_Current_SettingX2_Get is failed\n"));

        faults["ADL2_Overdrive8_Current_Setting_Get"] = {{"return", -1}};
        faults["ADL2_Overdrive8_Init_SettingX2_Get"] = {{"return", -1}};
        SimulatedMachine failing(overdrive8With35(faults).dump());
        AMDGPU broken(at(3));
        EXPECT_EQ(broken.GetOD8CurrentSetting(0, current), -1);
        EXPECT_TRUE(logged(capture, 1, "436 ADL2_Overdrive8_Current_Setting_Get is failed\n"));
        ADLOD8InitSetting init{};
        EXPECT_EQ(broken.GetOD8InitSetting(0, init), -1);
        EXPECT_TRUE(logged(capture, 1, "397 ADL2_Overdrive8_Init_SettingX2_Get is failed\n"));
        EXPECT_EQ(failing.count("ADL2_Overdrive8_Init_Setting_Get"), 0u) << "no fallback for the initial settings";
        ADLPMLogDataOutput pmLog{};
        EXPECT_EQ(broken.queryOverdrive8(0, init, pmLog), -1);
        EXPECT_EQ(failing.count("ADL2_New_QueryPMLogData_Get"), 0u);
    }
    {
        // A count beyond the driver's list: the list is read to its end.
        json scenarioWith3 = overdrive8With35({{"ADL2_Overdrive8_Init_SettingX2_Get", {{"count", 20}}}});
        scenarioWith3["gpus"][0]["adl"]["overdrive8"]["settings"] = 3;
        SimulatedMachine machine(scenarioWith3.dump());
        ADLOD8InitSetting init{};
        EXPECT_EQ(AMDGPU(at(3)).GetOD8InitSetting(0, init), 0);
        EXPECT_EQ(init.count, 3);
        EXPECT_EQ(init.od8SettingTable[3].maxValue, 0) << "nothing past the list";
    }
}

TEST(AmdOverdrive8, WithoutAdl2TheOverdrive8OperationsFail)
{
    SimulatedMachine machine(scenario({gpuSpeaking({8}, 0x3FF)}, withoutAdl2()));
    LogCapture capture;
    AMDGPU gpu(at(3));
    ADLOD8InitSetting init{};
    ADLOD8CurrentSetting current{};
    ADLPMLogDataOutput pmLog{};
    EXPECT_EQ(gpu.GetOD8InitSetting(0, init), -1);
    EXPECT_EQ(gpu.GetOD8CurrentSetting(0, current), -1);
    EXPECT_EQ(gpu.queryOverdrive8(0, init, pmLog), -1);
    int reading = 777;
    EXPECT_EQ(gpu.retrieveCurrentClockOverdrive8(0, reading), -1);
    EXPECT_EQ(reading, 777);
    EXPECT_TRUE(logged(capture, 1, "507 New_QueryPMLogData_Get has failed\n"));
    // The classic readings still work.
    EXPECT_EQ(gpu.currentClock(), 1350u);
    Readings temperature;
    gpu.currentTemperature(temperature);
    EXPECT_TRUE(temperature.empty());
    EXPECT_EQ(machine.count("ADL_Overdrive_Caps"), 2u);
}

} // namespace
