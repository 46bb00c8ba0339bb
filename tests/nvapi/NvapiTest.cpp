// NVAPI against the simulated driver: the GPU source, the exported NVIDIAGPU
// class, and the binding that loads and lets go of the driver.
#include <algorithm>
#include <cstring>
#include <exception>
#include <optional>
#include <regex>
#include <thread>
#include <tuple>
#include <utility>

#include <gmock/gmock.h>

#include "common/Test.h"
#include "libKestrel/NVIDIAGPU.h"
#include "libKestrel/internal/windows/NVidia/nvapiwrapper.h"

namespace {

using namespace kestrel::test;
using libKestrel::NVIDIAGPU;
using testing::IsSupersetOf;
using Calls = std::pair<size_t, size_t>;
namespace nvapi = libKestrel::nvapi;

const char* const querier = "libKestrel.NVidiaGPUQuerier";
const char* const perProperty = "libKestrel.NVAPI";
const char* const device = "libKestrel";

Calls startsAndUnloads(const SimulatedMachine& machine)
{
    return {machine.count("NvAPI_Initialize"), machine.count("NvAPI_Unload")};
}

// NVAPI is not held: no reference, no module, no entry left to call.
void expectNvapiReleased()
{
    const libKestrel::NvAPIBinding& binding = libKestrel::nvapiBinding();
    EXPECT_EQ(binding.references, 0u);
    EXPECT_FALSE(binding.library.isLoaded());
    const libKestrel::NvAPIFunctions none;
    EXPECT_EQ(std::memcmp(&binding.functions, &none, sizeof none), 0) << "an entry is still resolved";
}

// Each test loads the full simulated driver itself, which the binding lets go with its last reference.
class Nvapi : public testing::Test {
protected:
    void TearDown() override { expectNvapiReleased(); }
    SimulatedModules modules_{"sim_nvapi"};
};
using NvidiaGpu = Nvapi;

// Two GPUs in SLI. NVAPI knows everything about the first, whose base clocks differ
// from its current ones; the second's memory clock is marked absent.
const std::string sliPair = R"({"nvapi": {"driverVersion": 45206, "branch": "r452_06"}, "sli": [[0, 1]], "gpus": [
    {"name": "NVIDIA GeForce RTX 2080 Ti", "pci": {"bus": 101}, "nvapi": {"vbios": "90.02.0B.00.01", "coreCount": 4352,
     "memory": {"dedicated": 11534336, "available": 11010048, "system": 0, "sharedSystem": 8388608}, "busType": 3,
     "ecc": {"supported": true, "configuration": 2}, "clocks": {"current": {"graphics": 1350000, "memory": 7000000,
     "processor": 1545000}, "base": {"graphics": 1000, "memory": 2000, "processor": 3000}}}},
    {"name": "Second", "pci": {"bus": 23, "device": 2}, "nvapi": {"coreCount": 128, "ecc": {"enabled": true}, "clocks":
     {"current": {"graphics": 1500000, "memory": {"frequency": 7000000, "present": false}, "processor": 1600000}}}}])";
const std::string second = "0000:17:02.0 name=Second driverVersion=452.6 hardwareAcceleration=true coreCount=128 "
                           "vbiosVersion=86.04.50.00.70 dedicatedMemory=0 availableDedicatedMemory=0 "
                           "graphicsClock=1500000 shaderClock=1600000 busType=PCI Express eccSupported=false "
                           "eccEnabled=true sli=true";

// The pair's records as describe() writes them, the first without the properties named in 'lost'.
std::vector<std::string> pairWithout(const std::vector<std::string>& lost)
{
    std::string first = "0000:65:00.0 name=NVIDIA GeForce RTX 2080 Ti driverVersion=452.6 hardwareAcceleration=true "
                        "coreCount=4352 vbiosVersion=90.02.0B.00.01 dedicatedMemory=11534336 "
                        "availableDedicatedMemory=11010048 graphicsClock=1350000 memoryClock=7000000 "
                        "shaderClock=1545000 busType=PCI Express eccSupported=true eccEnabled=false sli=true";
    for (const std::string& property : lost)
        first = std::regex_replace(first, std::regex(" " + property + "=.*?(?= \\w+=|$)"), "");
    return {first, second};
}

Records query()
{
    std::bitset<4> status;
    Records records = libKestrel::queryNVidiaGPUs(status);
    EXPECT_TRUE(status.none()) << "this source sets no status bit";
    return records;
}

