// The NVML binding and source as a host runs them. NVML is loaded and unloaded
// on every query, so each test chooses its simulated NVML itself: the full one,
// a variant without one entry point, or none.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include <gmock/gmock.h>

#include "common/Paths.h"
#include "common/Test.h"
#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"
#include "libKestrel/internal/multi/NVidiaNvmlGPUQuerierMulti.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace {

using namespace kestrel::test;

const std::string binding = "libKestrel.NVML";
const std::string querier = "libKestrel.NVidiaNvmlGPUQuerierMulti";

// The file the library names when NVML is missing or will not load: below the
// program-files folder (ProgramW6432) on Windows, by soname on Linux.
std::string nvmlFileIn([[maybe_unused]] const std::string& programFiles)
{
#if defined(_WIN32)
    return programFiles + "\\NVIDIA Corporation\\NVSMI\\nvml.dll";
#else
    return "libnvidia-ml.so.1";
#endif
}

// After any query: the library holds no NVML module and no entry point into one.
void expectReleased()
{
    const libKestrel::NVMLFunctions none;
    EXPECT_FALSE(libKestrel::nvmlBinding().library.isLoaded());
    EXPECT_EQ(std::memcmp(&libKestrel::nvmlBinding().functions, &none, sizeof none), 0) << "entry points left behind";
}

// One query of the NVML source: its records, the status it leaves (0b1000 going
// in), its lines at and above the threshold, the simulator's journal, and the
// journal's module loads and unloads and NVML sessions alone.
struct NvmlRun {
    Records records;
    std::bitset<4> status{0b1000};
    LogLines lines;
    Lines journal, lifecycle;
};

// Runs the source with the NVML module of 'module' (a folder under bin/sim, or
// none). The test lets go of the module before reading the journal, so the
// journal shows the module unloaded only when the library let go of it too.
NvmlRun runNvml(const std::string& module, const std::string& scenario, Priority::LOGGER_PRIORITY threshold)
{
    NvmlRun run;
    SimulatedMachine machine(scenario);
    {
        const std::initializer_list<std::string> none{}, chosen{module};
        SimulatedModules modules(module.empty() ? none : chosen);
        LogCapture capture(threshold);
        run.records = libKestrel::queryNVidiaNvmlGPUsMulti(run.status);
        run.lines = capture.messages();
        expectReleased();
    }
    run.journal = machine.journal();
    for (const std::string& event : run.journal)
        if (event == "load nvml" || event == "unload nvml" || event == "nvmlInit_v2" || event == "nvmlShutdown" ||
            event == "nvml initialized" || event == "nvml shut down" || event.rfind("nvml left initialized", 0) == 0)
            run.lifecycle.push_back(event);
    return run;
}

const Lines closed = {"load nvml", "nvmlInit_v2", "nvml initialized", "nvmlShutdown", "nvml shut down", "unload nvml"};

// Two NVIDIA GPUs: the Quadro at 65:00.0; the Tesla at 0002:b3:03.1, whose NVML
// section renames it.
const std::string quadro = R"({
    "name": "Quadro RTX 5000", "pci": {"bus": 101, "device": 0, "function": 0, "domain": 0},
    "nvml": {"uuid": "GPU-3b4f1a2c-0001", "vbios": "90.04.38.00.03",
             "temperature": 45, "slowdownTemperature": 93, "shutdownTemperature": 96,
             "utilization": {"gpu": 37, "memory": 12}, "fanSpeed": 41,
             "memory": {"total": 17179869184, "used": 1073741824},
             "ecc": {"corrected": {"volatile": {"deviceMemory": 1, "l1Cache": 2, "l2Cache": 3, "registerFile": 4},
                                   "aggregate": {"deviceMemory": 10, "l1Cache": 20, "l2Cache": 30, "registerFile": 40}},
                     "uncorrected": {"volatile": {"deviceMemory": 5}, "aggregate": {"registerFile": 7}}},
             "power": 215300, "powerLimit": 250000, "energy": 4318275000, "memoryTemperature": 71,
             "link": {"generation": 3, "width": 8, "maxGeneration": 4, "maxWidth": 16}, "performanceState": 2,
             "clocksEventReasons": 36}})";
