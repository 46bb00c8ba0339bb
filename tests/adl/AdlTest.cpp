// The AMD record source against the simulated ADL: what its two passes make of
// each machine, reading and failing call (records whole, through describe(), and
// the line each failure writes), and the binding that loads ADL for one query
// and lets it go again. ADL is unloaded after every query, so each test chooses
// its simulated ADL itself.
#include <cstdint>
#include <cstring>
#include <regex>

#include <nlohmann/json.hpp>

#include "common/Test.h"
#include "libKestrel/Query.h"
#include "libKestrel/internal/multi/AMD/adlwrapper.h"

namespace {

using namespace kestrel::test;
using libKestrel::adlwrapper::adlBinding;
using libKestrel::adlwrapper::ADLFunctions;
using nlohmann::json;

const char* const querier = "libKestrel.AMDGPUQuerierMulti";
const char* const perProperty = "libKestrel.ADL";

// One AMD card at 03:00.0 that ADL sees as three adapters (the second not
// present), with every property the source reads; and a card ADL does not see.
const json radeon = json::parse(R"({"gpus": [
    {"name": "AMD Radeon RX 6800", "pci": {"bus": 3},
     "adl": {"udid": "PCI_VEN_1002&DEV_73BF&SUBSYS_0E3A1002&REV_C3", "adapters": [{}, {"present": 0}, {}],
             "bios": {"version": "113-D4120100-101"}, "overdrive5": {"temperature": 54321},
             "overdrive6": {"engineClock": 225000, "memoryClock": 100000, "activity": 37,
                            "fan": {"percent": 41, "rpm": 1650}},
             "memory": {"size": 17163091968, "type": "GDDR6", "bandwidth": 512000},
             "crossfire": {"preferred": 0, "combinations": [[0, 1]], "supported": 1}}},
    {"name": "A card without ADL", "pci": {"bus": 1}}]})");

// The first pass's record of an adapter of the card, and the second pass's.
const std::string full = "0000:03:00.0 name=AMD Radeon RX 6800 hardwareAcceleration=true "
                         "vbiosVersion=113-D4120100-101 dedicatedMemory=16760832 graphicsClock=2250000 "
                         "memoryClock=1000000 memoryBandwidth=512000 utilizationGPU=37 temperatureCurrent=54 "
                         "uuid=PCI_VEN_1002&DEV_73BF&SUBSYS_0E3A1002&REV_C3 fanSpeedPercent=41 fanSpeedRPM=1650 "
                         "crossfire=true";
const std::string bare = "0000:03:00.0";

// The full record with properties changed ("name=value") or left out ("name=").
std::string fullWith(const Lines& changes)
{
    std::string record = full;
    for (const std::string& change : changes) {
        const std::string name = change.substr(0, change.find('='));
        std::smatch found;
        if (std::regex_search(record, found, std::regex(" " + name + "=.*?(?= \\w+=|$)")))
            record.replace(found.position(), found.length(), change.size() == name.size() + 1 ? "" : " " + change);
        else
            ADD_FAILURE() << "the record has no " << name;
    }
    return record;
}

// The card with 'card' merged into its entry, and 'faults'.
json machine(const json& card, const std::string& faults)
{
    json scenario = radeon;
    scenario["gpus"][0].merge_patch(card);
    scenario["faults"] = json::parse(faults);
    return scenario;
}

// ADL is not held between queries: unloaded, every slot empty but the
// fan-speed one, which the next load overwrites.
void expectReleased()
{
    EXPECT_FALSE(adlBinding().library.isLoaded());
    ADLFunctions slots = adlBinding().functions;
    slots.ADL_Overdrive6_FanSpeed_Get = nullptr;
    const ADLFunctions empty{};
    EXPECT_EQ(std::memcmp(&slots, &empty, sizeof empty), 0) << "an entry is still resolved";
}

struct Query {
    Lines records;
    Lines failures; // the source's lines at WARNING and above
    Lines readings; // the per-property lines at WARNING and above
};