TEST_F(Nvapi, EachGpuBecomesOneRecordWithEverythingNvapiKnows)
{
    SimulatedMachine machine(sliPair + "}");
    LogCapture capture;
    EXPECT_EQ(describe(query()), pairWithout({}));
    // Every value read is logged, at TRACE.
    EXPECT_THAT(capture.of(querier), IsSupersetOf({"1|119 Enumerated physical NVidia GPU count: 2",
                                                         "1|61 Found PCI location information: 0000:65:00.0"}));
    EXPECT_THAT(capture.of(perProperty),
                IsSupersetOf({"1|44 PCI location: Bus: 101, Device: 0", "1|66 Product name: NVIDIA GeForce RTX 2080 Ti",
                              "1|82 Driver version: 45206", "1|83 Driver version branch: r452_06",
                              "1|99 VBIOS version: 90.02.0B.00.01", "1|216 Core count: 4352",
                              "1|119 Dedicated memory (kb): 11534336", "1|165 Frequency shader (kHz): 1600000",
                              "1|120 Available dedicated memory (kb): 11010048", "1|185 Bus type: 3",
                              "1|159 Frequency graphics (kHz): 1350000", "1|162 Frequency memory (kHz): 7000000",
                              "1|165 Frequency shader (kHz): 1545000", "1|268 ECC supported: true",
                              "1|269 ECC enabled: false", "1|244 Physical GPU count: 2",
                              "1|159 Frequency graphics (kHz): 1500000"}));
    EXPECT_EQ(capture.count("162 "), 1u) << "a domain marked absent is not logged";
    EXPECT_THAT(capture.messages(), testing::Each(testing::Field(&LogLine::priority, Priority::TRACE)));
    EXPECT_EQ(startsAndUnloads(machine), Calls(1, 1));
}

// One failing NVAPI call (the first of its entry, so about the first GPU) costs
// exactly what it would have given and one warning; the second GPU is untouched.
TEST_F(Nvapi, EachFailureCostsOnlyItsOwnPropertiesAndOneWarning)
{
    const auto failed = [](const std::string& tag, const std::string& what) {
        return LogLine{perProperty, 3, tag + " Could not retrieve " + what + ": -5"};
    };
    const LogLine unlocated{querier, 3, "52 Could not obtain PCI Location information for nvidia device"};
    const struct { const char* entry; std::vector<std::string> records; LogLine warning; } rows[] = {
        {"NvAPI_Initialize", {}, {querier, 3, "105 Could not initialize NVAPI"}},
        {"NvAPI_EnumPhysicalGPUs", {}, {querier, 3, "114 Could not enumerate physical GPUs: 1"}}, // a flag, not -5
        {"NvAPI_GPU_GetBusId", {second}, unlocated},
        {"NvAPI_GPU_GetBusSlotId", {second}, unlocated},
        {"NvAPI_GPU_GetFullName", pairWithout({"name"}), failed("62", "GPU full name")},
        {"NvAPI_SYS_GetDriverAndBranchVersion", pairWithout({"driverVersion"}), failed("78", "driver version")},
        {"NvAPI_GPU_GetVbiosVersionString", pairWithout({"vbiosVersion"}), failed("95", "GPU VBIOS version string")},
        {"NvAPI_GPU_GetMemoryInfo", pairWithout({"dedicatedMemory", "availableDedicatedMemory"}),
         failed("112", "GPU memory info")},
        {"NvAPI_GPU_GetAllClockFrequencies", pairWithout({"graphicsClock", "memoryClock", "shaderClock"}),
         failed("137", "current GPU clock frequencies")},
        {"NvAPI_GPU_GetBusType", pairWithout({"busType"}), failed("181", "GPU bus type")},
        {"NvAPI_GPU_GetGpuCoreCount", pairWithout({"coreCount"}), failed("212", "GPU core count")},
        {"NvAPI_GetLogicalGPUFromPhysicalGPU", pairWithout({"sli"}),
         failed("232", "the logical GPU from the physical GPU handle")},
        {"NvAPI_GetPhysicalGPUsFromLogicalGPU", pairWithout({"sli"}),
         failed("240", "the physical GPUs from the logical GPU handle")},
        {"NvAPI_GPU_GetECCStatusInfo", pairWithout({"eccSupported", "eccEnabled"}),
         failed("257", "current ECC memory information")}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.entry);
        SimulatedMachine machine(sliPair + R"(, "faults": {")" + row.entry + R"(": {"call": 0, "return": -5}}})");
        LogCapture capture(Priority::WARNING);
        const Records records = query();
        EXPECT_EQ(describe(records), row.records);
        EXPECT_EQ(capture.messages(), LogLines{row.warning});
        EXPECT_EQ(machine.count("NvAPI_GPU_GetFullName"), records.size()) << "an unlocated GPU is asked no more";
        expectNvapiReleased();
    }
    // No GPU at all is no failure: one TRACE line and no record.
    const SourceRun run = runSource(libKestrel::queryNVidiaGPUs, R"({"gpus": []})");
    EXPECT_TRUE(run.records.empty() && run.status.none());
    EXPECT_EQ(run.lines, (LogLines{{querier, 1, "119 Enumerated physical NVidia GPU count: 0"}}));
}