const std::string tesla = R"json({
    "name": "Tesla T4", "pci": {"bus": 179, "device": 3, "function": 1, "domain": 2},
    "nvml": {"name": "Tesla T4 (NVML)", "uuid": "GPU-3b4f1a2c-0002", "vbios": "90.04.96.00.01",
             "temperature": 61, "slowdownTemperature": 87, "shutdownTemperature": 90,
             "utilization": {"gpu": 99, "memory": 80}, "fanSpeed": 0,
             "ecc": {"corrected": {"volatile": {}, "aggregate": {}},
                     "uncorrected": {"volatile": {}, "aggregate": {}}}}})json";

// Their records. Memory sizes and the driver version are left to the other
// NVIDIA sources; NVML's function does not reach the location (its domain
// does), so that the records meet theirs.
const std::string quadroRecord =
    "0000:65:00.0 name=Quadro RTX 5000 hardwareAcceleration=true vbiosVersion=90.04.38.00.03 "
    "eccErrorsCorrectedVolatile=10 eccErrorsUncorrectedVolatile=5 eccErrorsCorrectedAggregate=100 "
    "eccErrorsUncorrectedAggregate=7 utilizationGPU=37 utilizationMemory=12 temperatureCurrent=45 "
    "temperatureSlowdown=93 temperatureShutdown=96 uuid=GPU-3b4f1a2c-0001 fanSpeedPercent=41 powerDraw=215300 "
    "powerLimit=250000 energyConsumed=4318275000 temperatureMemory=71 pcieLinkGeneration=3 pcieLinkWidth=8 "
    "pcieLinkGenerationMax=4 pcieLinkWidthMax=16 performanceState=2 clockEventReasons=36";
const std::string teslaRecord =
    "0002:b3:03.0 name=Tesla T4 (NVML) hardwareAcceleration=true vbiosVersion=90.04.96.00.01 "
    "eccErrorsCorrectedVolatile=0 eccErrorsUncorrectedVolatile=0 eccErrorsCorrectedAggregate=0 "
    "eccErrorsUncorrectedAggregate=0 utilizationGPU=99 utilizationMemory=80 temperatureCurrent=61 "
    "temperatureSlowdown=87 temperatureShutdown=90 uuid=GPU-3b4f1a2c-0002 fanSpeedPercent=0";

std::string scenario(const Lines& gpus, const std::string& faults = "{}")
{
    std::string json = R"({"gpus": [)";
    for (size_t i = 0; i < gpus.size(); ++i)
        json += (i ? "," : "") + gpus[i];
    return json + R"(], "faults": )" + faults + "}";
}

std::string both(const std::string& faults) { return scenario({quadro, tesla}, faults); }

// A record text with some of its properties gone (out_of_range if it has none of them).
std::string without(std::string record, const std::string& gone)
{
    return record.erase(record.find(gone), gone.size());
}

// Everything a read of the Quadro alone logs: each value, at trace priority.
LogLines quadroRead()
{
    LogLines lines = {{querier, 1, "158 Enumerated physical NVidia GPU count: 1"},
                      {binding, 1, "67 PCI location: Bus: 101, Device: 0"},
                      {querier, 1, "72 Found PCI location information: 0000:65:00.0"}};
    for (const char* text : {"89 Product name: Quadro RTX 5000", "109 UUID: GPU-3b4f1a2c-0001",
                             "252 Utilization GPU (percent over pas second): 37",
                             "253 Utilization Memory (percent over pas second): 12",
                             "136 VBIOS version: 90.04.38.00.03"})
        lines.push_back({binding, 1, text});
    for (const Lines& ecc : std::vector<Lines>{{"1", "2", "3", "4"}, {"5", "0", "0", "0"}, {"10", "20", "30", "40"},
                                               {"0", "0", "0", "7"}})
        lines.insert(lines.end(), {{binding, 1, "284 ECC device memory errors: " + ecc[0]},
                                   {binding, 1, "285 ECC L1 cache errors: " + ecc[1]},
                                   {binding, 1, "286 ECC L2 cache errors: " + ecc[2]},
                                   {binding, 1, "287 ECC Register file errors: " + ecc[3]}});
    for (const char* text : {"188 Temperature current (Celsius): 45", "208 Temperature slowdown (Celsius): 93",
                             "228 Temperature shutdown (Celsius): 96", "309 Fan speed (percent): 41",
                             "322 Power draw (milliwatts): 215300",
                             "332 Energy since the driver loaded (millijoules): 4318275000",
                             "338 Temperature memory (Celsius): 71", "342 PCIe link generation: 3",
                             "346 PCIe link width (lanes): 8", "362 Performance state: 2",
                             "367 Clock event reasons: 36",
                             "327 Power limit (milliwatts): 250000", "352 PCIe link generation at most: 4",
                             "356 PCIe link width at most (lanes): 16"})
        lines.push_back({binding, 1, text});
    return lines;
}

