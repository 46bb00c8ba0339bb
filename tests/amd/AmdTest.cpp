// The exported AMDGPU class and its ADL call tables against the simulated ADL. ADL stays loaded for the process
// once a table is made, so each test sets its machine, which the module reads at the next ADL2 context made.
#include <algorithm>
#include <exception>
#include <sstream>
#include <tuple>
#include <utility>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "common/Test.h"
#include "libKestrel/ADLWrapper.h"
#include "libKestrel/AMDGPU.h"
#include "libKestrel/internal/windows/ADL.h"
#include "tova/System.h"

namespace {

using namespace kestrel::test;
using namespace libKestrel;
using namespace libKestrel::adl;
using nlohmann::json;
using testing::IsSupersetOf;

const char* const device = "libKestrel";
const char* const notFound = "Cannot find a matching ADL adapter id given the PCI location.";
const std::string missing = std::string("3|130 ") + notFound;
// Faults that keep ADL2 from making a context: the tables fall back to the classic interface.
const json withoutAdl2 = {{"ADL2_Main_ControlX2_Create", {{"return", -1}}},
                          {"ADL2_Main_Control_Create", {{"return", -1}}}};

pci::PciLocation at(int bus) { return pci::PciLocation(static_cast<unsigned char>(bus), 0, 0, 0); }

// A GPU at <bus>:00.0 that ADL sees, with its "adl" section.
json gpuAt(int bus, const json& adl) { return {{"pci", {{"bus", bus}}}, {"adl", adl}}; }

std::string scenario(const std::vector<json>& gpus, const json& faults = nullptr)
{
    return json{{"gpus", gpus}, {"faults", faults.is_null() ? json::object() : faults}}.dump();
}

// An adapter at <bus>:00.0 with a display name; 'more' is merged in.
json adapter(int bus, const std::string& display = "", const json& more = json::object())
{
    json entry = {{"pci", {{"bus", bus}, {"device", 0}, {"function", 0}}}, {"displayName", display}};
    entry.merge_patch(more);
    return entry;
}

// Adapters name their own location, so one "gpus" entry holds them all, in ADL's order.
std::string adapters(const std::vector<json>& list, const json& faults = nullptr)
{
    return scenario({gpuAt(1, {{"adapters", list}})}, faults);
}

// A GPU at bus 3 whose adapters speak the given Overdrive versions: 40, 50, 61.5 and 54 degrees (Overdrive 5, 6,
// N, PM log), clocks of 1350/1200 and 1000/875 MHz (2100/1100 MHz in the PM log), 37 % activity.
json gpuSpeaking(const std::vector<int>& versions, int capabilities = ADL_OD8_TEMPERATURE_FAN)
{
    json adl = json::parse(R"({"overdrive5": {"temperature": 40000, "activity": {"percent": 37}},
        "overdrive6": {"temperature": 50000}, "overdriveN": {"temperature": 61500},
        "odClock": {"engine": {"current": 135000, "default": 120000}, "memory": {"current": 100000, "default": 87500}},
        "overdrive8": {"settings": 35, "current": 35, "pmlog": [{"sensor": 8, "value": 54},
                       {"sensor": 1, "value": 2100}, {"sensor": 2, "value": 1100}]}})");
    adl["overdrive8"]["capabilities"] = capabilities;
    for (int version : versions)
        adl["adapters"].push_back({{"overdrive", {{"version", version}}}});
    return gpuAt(3, adl);
}

std::vector<AMDGPU> enumerated()
{
    std::vector<AMDGPU> gpus;
    AMDGPU::enumerate(gpus);
    return gpus;
}

// Each GPU as its location and display names: "0000:03:00.0 A1 A2".
Lines seen(const std::vector<AMDGPU>& gpus)
{
    Lines texts;
    for (const AMDGPU& gpu : gpus) {
        texts.push_back(gpu.pciLocation().toString(true).str());
        for (const std::string& id : gpu.displayIds())
            texts.back() += " " + id;
    }
    return texts;
}