// The driver version keeps no leading zero in its minor number; bus types follow
// NVAPI's table. One machine a row, its one GPU alone in its logical GPU.
TEST_F(Nvapi, NumbersBecomeTheirTexts)
{
    const struct { int driver; const char* version; int busType; const char* bus; } rows[] = {
        {45206, "452.6", 0, nullptr}, {45190, "451.90", 1, "PCI"}, {44100, "441.0", 2, "AGP"},
        {43100, "431.0", 3, "PCI Express"}, {99, "0.99", 4, "FPCI"}, {1, "0.1", 5, "AXI"},
        {45206, "452.6", 6, nullptr}, {45206, "452.6", -1, nullptr}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.busType);
        const std::string gpu = R"(}, "gpus": [{"nvapi": {"busType": )" + std::to_string(row.busType) + "}}]}";
        const SourceRun run = runSource(libKestrel::queryNVidiaGPUs,
                                        R"({"nvapi": {"driverVersion": )" + std::to_string(row.driver) + gpu);
        const auto bus = row.bus ? std::optional<std::string>(row.bus) : std::nullopt;
        EXPECT_EQ(run.records.size(), 1u);
        for (const auto& record : run.records)
            EXPECT_EQ(std::make_tuple(record->driverVersion(), record->busType(), record->sli()),
                      std::make_tuple(std::optional<std::string>(row.version), bus, std::optional(false)));
        EXPECT_THAT(run.lines, IsSupersetOf({LogLine{perProperty, 1, "185 Bus type: " + std::to_string(row.busType)},
                                             LogLine{perProperty, 1, "244 Physical GPU count: 1"}}));
    }
}

// Absurd counts, unterminated strings and null handles from the driver cost
// properties and log lines, never a read past an array.
TEST_F(Nvapi, BadDriverDataCostsPropertiesNotTheHost)
{
    const std::string longName = "A name longer than the sixty-four bytes of NVAPI's short string, cut short";
    SimulatedMachine machine(R"({"nvapi": {"branch": "r452_06"}, "gpus": [{"name": ")" + longName + R"(",
        "pci": {"bus": 1}, "nvapi": {"slotId": 3}}, {"pci": {"bus": 2}, "nvapi": {}},
        {"pci": {"bus": 4}, "nvapi": {"busId": 513, "slotId": 259}}], "sli": [[0, 1]], "faults": {
            "NvAPI_EnumPhysicalGPUs": {"count": 1000},
            "NvAPI_GPU_GetFullName": {"device": 0, "unterminated": true},
            "NvAPI_SYS_GetDriverAndBranchVersion": {"unterminated": true},
            "NvAPI_GetPhysicalGPUsFromLogicalGPU": {"count": 4000000000},
            "NvAPI_GetLogicalGPUFromPhysicalGPU": {"device": 1, "null": true}}})");
    LogCapture capture;
    const Records records = query();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(capture.has(querier, 1, "119 Enumerated physical NVidia GPU count: 1000"));
    // Only the array's 64 handles are visited: 61 have no location, one is off the bus.
    EXPECT_EQ(capture.count("52 Could not obtain PCI Location information for nvidia device"), 61u);
    EXPECT_TRUE(capture.has(querier, 3, "53 Device outside the PCI bus, skipped: bus 513, device 259"));
    EXPECT_EQ(records[0]->pciLocation(), pci::PciLocation(1, 3, 0, 0));
    EXPECT_EQ(records[0]->name(), longName.substr(0, 64)) << "an unterminated name is read to the buffer's end";
    EXPECT_EQ(records[1]->name(), std::string("Simulated NVIDIA GPU"));
    EXPECT_EQ(records[0]->sli(), true);
    EXPECT_FALSE(records[1]->sli().has_value());
    EXPECT_TRUE(capture.has(perProperty, 1, "244 Physical GPU count: 4000000000"));
    EXPECT_TRUE(capture.has(perProperty, 3, "240 Could not retrieve the physical GPUs from the logical GPU handle: -5"))
        << "a null logical GPU";
    EXPECT_EQ(records[0]->driverVersion(), "452.6");
    EXPECT_TRUE(capture.has(perProperty, 1, "83 Driver version branch: r452_06" + std::string(64 - 7, '#')));
}