// The AMD source as a host calls it, on 'scenario'. Whatever the outcome, every
// main control and ADL2 context that ADL made is ended and ADL is let go.
Query query(const json& scenario)
{
    SimulatedMachine machine(scenario.dump());
    LogCapture capture(Priority::WARNING);
    std::bitset<4> status("1010");
    const Records records = libKestrel::queryAMDGPUsMulti(status);
    EXPECT_EQ(status, std::bitset<4>("1010")) << "the source sets no status bit";
    const std::regex lifetime("ADL( main control|2 context [0-9]+) (created|destroyed)");
    int open = 0;
    std::smatch event;
    for (const std::string& line : machine.journal())
        if (std::regex_match(line, event, lifetime))
            open += event[2] == "created" ? 1 : -1;
    EXPECT_EQ(open, 0) << "a main control or context was left open";
    expectReleased();
    return {describe(records), capture.of(querier), capture.of(perProperty)};
}

class AmdSource : public testing::Test {
protected:
    SimulatedModules modules{"sim_adl", "sim_glfw"};
};

TEST_F(AmdSource, EachMachineAndEachFailingEnumerationGivesItsRecordsAndLine)
{
    // The first pass gives a full record per adapter, the second a bare one per
    // present adapter (AMD has no core count).
    const Lines all = {full, full, full, bare, bare};
    const Lines firstPass = {full, full, full};
    const std::string notPresent = "3|98 Adapter considered not present, not enumerating";
    const auto misplaced = [](const std::string& where) {
        return Lines{"3|58 Adapter outside the PCI bus, skipped: " + where,
                     "3|109 Adapter outside the PCI bus, skipped: " + where};
    };
    const struct {
        const char* card; // merged into the card's entry
        const char* faults;
        Lines records;
        Lines failures;
    } rows[] = {
        {"{}", "{}", all, {notPresent}},
        // Both passes ask for connected adapters only.
        {R"({"adl": {"adapters": [{}, {"connected": false}]}})", "{}", {full, bare}, {}},
        {R"({"adl": null})", "{}", {}, {}},
        // An empty first list is no failure: the second pass still runs.
        {"{}", R"({"ADL_Adapter_NumberOfAdapters_Get": {"count": 0}})", {bare, bare}, {notPresent}},
        // A first-pass failure ends the query, without records.
        {"{}", R"({"ADL_Main_Control_Create": {"return": -1}})", {}, {"3|149 Failed to create main control: -1"}},
        {"{}", R"({"ADL_Adapter_NumberOfAdapters_Get": {"return": -2}})", {},
         {"4|164 Failed to retrieve the adapter count: -2"}},
        // A warning is no success either.
        {"{}", R"({"ADL_Adapter_AdapterInfo_Get": {"return": 1}})", {},
         {"4|182 Failed to retrieve the adapter info: 1"}},
        // More adapters than any machine has: a broken driver, nothing allocated or asked for.
        {"{}", R"({"ADL_Adapter_NumberOfAdapters_Get": {"count": 4097}})", {},
         {"4|172 Adapter count beyond any machine, not enumerating: 4097"}},
        {"{}", R"({"ADL_Adapter_NumberOfAdapters_Get": {"count": 2147483647}})", {},
         {"4|172 Adapter count beyond any machine, not enumerating: 2147483647"}},
        // Counts above the list: the entries ADL left unfilled are no GPU at 00:00.0.
        {"{}", R"({"ADL_Adapter_NumberOfAdapters_Get": {"count": 4096}})", all,
         {"3|183 Adapter entries ADL did not fill, skipped: 4093", notPresent}},
        {"{}", R"({"ADL2_Adapter_NumberOfAdapters_Get": {"count": 4}})", all,
         {"3|240 Adapter entries ADL did not fill, skipped: 1", notPresent}},
        // A second-pass failure keeps the first pass's records.
        {"{}", R"({"ADL2_Main_Control_Create": {"return": -3}})", firstPass, {"3|205 Error initializing ADL2: -3"}},
        {"{}", R"({"ADL2_Adapter_NumberOfAdapters_Get": {"return": -1}})", firstPass,
         {"4|221 Failed to retrieve the adapter count: -1"}},
        {"{}", R"({"ADL2_Adapter_NumberOfAdapters_Get": {"count": 4097}})", firstPass,
         {"4|229 Adapter count beyond any machine, not enumerating: 4097"}},
        {"{}", R"({"ADL2_Adapter_AdapterInfo_Get": {"return": -4}})", firstPass,
         {"4|239 Failed to retrieve the adapter info: -4"}},
        // A device above 31, a function above 7 or a bus outside 8 bits is no PCI location.
        {R"({"adl": {"adapters": [{"pci": {"bus": 3, "device": 40}}]}})", "{}", {},
         misplaced("bus 3, device 40, function 0")},
        {R"({"adl": {"adapters": [{"pci": {"bus": 3, "function": 255}}]}})", "{}", {},
         misplaced("bus 3, device 0, function 255")},
        {R"({"adl": {"adapters": [{"pci": {"bus": 256}}]}})", "{}", {}, misplaced("bus 256, device 0, function 0")},
        {R"({"adl": {"adapters": [{"pci": {"bus": -1}}]}})", "{}", {}, misplaced("bus -1, device 0, function 0")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.card) + " " + row.faults);
        const Query run = query(machine(json::parse(row.card), row.faults));
        EXPECT_EQ(run.records, row.records);
        EXPECT_EQ(run.failures, row.failures);
        EXPECT_EQ(run.readings, Lines{});
    }

    // A host's query merges the card's records into one.
    SimulatedMachine card(radeon.dump());
    std::bitset<4> status;
    EXPECT_EQ(describe(libKestrel::queryAllGPUs({}, {libKestrel::queryAMDGPUsMulti}, status)), Lines{full});
}

