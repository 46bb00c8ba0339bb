// The NVAPI GPU source against the simulated driver: what the records hold,
// what is logged at which priority, and that NVAPI is let go on every path.
#include <bitset>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Simulator.h"
#include "libKestrel/Query.h"
#include "libKestrel/Sources.h"
#include "nvapi/NvapiTesting.h"

namespace {

using kestrel::test::expectNvapiReleased;
using kestrel::test::LogCapture;
using kestrel::test::messagesStartingWith;
using kestrel::test::SimulatedMachine;
using libKestrel::IGPU;
using Records = std::vector<std::shared_ptr<IGPU>>;
using Priority = tova::LoggerPriority;

const char* const querier = "libKestrel.NVidiaGPUQuerier";
const char* const perProperty = "libKestrel.NVAPI";

// A GPU that NVAPI knows everything about; its base clocks differ from its
// current ones, and its memory clock is present.
const char* const fullGpu = R"({"name": "NVIDIA GeForce RTX 2080 Ti", "pci": {"bus": 101, "device": 0},
    "nvapi": {"vbios": "90.02.0B.00.01", "coreCount": 4352,
              "memory": {"dedicated": 11534336, "available": 11010048, "system": 0, "sharedSystem": 8388608},
              "clocks": {"current": {"graphics": 1350000, "memory": 7000000, "processor": 1545000},
                         "base": {"graphics": 1000, "memory": 2000, "processor": 3000}},
              "busType": 3, "ecc": {"supported": true, "enabled": false, "configuration": 2}}})";

std::string machineWith(const std::string& gpus, const std::string& extra = "")
{
    return R"({"nvapi": {"driverVersion": 45206, "branch": "r452_06"}, "gpus": [)" + gpus + "]" + extra + "}";
}

Records query()
{
    std::bitset<4> status;
    Records records = libKestrel::queryNVidiaGPUs(status);
    EXPECT_TRUE(status.none()) << "this source sets no status bit";
    return records;
}

TEST(NvapiQuerier, AGpuBecomesOneRecordWithEverythingNvapiKnows)
{
    SimulatedMachine machine(machineWith(fullGpu));
    LogCapture capture;
    const Records records = query();

    ASSERT_EQ(records.size(), 1u);
    const IGPU& gpu = *records[0];
    EXPECT_EQ(gpu.pciLocation(), pci::PciLocation(101, 0, 0, 0));
    EXPECT_EQ(gpu.name(), "NVIDIA GeForce RTX 2080 Ti");
    EXPECT_EQ(gpu.hardwareAcceleration(), true);
    EXPECT_EQ(gpu.driverVersion(), "452.6");
    EXPECT_EQ(gpu.vbiosVersion(), "90.02.0B.00.01");
    EXPECT_EQ(gpu.coreCount(), 4352u);
    EXPECT_EQ(gpu.dedicatedMemory(), 11534336u);
    EXPECT_EQ(gpu.availableDedicatedMemory(), 11010048u);
    EXPECT_EQ(gpu.graphicsClock(), 1350000u) << "current, not base, frequencies";
    EXPECT_EQ(gpu.memoryClock(), 7000000u);
    EXPECT_EQ(gpu.shaderClock(), 1545000u);
    EXPECT_EQ(gpu.busType(), "PCI Express");
    EXPECT_EQ(gpu.eccSupported(), true);
    EXPECT_EQ(gpu.eccEnabled(), false);
    EXPECT_EQ(gpu.sli(), false) << "a GPU alone in its logical GPU is not in SLI";
    EXPECT_FALSE(gpu.totalMemory().has_value());
    EXPECT_FALSE(gpu.temperatureCurrent().has_value());

    EXPECT_EQ(capture.messages(querier),
              (std::vector<std::string>{"1|119 Enumerated physical NVidia GPU count: 1",
                                        "1|61 Found PCI location information: 0000:65:00.0"}));
    EXPECT_EQ(capture.messages(perProperty),
              (std::vector<std::string>{
                  "1|44 PCI location: Bus: 101, Device: 0", "1|66 Product name: NVIDIA GeForce RTX 2080 Ti",
                  "1|82 Driver version: 45206", "1|83 Driver version branch: r452_06",
                  "1|99 VBIOS version: 90.02.0B.00.01", "1|216 Core count: 4352",
                  "1|119 Dedicated memory (kb): 11534336", "1|120 Available dedicated memory (kb): 11010048",
                  "1|159 Frequency graphics (kHz): 1350000", "1|162 Frequency memory (kHz): 7000000",
                  "1|165 Frequency shader (kHz): 1545000", "1|185 Bus type: 3", "1|268 ECC supported: true",
                  "1|269 ECC enabled: false", "1|244 Physical GPU count: 1"}));
    EXPECT_TRUE(capture.has(querier, 1, "Entering queryNVidiaGPUs (libKestrel/src/windows/NVidiaGPUQuerier.cpp:98)"));
    EXPECT_TRUE(capture.has(querier, 1, "Entering queryNVidiaGPU (libKestrel/src/windows/NVidiaGPUQuerier.cpp:45)"));
    EXPECT_TRUE(capture.has(perProperty, 1, "Entering query_ECCMemory (libKestrel/src/windows/NVidia/nv_api.cpp:250)"));

    EXPECT_EQ(machine.count("NvAPI_Initialize"), 1u);
    EXPECT_EQ(machine.count("NvAPI_Unload"), 1u);
    expectNvapiReleased();
}

