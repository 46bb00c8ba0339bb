// Drivers that lack entries: each group runs in a process of its own, against a
// simulated ADL built without those entries.
#include <memory>
#include <string>
#include <vector>

#include "amd/AmdTesting.h"
#include "tova/System.h"

namespace {

using namespace kestrel::test::amd;
using namespace libKestrel::adl;
using libKestrel::ADL;
using libKestrel::ADL2;

// Three adapters in ADL's order: A at bus 3, B at bus 4, A's second output.
std::string twoGPUs(const json& faults = json::object())
{
    return scenario({gpuAt(3, json::parse(R"({"adapters": [{"displayName": "A1"},
                                                            {"displayName": "B1", "pci": {"bus": 4}},
                                                            {"displayName": "A2"}]})"))},
                    faults);
}

// Without ADL2_Main_ControlX2_Create, ADL_Main_ControlX2_Create and both
// Adapter_AdapterInfoX2_Get.
TEST(AmdWithoutX2, TheOlderCreateCallsStartADLAndTheAdapterListComesThroughTheBuffer)
{
    SimulatedMachine machine(twoGPUs());
    LogCapture capture;
    std::vector<AMDGPU> gpus;
    ASSERT_EQ(AMDGPU::enumerate(gpus), 2u);
    EXPECT_EQ(gpus[0].displayIds(), (std::vector<std::string>{"A1", "A2"}));
    EXPECT_EQ(gpus[1].pciLocation(), at(4));
    EXPECT_TRUE(logged(capture, 1, "184 ADL2_Main_Control_Create returns 0"));
    EXPECT_EQ(capture.count("176 "), 0u) << "a missing entry is not called, so not logged";
    EXPECT_EQ(machine.count("ADL2_Adapter_AdapterInfo_Get"), 1u);

    // The location constructor falls back the same way.
    EXPECT_EQ(AMDGPU(at(4)).displayIds(), (std::vector<std::string>{"B1"}));

    // The classic interface starts through ADL_Main_Control_Create.
    SimulatedMachine classic(twoGPUs(withoutAdl2()));
    EXPECT_NE(dynamic_cast<ADL*>(libKestrel::instantiateADL().get()), nullptr);
    EXPECT_TRUE(logged(capture, 1, "95 ADL_Main_Control_Create returns 0"));
    EXPECT_EQ(capture.count("87 "), 0u);
}

TEST(AmdWithoutX2, AFallbackThatFailsGivesNoGPUs)
{
    std::vector<AMDGPU> gpus;
    {
        SimulatedMachine machine(twoGPUs());
        ASSERT_EQ(AMDGPU::enumerate(gpus), 2u);
    }
    SimulatedMachine machine(twoGPUs({{"ADL2_Adapter_AdapterInfo_Get", {{"return", -3}}}}));
    LogCapture capture;
    EXPECT_EQ(AMDGPU::enumerate(gpus), 0u);
    EXPECT_TRUE(gpus.empty());
    EXPECT_TRUE(logged(capture, 3, "268 Adapter_AdapterInfo_Get failed -3"));
    EXPECT_EQ(thrownBy([] { AMDGPU gpu(at(3)); }), "Cannot find a matching ADL adapter id given the PCI location.");

    SimulatedMachine uncounted(twoGPUs({{"ADL2_Adapter_NumberOfAdapters_Get", {{"return", -2}}}}));
    EXPECT_EQ(AMDGPU::enumerate(gpus), 0u);
    EXPECT_TRUE(logged(capture, 3, "261 Adapter_NumberOfAdapters_Get failed -2"));

    // A count no machine has: no buffer is made for it, no list asked for.
    SimulatedMachine absurd(twoGPUs({{"ADL2_Adapter_NumberOfAdapters_Get", {{"count", 2147483647}}}}));
    EXPECT_EQ(AMDGPU::enumerate(gpus), 0u);
    EXPECT_TRUE(logged(capture, 3, "700 Adapter count beyond any machine, not enumerating: 2147483647"));
    EXPECT_EQ(absurd.count("ADL2_Adapter_AdapterInfo_Get"), 0u);
}

// Without both forms of Overdrive5_Temperature_Get and Overdrive5_ThermalDevices_Enum.
TEST(AmdWithoutOverdrive5, AMissingEntryEmptiesEveryTemperatureGathered)
{
    // The first adapter reads through Overdrive 6, the second needs Overdrive 5.
    const json gpu = gpuAt(3, json::parse(R"({"overdrive6": {"temperature": 50000},
        "adapters": [{"overdrive": {"version": 6}}, {"overdrive": {"version": 5}}]})"));
    for (const json& faults : {json::object(), withoutAdl2()}) {
        SimulatedMachine machine(scenario({gpu}, faults));
        AMDGPU amd(at(3));
        std::vector<float> temperature{1.0f};
        amd.currentTemperature(temperature);
        EXPECT_TRUE(temperature.empty()) << faults.dump();
        EXPECT_EQ(machine.count("ADL2_Overdrive6_Temperature_Get") + machine.count("ADL_Overdrive6_Temperature_Get"),
                  1u);
    }
}

TEST(AmdWithoutOverdrive5, TheClassicTableNamesTheThermalEntryWithoutItsPrefix)
{
    ADLThermalControllerInfo info{};
    ADLTemperature temperature{};
    {
        SimulatedMachine machine(twoGPUs());
        const auto table = libKestrel::instantiateADL();
        ASSERT_NE(dynamic_cast<ADL2*>(table.get()), nullptr);
        EXPECT_EQ(thrownBy([&] { table->Overdrive5_ThermalDevices_Enum(0, 0, &info); }),
                  "ADL2_Overdrive5_ThermalDevices_Enum not in the driver");
    }
    SimulatedMachine machine(twoGPUs(withoutAdl2()));
    const auto table = libKestrel::instantiateADL();
    ASSERT_NE(dynamic_cast<ADL*>(table.get()), nullptr);
    EXPECT_EQ(thrownBy([&] { table->Overdrive5_ThermalDevices_Enum(0, 0, &info); }),
              "Overdrive5_ThermalDevices_Enum not in the driver");
    EXPECT_EQ(thrownBy([&] { table->Overdrive5_Temperature_Get(0, 0, &temperature); }),
              "ADL_Overdrive5_Temperature_Get not in the driver");
}

// Without ADL2_Overdrive8_Setting_Set and ADL2_Main_Control_Refresh.
TEST(AmdWithoutSettingSetAndRefresh, MissingAdl2EntriesThrowTheirNames)
{
    SimulatedMachine machine(twoGPUs());
    const std::shared_ptr<ADL2> table = libKestrel::instantiateADL2();
    ASSERT_NE(table, nullptr);
    ADLOD8SetSetting set{};
    ADLOD8CurrentSetting current{};
    EXPECT_EQ(thrownBy([&] { table->Overdrive8_Setting_Set(0, &set, &current); }),
              "ADL2_Overdrive8_Setting_Set not in the driver");
    // Refresh has always been reported under the classic entry's name.
    EXPECT_EQ(thrownBy([&] { table->Main_Control_Refresh(); }), "ADL_Main_Control_Refresh not in the driver");
    AMDGPU gpu(at(3));
    EXPECT_EQ(thrownBy([&] { gpu.refresh(); }), "ADL_Main_Control_Refresh not in the driver");

    // The classic table has its refresh.
    SimulatedMachine classic(twoGPUs(withoutAdl2()));
    AMDGPU onClassic(at(3));
    onClassic.refresh();
    EXPECT_EQ(classic.count("ADL_Main_Control_Refresh"), 1u);
}

// Run without either form of Display_ODClockInfo_Get (no clock can be read), and
// without either form of Overdrive_Caps (the current clocks, which depend on the
// Overdrive version, cannot be read).
TEST(AmdWithoutClockEntry, TheClocksThatNeedTheEntryAreZero)
{
    const bool withoutClockInfo = tova::System::getEnvironmentVariable("KESTREL_TEST_ADL_WITHOUT").str() == "clock_info";
    SimulatedMachine machine(scenario({gpuAt(3, json::parse(R"({"overdrive": {"version": 6},
        "odClock": {"engine": {"current": 135000, "default": 120000}, "memory": {"current": 100000, "default": 87500}}})"))}));
    AMDGPU gpu(at(3));
    EXPECT_EQ(gpu.currentClock(), 0u);
    EXPECT_EQ(gpu.currentMemoryClock(), 0u);
    EXPECT_EQ(gpu.defaultClock(), withoutClockInfo ? 0u : 1200u);
    EXPECT_EQ(gpu.defaultMemoryClock(), withoutClockInfo ? 0u : 875u);
}

} // namespace
