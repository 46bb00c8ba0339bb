// The NVIDIA sources' records of the same cards merge into one record per card.

#include "common/Test.h"
#include "libKestrel/Query.h"

namespace {

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
    kestrel::test::SimulatedModules modules{"sim_nvml", "sim_nvapi", "sim_glfw"};
    kestrel::test::SimulatedMachine machine(twoCards);
    kestrel::test::LogCapture capture(tova::LoggerPriority::WARNING);
    std::bitset<4> status;
    const auto gpus = libKestrel::queryAllGPUs(
        {}, {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs, libKestrel::queryNVidiaCudaGPUsMulti},
        status);
    // The longer name (NVAPI's is shorter; of equal texts, the later source's, as
    // NVAPI's VBIOS version), the larger clock (CUDA's graphics clock, NVAPI's
    // memory clock on the first card), and every other property from the source
    // that knows it: NVML's identity and readings, NVAPI's cores, clocks, memory
    // and SLI, CUDA's compute capability and bus width.
    EXPECT_EQ(kestrel::test::describe(gpus),
              (std::vector<std::string>{
                  "0000:65:00.0 name=NVIDIA GeForce RTX 2080 Ti driverVersion=452.6 hardwareAcceleration=true "
                  "coreCount=4352 vbiosVersion=86.04.50.00.70 dedicatedMemory=0 availableDedicatedMemory=0 "
                  "graphicsClock=1545000 memoryClock=7000000 shaderClock=1350000 memoryWidth=352 busType=PCI Express "
                  "eccSupported=false eccEnabled=false utilizationGPU=12 utilizationMemory=4 temperatureCurrent=47 "
                  "uuid=GPU-0001 sli=true versionMajor=7 versionMinor=5",
                  "0000:66:00.0 name=NVIDIA GeForce RTX 2080 Ti driverVersion=452.6 hardwareAcceleration=true "
                  "coreCount=4352 vbiosVersion=86.04.50.00.70 dedicatedMemory=0 availableDedicatedMemory=0 "
                  "graphicsClock=1600000 memoryClock=7000000 memoryWidth=352 busType=PCI Express eccSupported=false "
                  "eccEnabled=false temperatureCurrent=44 uuid=GPU-0002 sli=true versionMajor=7 versionMinor=5"}));
    EXPECT_TRUE(status.none());
    EXPECT_EQ(capture.messages(), std::vector<kestrel::test::LogLine>{});
}

} // namespace