// References of the test's own, which keep NVAPI up while the objects a test drops unload it.
using HeldNvapi = std::vector<NVIDIAGPU::NvAPIInitializer>;

// A desktop GPU whose first sensor measures memory and second the GPU, and a laptop
// GPU without sensors in slot 3. The desktop GPU's memory clock is marked absent.
std::string machine(const std::string& extra = "", const std::string& settings = R"("stereo": true)")
{
    return R"({"nvapi": {)" + settings + R"(}, "gpus": [{"name": "Quadro RTX 8000", "pci": {"bus": 101},
        "nvapi": {"memory": {"dedicated": 50331648}, "systemType": 2, "tach": 1450,
                  "clocks": {"current": {"graphics": 1530000, "memory": {"frequency": 1529999, "present": false}},
                             "base": {"graphics": 1395000, "memory": 7000000}},
                  "thermal": [{"controller": 1, "target": 2, "current": 70}, {"target": 1, "current": 55}]}},
        {"name": "GeForce GTX 1050 Mobile", "pci": {"bus": 2, "device": 3},
         "nvapi": {"memory": {"dedicated": 4194304}, "systemType": 1, "tach": 2100}}])" + extra + "}";
}

// What an object captured when it was built.
std::string summary(const NVIDIAGPU& gpu)
{
    return std::string(gpu.pciLocation().toString(true).str()) + " '" + gpu.name() + "' " +
           std::to_string(gpu.videoMemoryKB()) + " KB" + (gpu.isDesktop() ? " desktop" : "") +
           (gpu.isNotebook() ? " notebook" : "") + (gpu.supportOptimus() ? " Optimus" : "");
}

std::vector<std::string> summaries(const std::vector<NVIDIAGPU>& gpus)
{
    std::vector<std::string> result(gpus.size());
    std::transform(gpus.begin(), gpus.end(), result.begin(), summary);
    return result;
}

// What an object answers when asked now; clocks that a failed read leaves alone show as 77.
std::string answers(const NVIDIAGPU& gpu)
{
    unsigned int mhz[4] = {77, 77, 77, 77};
    std::vector<float> temps{1.0f};
    const bool current = gpu.currentClock(mhz[0], mhz[1]);
    const bool base = gpu.baseClock(mhz[2], mhz[3]);
    const bool temperature = gpu.currentTemperature(temps);
    std::string text = "fan " + std::to_string(gpu.fanSpeed()) + (gpu.isStereoEnabled() ? ", stereo" : ", mono") +
                       (current ? ", current " : ", no current ") + std::to_string(mhz[0]) + "/" +
                       std::to_string(mhz[1]) + (base ? ", base " : ", no base ") + std::to_string(mhz[2]) + "/" +
                       std::to_string(mhz[3]) + (temperature ? ", temperatures" : ", no temperature");
    for (const float temp : temps)
        text += " " + std::to_string(static_cast<int>(temp));
    return text;
}