// A 256-byte string field filled with 'text' over and over, without a zero.
std::string filled(const std::string& text)
{
    std::string field;
    while (field.size() < 256)
        field += text;
    return field.substr(0, 256);
}

// What each reading becomes on the card's one adapter, and what one failing call
// costs: its own properties and one line. The adapter's index is 7, which only
// it answers to.
TEST_F(AmdSource, EachReadingInItsUnitAndEachFailingCallCostsOnlyItsProperties)
{
    const auto negative = [](const std::string& what) { return "3|300 Negative reading left out: " + what; };
    const auto cut = [](const std::string& preferred) {
        return Lines{"3|106 Preferred crossfire combination outside the list: " + preferred};
    };
    const char* const pair = R"([{"adapters": [0, 1], "supported": 0}, {"adapters": [0, 1, 2], "supported": 1}])";
    const struct {
        std::string adl; // merged into the card's "adl" section
        const char* faults;
        Lines changes; // to the full record
        Lines readings;
    } rows[] = {
        // Millidegrees to degrees, truncated; a negative reading is the driver's error.
        {R"({"overdrive5": {"temperature": 59999}})", "{}", {"temperatureCurrent=59"}, {}},
        {R"({"overdrive5": {"temperature": 60000}})", "{}", {"temperatureCurrent=60"}, {}},
        {R"({"overdrive5": {"temperature": 0}})", "{}", {"temperatureCurrent=0"}, {}},
        {R"({"overdrive5": {"temperature": -500}})", "{}", {"temperatureCurrent="},
         {negative("Temperature current (millidegrees Celsius): -500")}},
        // Bytes to kilobytes, in 64 bits; the bandwidth as ADL gives it.
        {R"({"memory": {"size": 1023, "bandwidth": 0}})", "{}", {"dedicatedMemory=0", "memoryBandwidth=0"}, {}},
        {R"({"memory": {"size": 8796093022208, "bandwidth": -1}})", "{}",
         {"dedicatedMemory=8589934592", "memoryBandwidth="}, {negative("Memory bandwidth: -1")}},
        {R"({"memory": {"size": -1000}})", "{}", {"dedicatedMemory="}, {negative("Memory size: -1000")}},
        // Clocks from 10 kHz to kHz; utilisation and fan speeds as they are.
        {R"({"overdrive6": {"engineClock": 123456, "memoryClock": -1, "activity": 100,
                            "fan": {"percent": -1, "rpm": 0}}})", "{}",
         {"graphicsClock=1234560", "memoryClock=", "utilizationGPU=100", "fanSpeedPercent=", "fanSpeedRPM=0"},
         {negative("Memory clock (ten-kHz): -1"), negative("FanSpeed %: -1")}},
        {R"({"overdrive6": {"engineClock": 0, "activity": -3, "fan": {"percent": 0, "rpm": -2}}})", "{}",
         {"graphicsClock=0", "utilizationGPU=", "fanSpeedPercent=0", "fanSpeedRPM="},
         {negative("GPU utilization: -3"), negative("FanSpeed RPM: -2")}},
        // Strings without their zero are read within their fields.
        {"{}", R"({"ADL_Adapter_AdapterInfo_Get": {"unterminated": true},
                   "ADL_Adapter_VideoBiosInfo_Get": {"unterminated": true}})",
         {"name=" + filled("AMD Radeon RX 6800"), "vbiosVersion=" + filled("113-D4120100-101"),
          "uuid=" + filled("PCI_VEN_1002&DEV_73BF&SUBSYS_0E3A1002&REV_C3")},
         {}},
        // The iSupported field of the preferred combination decides; iState is not consulted.
        {R"({"crossfire": {"supported": 1, "state": 0}})", "{}", {}, {}},
        {R"({"crossfire": {"supported": 0, "state": 1}})", "{}", {"crossfire=false"}, {}},
        {R"({"crossfire": {"supported": 2, "state": 1}})", "{}", {"crossfire=false"}, {}},
        {std::string(R"({"crossfire": {"preferred": 1, "combinations": )") + pair + "}}", "{}", {}, {}},
        {std::string(R"({"crossfire": {"preferred": 0, "combinations": )") + pair + "}}", "{}", {"crossfire=false"},
         {}},
        // No usable combination gives no value; nothing outside ADL's list is read.
        {R"({"crossfire": null})", "{}", {"crossfire="}, {"3|85 Failed to retrieve ADL capabilities: -8"}},
        {R"({"crossfire": {"combinations": []}})", "{}", {"crossfire="}, {"3|104 No crossfire combinations found"}},
        {R"({"crossfire": {"preferred": 1}})", "{}", {"crossfire="}, cut("1")},
        {R"({"crossfire": {"preferred": -1}})", "{}", {"crossfire="}, cut("-1")},
        {"{}", R"({"ADL_Adapter_Crossfire_Caps": {"null": true}})", {"crossfire="}, cut("0")},
        {"{}", R"({"ADL_Adapter_Crossfire_Get": {"return": -1}})", {"crossfire="},
         {"3|119 Failed to retrieve ADL crossfire: -1"}},
        // A failing call costs its own properties.
        {"{}", R"({"ADL_Adapter_VideoBiosInfo_Get": {"return": -8}})", {"vbiosVersion="},
         {"3|39 Failed to retrieve ADL VBIOS version string: -8"}},
        {"{}", R"({"ADL_Overdrive5_Temperature_Get": {"return": -5}})", {"temperatureCurrent="},
         {"3|61 Failed to retrieve ADL temperature: -5"}},
        {"{}", R"({"ADL_Overdrive6_CurrentStatus_Get": {"return": -1}})",
         {"graphicsClock=", "memoryClock=", "utilizationGPU="},
         {"3|186 Failed to retrieve ADL current activity: -1", "3|214 Failed to retrieve ADL current activity: -1"}},
        {"{}", R"({"ADL_Adapter_MemoryInfo_Get": {"return": -9}})", {"dedicatedMemory=", "memoryBandwidth="},
         {"3|241 Failed to retrieve ADL adapter memoryinfo: -9"}},
        {"{}", R"({"ADL_Overdrive6_FanSpeed_Get": {"return": 2}})", {"fanSpeedPercent=", "fanSpeedRPM="},
         {"3|274 Failed to retrieve ADL fanspeed info: 2"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.adl + " " + row.faults);
        json card = {{"adl", json::parse(row.adl)}};
        card["adl"]["adapters"] = json::parse(R"([{"index": 7}])");
        const Query run = query(machine(card, row.faults));
        EXPECT_EQ(run.records, (Lines{fullWith(row.changes), bare}));
        EXPECT_EQ(run.readings, row.readings);
        EXPECT_EQ(run.failures, Lines{});
    }
}