TEST(NvapiQuerier, ZeroGpusAndFailuresBeforeAnyGpuGiveNoRecords)
{
    {
        SimulatedMachine machine(machineWith(""));
        LogCapture capture;
        EXPECT_TRUE(query().empty());
        EXPECT_EQ(capture.messages(querier),
                  (std::vector<std::string>{"1|119 Enumerated physical NVidia GPU count: 0"}));
        EXPECT_EQ(machine.count("NvAPI_Unload"), 1u);
        expectNvapiReleased();
    }
    {
        SimulatedMachine machine(machineWith(fullGpu, R"(, "faults": {"NvAPI_Initialize": {"return": -6}})"));
        LogCapture capture;
        EXPECT_TRUE(query().empty());
        EXPECT_EQ(capture.messages(querier), (std::vector<std::string>{"3|105 Could not initialize NVAPI"}));
        EXPECT_EQ(machine.count("NvAPI_Unload"), 0u) << "NVAPI that never started is not unloaded";
        EXPECT_EQ(machine.count("NvAPI_EnumPhysicalGPUs"), 0u);
        expectNvapiReleased();
    }
    {
        SimulatedMachine machine(machineWith(fullGpu, R"(, "faults": {"NvAPI_EnumPhysicalGPUs": {"return": -6}})"));
        LogCapture capture;
        EXPECT_TRUE(query().empty());
        EXPECT_EQ(capture.messages(querier),
                  (std::vector<std::string>{"3|114 Could not enumerate physical GPUs: 1"}))
            << "the failure flag, not NVAPI's status";
        EXPECT_EQ(machine.count("NvAPI_Unload"), 1u);
        expectNvapiReleased();
    }
}

TEST(NvapiQuerier, AGpuWithoutBusOrSlotIsSkippedSilentlyByTheQueries)
{
    const std::string twoGpus = std::string(fullGpu) + R"(, {"name": "Second", "pci": {"bus": 23, "device": 2},
                                                            "nvapi": {"coreCount": 128}})";
    for (const char* entry : {"NvAPI_GPU_GetBusId", "NvAPI_GPU_GetBusSlotId"}) {
        SCOPED_TRACE(entry);
        SimulatedMachine machine(
            machineWith(twoGpus, std::string(R"(, "faults": {")") + entry + R"(": {"device": 0, "return": -5}})"));
        LogCapture capture;
        const Records records = query();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]->pciLocation(), pci::PciLocation(23, 2, 0, 0));
        EXPECT_EQ(records[0]->coreCount(), 128u);
        EXPECT_EQ(messagesStartingWith(capture, querier, "3|"),
                  (std::vector<std::string>{"3|52 Could not obtain PCI Location information for nvidia device"}));
        // Only the second GPU was asked anything beyond its location.
        EXPECT_EQ(messagesStartingWith(capture, perProperty, "1|66 "),
                  (std::vector<std::string>{"1|66 Product name: Second"}));
        EXPECT_EQ(messagesStartingWith(capture, perProperty, "3|"), std::vector<std::string>{});
        EXPECT_EQ(machine.count("NvAPI_GPU_GetFullName"), 1u);
        expectNvapiReleased();
    }
}