TEST_F(NvidiaGpu, EnumerateReplacesTheListOnlyWhenNvapiAnswers)
{
    LogCapture capture(Priority::INFO);
    std::vector<NVIDIAGPU> gpus;
    const std::vector<std::string> both = {"0000:65:00.0 'Quadro RTX 8000' 50331648 KB desktop",
                                           "0000:02:00.0 'GeForce GTX 1050 Mobile' 0 KB notebook Optimus"};
    {
        SimulatedMachine simulated(machine(R"(, "faults": {"NvAPI_EnumPhysicalGPUs": [{"call": 1, "return": -6},
            {"call": 2, "count": 0}], "NvAPI_GPU_GetMemoryInfo": {"call": 1, "return": -1},
            "NvAPI_GPU_GetBusSlotId": {"call": 1, "return": -5}})"));
        const HeldNvapi nvapi(8);
        EXPECT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
        EXPECT_EQ(summaries(gpus), both) << "the laptop's memory and slot reads failed, the slot's silently";
        EXPECT_EQ(capture.messages(), (LogLines{{device, 2, "99 Total Video Memory 50331648 kb"},
                                             {device, 3, "28 Function : NvAPI_GPU_GetMemoryInfo returns NVAPI_ERROR"}}))
            << "no memory line for the laptop";
        capture.clear();
        EXPECT_EQ(NVIDIAGPU::enumerate(gpus), 0u);
        EXPECT_EQ(summaries(gpus), both) << "a failed enumeration leaves the list alone";
        EXPECT_EQ(capture.messages(), (LogLines{{device, 3, "28 Function : NvAPI_EnumPhysicalGPUs returns "
                                                            "NVAPI_NVIDIA_DEVICE_NOT_FOUND"}}));
        EXPECT_EQ(NVIDIAGPU::enumerate(gpus), 0u);
        EXPECT_TRUE(gpus.empty()) << "no GPUs empties the list";
    }
    SimulatedMachine unreadable(machine(R"(, "faults": {"NvAPI_GPU_GetBusId": {"device": 1, "return": -8}})"));
    const HeldNvapi nvapi(8);
    capture.clear();
    EXPECT_THROW(NVIDIAGPU::enumerate(gpus), std::exception);
    EXPECT_EQ(gpus.size(), 1u) << "the GPUs before the unreadable one are kept";
    EXPECT_EQ(capture.messages(),
              (LogLines{{device, 2, "99 Total Video Memory 50331648 kb"},
                     {device, 3, "28 Function : NvAPI_GPU_GetBusId returns NVAPI_INVALID_HANDLE"}}));
}

TEST_F(NvidiaGpu, ConstructionByLocationFindsTheGpuThere)
{
    // Elsewhere (another bus, slot or function) an object keeps only the location and has no handle to ask with.
    // NVAPI has no domain: a location in any domain finds its GPU, which has NVAPI's location.
    const std::pair<pci::PciLocation, std::string> rows[] = {
        {{2, 3, 0, 0}, "0000:02:03.0 'GeForce GTX 1050 Mobile' 4194304 KB notebook Optimus, fan 2100"},
        {{2, 3, 0, 0x10002}, "0000:02:03.0 'GeForce GTX 1050 Mobile' 4194304 KB notebook Optimus, fan 2100"},
        {{7, 3, 0, 0}, "0000:07:03.0 '' 0 KB, fan 0"},
        {{2, 0, 0, 0}, "0000:02:00.0 '' 0 KB, fan 0"},
        {{2, 3, 1, 0}, "0000:02:03.1 '' 0 KB, fan 0"}};
    for (const auto& [location, expected] : rows) {
        SCOPED_TRACE(expected);
        SimulatedMachine simulated(machine());
        const HeldNvapi nvapi(8); // the object costs more references than it takes: its enumeration's list dies
        const NVIDIAGPU gpu(location);
        EXPECT_EQ(summary(gpu) + ", fan " + std::to_string(gpu.fanSpeed()), expected);
    }
    {
        // Two GPUs at one bus and slot, in two domains: neither is the one.
        SimulatedMachine simulated(R"({"gpus": [{"pci": {"bus": 2, "device": 3, "domain": 1}, "nvapi": {}},
                                                {"pci": {"bus": 2, "device": 3, "domain": 2}, "nvapi": {}}]})");
        const HeldNvapi nvapi(8);
        EXPECT_EQ(summary(NVIDIAGPU(pci::PciLocation(2, 3, 0, 1))), "0001:02:03.0 '' 0 KB");
    }
    SimulatedMachine simulated(R"({"gpus": []})");
    const HeldNvapi nvapi(8);
    LogCapture capture(Priority::WARNING);
    EXPECT_THROW({ NVIDIAGPU gpu(pci::PciLocation(2, 3, 0, 0)); }, std::exception);
    EXPECT_EQ(capture.messages(), (LogLines{{device, 3, "113 No NVIDIA GPUS enumerated."}}));
}

