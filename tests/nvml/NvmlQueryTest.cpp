// The NVML source inside queryAllGPUs, as a host uses it.
#include <bitset>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "NvmlTesting.h"
#include "common/Records.h"
#include "common/Simulator.h"
#include "libKestrel/Query.h"
#include "libKestrel/Sources.h"

namespace {

using namespace kestrel::test;
using Records = std::vector<std::shared_ptr<libKestrel::IGPU>>;

// Another source's view of the Quadro: the driver version NVML does not give.
Records driverSource(std::bitset<4>&)
{
    auto gpu = gpuAt(101);
    gpu->setDriverVersion(std::string("552.44"));
    return {gpu};
}

class NvmlQuery : public NvmlTest {};

TEST_F(NvmlQuery, TwoGpusGiveTwoRecordsWithEveryNvmlProperty)
{
    SimulatedMachine machine(scenario({quadro, radeon, tesla}));
    std::bitset<4> status;
    const Records records =
        libKestrel::queryAllGPUs({}, {libKestrel::queryNVidiaNvmlGPUsMulti, driverSource}, status);
    ASSERT_EQ(records.size(), 2u);
    // Merged with the other source's record; memory size, NVML's driver version
    // and the rest stay with the other NVIDIA sources.
    EXPECT_EQ(describe(*records[0]),
              "0000:65:00.0 name=Quadro RTX 5000 driverVersion=552.44 hardwareAcceleration=true "
              "vbiosVersion=90.04.38.00.03 eccErrorsCorrectedVolatile=10 eccErrorsUncorrectedVolatile=5 "
              "eccErrorsCorrectedAggregate=100 eccErrorsUncorrectedAggregate=7 utilizationGPU=37 "
              "utilizationMemory=12 temperatureCurrent=45 temperatureSlowdown=93 temperatureShutdown=96 "
              "uuid=GPU-3b4f1a2c-0001 fanSpeedPercent=41");
    // NVML's domain 2 and function 1 do not reach the location.
    EXPECT_EQ(describe(*records[1]),
              "0000:b3:03.0 name=Tesla T4 (NVML) hardwareAcceleration=true vbiosVersion=90.04.96.00.01 "
              "eccErrorsCorrectedVolatile=0 eccErrorsUncorrectedVolatile=0 eccErrorsCorrectedAggregate=0 "
              "eccErrorsUncorrectedAggregate=0 utilizationGPU=99 utilizationMemory=80 temperatureCurrent=61 "
              "temperatureSlowdown=87 temperatureShutdown=90 uuid=GPU-3b4f1a2c-0002 fanSpeedPercent=0");
    EXPECT_TRUE(status.none());
}

TEST_F(NvmlQuery, EveryQueryLoadsInitialisesShutsDownAndUnloadsNvmlAfresh)
{
    SimulatedMachine machine(scenario({quadro}));
    std::bitset<4> status;
    for (int query = 0; query < 2; ++query)
        EXPECT_EQ(libKestrel::queryAllGPUs({}, {libKestrel::queryNVidiaNvmlGPUsMulti}, status).size(), 1u);
    for (const char* event : {"load nvml", "nvml initialized", "nvml shut down", "unload nvml"})
        EXPECT_EQ(machine.count(event), 2u) << event;
    EXPECT_EQ(machine.count("nvml left initialized: 1"), 0u);
    expectNvmlReleased();
}

} // namespace
