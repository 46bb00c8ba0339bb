#include <bitset>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "NvmlTesting.h"
#include "common/LogCapture.h"
#include "common/Simulator.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"
#include "libKestrel/internal/multi/NVidiaNvmlGPUQuerierMulti.h"

namespace {

using namespace kestrel::test;
using libKestrel::IGPU;
using Priority = tova::LoggerPriority;
using Lines = std::vector<std::string>;
using Records = std::vector<std::shared_ptr<IGPU>>;

const char* const querier = "libKestrel.NVidiaNvmlGPUQuerierMulti";
const char* const nvmlLogger = "libKestrel.NVML";

class NvmlSource : public NvmlTest {};

// The source as a host calls it; whatever happened, NVML must be unloaded and
// the binding empty afterwards.
Records runSource(std::bitset<4>& status)
{
    Records records = libKestrel::queryNVidiaNvmlGPUsMulti(status);
    expectNvmlReleased();
    return records;
}

Records runSource()
{
    std::bitset<4> status;
    Records records = runSource(status);
    EXPECT_TRUE(status.none()) << "only a device refused for power touches the status";
    return records;
}

// The NVML session was opened, closed, and the module unloaded afterwards.
void expectShutDownAndUnloaded(const SimulatedMachine& machine)
{
    EXPECT_TRUE(happenedInOrder(machine.journal(), "nvml initialized", "nvml shut down"));
    EXPECT_TRUE(happenedInOrder(machine.journal(), "nvml shut down", "unload nvml"));
}

Lines eccLines(unsigned deviceMemory, unsigned l1, unsigned l2, unsigned registerFile)
{
    return {"1|284 ECC device memory errors: " + std::to_string(deviceMemory),
            "1|285 ECC L1 cache errors: " + std::to_string(l1), "1|286 ECC L2 cache errors: " + std::to_string(l2),
            "1|287 ECC Register file errors: " + std::to_string(registerFile)};
}

TEST_F(NvmlSource, ReadsEveryPropertyOfEachDeviceInOrderAndLogsEachValue)
{
    SimulatedMachine machine(scenario({quadro}));
    LogCapture capture;
    const Records records = runSource();
    ASSERT_EQ(records.size(), 1u);

    Lines expected = {"1|67 PCI location: Bus: 101, Device: 0", "1|89 Product name: Quadro RTX 5000",
                      "1|109 UUID: GPU-3b4f1a2c-0001", "1|252 Utilization GPU (percent over pas second): 37",
                      "1|253 Utilization Memory (percent over pas second): 12", "1|136 VBIOS version: 90.04.38.00.03"};
    for (const Lines& ecc : {eccLines(1, 2, 3, 4), eccLines(5, 0, 0, 0), eccLines(10, 20, 30, 40), eccLines(0, 0, 0, 7)})
        expected.insert(expected.end(), ecc.begin(), ecc.end());
    expected.insert(expected.end(), {"1|188 Temperature current (Celsius): 45", "1|208 Temperature slowdown (Celsius): 93",
                                     "1|228 Temperature shutdown (Celsius): 96", "1|309 Fan speed (percent): 41"});
    EXPECT_EQ(capture.messages(nvmlLogger), expected);
    EXPECT_EQ(capture.messages(querier), (Lines{"1|158 Enumerated physical NVidia GPU count: 1",
                                                   "1|72 Found PCI location information: 0000:65:00.0"}));

    // The two threshold queries trace under the current-temperature query's name.
    for (const char* trace : {"query_TemperatureCurrent (libKestrel/src/multi/NVidia/nv_nvml.cpp:174)",
                              "query_TemperatureCurrent (libKestrel/src/multi/NVidia/nv_nvml.cpp:194)",
                              "query_TemperatureCurrent (libKestrel/src/multi/NVidia/nv_nvml.cpp:214)",
                              "query_ECCMemoryErrors (libKestrel/src/multi/NVidia/nv_nvml.cpp:261)"})
        EXPECT_TRUE(capture.has(nvmlLogger, 1, std::string("Entering ") + trace)) << trace;
    for (const char* trace : {"queryNVidiaNvmlGPUsMulti (libKestrel/src/multi/NVidiaNvmlGPUQuerierMulti.cpp:189)",
                              "queryNVidiaGPUsMultiWorker (libKestrel/src/multi/NVidiaNvmlGPUQuerierMulti.cpp:119)",
                              "queryNVidiaGPU (libKestrel/src/multi/NVidiaNvmlGPUQuerierMulti.cpp:55)"})
        EXPECT_TRUE(capture.has(querier, 1, std::string("Entering ") + trace)) << trace;

    // Looked up, never called.
    EXPECT_EQ(machine.count("nvmlSystemGetDriverVersion"), 0u);
    EXPECT_EQ(machine.count("nvmlDeviceGetMemoryInfo"), 0u);
    expectShutDownAndUnloaded(machine);
}

TEST_F(NvmlSource, InitCountAndShutdownFailuresAreLoggedAndNvmlStillReleased)
{
    struct Case {
        const char* faults;
        Lines querierLines;
        size_t records;
        bool sessionOpened;
    } cases[] = {
        {R"({"nvmlInit_v2": {"return": 9}})", {"3|131 Could not initialize NVML: Driver Not Loaded"}, 0, false},
        {R"({"nvmlDeviceGetCount_v2": {"return": 999}})", {"4|152 Failed to retrieve device count: Unknown Error"}, 0,
         true},
        {R"({"nvmlDeviceGetCount_v2": {"count": 0}})", {"1|158 Enumerated physical NVidia GPU count: 0"}, 0, true},
        {R"({"nvmlShutdown": {"return": 15}})",
         {"1|158 Enumerated physical NVidia GPU count: 2", "1|72 Found PCI location information: 0000:65:00.0",
          "1|72 Found PCI location information: 0000:b3:03.0", "4|138 Error shutting down NVML: GPU is lost"},
         2, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.faults);
        SimulatedMachine machine(scenario({quadro, tesla}, c.faults));
        LogCapture capture;
        EXPECT_EQ(runSource().size(), c.records);
        EXPECT_EQ(capture.messages(querier), c.querierLines);
        EXPECT_EQ(machine.count("nvmlShutdown"), c.sessionOpened ? 1u : 0u) << "shut down exactly when initialised";
        EXPECT_TRUE(happenedInOrder(machine.journal(), "load nvml", "unload nvml"));
    }
}

TEST_F(NvmlSource, ARefusedDeviceIsSkippedAndOnlyInsufficientPowerSetsStatusBit0)
{
    // The last case's NVML gives no error texts: the code stands in for the text.
    const std::tuple<const char*, bool, const char*> cases[] = {
        {R"({"nvmlDeviceGetHandleByIndex": {"device": 0, "return": 8}})", true, "Insufficient External Power"},
        {R"({"nvmlDeviceGetHandleByIndex": {"device": 0, "return": 15}})", false, "GPU is lost"},
        {R"({"nvmlDeviceGetHandleByIndex": {"device": 0, "return": 8}, "nvmlErrorString": {"null": true}})", true,
         "8"}};
    for (const auto& [faults, bit0, reason] : cases) {
        SCOPED_TRACE(faults);
        SimulatedMachine machine(scenario({quadro, tesla}, faults));
        LogCapture capture(Priority::WARNING);
        std::bitset<4> status;
        status.set(3);
        const Records records = runSource(status);

        ASSERT_EQ(records.size(), 1u) << "the device after the refused one still comes back";
        EXPECT_EQ(records[0]->name(), "Tesla T4 (NVML)");
        EXPECT_EQ(status, std::bitset<4>(bit0 ? 0b1001 : 0b1000)) << "bits already set are kept";
        EXPECT_EQ(capture.messages(querier),
                  Lines{std::string("4|171 Failed to retrieve device handle: ") + reason});
        expectShutDownAndUnloaded(machine);
    }
}

TEST_F(NvmlSource, ADeviceWithoutAPciLocationGivesNoRecordWhileTheOthersDo)
{
    // NVML refuses the PCI information; or it hands out no handle at all, which
    // NVML then rejects as an invalid argument.
    const std::pair<const char*, const char*> cases[] = {
        {R"({"nvmlDeviceGetPciInfo_v2": {"device": 0, "return": 3}})", "Not Supported"},
        {R"({"nvmlDeviceGetHandleByIndex": {"device": 0, "null": true}})", "Invalid Argument"}};
    for (const auto& [faults, reason] : cases) {
        SCOPED_TRACE(faults);
        SimulatedMachine machine(scenario({quadro, tesla}, faults));
        LogCapture capture(Priority::WARNING);
        const Records records = runSource();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]->pciLocation()->bus, 179);
        EXPECT_EQ(capture.messages(nvmlLogger),
                  Lines{std::string("3|61 Failed to retrieve NVML PCI location: ") + reason});
        EXPECT_EQ(capture.messages(querier),
                  Lines{"3|63 Could not obtain PCI Location information for nvidia device"});
        EXPECT_EQ(machine.count("nvmlDeviceGetName"), 1u) << "nothing more is asked about the skipped device";
        expectShutDownAndUnloaded(machine);
    }
}