// Sensors are counted by target but read by position: the desktop GPU's one GPU
// sensor is its second, yet a read gives the first sensor's value. NVAPI is asked
// to describe a failure only for a line that is written.
TEST_F(NvidiaGpu, TemperaturesAreReadByPositionForEachGpuSensor)
{
    const std::string failing = machine(R"(, "faults": {"NvAPI_GPU_GetThermalSettings": {"call": 2, "return": -1}})");
    const struct { const char* name; std::string scenario; std::vector<float> temps; size_t reads; LogLines warnings;
                   Priority::LOGGER_PRIORITY threshold = Priority::WARNING; } rows[] = {
        {"current driver", machine(), {70.0f}, 3, {}},
        {"old driver: revision 2 refused, revision 1 asked", machine("", R"("oldDriver": true)"), {70.0f}, 6, {}},
        {"absurd sensor count", R"({"gpus": [{"pci": {"bus": 1}, "nvapi": {"thermal": [{"target": 1, "current": 40},
            {"target": 1, "current": 41}]}}], "faults": {"NvAPI_GPU_GetThermalSettings": {"count": 1000}}})",
         {40.0f, 41.0f}, 3, {}},
        {"read fails", failing, {}, 3, {{device, 3, "28 Function : NvAPI_GPU_GetThermalSettings returns NVAPI_ERROR"}}},
        {"read fails, not logged", failing, {}, 3, {}, Priority::CRITICAL}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SimulatedMachine simulated(row.scenario);
        const HeldNvapi nvapi(8);
        LogCapture capture(row.threshold);
        std::vector<NVIDIAGPU> gpus;
        NVIDIAGPU::enumerate(gpus);
        std::vector<float> temps{1.0f, 2.0f};
        EXPECT_EQ(!gpus.empty() && gpus[0].currentTemperature(temps), !row.temps.empty());
        EXPECT_EQ(temps, row.temps);
        EXPECT_EQ(simulated.count("NvAPI_GPU_GetThermalSettings"), row.reads) << "per GPU built, per sensor read";
        EXPECT_EQ(capture.messages(), row.warnings);
        EXPECT_EQ(simulated.count("NvAPI_GetErrorMessage"), row.warnings.size());
    }
}

// The list enumerate fills holds no reference (each temporary unloaded what it initialised): once the test lets
// go, NVAPI is down under the objects, whose questions then fail safely; only a temperature read says so.
TEST_F(NvidiaGpu, LiveAnswersAndTheirFailures)
{
    SimulatedMachine simulated(machine());
    auto held = std::make_unique<NVIDIAGPU::NvAPIInitializer>();
    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
    LogCapture capture;
    // Whole MHz; the memory clock is read though marked absent.
    EXPECT_EQ(answers(gpus[0]), "fan 1450, stereo, current 1530/1529, base 1395/7000, temperatures 70");
    EXPECT_EQ(answers(gpus[1]), "fan 2100, stereo, current 0/0, base 0/0, no temperature");
    EXPECT_EQ(capture.messages(), LogLines{});

    held.reset();
    expectNvapiReleased();
    EXPECT_EQ(answers(gpus[0]), "fan 0, mono, no current 77/77, no base 77/77, no temperature");
    // NVAPI cannot describe its status while it is down: the number stands in.
    EXPECT_EQ(capture.messages(), (LogLines{{device, 3, "28 Function : NvAPI_GPU_GetThermalSettings returns -4"}}));
    EXPECT_EQ(summary(gpus[0]), "0000:65:00.0 'Quadro RTX 8000' 50331648 KB desktop") << "captured when built";
    // The one line the Optimus check writes: its trace, under its older name.
    EXPECT_TRUE(capture.has(device, 1, "Entering NVIDIAAdapterInfo::isOptimus (libKestrel/windows/NVIDIAGPU.cpp:150)"));
}

// In SLI exactly when there are partners. The list that receives them holds the
// asking GPU itself, and grows past its room while it is filled.
TEST_F(NvidiaGpu, SliMembershipListsTheOtherGpusOfTheGroup)
{
    const auto group = [](const std::string& faults) {
        return R"({"sli": [[0, 1, 2]], "gpus": [{"name": "A", "pci": {"bus": 1}, "nvapi": {}},
                  {"name": "B", "pci": {"bus": 2}, "nvapi": {}}, {"name": "C", "pci": {"bus": 3}, "nvapi": {}},
                  {"name": "D", "pci": {"bus": 4}, "nvapi": {}}], "faults": {)" + faults + "}}";
    };
    const struct { const char* name; size_t asking; std::string faults; Lines others; LogLines warnings;
                   bool throws = false; } rows[] = {
        {"in a group", 0, "", {"0000:02:00.0 'B' 0 KB desktop", "0000:03:00.0 'C' 0 KB desktop"}, {}},
        {"alone in its logical GPU", 3, "", {}, {}},
        {"no logical GPU", 0, R"("NvAPI_GetLogicalGPUFromPhysicalGPU": {"return": -104})", {},
         {{device, 3, "28 Function : NvAPI_GetLogicalGPUFromPhysicalGPU returns NVAPI_NOT_SUPPORTED"}}},
        {"no members", 0, R"("NvAPI_GetPhysicalGPUsFromLogicalGPU": {"return": -5})", {},
         {{device, 3, "28 Function : NvAPI_GetPhysicalGPUsFromLogicalGPU returns NVAPI_INVALID_ARGUMENT"}}},
        // A count beyond the handles written sends empty handles to the handle
        // constructor, whose unreadable bus throws; nothing is read past the array.
        {"absurd member count", 0, R"("NvAPI_GetPhysicalGPUsFromLogicalGPU": {"count": 9})", {}, {}, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SimulatedMachine simulated(group(row.faults));
        const HeldNvapi nvapi(8);
        std::vector<NVIDIAGPU> gpus;
        EXPECT_EQ(NVIDIAGPU::enumerate(gpus), 4u);
        if (gpus.size() != 4)
            continue;
        std::vector<NVIDIAGPU> list{gpus[row.asking]};
        list.shrink_to_fit();
        LogCapture capture(Priority::WARNING);
        if (row.throws) {
            EXPECT_THROW(list[0].isInSLI(list), std::exception);
            continue;
        }
        EXPECT_EQ(list[0].isInSLI(list), !row.others.empty());
        EXPECT_EQ(summaries(list), row.others);
        EXPECT_EQ(capture.messages(), row.warnings);
    }
}