// What a GPU reads: temperatures, current and default clocks and memory clocks, usage appended to {5}.
std::string readings(AMDGPU& gpu)
{
    std::vector<float> temperatures{-1.0f}; // emptied first
    gpu.currentTemperature(temperatures);
    std::vector<int> usage{5};
    gpu.currentGPUUsage(usage);
    std::ostringstream text;
    text << "temperatures";
    for (float temperature : temperatures)
        text << ' ' << temperature;
    text << ", clocks " << gpu.currentClock() << ' ' << gpu.currentMemoryClock() << ' ' << gpu.defaultClock() << ' '
         << gpu.defaultMemoryClock() << ", usage";
    for (int percent : usage)
        text << ' ' << percent;
    return text.str();
}

// The text of the std::exception that 'call' throws; "" when it throws none.
template <class Call>
std::string thrownBy(Call call)
{
    try {
        call();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

// ADL2 contexts made and not yet ended since the machine was set.
int openContexts(const SimulatedMachine& machine)
{
    int open = 0;
    for (const std::string& event : machine.journal())
        if (event.rfind("ADL2 context ", 0) == 0)
            open += event.find(" created") != std::string::npos ? 1 : -1;
    return open;
}

struct Enumeration {
    std::vector<json> adapters;
    json faults;
    Lines gpus;          // as seen()
    std::string located; // the GPU at bus 3 as seen(), or what its constructor threw
    Lines lines;
};

// Enumerates each machine into a list holding a GPU of another machine, and makes the GPU at bus 3 of
// domain 7 (ADL has no domain). Every context made ends with the GPUs, or with a constructor that throws.
void expectEnumerations(const std::vector<Enumeration>& rows)
{
    const std::vector<AMDGPU> stale = [] {
        SimulatedMachine machine(adapters({adapter(9, "S")}));
        return enumerated();
    }();
    for (const Enumeration& row : rows) {
        SCOPED_TRACE(row.faults.dump() + " " + json(row.adapters).dump());
        SimulatedMachine machine(adapters(row.adapters, row.faults));
        LogCapture capture(tova::LoggerPriority::WARNING);
        {
            std::vector<AMDGPU> gpus = stale;
            EXPECT_EQ(AMDGPU::enumerate(gpus), row.gpus.size());
            EXPECT_EQ(seen(gpus), row.gpus);
            Lines located{""};
            const std::string thrown = thrownBy([&] { located = seen({AMDGPU(pci::PciLocation(3, 0, 0, 7))}); });
            EXPECT_EQ(thrown.empty() ? located.at(0) : thrown, row.located);
        }
        EXPECT_EQ(capture.of(device), row.lines);
        EXPECT_EQ(openContexts(machine), 0);
    }
}

TEST(AmdEnumeration, AdaptersFoldIntoGPUsByLocationAndWhatADLCannotListMakesNone)
{
    const std::vector<json> two{adapter(3, "A"), adapter(4, "B")};
    const std::string count = "ADL2_Adapter_NumberOfAdapters_Get", list = "ADL2_Adapter_AdapterInfoX2_Get";
    const std::string offBus = "3|701 Adapter outside the PCI bus, skipped: ";
    const std::string shorter = "3|194 ADL list shorter than its count, entries read: ";
    Lines existing{"0000:02:00.0", "0000:04:00.0", "0000:05:00.0"}; // iPresent stands for the iExist Linux lacks
#if defined(_WIN32)
    existing.push_back("0000:07:00.0");
#endif
    expectEnumerations({
        // One GPU as three adapters: the second joins the first and ends the walk; by location, all three.
        {{adapter(3, "D3"), adapter(3, "D4"), adapter(3, "D5")}, {}, {"0000:03:00.0 D3 D4"}, "0000:03:00.0 D3 D4 D5",
         {}},
        // [A, B, A', B']: A' joins A and ends the walk; B keeps one adapter.
        {{adapter(3, "A1"), adapter(4, "B1"), adapter(3, "A2"), adapter(4, "B2")}, {},
         {"0000:03:00.0 A1 A2", "0000:04:00.0 B1"}, "0000:03:00.0 A1 A2", {}},
        // Existing AMD adapters (1002 in decimal too, as some drivers report it)
        // off the zero location, connected ones only; by location, any vendor.
        {{adapter(2, "", {{"vendorId", 0x1002}}), adapter(3, "N", {{"vendorId", 0x10DE}}),
          adapter(4, "", {{"vendorId", 1002}}), adapter(5, "", {{"vendorId", 0x1022}}),
          adapter(6, "", {{"exist", 0}, {"present", 0}}), adapter(0), adapter(7, "", {{"exist", 1}, {"present", 0}}),
          adapter(8, "", {{"connected", false}})},
         {}, existing, "0000:03:00.0 N", {}},
        // Device 40 or function 9 is no PCI location.
        {{adapter(3, "A"), adapter(4, "B", {{"pci", {{"device", 40}}}}), adapter(5, "C", {{"pci", {{"function", 9}}}})},
         {}, {"0000:03:00.0 A"}, "0000:03:00.0 A",
         {offBus + "bus 4, device 40, function 0", offBus + "bus 5, device 0, function 9"}},
        {{adapter(4, "B")}, {}, {"0000:04:00.0 B"}, notFound, {missing}},
        {two, {{list, {{"return", -5}}}}, {}, notFound, {"3|250 ADL2_Adapter_AdapterInfoX2_Get failed -5", missing}},
        {two, {{list, {{"null", true}}}}, {}, notFound, {"3|198 Bad adapterInfo parameter", shorter + "0", missing}},
        {two, {{count, {{"return", -2}}}}, {}, "std::exception",
         {"3|193 Adapter_NumberOfAdapters_Get failed -2", "3|90 ADL2_Adapter_NumberOfAdapters_Get failed -2"}},
        // Counts beyond ADL's list: read to its end; beyond any machine, the constructor allocates nothing.
        {two, {{count, {{"count", 4096}}}}, {"0000:03:00.0 A", "0000:04:00.0 B"}, "0000:03:00.0 A",
         {shorter + "2", shorter + "2"}},
        {two, {{count, {{"count", 4097}}}}, {"0000:03:00.0 A", "0000:04:00.0 B"}, notFound,
         {shorter + "2", "3|700 Adapter count beyond any machine, not enumerating: 4097", missing}},
    });
}

// A host's own static list of GPUs outlives the library's ADL, which ends at
// exit before it: its tables must find nothing left to call into.
std::vector<AMDGPU> hostGPUs;

TEST(AmdIdentity, GPUsThatOutliveTheLibrarysADLEndQuietlyAtExit)
{
    SimulatedMachine machine(adapters({adapter(3, "A")}));
    hostGPUs = enumerated();
    hostGPUs.emplace_back(at(3));
    EXPECT_EQ(hostGPUs.size(), 2u); // the process's clean exit is the check
}

TEST(AmdIdentity, ACopyAnswersLikeItsGPUAndAMovedFromOneAnswersEveryOperationAsAFailure)
{
    SimulatedMachine machine(scenario({gpuSpeaking({6})}));
    {
        const std::vector<AMDGPU> gpus = enumerated();
        AMDGPU copy = gpus.at(0);
        AMDGPU assigned(at(3));
        assigned = copy; // lets its own tables go
        AMDGPU moved = std::move(copy);
        AMDGPU& gone = copy;
        gone.refresh();
        EXPECT_EQ(seen({gone}), Lines{"0000:00:00.0"});
        EXPECT_EQ(readings(gone), "temperatures, clocks 0 0 0 0, usage 5");
        EXPECT_FALSE(gone.isDiscrete());
        std::vector<AMDGPU> links{moved};
        EXPECT_FALSE(gone.hasCrossFireSlaveGPU(links));
        EXPECT_TRUE(links.empty());
        ADLOD8InitSetting init{};
        ADLOD8CurrentSetting current{};
        EXPECT_EQ(gone.GetOD8InitSetting(0, init), -1);
        EXPECT_EQ(gone.GetOD8CurrentSetting(0, current), -1);
        EXPECT_EQ(readings(moved), "temperatures 50, clocks 1350 1000 1200 875, usage 5 37") << "the GPU it moved to";
    }
    EXPECT_EQ(openContexts(machine), 0) << "every context ends with the last GPU that shares it";
}

TEST(AmdIdentity, AFamilyCountsOnlyWithBothItsBitsAndTheFirstAdapterTellsIt)
{
    const std::pair<const char*, bool (AMDGPU::*)() const> rows[] = {
        {"discrete", &AMDGPU::isDiscrete}, {"integrated", &AMDGPU::isIntegrated}, {"FireGL", &AMDGPU::isFireGL},
        {"FireMV", &AMDGPU::isFireMV},     {"XGP", &AMDGPU::isXGP},               {"Fusion", &AMDGPU::isFusion},
        {"FireStream", &AMDGPU::isFireStream}, {"embedded", &AMDGPU::isEmbedded}};
    // GPU n has every family bit but only bit n valid; GPU 8 + n only bit n, all valid.
    std::vector<json> list;
    for (int gpu = 0; gpu < 16; ++gpu) {
        const int bit = 1 << (gpu % 8), types = gpu < 8 ? 0xFF : bit, valids = gpu < 8 ? bit : 0xFF;
        list.push_back(adapter(10 + gpu, "", {{"asic", {{"types", types}, {"valids", valids}}}}));
    }
    list.push_back(adapter(30, "", {{"asic", {{"types", 0x02}, {"valids", 0x02}}}})); // one GPU: integrated,
    list.push_back(adapter(30, "", {{"asic", {{"types", 0x01}, {"valids", 0x01}}}})); // then discrete
    SimulatedMachine machine(adapters(list));
    const std::vector<AMDGPU> gpus = enumerated();
    ASSERT_EQ(gpus.size(), 17u);
    for (size_t row = 0; row < 8; ++row) {
        SCOPED_TRACE(rows[row].first);
        for (size_t gpu = 0; gpu < 17; ++gpu)
            EXPECT_EQ((gpus[gpu].*rows[row].second)(), gpu < 16 ? gpu % 8 == row : row == 1) << "GPU " << gpu;
    }
}

TEST(AmdCrossFire, AGPULeadsOnlyAnActiveChainAndListsItsLinks)
{
    const std::string caps = "ADL2_Adapter_Crossfire_Caps";
    const struct {
        int preferred; // GPU A at bus 3 is adapters 0 and 1, GPU B at bus 4 adapter 2
        const char* combinations;
        json faults;
        Lines links; // when A leads an active chain
        const char* line;
    } rows[] = {
        {0, R"([{"adapters": [2], "state": 1}])", {}, {"0000:04:00.0"}, ""},
        {0, "[[2]]", {{caps, {{"device", 1}, {"return", -8}}}}, {"0000:04:00.0"}, ""}, // A's first adapter is asked
        {1, "[[0], [2]]", {}, {"0000:04:00.0"}, ""}, // the preferred combination is the one asked about
        {0, "[[9]]", {}, {"0000:00:00.0"}, ""},      // an adapter ADL no longer lists: a GPU without adapters
        {0, R"([{"adapters": [2], "linkCount": 7}])", {}, {"0000:04:00.0", "0000:03:00.0", "0000:03:00.0"},
         "3|341 CrossFire link count outside the combination: 7"}, // the links a combination holds, no more
        // No chain, or one a driver describes badly, is not active; nothing outside ADL's list is read.
        {0, R"([{"adapters": [2], "state": 0}])", {}, {}, ""},
        {-1, "[[2]]", {}, {}, ""},
        {0, "[]", {}, {}, ""},
        {5, "[[2]]", {}, {}, "3|336 Preferred CrossFire combination outside the list: 5"},
        {0, "[[2]]", {{caps, {{"null", true}}}}, {}, ""},
        {0, "[[2]]", {{caps, {{"return", -8}}}}, {}, "1|333 Adapter_Crossfire_Caps returns -8"},
        {0, "[[2]]", {{"ADL2_Adapter_Crossfire_Get", {{"return", -1}}}}, {}, "1|340 Adapter_Crossfire_Get returs -1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.preferred) + " " + row.combinations + " " + row.faults.dump());
        json a = {{"adapters", 2}, {"crossfire", {{"preferred", row.preferred}, {"state", 1}}}};
        a["crossfire"]["combinations"] = json::parse(row.combinations);
        SimulatedMachine machine(scenario({gpuAt(3, a), gpuAt(4, json::object())}, row.faults));
        LogCapture capture;
        {
            std::vector<AMDGPU> gpus = enumerated();
            std::vector<AMDGPU> links = gpus; // the call empties it first
            EXPECT_EQ(!gpus.empty() && gpus[0].hasCrossFireSlaveGPU(links), !row.links.empty());
            EXPECT_EQ(seen(links), row.links);
        }
        EXPECT_THAT(capture.of(device), IsSupersetOf(*row.line ? Lines{row.line} : Lines{}));
        EXPECT_EQ(openContexts(machine), 0);
    }
    // A driver that lists one adapter index at two places: the link is the first.
    json a = {{"adapters", 2}, {"crossfire", {{"preferred", 0}, {"state", 1}, {"combinations", json::parse("[[2]]")}}}};
    SimulatedMachine twice(scenario({gpuAt(3, a), gpuAt(4, json::object()), gpuAt(5, {{"adapters", {{{"index", 2}}}}})}));
    LogCapture capture;
    {
        std::vector<AMDGPU> gpus = enumerated();
        std::vector<AMDGPU> links;
        EXPECT_TRUE(!gpus.empty() && gpus[0].hasCrossFireSlaveGPU(links));
        EXPECT_EQ(seen(links), Lines{"0000:04:00.0"});
    }
    EXPECT_TRUE(capture.has(device, 3, "161  PCI location mismatch! Cannot add GPU info from a different GPU."));
}

// Temperatures by Overdrive version, one per adapter that gives one above 0; clocks from the first adapter that
// answers. The PM log gives what its capability bits offer; the rest, and default clocks, the older interfaces.
TEST(AmdReadings, EachOverdriveVersionAndEachOverdrive8CapabilityBitGiveTheirReadings)
{
    json negative = gpuSpeaking({6, 8, 8}, ADL_OD8_TEMPERATURE_SYSTEM);
    negative["adl"]["overdrive6"]["temperature"] = -5000;
    const std::string older = ", clocks 1350 1000 1200 875, usage 5 37";
    const std::string fromPMLog = "temperatures, clocks 2100 1000 1200 875, usage 5 37";
    const std::string noPMLog = "1|479 New_QueryPMLogData_Get has failed\n";
    const std::string clockInfo = "ADL2_Display_ODClockInfo_Get", activity = "ADL2_Overdrive5_CurrentActivity_Get";
    const std::string pmLog = "ADL2_New_QueryPMLogData_Get";
    const struct {
        json gpu;
        json faults;
        std::string readings;
        Lines lines;
    } rows[] = {
        {gpuSpeaking({5, 6, 7, 8}), {}, "temperatures 40 50 61.5 54" + older + " 37 37 37", {}},
        // The second adapter's reading does not count again for the third, whose PM log says nothing.
        {negative, {{pmLog, {{"device", 2}, {"null", true}}}}, "temperatures 54" + older + " 37 37",
         {"1|474 OD8 Failed to get Temperature Settings\n"}},
        {gpuSpeaking({6, 6}),
         {{clockInfo, {{"device", 0}, {"return", -1}}}, {activity, {{"device", 0}, {"return", -8}}}},
         "temperatures 50 50" + older, {}},
        {gpuSpeaking({6}), {{clockInfo, {{"return", -1}}}}, "temperatures 50, clocks 0 0 0 0, usage 5 37", {}},
        {gpuSpeaking({8}, ADL_OD8_TEMPERATURE_SYSTEM), {}, "temperatures 54" + older, {}},
        {gpuSpeaking({8}, ADL_OD8_TEMPERATURE_FAN), {}, "temperatures 54" + older, {}},
        {gpuSpeaking({8}, ADL_OD8_POWER_LIMIT), {}, "temperatures 54" + older, {}},
        {gpuSpeaking({8}, ADL_OD8_GFXCLK_LIMITS), {}, fromPMLog, {}},
        {gpuSpeaking({8}, ADL_OD8_GFXCLK_CURVE), {}, fromPMLog, {}},
        {gpuSpeaking({8}, ADL_OD8_UCLK_MAX), {}, "temperatures, clocks 1350 1100 1200 875, usage 5 37", {}},
        // A PM log that fails leaves the clocks that ADL's clock info gave.
        {gpuSpeaking({8}, 0x3FF), {{pmLog, {{"return", -8}}}}, "temperatures" + older,
         {noPMLog, "1|593 Unsuccessfull retrieving the current clock through Overdrive 8 ADL",
          "1|645 Unsuccessfull retrieving the current memory clock through Overdrive 8 ADL"}},
        // Without an ADL2 context the classic table serves, and Overdrive 8 is out of reach.
        {gpuSpeaking({8}, 0x3FF), withoutAdl2, "temperatures" + older,
         {"1|176 ADL2_Main_ControlX2_Create returns -1", "1|184 ADL2_Main_Control_Create returns -1",
          "3|188 Unable to initialize ADL", "1|46 Unable to create ADL2 object", noPMLog,
          "1|507 New_QueryPMLogData_Get has failed\n"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.gpu.dump() + " " + row.faults.dump());
        SimulatedMachine machine(scenario({row.gpu}, row.faults));
        LogCapture capture;
        AMDGPU gpu(at(3));
        EXPECT_EQ(readings(gpu), row.readings);
        EXPECT_THAT(capture.of(device), IsSupersetOf(row.lines));
        gpu.refresh();
        EXPECT_EQ(machine.count("ADL2_Main_Control_Refresh") + machine.count("ADL_Main_Control_Refresh"), 1u);
    }
}

TEST(AmdOverdrive8, ListsAreCutTo29TheCurrentValuesFallBackAndThePMLogGivesMillidegrees)
{
    // 35 settings and current values, more than the records hold: setting n is
    // id n, min 100n, max 100n+50, default 100n+25; current value n is 1000+n.
    const json od8 = gpuSpeaking({8}, 0x3FF);
    json three = od8;
    three["adl"]["overdrive8"]["settings"] = 3;
    const json fails = {{"return", -1}};
    const std::string initX2 = "ADL2_Overdrive8_Init_SettingX2_Get", pmLog = "ADL2_New_QueryPMLogData_Get";
    const std::string currentX2 = "ADL2_Overdrive8_Current_SettingX2_Get";
    const struct {
        json gpu;
        json faults;
        int settings; // the initial settings read; 0 when the call fails
        int currentStatus;
        int pmLogStatus;
        int temperature; // 777 when not given
        const char* line;
    } rows[] = {
        {od8, {}, 29, 0, 0, 54000, ""},
        {od8, {{currentX2, fails}}, 29, 0, 0, 54000, "1|429 ADL2_Overdrive8_Current_SettingX2_Get is failed\n"},
        {od8, {{currentX2, fails}, {"ADL2_Overdrive8_Current_Setting_Get", fails}}, 29, -1, -1, 777,
         "1|436 ADL2_Overdrive8_Current_Setting_Get is failed\n"},
        {od8, {{initX2, fails}}, 0, 0, -1, 777, "1|397 ADL2_Overdrive8_Init_SettingX2_Get is failed\n"}, // no fallback
        {three, {{initX2, {{"count", 20}}}}, 3, 0, 0, 54000, ""}, // read to the list's end
        {od8, {{pmLog, {{"return", -8}}}}, 29, 0, -8, 777, "1|479 New_QueryPMLogData_Get has failed\n"},
        {od8, {{pmLog, {{"null", true}}}}, 29, 0, 0, 777, "1|474 OD8 Failed to get Temperature Settings\n"},
        {od8, withoutAdl2, 0, -1, -1, 777, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.faults.dump());
        SimulatedMachine machine(scenario({row.gpu}, row.faults));
        LogCapture capture;
        AMDGPU gpu(at(3));
        ADLOD8InitSetting init{};
        EXPECT_EQ(gpu.GetOD8InitSetting(0, init), row.settings ? 0 : -1);
        EXPECT_EQ(std::make_pair(init.count, init.overdrive8Capabilities),
                  std::make_pair(row.settings ? row.settings : OD8_COUNT, row.settings ? 0x3FF : 0));
        for (int n = 0; n < OD8_COUNT; ++n) {
            const ADLOD8SingleInitSetting& setting = init.od8SettingTable[n];
            EXPECT_EQ(std::make_tuple(setting.featureID, setting.minValue, setting.maxValue, setting.defaultValue),
                      n < row.settings ? std::make_tuple(n, 100 * n, 100 * n + 50, 100 * n + 25)
                                       : std::make_tuple(0, 0, 0, 0))
                << "setting " << n;
        }
        ADLOD8CurrentSetting current{};
        EXPECT_EQ(gpu.GetOD8CurrentSetting(0, current), row.currentStatus);
        EXPECT_EQ(std::make_tuple(current.count, current.Od8SettingTable[5], current.Od8SettingTable[28]),
                  row.currentStatus ? std::make_tuple(OD8_COUNT, 0, 0) : std::make_tuple(29, 1005, 1028));
        int temperature = 777;
        EXPECT_EQ(gpu.retrieveCurrentTemperatureOverdrive8(0, temperature), row.pmLogStatus);
        EXPECT_EQ(temperature, row.temperature);
        EXPECT_THAT(capture.of(device), IsSupersetOf(*row.line ? Lines{row.line} : Lines{}));
    }
    // Settings are set through the ADL2 table, on a context of its own.
    SimulatedMachine machine(scenario({od8}));
    const std::shared_ptr<ADL2> table = instantiateADL2();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(machine.count("ADL threading model locked"), 1u) << "ADL serialises the calls itself";
    ADLOD8SetSetting set{};
    set.count = OD8_COUNT;
    set.od8SettingTable[OD8_UCLK_FMAX] = {950, 1, 0};
    ADLOD8CurrentSetting current{};
    EXPECT_EQ(table->Overdrive8_Setting_Set(0, &set, &current), ADL_OK);
    EXPECT_EQ(current.Od8SettingTable[OD8_UCLK_FMAX], 950);
}

// Its own process: the classic interface starts once per process.
TEST(AmdStartup, TheClassicInterfaceStartsOnceAndARefusedStartIsTriedAgain)
{
    {
        json faults = withoutAdl2;
        faults["ADL_Main_ControlX2_Create"] = {{"return", -2}};
        faults["ADL_Main_Control_Create"] = {{"return", -3}};
        SimulatedMachine machine(adapters({adapter(3)}, faults));
        LogCapture capture;
        EXPECT_EQ(thrownBy([] { instantiateADL(); }), "Unable to initialize ADL");
        EXPECT_THAT(capture.of(device), IsSupersetOf({"1|87 ADL_Main_ControlX2_Create returns -2",
                                                            "1|95 ADL_Main_Control_Create returns -3",
                                                            "3|99 Unable to initialize ADL"}));
    }
    SimulatedMachine machine(adapters({adapter(3)}, withoutAdl2));
    const std::shared_ptr<ADLWrapper> first = instantiateADL(), second = instantiateADL();
    int count = 0;
    EXPECT_EQ(dynamic_cast<ADL&>(*second).Adapter_NumberOfAdapters_Get(&count), ADL_OK);
    EXPECT_EQ(count, 1);
    // One main control, started by the X2 call, serves every table.
    EXPECT_EQ(machine.count("ADL main control created"), 1u);
    EXPECT_EQ(machine.count("ADL threading model locked"), 1u);
}

// Its own process, without any ADL library.
TEST(AmdAbsent, WithoutTheDriversLibraryNoTableAndNoGPUCanBeMade)
{
    const std::string noADL = "3|23 Unable to load either atiadlxx.dll or atiadlxy.dll.";
    LogCapture capture;
    EXPECT_EQ(thrownBy([] { instantiateADL(); }), "Unable to load ADL binary.");
    EXPECT_EQ(capture.of(device), Lines(2, noADL)) << "ADL2 is tried first, then the classic interface";
    capture.clear();
    EXPECT_EQ(instantiateADL2(), nullptr);
    EXPECT_EQ(capture.of(device), (Lines{noADL, "1|46 Unable to create ADL2 object"}));
    EXPECT_EQ(thrownBy([] { enumerated(); }), "Unable to load ADL binary.");
    EXPECT_EQ(thrownBy([] { AMDGPU gpu(at(3)); }), "Unable to load ADL binary.");
}

// Its own process, without the X2 entries (the create calls and Adapter_AdapterInfoX2_Get): the older create
// calls start ADL and the adapter list comes through a buffer.
TEST(AmdWithoutX2, TheOlderCallsServeAndAFallbackThatFailsGivesNoGPUs)
{
    const std::vector<json> three{adapter(3, "A1"), adapter(4, "B1"), adapter(3, "A2")};
    const std::string count = "ADL2_Adapter_NumberOfAdapters_Get";
    const std::string absurd = "3|700 Adapter count beyond any machine, not enumerating: 2147483647";
    expectEnumerations({
        {three, {}, {"0000:03:00.0 A1 A2", "0000:04:00.0 B1"}, "0000:03:00.0 A1 A2", {}},
        {three, {{"ADL2_Adapter_AdapterInfo_Get", {{"return", -3}}}}, {}, notFound,
         {"3|268 Adapter_AdapterInfo_Get failed -3", missing}},
        {three, {{count, {{"return", -2}}}}, {}, "std::exception",
         {"3|261 Adapter_NumberOfAdapters_Get failed -2", "3|90 ADL2_Adapter_NumberOfAdapters_Get failed -2"}},
        // A count no machine has: no buffer is made for it, no list asked for.
        {three, {{count, {{"count", 2147483647}}}}, {}, notFound, {absurd, absurd, missing}},
    });
    SimulatedMachine machine(adapters(three));
    EXPECT_NE(instantiateADL2(), nullptr) << "Overdrive 8 has its ADL2 table";
    SimulatedMachine classic(adapters(three, withoutAdl2));
    EXPECT_NE(dynamic_cast<ADL*>(instantiateADL().get()), nullptr) << "started by ADL_Main_Control_Create";
}

// Once per driver lacking entries, in a process of its own (KESTREL_TEST_ADL_WITHOUT names it): what the
// readings lose, on an ADL2 table and on the classic one, and the names the missing entries throw.
TEST(AmdWithoutEntries, EachMissingEntryCostsWhatDependsOnItAndThrowsItsName)
{
    const struct {
        std::string driver;
        std::string readings;
        Lines thrown; // by the calls below, on an ADL2 table, then on the classic one
    } rows[] = {
        // A missing entry empties every temperature; the classic table names this one without its prefix.
        {"overdrive5", "temperatures, clocks 1350 1000 1200 875, usage 5 37 37",
         {"ADL2_Overdrive5_ThermalDevices_Enum not in the driver", "ADL2_Overdrive5_Temperature_Get not in the driver",
          "Overdrive5_ThermalDevices_Enum not in the driver", "ADL_Overdrive5_Temperature_Get not in the driver"}},
        // Refresh has always been reported under the classic entry's name.
        {"setting_set_and_refresh", "temperatures 50 40, clocks 1350 1000 1200 875, usage 5 37 37",
         {"ADL2_Overdrive8_Setting_Set not in the driver", "ADL_Main_Control_Refresh not in the driver"}},
        {"clock_info", "temperatures 50 40, clocks 0 0 0 0, usage 5 37 37", {}},
        // The current clocks and the temperatures depend on the Overdrive version.
        {"overdrive_caps", "temperatures, clocks 0 0 1200 875, usage 5 37 37", {}},
    };
    const std::string driver = tova::System::getEnvironmentVariable("KESTREL_TEST_ADL_WITHOUT").str();
    const auto row = std::find_if(std::begin(rows), std::end(rows), [&](const auto& r) { return r.driver == driver; });
    ASSERT_NE(row, std::end(rows)) << "no row for the driver without " << driver;
    Lines thrown;
    for (const json& faults : {json::object(), withoutAdl2}) {
        SCOPED_TRACE(faults.dump());
        SimulatedMachine machine(scenario({gpuSpeaking({6, 5})}, faults));
        AMDGPU gpu(at(3));
        EXPECT_EQ(readings(gpu), row->readings);
        const std::shared_ptr<ADLWrapper> table = instantiateADL();
        ADLThermalControllerInfo info{};
        ADLTemperature temperature{};
        ADLOD8SetSetting set{};
        ADLOD8CurrentSetting current{};
        for (const std::string& text :
             {thrownBy([&] { table->Overdrive5_ThermalDevices_Enum(0, 0, &info); }),
              thrownBy([&] { table->Overdrive5_Temperature_Get(0, 0, &temperature); }),
              thrownBy([&] {
                  if (auto* adl2 = dynamic_cast<ADL2*>(table.get()))
                      adl2->Overdrive8_Setting_Set(0, &set, &current);
              }),
              thrownBy([&] { gpu.refresh(); })})
            if (!text.empty())
                thrown.push_back(text);
    }
    EXPECT_EQ(thrown, row->thrown);
}

#if defined(_WIN32)
// Its own process, with ADL under its 32-bit name only.
TEST(AmdFallback, TheThirtyTwoBitNameIsTriedSecond)
{
    SimulatedMachine machine(adapters({adapter(3)}));
    EXPECT_NE(dynamic_cast<ADL2*>(instantiateADL().get()), nullptr);
}
#endif

} // namespace