TEST_F(NvmlSource, ADevicePlacedOffThePciBusGivesNoRecord)
{
    SimulatedMachine machine(scenario({quadro, R"({"name": "Misplaced", "pci": {"bus": 3, "device": 40}, "nvml": {}})",
                                       R"({"name": "Far off", "pci": {"bus": 300}, "nvml": {}})"}));
    LogCapture capture(Priority::WARNING);
    const Records records = runSource();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(capture.messages(querier), (Lines{"3|64 Device outside the PCI bus, skipped: bus 3, device 40",
                                                "3|64 Device outside the PCI bus, skipped: bus 300, device 0"}));
    expectShutDownAndUnloaded(machine);
}

TEST_F(NvmlSource, EachPropertyNvmlRefusesIsLeftAbsentAndTheRestIsKept)
{
    SimulatedMachine machine(scenario({quadro, tesla}, R"({
        "nvmlDeviceGetName": {"device": 0, "return": 7},
        "nvmlDeviceGetUUID": {"device": 0, "return": 3},
        "nvmlDeviceGetUtilizationRates": {"device": 0, "return": 3},
        "nvmlDeviceGetVbiosVersion": {"device": 0, "return": 14},
        "nvmlDeviceGetDetailedEccErrors": {"device": 0, "return": 3},
        "nvmlDeviceGetTemperature": {"device": 0, "return": 15},
        "nvmlDeviceGetTemperatureThreshold": {"device": 0, "return": 3},
        "nvmlDeviceGetFanSpeed": {"device": 0, "return": 3}})"));
    LogCapture capture;
    const Records records = runSource();
    ASSERT_EQ(records.size(), 2u);

    EXPECT_EQ(describe(*records[0]), "0000:65:00.0 hardwareAcceleration=true");
    EXPECT_EQ(records[1]->name(), "Tesla T4 (NVML)");
    EXPECT_EQ(records[1]->fanSpeedPercent(), 0u) << "a reading of 0 is a reading";

    const Lines nvmlLines = capture.messages(nvmlLogger);
    const Lines device0(nvmlLines.begin(), nvmlLines.begin() + 14);
    EXPECT_EQ(device0, (Lines{"1|67 PCI location: Bus: 101, Device: 0",
                              "1|85 Failed to retrieve NVML device name: Insufficient Size",
                              "1|105 Failed to retrieve NVML UUID: Not Supported",
                              "1|246 Failed to retrieve NVML GPU/Memory utilization: Not Supported",
                              "1|125 Failed to retrieve NVML VBIOS version string: Corrupted infoROM",
                              "1|278 Failed to retrieve NVML ECC memory error count: Not Supported",
                              "1|278 Failed to retrieve NVML ECC memory error count: Not Supported",
                              "1|278 Failed to retrieve NVML ECC memory error count: Not Supported",
                              "1|278 Failed to retrieve NVML ECC memory error count: Not Supported",
                              "1|184 Failed to retrieve NVML current temperature: GPU is lost",
                              "1|204 Failed to retrieve NVML VBIOS slowdown temperature: Not Supported",
                              "1|224 Failed to retrieve NVML VBIOS shutdown temperature: Not Supported",
                              "1|305 Failed to retrieve NVML fan speed: Not Supported",
                              "1|67 PCI location: Bus: 179, Device: 3"}));
}