// The records of both cards are in the rows of the next test.
TEST(NvmlSource, ReadsEveryDeviceAndLogsEachValue)
{
    EXPECT_EQ(runNvml("sim_nvml", scenario({quadro}), Priority::TRACE).lines, quadroRead());
}

TEST(NvmlSource, EachFailureIsReportedAndCostsOnlyWhatDependsOnIt)
{
    const Lines leftOpen = {"load nvml", "nvmlInit_v2", "nvml initialized", "nvmlShutdown", "nvml left initialized: 1",
                            "unload nvml"};
    const auto handleFailure = [](const std::string& why) {
        return LogLine{querier, 4, "171 Failed to retrieve device handle: " + why};
    };
    // A GPU at 01:00.0 with nothing but ECC counts in its NVML section.
    const auto eccOnly = [](const std::string& ecc) {
        return "0000:01:00.0 name=NVIDIA Simulated GPU hardwareAcceleration=true vbiosVersion=90.00.00.00.00 " + ecc +
               " uuid=GPU-00000000-0000-0000-0000-000000000001";
    };
    const struct {
        const char* module;
        std::string scenario;
        LogLines lines; // at and above WARNING
        Lines records;
        Lines lifecycle;
        std::bitset<4> status = 0b1000;
    } rows[] = {
        {"", both("{}"),
         {{binding, 3, "121 Cannot load NVML: File not found: " + nvmlFileIn(SimulatedModules::folder("no_nvml"))},
          {querier, 3, "195 Failed to load NVML"}}, {}, {}},
        {"sim_nvml", both(R"({"nvmlInit_v2": {"return": 9}})"),
         {{querier, 3, "131 Could not initialize NVML: Driver Not Loaded"}}, {},
         {"load nvml", "nvmlInit_v2", "unload nvml"}},
        {"sim_nvml", both(R"({"nvmlDeviceGetCount_v2": {"return": 999}})"),
         {{querier, 4, "152 Failed to retrieve device count: Unknown Error"}}, {}, closed},
        {"sim_nvml", both(R"({"nvmlDeviceGetCount_v2": {"count": 0}})"), {}, {}, closed},
        {"sim_nvml", both(R"({"nvmlShutdown": {"return": 15}})"),
         {{querier, 4, "138 Error shutting down NVML: GPU is lost"}}, {quadroRecord, teslaRecord}, leftOpen},
        // A refused device is skipped; only insufficient power sets status bit 0.
        // Without NVML's texts, the code stands in for the text.
        {"sim_nvml", both(R"({"nvmlDeviceGetHandleByIndex": {"device": 0, "return": 8}})"),
         {handleFailure("Insufficient External Power")}, {teslaRecord}, closed, 0b1001},
        {"sim_nvml", both(R"({"nvmlDeviceGetHandleByIndex": {"device": 0, "return": 15}})"),
         {handleFailure("GPU is lost")}, {teslaRecord}, closed},
        {"sim_nvml",
         both(R"({"nvmlDeviceGetHandleByIndex": {"device": 0, "return": 8}, "nvmlErrorString": {"null": true}})"),
         {handleFailure("8")}, {teslaRecord}, closed, 0b1001},
        // No handle at all, which NVML then rejects: the device has no location.
        {"sim_nvml", both(R"({"nvmlDeviceGetHandleByIndex": {"device": 0, "null": true}})"),
         {{binding, 3, "61 Failed to retrieve NVML PCI location: Invalid Argument"},
          {querier, 3, "63 Could not obtain PCI Location information for nvidia device"}}, {teslaRecord}, closed},
        {"sim_nvml",
         scenario({quadro, R"({"name": "Misplaced", "pci": {"bus": 3, "device": 40}, "nvml": {}})",
                   R"({"name": "Far off", "pci": {"bus": 300}, "nvml": {}})"}),
         {{querier, 3, "64 Device outside the PCI bus, skipped: bus 3, device 40"},
          {querier, 3, "64 Device outside the PCI bus, skipped: bus 300, device 0"}}, {quadroRecord}, closed},
        // An absurd count costs the indices that fail; a count no machine could
        // have ends after the indices that could name distinct locations.
        {"sim_nvml", both(R"({"nvmlDeviceGetCount_v2": {"count": 5}})"), LogLines(3, handleFailure("Invalid Argument")),
         {quadroRecord, teslaRecord}, closed},
        {"sim_nvml", both(R"({"nvmlDeviceGetCount_v2": {"count": 4294967295}})"),
         LogLines(256 * 32 - 2, handleFailure("Invalid Argument")), {quadroRecord, teslaRecord}, closed},
        // Each ECC property sums its pair's four counts as unsigned 64-bit numbers
        // do; a pair NVML refuses (its second call is the uncorrected volatile
        // pair) or does not keep costs only its own property.
        {"sim_nvml", scenario({quadro}, R"({"nvmlDeviceGetDetailedEccErrors": {"call": 1, "return": 15}})"), {},
         {without(quadroRecord, " eccErrorsUncorrectedVolatile=5")}, closed},
        {"sim_nvml", scenario({R"({"pci": {"bus": 1}, "nvml": {"ecc": {
             "corrected": {"volatile": {"l2Cache": 6}, "aggregate": {"l1Cache": 8, "registerFile": 1}},
             "uncorrected": {"volatile": {"deviceMemory": 2}}}}})"}),
         {}, {eccOnly("eccErrorsCorrectedVolatile=6 eccErrorsUncorrectedVolatile=2 eccErrorsCorrectedAggregate=9")},
         closed},
        {"sim_nvml", scenario({R"({"pci": {"bus": 1}, "nvml": {"ecc": {
             "corrected": {"volatile": {"deviceMemory": 18446744073709551615, "l1Cache": 2}}}}})"}),
         {}, {eccOnly("eccErrorsCorrectedVolatile=1")}, closed},
        // NVML drivers without one entry point each.
        {"sim_nvml_without_nvmlInit_v2", both("{}"), {{querier, 3, "124 NvmlInit not available"}}, {},
         {"load nvml", "unload nvml"}},
        {"sim_nvml_without_nvmlDeviceGetCount_v2", both("{}"), {{querier, 3, "146 NvmlDeviceGetCount not available"}},
         {}, closed},
        {"sim_nvml_without_nvmlDeviceGetHandleByIndex", both("{}"),
         {{querier, 3, "162 NvmlDeviceGetHandleByIndex not available"}}, {}, closed},
        {"sim_nvml_without_nvmlShutdown", both("{}"),
         {{querier, 4, "138 Error shutting down NVML: Function Not Found"}}, {quadroRecord, teslaRecord},
         {"load nvml", "nvmlInit_v2", "nvml initialized", "nvml left initialized: 1", "unload nvml"}},
        {"sim_nvml_without_nvmlDeviceGetFanSpeed", both("{}"),
         LogLines(2, {binding, 3, "298 NvmlDeviceGetFanSpeed not available"}),
         {without(quadroRecord, " fanSpeedPercent=41"), without(teslaRecord, " fanSpeedPercent=0")}, closed},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows) + ", " + row.module + ", " +
                     row.scenario.substr(row.scenario.find("\"faults\"")));
        const NvmlRun run = runNvml(row.module, row.scenario, Priority::WARNING);
        EXPECT_EQ(describe(run.records), row.records);
        EXPECT_EQ(run.lines, row.lines);
        EXPECT_EQ(run.status, row.status) << "bits already set are kept";
        EXPECT_EQ(run.lifecycle, row.lifecycle);
        EXPECT_EQ(static_cast<size_t>(std::count(run.journal.begin(), run.journal.end(), "nvmlDeviceGetName")),
                  row.records.size())
            << "a device that gives no record is not read further";
    }
}