// The power and the hot temperatures of the card's one adapter: from the
// Overdrive 8 PM log (whole watts and degrees), the power else from Overdrive 6
// (watts with 8 fractional bits). A reading the GPU lacks, or a call it refuses,
// leaves its property out with a trace; a reading no GPU gives, with a warning.
TEST_F(AmdSource, PowerAndHotTemperaturesComeFromThePmLogElseOverdrive6)
{
    const json od6Power = json::parse(R"({"overdrive6": {"power": 2816}})"); // 11 W
    const auto pmLog = [&od6Power](int power, int hotspot, int memory, int powerSupported = 1, bool od6 = false) {
        json adl = {{"overdrive8", {{"pmlog", {{{"sensor", 23}, {"value", power}, {"supported", powerSupported}},
                                               {{"sensor", 27}, {"value", hotspot}},
                                               {{"sensor", 9}, {"value", memory}}}}}}};
        if (od6)
            adl.merge_patch(od6Power);
        return adl;
    };
    const struct {
        json adl; // merged into the card's "adl" section
        const char* faults;
        const char* added; // to the full record
        Lines readings;
    } rows[] = {
        {pmLog(141, 67, 60), "{}", " powerDraw=141000 temperatureHotspot=67 temperatureMemory=60", {}},
        {pmLog(10000, 200, 0), "{}", " powerDraw=10000000 temperatureHotspot=200 temperatureMemory=0", {}},
        {pmLog(10001, 201, -1), "{}", "",
         {"3|301 Reading beyond any GPU left out: ASIC power (watts): 10001",
          "3|301 Reading beyond any GPU left out: Temperature hot spot (Celsius): 201",
          "3|300 Negative reading left out: Temperature memory (Celsius): -1"}},
        // The PM log without the power, or refused, or given none: Overdrive 6's.
        {pmLog(141, 67, 60, 0, true), "{}",
         " powerDraw=11000 temperatureHotspot=67 temperatureMemory=60", {}},
        {pmLog(141, 67, 60, 1, true), R"({"ADL2_New_QueryPMLogData_Get": {"return": -8}})",
         " powerDraw=11000", {}},
        {od6Power, "{}", " powerDraw=11000", {}},
        {json::parse(R"({"overdrive6": {"power": 300}})"), "{}", " powerDraw=1171", {}},
        {json::parse(R"({"overdrive6": {"power": -256}})"), "{}", "",
         {"3|300 Negative reading left out: ASIC power (1/256 watts): -256"}},
        {json::parse(R"({"overdrive6": {"power": 2560256}})"), "{}", "",
         {"3|301 Reading beyond any GPU left out: ASIC power (1/256 watts): 2560256"}},
        {od6Power, R"({"ADL2_Overdrive6_CurrentPower_Get": {"return": -1}})", "", {}},
        // Read on a context of the query's own: without one, none of them.
        {pmLog(141, 67, 60), R"({"ADL2_Main_Control_Create": {"return": -1}})", "", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.adl.dump() + " " + row.faults);
        json card = {{"adl", row.adl}};
        card["adl"]["adapters"] = json::parse(R"([{"index": 7}])");
        const Query run = query(machine(card, row.faults));
        const bool secondPass = std::string(row.faults).find("ADL2_Main_Control_Create") == std::string::npos;
        const Lines records = secondPass ? Lines{full + row.added, bare} : Lines{full + row.added};
        EXPECT_EQ(run.records, records);
        EXPECT_EQ(run.readings, row.readings);
    }
}

