#include <bitset>
#include <cstdlib>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Simulator.h"
#include "libKestrel/Query.h"
#include "libKestrel/Sources.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace {

using kestrel::test::SimulatedMachine;

// Two cards in SLI as NVML, NVAPI and CUDA each describe them.
const char* const twoCards = R"({
  "monitors": [{"name": "DELL U2720Q"}],
  "gpus": [
    {"name": "NVIDIA GeForce RTX 2080 Ti", "pci": {"bus": 101, "device": 0},
     "nvml": {"uuid": "GPU-0001", "temperature": 47, "utilization": {"gpu": 12, "memory": 4}},
     "nvapi": {"name": "GeForce RTX 2080 Ti", "coreCount": 4352,
               "clocks": {"current": {"graphics": 1350000, "memory": 7000000, "processor": 1350000}}},
     "cuda": {"major": 7, "minor": 5, "clockRate": 1545000, "memoryClockRate": 6800000, "memoryBusWidth": 352}},
    {"name": "NVIDIA GeForce RTX 2080 Ti", "pci": {"bus": 102, "device": 0},
     "nvml": {"uuid": "GPU-0002", "temperature": 44},
     "nvapi": {"name": "GeForce RTX 2080 Ti", "coreCount": 4352,
               "clocks": {"current": {"graphics": 1600000, "memory": 7000000}}},
     "cuda": {"major": 7, "minor": 5, "clockRate": 1545000, "memoryClockRate": 7000000, "memoryBusWidth": 352}}
  ],
  "sli": [[0, 1]]
})";

TEST(NvidiaSources, RecordsOfTheSameCardsMergeIntoOneRecordPerCard)
{
#if defined(_WIN32)
    SetEnvironmentVariableA("ProgramW6432", std::getenv("KESTREL_NVML_FOLDER"));
#endif
    SimulatedMachine machine(twoCards);
    kestrel::test::LogCapture capture(tova::LoggerPriority::WARNING);
    std::bitset<4> status;
    const auto gpus = libKestrel::queryAllGPUs(
        {}, {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs, libKestrel::queryNVidiaCudaGPUsMulti},
        status);
    ASSERT_EQ(gpus.size(), 2u) << "one record per card, not per source";

    const auto& first = *gpus[0];
    EXPECT_EQ(first.pciLocation(), pci::PciLocation(101, 0, 0, 0));
    EXPECT_EQ(first.name(), "NVIDIA GeForce RTX 2080 Ti") << "the longer name";
    EXPECT_EQ(first.uuid(), "GPU-0001");                 // NVML
    EXPECT_EQ(first.temperatureCurrent(), 47u);          // NVML
    EXPECT_EQ(first.coreCount(), 4352u);                 // NVAPI
    EXPECT_EQ(first.sli(), true);                        // NVAPI
    EXPECT_EQ(first.versionMajor(), 7u);                 // CUDA
    EXPECT_EQ(first.versionMinor(), 5u);                 // CUDA
    EXPECT_EQ(first.memoryWidth(), 352u);                // CUDA
    EXPECT_EQ(first.graphicsClock(), 1545000u) << "CUDA's clock is the larger";
    EXPECT_EQ(first.memoryClock(), 7000000u) << "NVAPI's clock is the larger";
    EXPECT_EQ(first.hardwareAcceleration(), true);

    const auto& second = *gpus[1];
    EXPECT_EQ(second.pciLocation(), pci::PciLocation(102, 0, 0, 0));
    EXPECT_EQ(second.uuid(), "GPU-0002");
    EXPECT_EQ(second.graphicsClock(), 1600000u) << "here NVAPI's clock is the larger";
    EXPECT_EQ(second.shaderClock(), std::nullopt) << "no source knows it";
    EXPECT_EQ(second.versionMinor(), 5u);

    EXPECT_TRUE(status.none());
    EXPECT_TRUE(capture.lines().empty()) << capture.lines().front().text;
}

} // namespace