// Only constructors initialise NVAPI; every object that dies unloads it. References taken and dropped on many
// threads, as hosts do, are counted exactly, and no call runs into a release.
TEST_F(NvidiaGpu, CopiesAndMovesNeverInitialiseButAlwaysUnload)
{
    SimulatedMachine simulated(machine());
    const HeldNvapi keep(8); // NVAPI stays up, so every unload reaches the driver
    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
    EXPECT_EQ(startsAndUnloads(simulated), Calls(10, 2)) << "per GPU built from its handle; two moved into the list";
    {
        NVIDIAGPU copy(gpus[0]);
        NVIDIAGPU moved(std::move(copy));
        copy = gpus[1];
        moved = std::move(copy);
        EXPECT_EQ(summary(moved), summary(gpus[1]));
        EXPECT_EQ(startsAndUnloads(simulated), Calls(10, 2));
    }
    EXPECT_EQ(startsAndUnloads(simulated), Calls(10, 4)) << "the copy and the moved-to object unload once each";
    {
        const NVIDIAGPU byLocation(gpus[1].pciLocation());
        EXPECT_EQ(startsAndUnloads(simulated), Calls(13, 8)) << "its own and its enumeration's; temporaries, list";
    }
    EXPECT_EQ(startsAndUnloads(simulated), Calls(13, 9));

    const unsigned int references = libKestrel::nvapiBinding().references;
    std::vector<std::thread> hosts;
    for (int t = 0; t < 4; ++t)
        hosts.emplace_back([&gpus] {
            for (int i = 0; i < 500; ++i) {
                const NVIDIAGPU::NvAPIInitializer reference;
                EXPECT_EQ(gpus[0].fanSpeed(), 1450u);
            }
        });
    for (std::thread& host : hosts)
        host.join();
    EXPECT_EQ(libKestrel::nvapiBinding().references, references);
    EXPECT_EQ(simulated.count("NvAPI_Initialize"), simulated.count("NvAPI_Unload") + references);
}

// Calls reach the driver only from the first successful NvAPI_Initialize to the unload that balances it; a
// driver still holding resources may refuse an unload, and the reference then stays until it agrees.
TEST_F(Nvapi, TheModuleIsHeldFromTheFirstInitializeToTheBalancingUnload)
{
    SimulatedMachine machine(R"({"gpus": [{"pci": {"bus": 9}, "nvapi": {}}],
                                 "faults": {"NvAPI_Unload": {"call": 1, "return": -1}}})");
    nvapi::NvPhysicalGpuHandle handles[nvapi::NVAPI_MAX_PHYSICAL_GPUS] = {};
    nvapi::NvU32 count = 0;
    EXPECT_EQ(nvapi::NvAPI_EnumPhysicalGPUs(handles, &count), nvapi::NVAPI_API_NOT_INITIALIZED) << "before";
    ASSERT_EQ(nvapi::NvAPI_Initialize(), nvapi::NVAPI_OK);
    ASSERT_EQ(nvapi::NvAPI_Initialize(), nvapi::NVAPI_OK);
    EXPECT_EQ(nvapi::NvAPI_Unload(), nvapi::NVAPI_OK);
    EXPECT_EQ(nvapi::NvAPI_Unload(), nvapi::NVAPI_ERROR) << "refused";
    EXPECT_EQ(nvapi::NvAPI_EnumPhysicalGPUs(handles, &count), nvapi::NVAPI_OK) << "the reference stayed";
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(nvapi::NvAPI_Unload(), nvapi::NVAPI_OK);
    expectNvapiReleased();
    EXPECT_EQ(nvapi::NvAPI_EnumPhysicalGPUs(handles, &count), nvapi::NVAPI_API_NOT_INITIALIZED) << "after";
    EXPECT_EQ(nvapi::NvAPI_Unload(), nvapi::NVAPI_API_NOT_INITIALIZED) << "an extra unload changes nothing";
    EXPECT_EQ(startsAndUnloads(machine), Calls(2, 3)) << "only unloads of a reference reach the driver";
    EXPECT_EQ(machine.count("NvAPI_EnumPhysicalGPUs"), 1u);
}