#define KESTREL_ENTRY(name) #name, offsetof(libKestrel::NVMLFunctions, name)

TEST(NvmlSource, APropertyNvmlRefusesOrLacksIsLeftAbsentAndTheRestKept)
{
    const LogLine noLocation = {querier, 3, "63 Could not obtain PCI Location information for nvidia device"};
    const struct {
        const char* entry;
        size_t offset; // of the entry in the binding's table
        int code;      // what NVML answers instead
        LogLines refused, missing;
        const char* lost; // the properties the record lacks then; null: no record at all
    } rows[] = {
        {KESTREL_ENTRY(nvmlDeviceGetName), 7,
         {{binding, 1, "85 Failed to retrieve NVML device name: Insufficient Size"}},
         {{binding, 3, "78 NvmlDeviceGetName not available"}}, " name=Quadro RTX 5000"},
        {KESTREL_ENTRY(nvmlDeviceGetUUID), 3, {{binding, 1, "105 Failed to retrieve NVML UUID: Not Supported"}},
         {{binding, 3, "98 NvmlDeviceGetUUID not available"}}, " uuid=GPU-3b4f1a2c-0001"},
        {KESTREL_ENTRY(nvmlDeviceGetUtilizationRates), 3,
         {{binding, 1, "246 Failed to retrieve NVML GPU/Memory utilization: Not Supported"}},
         {{binding, 3, "237 NvmlDeviceGetUtilizationRates not available"}}, " utilizationGPU=37 utilizationMemory=12"},
        {KESTREL_ENTRY(nvmlDeviceGetVbiosVersion), 14,
         {{binding, 1, "125 Failed to retrieve NVML VBIOS version string: Corrupted infoROM"}},
         {{binding, 3, "118 NvmlDeviceGetVbiosVersion not available"}}, " vbiosVersion=90.04.38.00.03"},
        {KESTREL_ENTRY(nvmlDeviceGetDetailedEccErrors), 3,
         LogLines(4, {binding, 1, "278 Failed to retrieve NVML ECC memory error count: Not Supported"}),
         LogLines(4, {binding, 3, "268 NvmlDeviceGetDetailedEccErrors not available"}),
         " eccErrorsCorrectedVolatile=10 eccErrorsUncorrectedVolatile=5 eccErrorsCorrectedAggregate=100 "
         "eccErrorsUncorrectedAggregate=7"},
        {KESTREL_ENTRY(nvmlDeviceGetTemperature), 15,
         {{binding, 1, "184 Failed to retrieve NVML current temperature: GPU is lost"}},
         {{binding, 3, "177 NvmlDeviceGetTemperature not available"}}, " temperatureCurrent=45"},
        {KESTREL_ENTRY(nvmlDeviceGetTemperatureThreshold), 3,
         {{binding, 1, "204 Failed to retrieve NVML VBIOS slowdown temperature: Not Supported"},
          {binding, 1, "224 Failed to retrieve NVML VBIOS shutdown temperature: Not Supported"}},
         {{binding, 3, "197 NvmlDeviceGetTemperatureThreshold not available"},
          {binding, 3, "217 NvmlDeviceGetTemperatureThreshold not available"}},
         " temperatureSlowdown=93 temperatureShutdown=96"},
        {KESTREL_ENTRY(nvmlDeviceGetFanSpeed), 3,
         {{binding, 1, "305 Failed to retrieve NVML fan speed: Not Supported"}},
         {{binding, 3, "298 NvmlDeviceGetFanSpeed not available"}}, " fanSpeedPercent=41"},
        {KESTREL_ENTRY(nvmlDeviceGetPowerUsage), 3,
         {{binding, 1, "321 Failed to retrieve NVML power usage: Not Supported"}},
         {{binding, 3, "320 NvmlDeviceGetPowerUsage not available"}}, " powerDraw=215300"},
        {KESTREL_ENTRY(nvmlDeviceGetEnforcedPowerLimit), 4,
         {{binding, 1, "326 Failed to retrieve NVML enforced power limit: Insufficient Permissions"}},
         {{binding, 3, "325 NvmlDeviceGetEnforcedPowerLimit not available"}}, " powerLimit=250000"},
        {KESTREL_ENTRY(nvmlDeviceGetTotalEnergyConsumption), 3,
         {{binding, 1, "331 Failed to retrieve NVML total energy consumption: Not Supported"}},
         {{binding, 3, "330 NvmlDeviceGetTotalEnergyConsumption not available"}}, " energyConsumed=4318275000"},
        {KESTREL_ENTRY(nvmlDeviceGetFieldValues), 2,
         {{binding, 1, "336 Failed to retrieve NVML memory temperature: Invalid Argument"}},
         {{binding, 3, "335 NvmlDeviceGetFieldValues not available"}}, " temperatureMemory=71"},
        {KESTREL_ENTRY(nvmlDeviceGetCurrPcieLinkGeneration), 3,
         {{binding, 1, "341 Failed to retrieve NVML current PCIe link generation: Not Supported"}},
         {{binding, 3, "340 NvmlDeviceGetCurrPcieLinkGeneration not available"}}, " pcieLinkGeneration=3"},
        {KESTREL_ENTRY(nvmlDeviceGetCurrPcieLinkWidth), 3,
         {{binding, 1, "345 Failed to retrieve NVML current PCIe link width: Not Supported"}},
         {{binding, 3, "344 NvmlDeviceGetCurrPcieLinkWidth not available"}}, " pcieLinkWidth=8"},
        {KESTREL_ENTRY(nvmlDeviceGetMaxPcieLinkGeneration), 3,
         {{binding, 1, "351 Failed to retrieve NVML maximum PCIe link generation: Not Supported"}},
         {{binding, 3, "350 NvmlDeviceGetMaxPcieLinkGeneration not available"}}, " pcieLinkGenerationMax=4"},
        {KESTREL_ENTRY(nvmlDeviceGetMaxPcieLinkWidth), 3,
         {{binding, 1, "355 Failed to retrieve NVML maximum PCIe link width: Not Supported"}},
         {{binding, 3, "354 NvmlDeviceGetMaxPcieLinkWidth not available"}}, " pcieLinkWidthMax=16"},
        {KESTREL_ENTRY(nvmlDeviceGetPerformanceState), 15,
         {{binding, 1, "361 Failed to retrieve NVML performance state: GPU is lost"}},
         {{binding, 3, "360 NvmlDeviceGetPerformanceState not available"}}, " performanceState=2"},
        {KESTREL_ENTRY(nvmlDeviceGetPciInfo_v2), 3,
         {{binding, 3, "61 Failed to retrieve NVML PCI location: Not Supported"}, noLocation},
         {{binding, 3, "53 NvmlDeviceGetPciInfo not available"}, noLocation}, nullptr},
    };
    const auto expected = [](const char* lost) { return lost ? Lines{without(quadroRecord, lost)} : Lines{}; };

    // NVML refuses the call for the device: the lines that a sound read does not log.
    const LogLines sound = quadroRead();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.entry);
        const NvmlRun run = runNvml("sim_nvml", scenario({quadro}, std::string("{\"") + row.entry +
                                    R"(": {"device": 0, "return": )" + std::to_string(row.code) + "}}"),
                                    Priority::TRACE);
        EXPECT_EQ(describe(run.records), expected(row.lost));
        LogLines unsound;
        for (const LogLine& line : run.lines)
            if (std::find(sound.begin(), sound.end(), line) == sound.end())
                unsound.push_back(line);
        EXPECT_EQ(unsound, row.refused);
        EXPECT_EQ(run.lifecycle, closed);
    }

    // The driver lacks the entry point: the device is read through entries without it.
    SimulatedModules modules{"sim_nvml"};
    SimulatedMachine machine(scenario({quadro}));
    ASSERT_TRUE(libKestrel::initializeLibrary());
    libKestrel::ScopeExit release(libKestrel::uninitializeLibrary);
    const libKestrel::NVMLFunctions& full = libKestrel::nvmlBinding().functions;
    ASSERT_EQ(full.nvmlInit_v2(), libKestrel::nvml::NVML_SUCCESS);
    libKestrel::ScopeExit shutdown(full.nvmlShutdown);
    libKestrel::nvml::nvmlDevice_t device = nullptr;
    ASSERT_EQ(full.nvmlDeviceGetHandleByIndex(0, &device), libKestrel::nvml::NVML_SUCCESS);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.entry);
        libKestrel::NVMLFunctions lacking = full;
        std::memset(reinterpret_cast<char*>(&lacking) + row.offset, 0, sizeof lacking.nvmlInit_v2);
        LogCapture capture(Priority::WARNING);
        EXPECT_EQ(describe(libKestrel::queryNVidiaGPU(lacking, device)), expected(row.lost));
        EXPECT_EQ(capture.messages(), row.missing);
    }
}

