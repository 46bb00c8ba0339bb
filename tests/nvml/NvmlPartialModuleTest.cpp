// NVML modules that lack one entry point each; every test runs with its own module.
#include <bitset>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "NvmlTesting.h"
#include "common/LogCapture.h"
#include "common/Simulator.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"

namespace {

using namespace kestrel::test;
using Priority = tova::LoggerPriority;
using Lines = std::vector<std::string>;
using Records = std::vector<std::shared_ptr<libKestrel::IGPU>>;

const char* const querier = "libKestrel.NVidiaNvmlGPUQuerierMulti";

class NvmlWithout : public NvmlTest {
protected:
    // Runs the source over the two NVIDIA GPUs; NVML is unloaded afterwards.
    Records run()
    {
        std::bitset<4> status;
        Records records = libKestrel::queryNVidiaNvmlGPUsMulti(status);
        EXPECT_TRUE(status.none());
        expectNvmlReleased();
        EXPECT_TRUE(happenedInOrder(machine.journal(), "load nvml", "unload nvml"));
        return records;
    }

    SimulatedMachine machine{scenario({quadro, tesla})};
    LogCapture capture;
};

TEST_F(NvmlWithout, nvmlInit_v2)
{
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(capture.messages(querier), Lines{"3|124 NvmlInit not available"});
    EXPECT_EQ(machine.count("nvmlShutdown"), 0u) << "what was never initialised is not shut down";
}

TEST_F(NvmlWithout, nvmlDeviceGetCount_v2)
{
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(capture.messages(querier), Lines{"3|146 NvmlDeviceGetCount not available"});
    EXPECT_TRUE(happenedInOrder(machine.journal(), "nvml shut down", "unload nvml"));
}

TEST_F(NvmlWithout, nvmlDeviceGetHandleByIndex)
{
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(capture.messages(querier), (Lines{"1|158 Enumerated physical NVidia GPU count: 2",
                                                   "3|162 NvmlDeviceGetHandleByIndex not available"}));
    EXPECT_TRUE(happenedInOrder(machine.journal(), "nvml shut down", "unload nvml"));
}

// NVML that initialises but cannot be shut down: reported, never called through null.
TEST_F(NvmlWithout, nvmlShutdown)
{
    EXPECT_EQ(run().size(), 2u);
    EXPECT_EQ(capture.messages(querier).back(), "4|138 Error shutting down NVML: Function Not Found");
    EXPECT_EQ(machine.count("nvml left initialized: 1"), 1u);
}

TEST_F(NvmlWithout, nvmlDeviceGetFanSpeed)
{
    ASSERT_TRUE(libKestrel::initializeLibrary()) << "a missing export does not fail the load";
    EXPECT_EQ(nullEntries(), Lines{"nvmlDeviceGetFanSpeed"});
    libKestrel::uninitializeLibrary();

    const Records records = run();
    ASSERT_EQ(records.size(), 2u);
    for (const auto& record : records) {
        EXPECT_FALSE(record->fanSpeedPercent().has_value());
        EXPECT_TRUE(record->name() && record->temperatureShutdown()) << "the other properties are read";
    }
    EXPECT_EQ(capture.count("298 NvmlDeviceGetFanSpeed not available"), 2u);
    EXPECT_TRUE(capture.has("libKestrel.NVML", 3, "298 NvmlDeviceGetFanSpeed not available"));
}

} // namespace