const char* const oneGpu = R"({"gpus": [{"name": "Only", "pci": {"bus": 9}, "nvapi": {"coreCount": 2560,
                                          "thermal": [{"target": 1, "current": 48}]}}]})";

// Without a usable NVAPI nothing is found and nothing is held.
void expectNoNvapi(nvapi::NvAPI_Status status)
{
    const SourceRun run = runSource(libKestrel::queryNVidiaGPUs, oneGpu, Priority::WARNING);
    EXPECT_TRUE(run.records.empty() && run.status.none());
    EXPECT_EQ(run.lines, (LogLines{{querier, 3, "105 Could not initialize NVAPI"}}));
    expectNvapiReleased();

    EXPECT_EQ(nvapi::NvAPI_Initialize(), status);
    expectNvapiReleased();
    LogCapture capture(Priority::WARNING);
    NVIDIAGPU::NvAPIInitializer initializer;
    std::vector<NVIDIAGPU> gpus;
    EXPECT_EQ(NVIDIAGPU::enumerate(gpus), 0u);
    EXPECT_THROW({ NVIDIAGPU gpu(pci::PciLocation(9, 0, 0, 0)); }, std::exception);
    const LogLine down{device, 3, "28 Function : NvAPI_EnumPhysicalGPUs returns -4"}; // no status text while down
    EXPECT_EQ(capture.messages(), (LogLines{down, down, {device, 3, "113 No NVIDIA GPUS enumerated."}}));
}

// Run once per process that finds no NVAPI on its search path: none at all, a
// file that is no module, a module without nvapi_QueryInterface.
TEST(NvapiAbsent, NothingIsFoundAndNothingIsHeld) { expectNoNvapi(nvapi::NVAPI_LIBRARY_NOT_FOUND); }

TEST(NvapiVariant, ADriverWithoutInitializeIsNotUsed)
{
    const SimulatedModules modules{"sim_nvapi_without_initialize"};
    expectNoNvapi(nvapi::NVAPI_NO_IMPLEMENTATION);
}

// The driver hands out no NvAPI_GPU_GetGpuCoreCount and no NvAPI_GPU_GetThermalSettings.
TEST(NvapiVariant, AMissingEntryCostsOnlyWhatItWouldHaveAnswered)
{
    const SimulatedModules modules{"sim_nvapi_partial"};
    const SourceRun run = runSource(libKestrel::queryNVidiaGPUs, oneGpu, Priority::WARNING);
    EXPECT_EQ(describe(run.records),
              std::vector<std::string>{"0000:09:00.0 name=Only driverVersion=452.6 hardwareAcceleration=true "
                                       "vbiosVersion=86.04.50.00.70 dedicatedMemory=0 availableDedicatedMemory=0 "
                                       "busType=PCI Express eccSupported=false eccEnabled=false sli=false"});
    EXPECT_EQ(run.lines, (LogLines{{perProperty, 3, "212 Could not retrieve GPU core count: -3"}}));
    expectNvapiReleased();
    {
        SimulatedMachine machine(oneGpu);
        NVIDIAGPU::NvAPIInitializer initializer;
        LogCapture capture(Priority::WARNING);
        std::vector<NVIDIAGPU> gpus;
        std::vector<float> temps;
        EXPECT_TRUE(NVIDIAGPU::enumerate(gpus) == 1 && !gpus[0].currentTemperature(temps)) << "no sensors listed";
        EXPECT_EQ(capture.messages(), (LogLines{{device, 3, "28 Function : NvAPI_GPU_GetThermalSettings returns "
                                                            "NVAPI_NO_IMPLEMENTATION"}}));
    }
    expectNvapiReleased();
}

} // namespace