// Each reading at its bounds and past them, in the value types NVML gives a
// field in: a reading no GPU gives is the driver's error, left out and said.
TEST(NvmlSource, AReadingBeyondAnyGpuIsLeftOutAndSaid)
{
    const auto beyond = [](const std::string& what) {
        return LogLine{binding, 3, "370 Reading beyond any GPU left out: " + what};
    };
    const struct {
        const char* readings; // of the device's NVML section
        const char* record;   // what the record holds of them
        LogLines lines;       // at WARNING and above
    } rows[] = {
        {R"("power": 10000000, "powerLimit": 10000001)", " powerDraw=10000000",
         {beyond("Power limit (milliwatts): 10000001")}},
        {R"("energy": 31557600000000000)", " energyConsumed=31557600000000000", {}},
        {R"("energy": 31557600000000001)", "",
         {beyond("Energy since the driver loaded (millijoules): 31557600000000001")}},
        {R"("memoryTemperature": 200)", " temperatureMemory=200", {}},
        {R"("memoryTemperature": 201)", "", {beyond("Temperature memory (Celsius): 201")}},
        {R"("memoryTemperature": {"type": 0, "value": 72})", " temperatureMemory=72", {}},
        {R"("memoryTemperature": {"type": 3, "value": 73})", " temperatureMemory=73", {}},
        {R"("memoryTemperature": {"type": 6, "value": 74})", " temperatureMemory=74", {}},
        {R"("memoryTemperature": {"type": 5, "value": -3})", "", {beyond("Temperature memory (Celsius): -3")}},
        {R"("memoryTemperature": {"type": 9, "value": 70})", "",
         {{binding, 3, "337 Memory temperature of a value type NVML does not name left out: 9"}}},
        {R"("memoryTemperature": {"value": 70, "return": 3})", "", {}}, // refused for the field alone: a trace
        {R"("link": {"generation": 7, "width": 32, "maxGeneration": 8, "maxWidth": 33})",
         " pcieLinkGeneration=7 pcieLinkWidth=32",
         {beyond("PCIe link generation at most: 8"), beyond("PCIe link width at most (lanes): 33")}},
        {R"("link": {"generation": 0, "width": 0, "maxGeneration": 1, "maxWidth": 1})",
         " pcieLinkGenerationMax=1 pcieLinkWidthMax=1",
         {beyond("PCIe link generation: 0"), beyond("PCIe link width (lanes): 0")}},
        {R"("performanceState": 15, "clocksEventReasons": 0)", " performanceState=15 clockEventReasons=0", {}},
        {R"("performanceState": 32)", "", {}}, // NVML cannot tell
        {R"("performanceState": 16)", "", {beyond("Performance state: 16")}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.readings);
        const NvmlRun run = runNvml("sim_nvml", scenario({std::string(R"({"pci": {"bus": 1}, "nvml": {)") +
                                                          row.readings + "}}"}),
                                    Priority::WARNING);
        EXPECT_EQ(describe(run.records),
                  Lines{"0000:01:00.0 name=NVIDIA Simulated GPU hardwareAcceleration=true vbiosVersion=90.00.00.00.00 "
                        "uuid=GPU-00000000-0000-0000-0000-000000000001" + std::string(row.record)});
        EXPECT_EQ(run.lines, row.lines);
    }
}