// One failing NVAPI call costs exactly its properties and one line with NVAPI's status.
TEST(NvapiQuerier, AFailingPropertyCallCostsOnlyItsProperties)
{
    struct Row {
        const char* entry;
        const char* line;
        std::function<bool(const IGPU&)> lost;
    };
    const Row rows[] = {
        {"NvAPI_GPU_GetFullName", "3|62 Could not retrieve GPU full name: -5", [](const IGPU& g) { return !g.name(); }},
        {"NvAPI_SYS_GetDriverAndBranchVersion", "3|78 Could not retrieve driver version: -5",
         [](const IGPU& g) { return !g.driverVersion(); }},
        {"NvAPI_GPU_GetVbiosVersionString", "3|95 Could not retrieve GPU VBIOS version string: -5",
         [](const IGPU& g) { return !g.vbiosVersion(); }},
        {"NvAPI_GPU_GetMemoryInfo", "3|112 Could not retrieve GPU memory info: -5",
         [](const IGPU& g) { return !g.dedicatedMemory() && !g.availableDedicatedMemory(); }},
        {"NvAPI_GPU_GetAllClockFrequencies", "3|137 Could not retrieve current GPU clock frequencies: -5",
         [](const IGPU& g) { return !g.graphicsClock() && !g.memoryClock() && !g.shaderClock(); }},
        {"NvAPI_GPU_GetBusType", "3|181 Could not retrieve GPU bus type: -5",
         [](const IGPU& g) { return !g.busType(); }},
        {"NvAPI_GPU_GetGpuCoreCount", "3|212 Could not retrieve GPU core count: -5",
         [](const IGPU& g) { return !g.coreCount(); }},
        {"NvAPI_GetLogicalGPUFromPhysicalGPU",
         "3|232 Could not retrieve the logical GPU from the physical GPU handle: -5",
         [](const IGPU& g) { return !g.sli(); }},
        {"NvAPI_GetPhysicalGPUsFromLogicalGPU",
         "3|240 Could not retrieve the physical GPUs from the logical GPU handle: -5",
         [](const IGPU& g) { return !g.sli(); }},
        {"NvAPI_GPU_GetECCStatusInfo", "3|257 Could not retrieve current ECC memory information: -5",
         [](const IGPU& g) { return !g.eccSupported() && !g.eccEnabled(); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.entry);
        SimulatedMachine machine(
            machineWith(fullGpu, std::string(R"(, "faults": {")") + row.entry + R"(": {"return": -5}})"));
        LogCapture capture(Priority::WARNING);
        const Records records = query();
        ASSERT_EQ(records.size(), 1u);
        const IGPU& gpu = *records[0];
        EXPECT_TRUE(row.lost(gpu));
        EXPECT_EQ(capture.of(perProperty), std::vector<std::string>{row.line});
        EXPECT_EQ(capture.of(querier), std::vector<std::string>{});
        // Every other property is still there.
        size_t kept = 0;
        for (const bool present : {gpu.name().has_value(), gpu.driverVersion().has_value(),
                                   gpu.vbiosVersion().has_value(), gpu.coreCount().has_value(),
                                   gpu.dedicatedMemory().has_value(), gpu.graphicsClock().has_value(),
                                   gpu.busType().has_value(), gpu.eccSupported().has_value(), gpu.sli().has_value()})
            kept += present ? 1 : 0;
        EXPECT_EQ(kept, 8u);
        expectNvapiReleased();
    }
}

TEST(NvapiQuerier, DriverVersionKeepsNoLeadingZeroInTheMinorPart)
{
    const std::pair<int, const char*> versions[] = {
        {45206, "452.6"}, {45190, "451.90"}, {44100, "441.0"}, {43100, "431.0"}, {99, "0.99"}};
    for (const auto& [number, text] : versions) {
        SimulatedMachine machine(R"({"nvapi": {"driverVersion": )" + std::to_string(number) +
                                 R"(}, "gpus": [{"pci": {"bus": 1}, "nvapi": {}}]})");
        const Records records = query();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]->driverVersion(), text) << number;
    }
}

TEST(NvapiQuerier, ClocksFollowTheirPresentBitsAndBusTypesTheTable)
{
    {
        SimulatedMachine machine(machineWith(R"({"pci": {"bus": 1}, "nvapi": {"clocks": {"current":
            {"graphics": 1500000, "memory": {"frequency": 7000000, "present": false}, "processor": 1600000}}}})"));
        LogCapture capture;
        const Records records = query();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]->graphicsClock(), 1500000u);
        EXPECT_FALSE(records[0]->memoryClock().has_value());
        EXPECT_EQ(records[0]->shaderClock(), 1600000u);
        EXPECT_TRUE(capture.has(perProperty, 1, "159 Frequency graphics (kHz): 1500000"));
        EXPECT_TRUE(capture.has(perProperty, 1, "165 Frequency shader (kHz): 1600000"));
        EXPECT_EQ(capture.count("162 "), 0u) << "an absent domain is not logged";
    }
    const std::pair<int, const char*> busTypes[] = {{0, nullptr},   {1, "PCI"}, {2, "AGP"},      {3, "PCI Express"},
                                                    {4, "FPCI"},    {5, "AXI"}, {6, nullptr},    {-1, nullptr}};
    for (const auto& [value, text] : busTypes) {
        SimulatedMachine machine(machineWith(R"({"pci": {"bus": 1}, "nvapi": {"busType": )" + std::to_string(value) +
                                             "}}"));
        LogCapture capture;
        const Records records = query();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]->busType(), text ? std::optional<std::string>(text) : std::nullopt) << value;
        EXPECT_TRUE(capture.has(perProperty, 1, "185 Bus type: " + std::to_string(value)));
    }
}

