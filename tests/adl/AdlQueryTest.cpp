// The AMD source end to end against the simulated ADL: its two passes, what each
// failure leaves behind, and the merge of one card's adapters.
#include <algorithm>
#include <bitset>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "adl/AdlTesting.h"
#include "common/Simulator.h"
#include "common/Sources.h"
#include <gmock/gmock.h>
#include "libKestrel/Query.h"

namespace {

using namespace kestrel::test::adl;
using kestrel::test::LogLine;

const char* const querier = "libKestrel.AMDGPUQuerierMulti";

// What the ADL queries say about one adapter of radeon().
const Lines radeonReadings = {"1|43 VBIOS version: 113-D4120100-101",
                              "1|98 Preferred CrossfireX chain index: 0",
                              "1|99 Number of crossfire combinations: 1",
                              "1|108 Combination adapter count: 2",
                              "1|130 Croessfire enabled: true",
                              "1|65 Temperature current (millidegrees Celsius): 54321",
                              "1|192 Engine clock (ten-kHz): 225000",
                              "1|193 Memory clock (ten-kHz): 100000",
                              "1|218 GPU utilization: 37",
                              "1|219 Engine clock: 225000",
                              "1|220 Memory clock: 100000",
                              "1|221 MaximumBusLanes: 16",
                              "1|222 CurrentBusSpeed: 16000",
                              "1|223 CurrentBusLanes: 8",
                              "1|250 Memory size: 16760832",
                              "1|251 Memory type: GDDR6",
                              "1|252 Memory bandwidth: 512000",
                              "1|280 FanSpeed %: 41",
                              "1|281 FanSpeed RPM: 1650"};

// The first pass's record of each adapter of radeon(): every property ADL gives.
const std::string fullRadeon = "0000:03:00.0 name=AMD Radeon RX 6800 hardwareAcceleration=true "
                               "vbiosVersion=113-D4120100-101 dedicatedMemory=16760832 graphicsClock=2250000 "
                               "memoryClock=1000000 memoryBandwidth=512000 utilizationGPU=37 temperatureCurrent=54 "
                               "uuid=PCI_VEN_1002&DEV_73BF&SUBSYS_0E3A1002&REV_C3 fanSpeedPercent=41 "
                               "fanSpeedRPM=1650 crossfire=true";

size_t position(const Lines& journal, const std::string& event)
{
    return static_cast<size_t>(std::find(journal.begin(), journal.end(), event) - journal.begin());
}

TEST_F(AmdSource, ThreeAdaptersGiveThreeFullRecordsThenOneBareRecordPerPresentAdapter)
{
    SimulatedMachine machine(radeon().dump());
    LogCapture capture;
    const Records records = queryAMD();
    // The second pass adds a bare record per present adapter (AMD has no core count).
    EXPECT_EQ(kestrel::test::describe(records),
              (Lines{fullRadeon, fullRadeon, fullRadeon, "0000:03:00.0", "0000:03:00.0"}));
    EXPECT_TRUE(capture.has(querier, 3, "98 Adapter considered not present, not enumerating"));
    // Each reading as ADL gave it, per adapter of the first pass.
    Lines readings;
    for (int i = 0; i < 3; ++i)
        readings.insert(readings.end(), radeonReadings.begin(), radeonReadings.end());
    EXPECT_EQ(capture.messages("libKestrel.ADL"), readings);

    // The first pass's main control ends before the second pass's context begins.
    const Lines journal = machine.journal();
    EXPECT_LT(position(journal, "ADL main control destroyed"), position(journal, "ADL2 context 1 created"));
    EXPECT_LT(position(journal, "ADL2 context 1 destroyed"), journal.size());
    expectClosedAndUnloaded(machine);
    expectReleased();
}

// Both passes ask ADL for connected adapters only.
TEST_F(AmdSource, AnAdapterThatIsNotConnectedIsNotListed)
{
    const auto run = kestrel::test::runSource(libKestrel::queryAMDGPUsMulti,
                                              oneAdapter({{"adapters", {json::object(), {{"connected", false}}}}}).dump(),
                                              Priority::WARNING);
    EXPECT_EQ(kestrel::test::describe(run.records), (Lines{fullRadeon, "0000:03:00.0"}));
}

TEST_F(AmdSource, TheAdaptersOfOneCardMergeIntoOneRecord)
{
    SimulatedMachine machine(radeon().dump());
    std::bitset<4> status;
    EXPECT_EQ(kestrel::test::describe(libKestrel::queryAllGPUs({}, {libKestrel::queryAMDGPUsMulti}, status)),
              Lines{fullRadeon});
    expectReleased();
}

struct FailedPass {
    const char* faults;
    Lines failures; // the querier's lines at priority 3 and above
    size_t records;
};

void expectFailedPass(const FailedPass& pass)
{
    SCOPED_TRACE(pass.faults);
    json scenario = radeon();
    scenario["faults"] = json::parse(pass.faults);
    SimulatedMachine machine(scenario.dump());
    LogCapture capture(Priority::WARNING);
    const Records records = queryAMD();
    EXPECT_EQ(records.size(), pass.records);
    EXPECT_EQ(capture.of(querier), pass.failures);
    expectClosedAndUnloaded(machine);
    expectReleased();
}

TEST_F(AmdSource, AFirstPassFailureEndsTheQueryWithoutRecordsOrSecondPass)
{
    const FailedPass failures[] = {
        {R"({"ADL_Main_Control_Create": {"return": -1}})", {"3|149 Failed to create main control: -1"}, 0},
        {R"({"ADL_Adapter_NumberOfAdapters_Get": {"return": -2}})", {"4|164 Failed to retrieve the adapter count: -2"}, 0},
        // A warning is no success either.
        {R"({"ADL_Adapter_AdapterInfo_Get": {"return": 1}})", {"4|182 Failed to retrieve the adapter info: 1"}, 0},
        // More adapters than any machine has: a broken driver, nothing allocated or asked for.
        {R"({"ADL_Adapter_NumberOfAdapters_Get": {"count": 2147483647}})",
         {"4|172 Adapter count beyond any machine, not enumerating: 2147483647"}, 0},
        {R"({"ADL_Adapter_NumberOfAdapters_Get": {"count": 4097}})",
         {"4|172 Adapter count beyond any machine, not enumerating: 4097"}, 0},
    };
    for (const FailedPass& pass : failures)
        expectFailedPass(pass);

    SimulatedMachine machine(R"({"faults": {"ADL_Main_Control_Create": {"return": -1}}})");
    queryAMD();
    EXPECT_EQ(machine.count("ADL main control destroyed"), 0u) << "a control that was not created is not destroyed";
    EXPECT_EQ(machine.count("ADL2_Main_Control_Create"), 0u);
}

TEST_F(AmdSource, ASecondPassFailureKeepsTheFirstPassRecords)
{
    const FailedPass failures[] = {
        {R"({"ADL2_Main_Control_Create": {"return": -3}})", {"3|205 Error initializing ADL2: -3"}, 3},
        {R"({"ADL2_Adapter_NumberOfAdapters_Get": {"return": -1}})", {"4|221 Failed to retrieve the adapter count: -1"}, 3},
        {R"({"ADL2_Adapter_NumberOfAdapters_Get": {"count": 100000}})",
         {"4|229 Adapter count beyond any machine, not enumerating: 100000"}, 3},
        {R"({"ADL2_Adapter_AdapterInfo_Get": {"return": -4}})", {"4|239 Failed to retrieve the adapter info: -4"}, 3},
    };
    for (const FailedPass& pass : failures)
        expectFailedPass(pass);
}

TEST_F(AmdSource, AnEmptyAdapterListIsNoFailure)
{
    // The first pass sees no adapter; the second still runs and reports the present ones.
    json scenario = radeon();
    scenario["faults"] = json::parse(R"({"ADL_Adapter_NumberOfAdapters_Get": {"count": 0}})");
    SimulatedMachine machine(scenario.dump());
    LogCapture capture(Priority::WARNING);
    const Records records = queryAMD();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_FALSE(records[0]->name());
    EXPECT_EQ(capture.of(querier), (Lines{"3|98 Adapter considered not present, not enumerating"}));
    EXPECT_EQ(machine.count("ADL_Adapter_AdapterInfo_Get"), 0u) << "nothing to ask for";
    expectClosedAndUnloaded(machine);

    SimulatedMachine withoutAmd(R"({"gpus": [{"name": "A card without ADL", "pci": {"bus": 1}}]})");
    EXPECT_TRUE(queryAMD().empty());
    EXPECT_EQ(withoutAmd.count("ADL2_Adapter_NumberOfAdapters_Get"), 1u);
    expectReleased();
}

TEST_F(AmdSource, EntriesADLDidNotFillOrPlacedOffTheBusMakeNoRecord)
{
    // ADL counts more adapters than it writes: the entries left zero are no GPU at 00:00.0.
    json scenario = radeon();
    scenario["faults"] = json::parse(R"({"ADL_Adapter_NumberOfAdapters_Get": {"count": 5},
                                         "ADL2_Adapter_NumberOfAdapters_Get": {"count": 4}})");
    auto run = kestrel::test::runSource(libKestrel::queryAMDGPUsMulti, scenario.dump(), Priority::WARNING);
    EXPECT_EQ(run.records.size(), 5u);
    for (const auto& gpu : run.records)
        EXPECT_EQ(gpu->pciLocation(), pci::PciLocation(3, 0, 0, 0));
    EXPECT_THAT(run.lines, testing::IsSupersetOf({LogLine{querier, 3, "183 Adapter entries ADL did not fill, skipped: 2"},
                                                  LogLine{querier, 3, "240 Adapter entries ADL did not fill, skipped: 1"}}));