// A driver older than nvmlDeviceGetCurrentClocksEventReasons is asked by the
// older name, which gives the same bits; without either the reasons are absent.
TEST(NvmlSource, ClockEventReasonsComeThroughTheOlderNameWhenTheNewerIsMissing)
{
    for (const char* module : {"sim_nvml", "sim_nvml_without_nvmlDeviceGetCurrentClocksEventReasons"}) {
        SCOPED_TRACE(module);
        const NvmlRun run = runNvml(module, scenario({quadro}), Priority::WARNING);
        EXPECT_EQ(describe(run.records), Lines{quadroRecord});
        const bool older = std::string(module) != "sim_nvml";
        EXPECT_EQ(std::count(run.journal.begin(), run.journal.end(), "nvmlDeviceGetCurrentClocksThrottleReasons"),
                  older ? 1 : 0);
        EXPECT_EQ(std::count(run.journal.begin(), run.journal.end(), "nvmlDeviceGetCurrentClocksEventReasons"),
                  older ? 0 : 1);
    }

    SimulatedModules modules{"sim_nvml"};
    SimulatedMachine machine(scenario({quadro}));
    ASSERT_TRUE(libKestrel::initializeLibrary());
    libKestrel::ScopeExit release(libKestrel::uninitializeLibrary);
    libKestrel::NVMLFunctions lacking = libKestrel::nvmlBinding().functions;
    ASSERT_EQ(lacking.nvmlInit_v2(), libKestrel::nvml::NVML_SUCCESS);
    libKestrel::ScopeExit shutdown(lacking.nvmlShutdown);
    libKestrel::nvml::nvmlDevice_t device = nullptr;
    ASSERT_EQ(lacking.nvmlDeviceGetHandleByIndex(0, &device), libKestrel::nvml::NVML_SUCCESS);
    lacking.nvmlDeviceGetCurrentClocksEventReasons = nullptr;
    lacking.nvmlDeviceGetCurrentClocksThrottleReasons = nullptr;
    LogCapture capture(Priority::WARNING);
    EXPECT_EQ(describe(libKestrel::queryNVidiaGPU(lacking, device)),
              Lines{without(quadroRecord, " clockEventReasons=36")});
    EXPECT_EQ(capture.messages(), (LogLines{{binding, 3, "365 NvmlDeviceGetCurrentClocksEventReasons not available"}}));
}

