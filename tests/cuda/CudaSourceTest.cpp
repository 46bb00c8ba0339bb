#include <bitset>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CudaTest.h"
#include "common/LogCapture.h"
#include "common/Records.h"
#include "common/Simulator.h"
#include "libKestrel/Query.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/multi/NVidia/cudaRuntime.h"
#include "libKestrel/internal/multi/NVidiaCudaGPUQuerierMulti.h"

namespace {

using kestrel::test::LogCapture;
using kestrel::test::SimulatedMachine;
using libKestrel::IGPU;
using Priority = tova::LoggerPriority;
using Records = std::vector<std::shared_ptr<IGPU>>;
using Lines = std::vector<std::string>;

// Two CUDA devices (the first reporting PCI domain 5), and a GPU that only NVML sees.
const char* const twoCudaDevices = R"({
  "cudaDriver": {"version": 12040},
  "gpus": [
    {"name": "NVIDIA GeForce RTX 3090", "pci": {"bus": 101, "device": 0, "function": 0, "domain": 0},
     "cuda": {"major": 8, "minor": 6, "clockRate": 1695000, "memoryClockRate": 9751000, "memoryBusWidth": 384,
              "pci": {"domain": 5}}},
    {"name": "Seen by NVML only", "pci": {"bus": 33}, "nvml": {}},
    {"name": "GPU-level name", "pci": {"bus": 23, "device": 1, "function": 1},
     "cuda": {"name": "Tesla T4", "major": 7, "minor": 5, "clockRate": 1590000, "memoryClockRate": 5001000,
              "memoryBusWidth": 256}}
  ]})";

Records query(std::bitset<4>& status) { return libKestrel::queryNVidiaCudaGPUsMulti(status); }

Records query()
{
    std::bitset<4> status;
    return query(status);
}

TEST(CudaSource, ReportsEveryDeviceAtFunctionZeroAndDomainZero)
{
    SimulatedMachine machine(twoCudaDevices);
    LogCapture capture(Priority::TRACE);
    std::bitset<4> status("1010");
    const Records records = query(status);

    EXPECT_EQ(status, std::bitset<4>("1010")) << "the CUDA source leaves the status alone";
    ASSERT_EQ(records.size(), 2u);
    const IGPU& first = *records[0];
    EXPECT_EQ(first.pciLocation(), pci::PciLocation(0x65, 0, 0, 0)) << "CUDA's domain 5 is not used";
    EXPECT_EQ(first.name(), "NVIDIA GeForce RTX 3090");
    EXPECT_EQ(first.versionMajor(), 8u);
    EXPECT_EQ(first.versionMinor(), 6u);
    EXPECT_EQ(first.graphicsClock(), 1695000u);
    EXPECT_EQ(first.memoryClock(), 9751000u);
    EXPECT_EQ(first.memoryWidth(), 384u);
    // CUDA reports no cores, memory sizes, driver version or identity of its own.
    EXPECT_FALSE(first.coreCount());
    EXPECT_FALSE(first.totalMemory());
    EXPECT_FALSE(first.driverVersion());
    EXPECT_FALSE(first.uuid());

    const IGPU& second = *records[1];
    EXPECT_EQ(second.pciLocation(), pci::PciLocation(0x17, 1, 0, 0)) << "the function is always 0";
    EXPECT_EQ(second.name(), "Tesla T4");
    EXPECT_EQ(second.versionMajor(), 7u);
    EXPECT_EQ(second.memoryWidth(), 256u);

    EXPECT_EQ(capture.messages("libKestrel.NVidiaCudaGPUQuerierMulti"), (Lines{"2|98 Retrieved driver version '12040' and runtime version '5000'",
                                            "2|111 Discovered 2 CUDA devices",
                                            "1|57 Found PCI location information: 0000:65:00.0",
                                            "1|57 Found PCI location information: 0000:17:01.0"}));
}