    // A device above 31 or a function above 7 is no PCI location; the bus is 8 bits.
    const struct {
        json pci;
        const char* where;
    } misplaced[] = {{{{"bus", 3}, {"device", 40}}, "bus 3, device 40, function 0"},
                     {{{"bus", 3}, {"function", 255}}, "bus 3, device 0, function 255"},
                     {{{"bus", 256}}, "bus 256, device 0, function 0"},
                     {{{"bus", -1}}, "bus -1, device 0, function 0"}};
    for (const auto& row : misplaced) {
        SCOPED_TRACE(row.where);
        run = kestrel::test::runSource(libKestrel::queryAMDGPUsMulti,
                                       oneAdapter({{"adapters", {{{"pci", row.pci}}}}}).dump(), Priority::WARNING);
        EXPECT_TRUE(run.records.empty());
        const std::string line = std::string("Adapter outside the PCI bus, skipped: ") + row.where;
        EXPECT_EQ(run.lines, (std::vector<LogLine>{{querier, 3, "58 " + line}, {querier, 3, "109 " + line}}));
    }
    expectReleased();
}

// Drivers that lack an entry the source needs: what each costs.
TEST(AdlWithoutEntries, EachMissingEntryCostsWhatDependsOnIt)
{
    const struct {
        const char* module;
        size_t records;
        Lines querierLines;
        Lines adlLines; // per first-pass adapter
    } drivers[] = {
        {"sim_adl_without_main_control", 0, {"3|142 Main_Control_Create not available"}, {}},
        {"sim_adl_without_adapter_count", 0, {"3|156 Adapter_NumberOfAdapters_Get not available"}, {}},
        {"sim_adl_without_adapter_info", 0, {"3|174 Adapter_AdapterInfo_Get not available"}, {}},
        {"sim_adl_without_adl2", 3, {"3|197 Main_Control_Create not available"}, {}},
        {"sim_adl_without_adl2_count", 3, {"3|214 Adapter_NumberOfAdapters_Get not available"},
         {"3|75 Adapter_Crossfire_Caps not available"}},
        {"sim_adl_without_properties", 3, {"3|232 Adapter_AdapterInfo_Get not available"},
         {"3|32 Adapter_VideoBiosInfo_Get not available", "3|111 Adapter_Crossfire_Get not available",
          "3|52 Overdrive5_Temperature_Get not available", "3|177 Overdrive6_CurrentStatus_Get not available",
          "3|207 Overdrive6_CurrentStatus_Get not available", "3|232 Adapter_MemoryInfo_Get not available",
          "3|263 Overdrive6_FanSpeed_Get not available"}},
    };
    for (const auto& driver : drivers) {
        SCOPED_TRACE(driver.module);
        SimulatedModules modules{driver.module};
        SimulatedMachine machine(radeon().dump());
        LogCapture capture(Priority::WARNING);
        const Records records = queryAMD();
        EXPECT_EQ(records.size(), driver.records);
        EXPECT_EQ(capture.of(querier), driver.querierLines);
        Lines adlLines;
        for (size_t i = 0; i < driver.records; ++i)
            adlLines.insert(adlLines.end(), driver.adlLines.begin(), driver.adlLines.end());
        EXPECT_EQ(capture.of("libKestrel.ADL"), adlLines);
        if (driver.records && driver.module == std::string("sim_adl_without_properties")) {
            EXPECT_EQ(kestrel::test::describe(*records[0]),
                      "0000:03:00.0 name=AMD Radeon RX 6800 hardwareAcceleration=true "
                      "uuid=PCI_VEN_1002&DEV_73BF&SUBSYS_0E3A1002&REV_C3");
        }
        expectClosedAndUnloaded(machine);
        expectReleased();
    }
}

TEST(AdlAbsent, NoLibraryNoRecords)
{
    SimulatedModules none{};
    LogCapture capture;
    EXPECT_TRUE(queryAMD().empty());
    EXPECT_EQ(capture.messages(querier), (Lines{"3|134 Failed to load AMD Display Library"}));
    EXPECT_TRUE(capture.messages("libKestrel.ADL").empty()) << "the binding itself says nothing";

    EXPECT_FALSE(libKestrel::adlwrapper::initializeLibrary());
    expectReleased();
    EXPECT_EQ(libKestrel::adlwrapper::adlBinding().functions.ADL_Overdrive6_FanSpeed_Get, nullptr);
}

} // namespace