TEST(NvmlSource, TextsEndAtTheirNulAndNeverRunPastOurBuffer)
{
    const std::string name64(64, 'N');
    const std::string vbios31 = "90.04.38.00.03.0123456789ABCDEF"; // with its NUL, the whole 32-byte buffer
    std::string uuid80; // the UUID repeated over the whole 80-byte buffer
    for (int i = 0; i < 16; ++i)
        uuid80 += "GPU-1";
    // Device 0's driver fills the whole buffer and writes no NUL; a well-behaved
    // NVML refuses device 1's texts, which do not fit with their NUL.
    const NvmlRun run = runNvml(
        "sim_nvml",
        scenario({R"({"pci": {"bus": 1}, "nvml": {"name": ")" + name64 + R"(", "uuid": "GPU-1", "vbios": ")" + vbios31 +
                      R"("}})",
                  R"({"pci": {"bus": 2}, "nvml": {"name": ")" + name64 + R"(", "vbios": ")" + vbios31 + R"(X"}})"},
                 R"({"nvmlDeviceGetName": {"device": 0, "unterminated": true},
                     "nvmlDeviceGetUUID": {"device": 0, "unterminated": true}})"),
        Priority::TRACE);
    EXPECT_EQ(describe(run.records),
              (Lines{"0000:01:00.0 name=" + name64 + " hardwareAcceleration=true vbiosVersion=" + vbios31 +
                         " uuid=" + uuid80,
                     "0000:02:00.0 hardwareAcceleration=true uuid=GPU-00000000-0000-0000-0000-000000000002"}));
    EXPECT_THAT(run.lines, testing::Contains(LogLine{binding, 1, "89 Product name: " + name64}));
}