// Drivers without an entry the source needs, and no ADL at all: what each costs.
TEST(AdlDrivers, EachMissingEntryCostsWhatDependsOnIt)
{
    const std::string named = "0000:03:00.0 name=AMD Radeon RX 6800 hardwareAcceleration=true "
                              "uuid=PCI_VEN_1002&DEV_73BF&SUBSYS_0E3A1002&REV_C3";
    const struct {
        std::string module; // none: no ADL
        Lines records;
        Lines failures;
        Lines readings;
    } rows[] = {
        {"sim_adl_without_main_control", {}, {"3|142 Main_Control_Create not available"}, {}},
        {"sim_adl_without_adapter_count", {}, {"3|156 Adapter_NumberOfAdapters_Get not available"}, {}},
        {"sim_adl_without_adapter_info", {}, {"3|174 Adapter_AdapterInfo_Get not available"}, {}},
        {"sim_adl_without_adl2", {full}, {"3|197 Main_Control_Create not available"}, {}},
        {"sim_adl_without_power", {full, bare}, {},
         {"3|310 New_QueryPMLogData_Get not available", "3|315 Overdrive6_CurrentPower_Get not available"}},
        {"sim_adl_without_adl2_count", {fullWith({"crossfire="})}, {"3|214 Adapter_NumberOfAdapters_Get not available"},
         {"3|75 Adapter_Crossfire_Caps not available"}},
        {"sim_adl_without_properties", {named}, {"3|232 Adapter_AdapterInfo_Get not available"},
         {"3|32 Adapter_VideoBiosInfo_Get not available", "3|111 Adapter_Crossfire_Get not available",
          "3|52 Overdrive5_Temperature_Get not available", "3|177 Overdrive6_CurrentStatus_Get not available",
          "3|207 Overdrive6_CurrentStatus_Get not available", "3|232 Adapter_MemoryInfo_Get not available",
          "3|263 Overdrive6_FanSpeed_Get not available"}},
        {"", {}, {"3|134 Failed to load AMD Display Library"}, {}},
        // Again: a load that failed counts no load, so this one tries the module anew.
        {"", {}, {"3|134 Failed to load AMD Display Library"}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.module);
        std::unique_ptr<SimulatedModules> modules;
        if (!row.module.empty())
            modules = std::make_unique<SimulatedModules>(std::initializer_list<std::string>{row.module});
        const Query run = query(machine(json::parse(R"({"adl": {"adapters": 1}})"), "{}"));
        EXPECT_EQ(run.records, row.records);
        EXPECT_EQ(run.failures, row.failures);
        EXPECT_EQ(run.readings, row.readings);
    }
    // A load that finds no ADL leaves no slot pointing into the module let go before.
    EXPECT_EQ(adlBinding().functions.ADL_Overdrive6_FanSpeed_Get, nullptr);
}

#if defined(_WIN32)
// Its own process, with ADL under its 32-bit name only.
TEST(AdlFallback, OnlyTheThirtyTwoBitNameIsPresent)
{
    ASSERT_TRUE(libKestrel::adlwrapper::initializeLibrary());
    EXPECT_EQ(adlBinding().library.path().str(), "atiadlxy.dll");
    libKestrel::adlwrapper::uninitializeLibrary();
    EXPECT_EQ(query(radeon).records.size(), 5u);
}
#endif

} // namespace
