// The ADL call tables: which kind instantiateADL hands out, the context each
// owns, and the once-only start of ADL.
#include <memory>
#include <tuple>

#include "amd/AmdTesting.h"
#include "libKestrel/internal/windows/ADL.h"

namespace {

using namespace kestrel::test::amd;
using namespace libKestrel::adl;
using libKestrel::ADL;
using libKestrel::ADL2;
using libKestrel::ADLWrapper;

json everyRow()
{
    return gpuAt(3, json::parse(R"({
        "adapters": [{"displayName": "\\\\.\\DISPLAY1"}], "adapterId": 77,
        "asic": {"types": 33, "valids": 1}, "overdrive": {"supported": 1, "enabled": 0, "version": 7},
        "overdriveN": {"temperature": 61500}, "overdrive6": {"temperature": 48000},
        "odClock": {"engine": {"current": 135000, "default": 120000}},
        "overdrive8": {"capabilities": 4, "settings": 10, "current": [900, 901, 902, 903, 904, 905, 906, 907, 908, 909],
                       "pmlog": [{"sensor": 2, "value": 1000}]}})"));
}

TEST(AmdTables, AnAdl2TableCallsTheAdl2EntriesOnAContextOfItsOwn)
{
    SimulatedMachine machine(scenario({everyRow()}));
    LogCapture capture;
    {
        const std::shared_ptr<ADLWrapper> table = libKestrel::instantiateADL();
        auto* adl2 = dynamic_cast<ADL2*>(table.get());
        ASSERT_NE(adl2, nullptr);
        EXPECT_TRUE(logged(capture, 1, "176 ADL2_Main_ControlX2_Create returns 0"));
        EXPECT_EQ(machine.count("ADL threading model locked"), 1u);
        EXPECT_EQ(openContexts(machine), 1);

        // ADL's answers and statuses come back as they are.
        int supported = -1;
        int enabled = -1;
        int version = -1;
        EXPECT_EQ(table->Overdrive_Caps(0, &supported, &enabled, &version), ADL_OK);
        EXPECT_EQ(std::make_tuple(supported, enabled, version), std::make_tuple(1, 0, 7));
        EXPECT_EQ(table->Overdrive_Caps(9, &supported, &enabled, &version), ADL_ERR_INVALID_ADL_IDX);
        ADLOD8SetSetting set{};
        set.count = OD8_COUNT;
        set.od8SettingTable[OD8_UCLK_FMAX] = {950, 1, 0};
        ADLOD8CurrentSetting current{};
        EXPECT_EQ(adl2->Overdrive8_Setting_Set(0, &set, &current), ADL_OK);
        EXPECT_EQ(current.Od8SettingTable[OD8_UCLK_FMAX], 950);
        EXPECT_EQ(machine.count("ADL2 OD8 setting 8 set to 950"), 1u);
        // The simulated driver has no ADL2_Display_DisplayInfo_Get.
        int displays = 0;
        EXPECT_EQ(thrownBy([&] { table->Display_DisplayInfo_Get(0, &displays, nullptr, 0); }),
                  "ADL2_Display_DisplayInfo_Get not in the driver");
    }
    EXPECT_EQ(openContexts(machine), 0) << "the table ends its context";
    EXPECT_EQ(machine.count("ADL2_Overdrive_Caps"), 2u);
    EXPECT_EQ(machine.count("ADL_Overdrive_Caps"), 0u);
}

TEST(AmdTables, WhenAdl2CannotMakeAContextTheClassicTableServes)
{
    SimulatedMachine machine(scenario({everyRow()}, withoutAdl2()));
    LogCapture capture;
    const std::shared_ptr<ADLWrapper> table = libKestrel::instantiateADL();
    ASSERT_NE(dynamic_cast<ADL*>(table.get()), nullptr);
    EXPECT_TRUE(logged(capture, 1, "176 ADL2_Main_ControlX2_Create returns -1"));
    EXPECT_TRUE(logged(capture, 1, "184 ADL2_Main_Control_Create returns -1"));
    EXPECT_TRUE(logged(capture, 3, "188 Unable to initialize ADL"));

    int supported = 0;
    int enabled = 0;
    int version = 0;
    EXPECT_EQ(table->Overdrive_Caps(0, &supported, &enabled, &version), ADL_OK);
    EXPECT_EQ(version, 7);
    EXPECT_EQ(machine.count("ADL_Overdrive_Caps"), 1u);

    capture.clear();
    EXPECT_EQ(libKestrel::instantiateADL2(), nullptr);
    EXPECT_TRUE(logged(capture, 1, "46 Unable to create ADL2 object"));
    EXPECT_EQ(openContexts(machine), 0);
}

// Its own process: the classic interface starts once per process.
TEST(AmdStartup, TheClassicInterfaceStartsOnceAndARefusedStartIsTriedAgain)
{
    {
        json faults = withoutAdl2();
        faults["ADL_Main_ControlX2_Create"] = {{"return", -2}};
        faults["ADL_Main_Control_Create"] = {{"return", -3}};
        SimulatedMachine machine(scenario({everyRow()}, faults));
        LogCapture capture;
        EXPECT_EQ(thrownBy([] { libKestrel::instantiateADL(); }), "Unable to initialize ADL");
        EXPECT_TRUE(logged(capture, 1, "87 ADL_Main_ControlX2_Create returns -2"));
        EXPECT_TRUE(logged(capture, 1, "95 ADL_Main_Control_Create returns -3"));
        EXPECT_TRUE(logged(capture, 3, "99 Unable to initialize ADL"));
    }
    SimulatedMachine machine(scenario({everyRow()}, withoutAdl2()));
    LogCapture capture;
    const auto first = libKestrel::instantiateADL();
    const auto second = libKestrel::instantiateADL();
    EXPECT_NE(dynamic_cast<ADL*>(first.get()), nullptr);
    EXPECT_NE(dynamic_cast<ADL*>(second.get()), nullptr);
    EXPECT_TRUE(logged(capture, 1, "87 ADL_Main_ControlX2_Create returns 0"));
    EXPECT_EQ(capture.count("95 "), 0u) << "the X2 call started ADL";
    EXPECT_EQ(machine.count("ADL_Main_ControlX2_Create"), 1u) << "one main control serves every table";
    EXPECT_EQ(machine.count("ADL main control created"), 1u);
    EXPECT_EQ(machine.count("ADL threading model locked"), 1u);
    int count = 0;
    EXPECT_EQ(second->Adapter_NumberOfAdapters_Get(&count), ADL_OK);
    EXPECT_EQ(count, 1);
}

// Its own process, without any ADL library.
TEST(AmdAbsent, WithoutTheDriversLibraryNoTableAndNoGPUCanBeMade)
{
    SimulatedMachine machine(scenario({everyRow()}));
    LogCapture capture;
    EXPECT_EQ(thrownBy([] { libKestrel::instantiateADL(); }), "Unable to load ADL binary.");
    // ADL2 is tried first, then the classic interface.
    EXPECT_EQ(capture.messages("libKestrel"), (std::vector<std::string>{
                                            "3|23 Unable to load either atiadlxx.dll or atiadlxy.dll.",
                                            "3|23 Unable to load either atiadlxx.dll or atiadlxy.dll.",
                                        }));
    capture.clear();
    EXPECT_EQ(libKestrel::instantiateADL2(), nullptr);
    EXPECT_TRUE(logged(capture, 3, "23 Unable to load either atiadlxx.dll or atiadlxy.dll."));
    EXPECT_TRUE(logged(capture, 1, "46 Unable to create ADL2 object"));

    std::vector<AMDGPU> gpus;
    EXPECT_EQ(thrownBy([&gpus] { AMDGPU::enumerate(gpus); }), "Unable to load ADL binary.");
    EXPECT_EQ(thrownBy([] { AMDGPU gpu(at(3)); }), "Unable to load ADL binary.");
}

#if defined(_WIN32)
// Its own process, with ADL under its 32-bit name only.
TEST(AmdFallback, TheThirtyTwoBitNameIsTriedSecond)
{
    SimulatedMachine machine(scenario({everyRow()}));
    EXPECT_NE(dynamic_cast<ADL2*>(libKestrel::instantiateADL().get()), nullptr);
}
#endif

} // namespace