TEST_F(NvmlSource, EccCountsAreSummedPerPairAndAFailingPairCostsOnlyItsProperty)
{
    struct Case {
        std::string gpu;
        const char* faults;
        std::optional<std::uint64_t> correctedVolatile, uncorrectedVolatile, correctedAggregate, uncorrectedAggregate;
        size_t failures;
    };
    const std::string withoutUncorrectedAggregate = R"({"pci": {"bus": 1}, "nvml": {"ecc": {
        "corrected": {"volatile": {"l2Cache": 6}, "aggregate": {"l1Cache": 8, "registerFile": 1}},
        "uncorrected": {"volatile": {"deviceMemory": 2}}}}})";
    const std::string wrapping = R"({"pci": {"bus": 1}, "nvml": {"ecc": {
        "corrected": {"volatile": {"deviceMemory": 18446744073709551615, "l1Cache": 2}}}}})";
    const Case cases[] = {
        {quadro, "{}", 10, 5, 100, 7, 0},
        // NVML's second call is the uncorrected volatile pair.
        {quadro, R"({"nvmlDeviceGetDetailedEccErrors": {"call": 1, "return": 15}})", 10, std::nullopt, 100, 7, 1},
        {withoutUncorrectedAggregate, "{}", 6, 2, 9, std::nullopt, 1},
        // Counts add up as unsigned 64-bit numbers do.
        {wrapping, "{}", 1, std::nullopt, std::nullopt, std::nullopt, 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.gpu + c.faults);
        SimulatedMachine machine(scenario({c.gpu}, c.faults));
        LogCapture capture;
        const Records records = runSource();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]->eccErrorsCorrectedVolatile(), c.correctedVolatile);
        EXPECT_EQ(records[0]->eccErrorsUncorrectedVolatile(), c.uncorrectedVolatile);
        EXPECT_EQ(records[0]->eccErrorsCorrectedAggregate(), c.correctedAggregate);
        EXPECT_EQ(records[0]->eccErrorsUncorrectedAggregate(), c.uncorrectedAggregate);
        EXPECT_EQ(capture.count("278 Failed to retrieve NVML ECC memory error count: "), c.failures);
    }
}

