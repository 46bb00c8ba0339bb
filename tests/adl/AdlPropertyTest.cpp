// What the AMD source makes of ADL's readings: units, signs, strings without
// their zero, failures of single properties, and CrossFire. The CrossFire list
// that ADL allocates must be freed on every path and never read outside; the
// sanitizer build checks both (leak and heap-overflow reports fail the run).
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "adl/AdlTesting.h"
#include "common/Simulator.h"

namespace {

using namespace kestrel::test::adl;

// The first-pass record of the one-adapter card of 'scenario'.
std::shared_ptr<libKestrel::IGPU> readCard(const json& scenario)
{
    SimulatedMachine machine(scenario.dump());
    const Records records = queryAMD();
    EXPECT_EQ(records.size(), 2u);
    return records.empty() ? nullptr : records[0];
}

TEST_F(AmdSource, ReadingsReachTheRecordInItsUnitsAndNegativeOnesAreLeftOut)
{
    LogCapture capture;
    const auto negative = [&capture](const std::string& what) {
        return capture.has("libKestrel.ADL", 3, "300 Negative reading left out: " + what);
    };
    // Millidegrees to degrees, truncated; no sensor reads below absolute zero in
    // ADL's unsigned sense, so a negative value is the driver's error.
    const std::pair<int, std::optional<std::uint64_t>> temperatures[] = {
        {59999, 59}, {60000, 60}, {-500, std::nullopt}, {-5000, std::nullopt}};
    for (const auto& [millidegrees, degrees] : temperatures) {
        SCOPED_TRACE(millidegrees);
        const auto gpu = readCard(oneAdapter({{"overdrive5", {{"temperature", millidegrees}}}}));
        if (!gpu)
            continue; // readCard reported it
        EXPECT_EQ(gpu->temperatureCurrent(), degrees);
        EXPECT_EQ(negative("Temperature current (millidegrees Celsius): " + std::to_string(millidegrees)), !degrees);
    }
    // Bytes to kilobytes; the bandwidth as ADL gives it.
    const std::pair<std::int64_t, std::optional<std::uint64_t>> sizes[] = {
        {1023, 0}, {2048, 2}, {8LL << 40, 8ULL << 30}, {-1024, std::nullopt}};
    for (const auto& [bytes, kilobytes] : sizes) {
        SCOPED_TRACE(bytes);
        const auto gpu = readCard(oneAdapter({{"memory", {{"size", bytes}, {"bandwidth", -1}}}}));
        if (!gpu)
            continue;
        EXPECT_EQ(gpu->dedicatedMemory(), kilobytes);
        EXPECT_FALSE(gpu->memoryBandwidth());
        EXPECT_EQ(negative("Memory size: " + std::to_string(bytes)), !kilobytes);
    }
    EXPECT_TRUE(negative("Memory bandwidth: -1"));
    // Clocks from 10 kHz to kHz; utilisation and fan speed unchanged.
    const auto gpu = readCard(oneAdapter({{"overdrive6",
                                           {{"engineClock", 123456}, {"memoryClock", -1}, {"activity", 100},
                                            {"fan", {{"percent", -1}, {"rpm", 1650}}}}}}));
    ASSERT_TRUE(gpu);
    EXPECT_EQ(gpu->graphicsClock(), 1234560u);
    EXPECT_FALSE(gpu->memoryClock());
    EXPECT_EQ(gpu->utilizationGPU(), 100u);
    EXPECT_FALSE(gpu->fanSpeedPercent());
    EXPECT_EQ(gpu->fanSpeedRPM(), 1650u);
    EXPECT_TRUE(negative("Memory clock (ten-kHz): -1"));
    EXPECT_TRUE(negative("FanSpeed %: -1"));
    expectReleased();
}

TEST_F(AmdSource, AFailingQueryCostsOnlyItsOwnProperties)
{
    json scenario = radeon();
    scenario["faults"] = json::parse(R"({
        "ADL_Adapter_VideoBiosInfo_Get": {"device": 0, "return": -8},
        "ADL_Adapter_MemoryInfo_Get": {"device": 0, "return": -9},
        "ADL_Overdrive5_Temperature_Get": {"device": 1, "return": -5},
        "ADL_Overdrive6_FanSpeed_Get": {"device": 1, "return": 2},
        "ADL_Overdrive6_CurrentStatus_Get": {"device": 2, "return": -1}})");
    SimulatedMachine machine(scenario.dump());
    LogCapture capture(Priority::WARNING);
    const Records records = queryAMD();
    ASSERT_EQ(records.size(), 5u);