TEST(CudaSource, NoDeviceIsAnEmptyMachineNotAFailure)
{
    // The driver finds no device (cuInit says so), or shows a count of zero or less.
    const char* const machines[] = {
        R"({"gpus": [{"name": "Seen by NVML only", "pci": {"bus": 33}, "nvml": {}}]})",
        R"({"gpus": [{"pci": {"bus": 101}, "cuda": {}}], "faults": {"cuDeviceGetCount": {"count": 0}}})",
        R"({"gpus": [{"pci": {"bus": 101}, "cuda": {}}], "faults": {"cuDeviceGetCount": {"count": -3}}})",
    };
    for (const char* scenario : machines) {
        SCOPED_TRACE(scenario);
        SimulatedMachine machine(scenario);
        LogCapture capture(Priority::INFO);
        EXPECT_TRUE(query().empty());
        EXPECT_EQ(capture.messages("libKestrel.NVidiaCudaGPUQuerierMulti"), (Lines{"2|98 Retrieved driver version '12040' and runtime version '5000'",
                                                "2|111 Discovered 0 CUDA devices"}));
        EXPECT_EQ(machine.count("cuDeviceGet"), 0u);

        int count = -1;
        EXPECT_EQ(libKestrel::cudaGetDeviceCount(&count), libKestrel::cuda::cudaErrorNoDevice);
        EXPECT_EQ(count, 0);
    }
    EXPECT_EQ(libKestrel::cudaErrorText(libKestrel::cuda::cudaErrorNoDevice).str(),
              "cudaErrorNoDevice: no CUDA-capable device is detected");
}

TEST(CudaSource, ADeviceThatFailsIsSkippedAndTheOthersKept)
{
    // Device 1 lacks an attribute, device 2 is busy; device 3 fills the whole name
    // buffer without a terminator and reports a negative clock rate.
    SimulatedMachine machine(R"({
      "gpus": [
        {"name": "First", "pci": {"bus": 1}, "cuda": {}},
        {"name": "Second", "pci": {"bus": 2}, "cuda": {"unsupportedAttributes": [36]}},
        {"name": "Third", "pci": {"bus": 3}, "cuda": {}},
        {"name": "Fourth", "pci": {"bus": 4}, "cuda": {"clockRate": -1}}
      ],
      "faults": {"cuDeviceGet": {"device": 2, "return": 46},
                 "cuDeviceGetName": {"device": 3, "unterminated": true}}})");
    LogCapture capture(Priority::INFO);
    const Records records = query();

    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]->name(), "First");
    EXPECT_EQ(records[0]->graphicsClock(), 1695000u);
    EXPECT_EQ(records[1]->pciLocation()->bus, 4);
    // The name ends within the buffer: its 255 characters and our terminator.
    std::string repeated;
    while (repeated.size() < 255)
        repeated += "Fourth";
    EXPECT_EQ(records[1]->name(), repeated.substr(0, 255));
    EXPECT_FALSE(records[1]->graphicsClock()) << "a negative clock is no clock";
    EXPECT_EQ(records[1]->memoryClock(), 9751000u) << "the other properties are kept";

    EXPECT_EQ(capture.messages("libKestrel.NVidiaCudaGPUQuerierMulti"),
              (Lines{"2|98 Retrieved driver version '12040' and runtime version '5000'",
                     "2|111 Discovered 4 CUDA devices",
                     "3|47 Could not obtain the device properties for CUDA device at index '1': "
                     "cudaErrorInvalidValue: invalid argument",
                     "3|47 Could not obtain the device properties for CUDA device at index '2': "
                     "cudaErrorDevicesUnavailable: CUDA-capable device(s) is/are busy or unavailable",
                     "3|64 Ignoring a negative clock rate reported by CUDA: -1"}));
}