TEST_F(NvmlSource, TextsEndAtTheirNulAndNeverRunPastOurBuffer)
{
    const std::string name64(64, 'N');
    const std::string vbios31 = "90.04.38.00.03.0123456789ABCDEF";
    SimulatedMachine machine(scenario(
        {R"({"pci": {"bus": 1}, "nvml": {"name": ")" + name64 + R"(", "uuid": "GPU-1", "vbios": ")" + vbios31 + R"("}})",
         R"({"pci": {"bus": 2}, "nvml": {"name": ")" + name64 + R"(", "vbios": ")" + vbios31 + R"(X"}})"},
        // Device 0's driver fills the whole buffer and writes no NUL.
        R"({"nvmlDeviceGetName": {"device": 0, "unterminated": true},
            "nvmlDeviceGetUUID": {"device": 0, "unterminated": true}})"));
    LogCapture capture;
    const Records records = runSource();
    ASSERT_EQ(records.size(), 2u);

    EXPECT_EQ(records[0]->name(), name64);
    std::string uuid80;
    while (uuid80.size() < 80)
        uuid80 += "GPU-1";
    EXPECT_EQ(records[0]->uuid(), uuid80);
    EXPECT_TRUE(capture.has(nvmlLogger, 1, "89 Product name: " + name64));
    EXPECT_EQ(records[0]->vbiosVersion(), vbios31) << "31 characters and the NUL fill the 32-byte buffer";

    // A well-behaved NVML refuses texts that do not fit with their NUL.
    EXPECT_FALSE(records[1]->name().has_value());
    EXPECT_FALSE(records[1]->vbiosVersion().has_value());
    EXPECT_TRUE(capture.has(nvmlLogger, 1, "85 Failed to retrieve NVML device name: Insufficient Size"));
    EXPECT_TRUE(capture.has(nvmlLogger, 1, "125 Failed to retrieve NVML VBIOS version string: Insufficient Size"));
}