    EXPECT_FALSE(records[0]->vbiosVersion());
    EXPECT_FALSE(records[0]->dedicatedMemory());
    EXPECT_FALSE(records[0]->memoryBandwidth());
    EXPECT_EQ(records[0]->temperatureCurrent(), 54u);
    EXPECT_FALSE(records[1]->temperatureCurrent());
    EXPECT_FALSE(records[1]->fanSpeedPercent());
    EXPECT_FALSE(records[1]->fanSpeedRPM());
    EXPECT_EQ(records[1]->vbiosVersion(), "113-D4120100-101");
    EXPECT_FALSE(records[2]->graphicsClock());
    EXPECT_FALSE(records[2]->memoryClock());
    EXPECT_FALSE(records[2]->utilizationGPU());
    EXPECT_EQ(records[2]->fanSpeedRPM(), 1650u);
    EXPECT_EQ(capture.of("libKestrel.ADL"), (Lines{"3|39 Failed to retrieve ADL VBIOS version string: -8",
                                                   "3|241 Failed to retrieve ADL adapter memoryinfo: -9",
                                                   "3|61 Failed to retrieve ADL temperature: -5",
                                                   "3|274 Failed to retrieve ADL fanspeed info: 2",
                                                   "3|186 Failed to retrieve ADL current activity: -1",
                                                   "3|214 Failed to retrieve ADL current activity: -1"}));
    expectClosedAndUnloaded(machine);
}

// A 256-byte string field filled with 'text' over and over, without a zero.
std::string filled(const std::string& text)
{
    std::string field;
    while (field.size() < 256)
        field += text;
    field.resize(256);
    return field;
}

TEST_F(AmdSource, StringsWithoutTheirZeroAreReadWithinTheirFields)
{
    json scenario = oneAdapter(json::object());
    scenario["faults"] = json::parse(R"({"ADL_Adapter_AdapterInfo_Get": {"unterminated": true},
                                         "ADL_Adapter_VideoBiosInfo_Get": {"unterminated": true},
                                         "ADL_Adapter_MemoryInfo_Get": {"unterminated": true}})");
    LogCapture capture;
    const auto gpu = readCard(scenario);
    ASSERT_TRUE(gpu);
    EXPECT_EQ(gpu->name(), filled("AMD Radeon RX 6800"));
    EXPECT_EQ(gpu->uuid(), filled("PCI_VEN_1002&DEV_73BF&SUBSYS_0E3A1002&REV_C3"));
    EXPECT_EQ(gpu->vbiosVersion(), filled("113-D4120100-101"));
    EXPECT_TRUE(capture.has("libKestrel.ADL", 1, "251 Memory type: " + filled("GDDR6")));
}

TEST_F(AmdSource, TheSupportedFieldOfThePreferredCombinationDecides)
{
    struct Case {
        const char* crossfire;
        bool enabled;
        int linked;
    };
    const Case cases[] = {
        {R"({"supported": 1, "state": 0})", true, 2},
        {R"({"supported": 0, "state": 1})", false, 2},
        {R"({"supported": 2, "state": 1})", false, 2},
        {R"({"preferred": 1, "combinations": [{"adapters": [0, 1], "supported": 0},
                                              {"adapters": [0, 1, 2], "supported": 1}]})", true, 3},
        {R"({"preferred": 0, "combinations": [{"adapters": [0, 1], "supported": 0},
                                              {"adapters": [0, 1, 2], "supported": 1}]})", false, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.crossfire);
        LogCapture capture;
        const auto gpu = readCard(oneAdapter({{"crossfire", json::parse(c.crossfire)}}));
        if (!gpu)
            continue;
        EXPECT_EQ(gpu->crossfire(), c.enabled);
        EXPECT_TRUE(capture.has("libKestrel.ADL", 1, "108 Combination adapter count: " + std::to_string(c.linked)));
        EXPECT_TRUE(capture.has("libKestrel.ADL", 1,
                                std::string("130 Croessfire enabled: ") + (c.enabled ? "true" : "false")));
    }
}

TEST_F(AmdSource, NoUsableCombinationGivesNoValue)
{
    struct Case {
        json changes;
        const char* faults;
        const char* failure;
    };
    const Case cases[] = {
        {{{"crossfire", nullptr}}, "{}", "3|85 Failed to retrieve ADL capabilities: -8"},
        {{{"crossfire", {{"combinations", json::array()}}}}, "{}", "3|104 No crossfire combinations found"},
        {{{"crossfire", {{"preferred", 1}}}}, "{}", "3|106 Preferred crossfire combination outside the list: 1"},
        {{{"crossfire", {{"preferred", -1}}}}, "{}", "3|106 Preferred crossfire combination outside the list: -1"},
        {json::object(), R"({"ADL_Adapter_Crossfire_Caps": {"null": true}})",
         "3|106 Preferred crossfire combination outside the list: 0"},
        {json::object(), R"({"ADL_Adapter_Crossfire_Get": {"return": -1}})", "3|119 Failed to retrieve ADL crossfire: -1"},
    };
    for (const Case& c : cases) {
        json scenario = oneAdapter(c.changes);
        scenario["faults"] = json::parse(c.faults);
        SCOPED_TRACE(scenario.dump());
        LogCapture capture(Priority::WARNING);
        SimulatedMachine machine(scenario.dump());
        const Records records = queryAMD();
        ASSERT_EQ(records.size(), 2u);
        EXPECT_FALSE(records[0]->crossfire());
        EXPECT_EQ(records[0]->temperatureCurrent(), 54u) << "the other properties are still read";
        EXPECT_EQ(capture.of("libKestrel.ADL"), Lines{c.failure});
    }
    expectReleased();
}

} // namespace
