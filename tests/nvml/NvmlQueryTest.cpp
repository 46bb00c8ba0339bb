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
using libKestrel::IGPU;
using Records = std::vector<std::shared_ptr<IGPU>>;

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

    const IGPU& quadroRecord = *records[0];
    EXPECT_EQ(quadroRecord.pciLocation(), pci::PciLocation(101, 0, 0, 0));
    EXPECT_EQ(quadroRecord.name(), "Quadro RTX 5000");
    EXPECT_EQ(quadroRecord.uuid(), "GPU-3b4f1a2c-0001");
    EXPECT_EQ(quadroRecord.vbiosVersion(), "90.04.38.00.03");
    EXPECT_EQ(quadroRecord.hardwareAcceleration(), true);
    EXPECT_EQ(quadroRecord.utilizationGPU(), 37u);
    EXPECT_EQ(quadroRecord.utilizationMemory(), 12u);
    EXPECT_EQ(quadroRecord.eccErrorsCorrectedVolatile(), 10u);
    EXPECT_EQ(quadroRecord.eccErrorsUncorrectedVolatile(), 5u);
    EXPECT_EQ(quadroRecord.eccErrorsCorrectedAggregate(), 100u);
    EXPECT_EQ(quadroRecord.eccErrorsUncorrectedAggregate(), 7u);
    EXPECT_EQ(quadroRecord.temperatureCurrent(), 45u);
    EXPECT_EQ(quadroRecord.temperatureSlowdown(), 93u);
    EXPECT_EQ(quadroRecord.temperatureShutdown(), 96u);
    EXPECT_EQ(quadroRecord.fanSpeedPercent(), 41u);
    EXPECT_EQ(quadroRecord.driverVersion(), "552.44") << "merged with the other source's record";
    EXPECT_FALSE(quadroRecord.totalMemory() || quadroRecord.coreCount() || quadroRecord.eccEnabled())
        << "NVML fills only its own properties";

    // NVML's domain 2 and function 1 do not reach the record.
    const IGPU& teslaRecord = *records[1];
    EXPECT_EQ(teslaRecord.pciLocation(), pci::PciLocation(179, 3, 0, 0));
    EXPECT_EQ(teslaRecord.name(), "Tesla T4 (NVML)");
    EXPECT_EQ(teslaRecord.uuid(), "GPU-3b4f1a2c-0002");
    EXPECT_EQ(teslaRecord.vbiosVersion(), "90.04.96.00.01");
    EXPECT_EQ(teslaRecord.utilizationGPU(), 99u);
    EXPECT_EQ(teslaRecord.utilizationMemory(), 80u);
    EXPECT_EQ(teslaRecord.eccErrorsCorrectedVolatile(), 0u);
    EXPECT_EQ(teslaRecord.eccErrorsUncorrectedAggregate(), 0u);
    EXPECT_EQ(teslaRecord.temperatureCurrent(), 61u);
    EXPECT_EQ(teslaRecord.temperatureSlowdown(), 87u);
    EXPECT_EQ(teslaRecord.temperatureShutdown(), 90u);
    EXPECT_EQ(teslaRecord.fanSpeedPercent(), 0u);
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