// Run in a process of its own, whose module search path holds a file under
// NVML's name that is no module: a graver failure than absence.
TEST(NvmlUnloadable, IsReportedAsAFailedLoad)
{
    std::string folder;
#if defined(_WIN32)
    folder = SimulatedModules::folder("sim_nvml_unloadable");
    SetEnvironmentVariableA("ProgramW6432", folder.c_str()); // Wine sets it as the process starts
#endif
    const SourceRun run = runSource(libKestrel::queryNVidiaNvmlGPUsMulti, "{}", Priority::WARNING);
    EXPECT_EQ(run.records.size(), 0u);
    EXPECT_TRUE(run.status.none());
    EXPECT_EQ(run.lines,
              (LogLines{{binding, 4, "128 Cannot load NVML: failed to load the nvml.dll file from: " +
                                         nvmlFileIn(folder)},
                        {querier, 3, "195 Failed to load NVML"}}));
    expectReleased();
}

#if defined(_WIN32)
// NVML is looked for only below ProgramW6432, which Wine sets as the process
// starts; SimulatedModules puts it back afterwards.
TEST(NvmlBinding, ProgramFilesFolderIsTakenAsItStands)
{
    SimulatedModules modules{"sim_nvml"};
    SimulatedMachine machine("{}");
    LogCapture capture(Priority::WARNING);

    // A 32-bit-only system has no ProgramW6432: nothing is looked for.
    SetEnvironmentVariableA("ProgramW6432", nullptr);
    EXPECT_FALSE(libKestrel::initializeLibrary());

    // A trailing backslash is kept, so the path has two in a row, which Windows
    // reads as one: the library is found and loads.
    SetEnvironmentVariableA("ProgramW6432", (SimulatedModules::folder("sim_nvml") + "\\").c_str());
    EXPECT_TRUE(libKestrel::initializeLibrary());
    EXPECT_NE(libKestrel::nvmlBinding().functions.nvmlInit_v2, nullptr);
    libKestrel::uninitializeLibrary();
    expectReleased();

    // Where it is not found, the message shows the doubled backslash.
    const std::string elsewhere = executableDirectory();
    ASSERT_EQ(elsewhere.back(), '\\');
    SetEnvironmentVariableA("ProgramW6432", elsewhere.c_str());
    EXPECT_FALSE(libKestrel::initializeLibrary());
    expectReleased(); // a failed load leaves nothing held

    EXPECT_EQ(capture.messages(),
              (LogLines{{binding, 3, "115 Cannot load NVML: Could not obtain path for the program files directory"},
                        {binding, 3, "121 Cannot load NVML: File not found: " + nvmlFileIn(elsewhere)}}));
    EXPECT_EQ(machine.journal(), Lines{}) << "loading calls no NVML function";
}
#endif

} // namespace