TEST(NvapiQuerier, AnSliPairIsInSliOnBothRecordsAndALoneGpuIsNot)
{
    SimulatedMachine machine(machineWith(R"({"pci": {"bus": 1}, "nvapi": {}}, {"pci": {"bus": 2}, "nvapi": {}},
                                            {"pci": {"bus": 3}, "nvapi": {}})",
                                         R"(, "sli": [[0, 2]])"));
    LogCapture capture;
    const Records records = query();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0]->sli(), true);
    EXPECT_EQ(records[1]->sli(), false);
    EXPECT_EQ(records[2]->sli(), true);
    EXPECT_EQ(messagesStartingWith(capture, perProperty, "1|244 "),
              (std::vector<std::string>{"1|244 Physical GPU count: 2", "1|244 Physical GPU count: 1",
                                        "1|244 Physical GPU count: 2"}));
}

// Absurd counts, unterminated strings and null handles from the driver cost
// properties and log lines, never a read past an array.
TEST(NvapiQuerier, BadDriverDataCostsPropertiesNotTheHost)
{
    const std::string longName = "A name longer than the sixty-four bytes of NVAPI's short string, cut short";
    SimulatedMachine machine(machineWith(R"({"name": ")" + longName + R"(",
                                             "pci": {"bus": 1}, "nvapi": {"slotId": 3}},
                                            {"pci": {"bus": 2}, "nvapi": {}},
                                            {"pci": {"bus": 4}, "nvapi": {"busId": 513, "slotId": 259}})",
                                         R"(, "sli": [[0, 1]], "faults": {
            "NvAPI_EnumPhysicalGPUs": {"count": 1000},
            "NvAPI_GPU_GetFullName": {"device": 0, "unterminated": true},
            "NvAPI_SYS_GetDriverAndBranchVersion": {"unterminated": true},
            "NvAPI_GetPhysicalGPUsFromLogicalGPU": {"count": 4000000000},
            "NvAPI_GetLogicalGPUFromPhysicalGPU": {"device": 1, "null": true}})"));
    LogCapture capture;
    const Records records = query();

    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(capture.has(querier, 1, "119 Enumerated physical NVidia GPU count: 1000"));
    // Only the array's 64 handles are visited; the 61 empty ones have no location,
    // and no PCI device sits at bus 513, device 259.
    EXPECT_EQ(capture.count("52 Could not obtain PCI Location information for nvidia device"), 61u);
    EXPECT_TRUE(capture.has(querier, 3, "53 Device outside the PCI bus, skipped: bus 513, device 259"));
    EXPECT_EQ(records[0]->pciLocation(), pci::PciLocation(1, 3, 0, 0));
    EXPECT_EQ(records[0]->name(), longName.substr(0, 64)) << "an unterminated name is read to the buffer's end";
    EXPECT_EQ(records[1]->name(), std::string("Simulated NVIDIA GPU"));
    EXPECT_EQ(records[0]->sli(), true);
    EXPECT_FALSE(records[1]->sli().has_value()) << "a null logical GPU cannot be asked";
    EXPECT_TRUE(
        capture.has(perProperty, 3, "240 Could not retrieve the physical GPUs from the logical GPU handle: -5"));
    EXPECT_EQ(records[0]->driverVersion(), "452.6");
    EXPECT_TRUE(capture.has(perProperty, 1, "83 Driver version branch: r452_06" + std::string(64 - 7, '#')));
    expectNvapiReleased();
}

// Both views of the same GPUs merge into one record each.
TEST(NvapiQuerier, QueryAllGpusMergesTheNvapiRecordsByLocation)
{
    SimulatedMachine machine(machineWith(std::string(fullGpu) + R"(, {"pci": {"bus": 23, "device": 2}, "nvapi": {}})"));
    std::bitset<4> status;
    status.set(3);
    const Records records =
        libKestrel::queryAllGPUs({}, {libKestrel::queryNVidiaGPUs, libKestrel::queryNVidiaGPUs}, status);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]->pciLocation(), pci::PciLocation(101, 0, 0, 0));
    EXPECT_EQ(records[0]->name(), "NVIDIA GeForce RTX 2080 Ti");
    EXPECT_EQ(records[0]->coreCount(), 4352u);
    EXPECT_EQ(records[1]->pciLocation(), pci::PciLocation(23, 2, 0, 0));
    EXPECT_EQ(status, std::bitset<4>("1000"));
    EXPECT_EQ(machine.count("NvAPI_Initialize"), 2u);
    EXPECT_EQ(machine.count("NvAPI_Unload"), 2u);
    expectNvapiReleased();
}

} // namespace