TEST_F(NvmlSource, AnAbsurdDeviceCountCostsOnlyTheIndicesThatFail)
{
    {
        SimulatedMachine machine(scenario({quadro, tesla}, R"({"nvmlDeviceGetCount_v2": {"count": 5}})"));
        LogCapture capture(Priority::WARNING);
        EXPECT_EQ(runSource().size(), 2u);
        EXPECT_EQ(capture.messages(querier), Lines(3, "4|171 Failed to retrieve device handle: Invalid Argument"));
    }
    {
        // A count no machine could have ends after the indices that could name
        // distinct locations, rather than after four billion failing calls.
        SimulatedMachine machine(scenario({quadro, tesla}, R"({"nvmlDeviceGetCount_v2": {"count": 4294967295}})"));
        LogCapture capture(Priority::CRITICAL);
        EXPECT_EQ(runSource().size(), 2u);
        EXPECT_EQ(machine.count("nvmlDeviceGetHandleByIndex"), 256u * 32u);
        EXPECT_EQ(capture.count("171 Failed to retrieve device handle: Invalid Argument"), 256u * 32u - 2u);
        expectShutDownAndUnloaded(machine);
    }
}

TEST_F(NvmlSource, AMissingPropertyEntryPointIsReportedAndItsPropertyLeftAbsent)
{
    SimulatedMachine machine(scenario({quadro}));
    ASSERT_TRUE(libKestrel::initializeLibrary());
    libKestrel::ScopeExit release(libKestrel::uninitializeLibrary);
    libKestrel::NVMLFunctions& f = libKestrel::nvmlBinding().functions;
    ASSERT_EQ(f.nvmlInit_v2(), libKestrel::nvml::NVML_SUCCESS);
    libKestrel::nvml::nvmlDevice_t device = nullptr;
    ASSERT_EQ(f.nvmlDeviceGetHandleByIndex(0, &device), libKestrel::nvml::NVML_SUCCESS);
    const libKestrel::NVMLFunctions full = f;
    libKestrel::ScopeExit restore([&f, &full] {
        f = full;
        f.nvmlShutdown();
    });

    // Every per-property entry missing but the PCI query's.
    f = libKestrel::NVMLFunctions();
    f.nvmlDeviceGetPciInfo_v2 = full.nvmlDeviceGetPciInfo_v2;
    {
        LogCapture capture(Priority::WARNING);
        const Records records = libKestrel::queryNVidiaGPU(device);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(describe(*records[0]), "0000:65:00.0 hardwareAcceleration=true");
        const Lines ecc(4, "3|268 NvmlDeviceGetDetailedEccErrors not available");
        Lines expected = {"3|78 NvmlDeviceGetName not available", "3|98 NvmlDeviceGetUUID not available",
                          "3|237 NvmlDeviceGetUtilizationRates not available",
                          "3|118 NvmlDeviceGetVbiosVersion not available"};
        expected.insert(expected.end(), ecc.begin(), ecc.end());
        expected.insert(expected.end(), {"3|177 NvmlDeviceGetTemperature not available",
                                         "3|197 NvmlDeviceGetTemperatureThreshold not available",
                                         "3|217 NvmlDeviceGetTemperatureThreshold not available",
                                         "3|298 NvmlDeviceGetFanSpeed not available"});
        EXPECT_EQ(capture.messages(nvmlLogger), expected);
    }

    f.nvmlDeviceGetPciInfo_v2 = nullptr;
    LogCapture capture(Priority::WARNING);
    EXPECT_TRUE(libKestrel::queryNVidiaGPU(device).empty());
    EXPECT_EQ(capture.messages(nvmlLogger), Lines{"3|53 NvmlDeviceGetPciInfo not available"});
    EXPECT_EQ(capture.messages(querier), Lines{"3|63 Could not obtain PCI Location information for nvidia device"});
}

} // namespace