TEST(CudaSource, AFailureBeforeTheDeviceLoopYieldsNothing)
{
    struct Case {
        const char* scenario;
        Lines messages;
    };
    const std::string gpu = R"("gpus": [{"pci": {"bus": 101}, "cuda": {}}])";
    const std::string versions = "2|98 Retrieved driver version '12040' and runtime version '5000'";
    const Case cases[] = {
        {R"("faults": {"cuDriverGetVersion": {"return": 999}})",
         {"3|87 Could not retrieve the CUDA driver version: cudaErrorUnknown: unknown error"}},
        {R"("faults": {"cuDeviceGetCount": {"return": 46}})",
         {versions, "3|107 Failed to get CUDA device count: cudaErrorDevicesUnavailable: "
                    "CUDA-capable device(s) is/are busy or unavailable"}},
    };
    for (const Case& failure : cases) {
        SCOPED_TRACE(failure.scenario);
        SimulatedMachine machine("{" + gpu + ", " + failure.scenario + "}");
        LogCapture capture(Priority::INFO);
        EXPECT_TRUE(query().empty());
        EXPECT_EQ(capture.messages("libKestrel.NVidiaCudaGPUQuerierMulti"), failure.messages);
        EXPECT_EQ(machine.count("cuDeviceGet"), 0u);
    }
}

TEST(CudaSource, ADevicePlacedOffThePciBusGivesNoRecord)
{
    SimulatedMachine machine(R"({"gpus": [{"pci": {"bus": 101}, "cuda": {}}, {"pci": {"bus": 3, "device": 40}, "cuda": {}},
                                           {"pci": {"bus": 256}, "cuda": {}}]})");
    LogCapture capture(Priority::WARNING);
    EXPECT_EQ(query().size(), 1u);
    EXPECT_EQ(capture.messages("libKestrel.NVidiaCudaGPUQuerierMulti"),
              (Lines{"3|58 Device outside the PCI bus, skipped: bus 3, device 40",
                     "3|58 Device outside the PCI bus, skipped: bus 256, device 0"}));
}

TEST(CudaSource, AnAbsurdDeviceCountIsNotWalkedPastTheDriversLimit)
{
    // NVIDIA's driver manages at most 32 GPUs; the ordinals past the one real
    // device are invalid and cost a message each.
    SimulatedMachine machine(R"({"gpus": [{"pci": {"bus": 101}, "cuda": {}}],
                                 "faults": {"cuDeviceGetCount": {"count": 2147483647}}})");
    LogCapture capture(Priority::INFO);
    const Records records = query();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]->pciLocation()->bus, 0x65);
    const Lines messages = capture.messages("libKestrel.NVidiaCudaGPUQuerierMulti");
    ASSERT_EQ(messages.size(), 2u + 31u);
    EXPECT_EQ(messages[1], "2|111 Discovered 32 CUDA devices");
    EXPECT_EQ(messages.back(), "3|47 Could not obtain the device properties for CUDA device at index '31': "
                               "cudaErrorInvalidDevice: invalid device ordinal");
    EXPECT_EQ(machine.count("cuDeviceGet"), 32u);
}

// The same GPU as a second NVIDIA source sees it, at function 0 and domain 0.
Records otherNVidiaSource(std::bitset<4>&)
{
    auto gpu = kestrel::test::gpuAt(0x65);
    gpu->setName(std::string("RTX 3090"));
    gpu->setUUID(std::string("GPU-8b0c6a4e"));
    gpu->setCoreCount(std::uint32_t{10496});
    return {gpu};
}

TEST(CudaQuery, CudaRecordsMergeWithTheOtherSourcesRecords)
{
    SimulatedMachine machine(twoCudaDevices);
    LogCapture capture(Priority::WARNING);
    std::bitset<4> status;
    const Records records =
        libKestrel::queryAllGPUs({}, {otherNVidiaSource, libKestrel::queryNVidiaCudaGPUsMulti}, status);

    ASSERT_EQ(records.size(), 2u);
    const IGPU& merged = *records[0];
    EXPECT_EQ(merged.pciLocation(), pci::PciLocation(0x65, 0, 0, 0));
    EXPECT_EQ(merged.name(), "NVIDIA GeForce RTX 3090") << "the longer name";
    EXPECT_EQ(merged.uuid(), "GPU-8b0c6a4e");
    EXPECT_EQ(merged.coreCount(), 10496u);
    EXPECT_EQ(merged.versionMajor(), 8u);
    EXPECT_EQ(merged.memoryWidth(), 384u);
    EXPECT_EQ(records[1]->name(), "Tesla T4");
    EXPECT_TRUE(capture.messages("libKestrel.NVidiaCudaGPUQuerierMulti").empty());
}

} // namespace
