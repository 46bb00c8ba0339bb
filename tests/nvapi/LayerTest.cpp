// Reaching NVAPI: the module's lifetime, and drivers that are missing, foreign,
// cannot start or lack entries.
#include <bitset>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Simulator.h"
#include "libKestrel/NVIDIAGPU.h"
#include "libKestrel/Sources.h"
#include "nvapi/NvapiTesting.h"

namespace {

using kestrel::test::expectNvapiReleased;
using kestrel::test::LogCapture;
using kestrel::test::SimulatedMachine;
using libKestrel::NVIDIAGPU;
using Priority = tova::LoggerPriority;
namespace nvapi = libKestrel::nvapi;

const char* const oneGpu = R"({"gpus": [{"name": "Only", "pci": {"bus": 9}, "nvapi": {"coreCount": 2560,
                                          "thermal": [{"target": 1, "current": 48}]}}]})";

nvapi::NvAPI_Status enumerateInto(nvapi::NvU32& count)
{
    nvapi::NvPhysicalGpuHandle handles[nvapi::NVAPI_MAX_PHYSICAL_GPUS] = {};
    return nvapi::NvAPI_EnumPhysicalGPUs(handles, &count);
}

TEST(NvapiLayer, TheModuleIsHeldFromTheFirstInitializeToTheBalancingUnload)
{
    SimulatedMachine machine(oneGpu);
    nvapi::NvU32 count = 0;
    EXPECT_EQ(enumerateInto(count), nvapi::NVAPI_API_NOT_INITIALIZED) << "no call reaches the driver before";
    EXPECT_EQ(nvapi::NvAPI_Unload(), nvapi::NVAPI_API_NOT_INITIALIZED);
    expectNvapiReleased();

    ASSERT_EQ(nvapi::NvAPI_Initialize(), nvapi::NVAPI_OK);
    ASSERT_EQ(nvapi::NvAPI_Initialize(), nvapi::NVAPI_OK);
    EXPECT_EQ(libKestrel::nvapiBinding().references, 2u);
    EXPECT_EQ(nvapi::NvAPI_Unload(), nvapi::NVAPI_OK);
    EXPECT_TRUE(libKestrel::nvapiBinding().library.isLoaded()) << "one reference is still out";
    EXPECT_EQ(enumerateInto(count), nvapi::NVAPI_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(nvapi::NvAPI_Unload(), nvapi::NVAPI_OK);
    expectNvapiReleased();
    EXPECT_EQ(enumerateInto(count), nvapi::NVAPI_API_NOT_INITIALIZED) << "no call reaches the driver after";
    EXPECT_EQ(nvapi::NvAPI_Unload(), nvapi::NVAPI_API_NOT_INITIALIZED) << "an extra unload changes nothing";
    EXPECT_EQ(machine.count("NvAPI_Initialize"), 2u);
    EXPECT_EQ(machine.count("NvAPI_Unload"), 2u) << "only balanced unloads reach the driver";
    EXPECT_EQ(machine.count("NvAPI_EnumPhysicalGPUs"), 1u);
}

TEST(NvapiLayer, AFailedStartOrARefusedUnloadLeavesTheCountAsItWas)
{
    {
        SimulatedMachine machine(R"({"faults": {"NvAPI_Initialize": {"return": -1}}})");
        EXPECT_EQ(nvapi::NvAPI_Initialize(), nvapi::NVAPI_ERROR);
        expectNvapiReleased();
    }
    SimulatedMachine machine(R"({"faults": {"NvAPI_Unload": {"call": 0, "return": -1}}})");
    ASSERT_EQ(nvapi::NvAPI_Initialize(), nvapi::NVAPI_OK);
    // A driver still holding resources refuses; the reference stays until it agrees.
    EXPECT_EQ(nvapi::NvAPI_Unload(), nvapi::NVAPI_ERROR);
    EXPECT_EQ(libKestrel::nvapiBinding().references, 1u);
    EXPECT_TRUE(libKestrel::nvapiBinding().library.isLoaded());
    EXPECT_EQ(nvapi::NvAPI_Unload(), nvapi::NVAPI_OK);
    expectNvapiReleased();
}

// Run once per way of not having NVAPI: no module, a file that is no module, a
// module that is not NVAPI (all NVAPI_LIBRARY_NOT_FOUND), and a driver without
// NvAPI_Initialize (NVAPI_NO_IMPLEMENTATION). KESTREL_TEST_NVAPI_STATUS names
// the status expected.
TEST(NvapiAbsent, NothingIsFoundAndNothingIsHeld)
{
    const char* expected = std::getenv("KESTREL_TEST_NVAPI_STATUS");
    ASSERT_NE(expected, nullptr);
    SimulatedMachine machine(oneGpu);
    EXPECT_EQ(nvapi::NvAPI_Initialize(), std::atoi(expected));
    expectNvapiReleased();

    {
        LogCapture capture(Priority::WARNING);
        std::bitset<4> status;
        EXPECT_TRUE(libKestrel::queryNVidiaGPUs(status).empty());
        EXPECT_EQ(capture.of("libKestrel.NVidiaGPUQuerier"),
                  (std::vector<std::string>{"3|105 Could not initialize NVAPI"}));
        EXPECT_TRUE(status.none());
        expectNvapiReleased();
    }
    {
        LogCapture capture(Priority::WARNING);
        NVIDIAGPU::NvAPIInitializer initializer;
        std::vector<NVIDIAGPU> gpus;
        EXPECT_EQ(NVIDIAGPU::enumerate(gpus), 0u);
        EXPECT_THROW({ NVIDIAGPU gpu(pci::PciLocation(9, 0, 0, 0)); }, std::exception);
        EXPECT_EQ(capture.messages("libKestrel"),
                  (std::vector<std::string>{"3|28 Function : NvAPI_EnumPhysicalGPUs returns -4",
                                            "3|28 Function : NvAPI_EnumPhysicalGPUs returns -4",
                                            "3|113 No NVIDIA GPUS enumerated."}));
    }
    expectNvapiReleased();
}

// The driver hands out no NvAPI_GPU_GetGpuCoreCount and no NvAPI_GPU_GetThermalSettings.
TEST(NvapiPartial, AMissingEntryCostsOnlyWhatItWouldHaveAnswered)
{
    SimulatedMachine machine(oneGpu);
    {
        LogCapture capture(Priority::WARNING);
        std::bitset<4> status;
        const auto records = libKestrel::queryNVidiaGPUs(status);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_FALSE(records[0]->coreCount().has_value());
        EXPECT_EQ(records[0]->name(), "Only");
        EXPECT_EQ(capture.of("libKestrel.NVAPI"),
                  (std::vector<std::string>{"3|212 Could not retrieve GPU core count: -3"}));
        expectNvapiReleased();
    }
    {
        NVIDIAGPU::NvAPIInitializer initializer;
        LogCapture capture(Priority::WARNING);
        std::vector<NVIDIAGPU> gpus;
        ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 1u);
        std::vector<float> temps;
        EXPECT_FALSE(gpus[0].currentTemperature(temps)) << "no sensors could be listed";
        EXPECT_EQ(capture.of("libKestrel"),
                  std::vector<std::string>{"3|28 Function : NvAPI_GPU_GetThermalSettings returns "
                                           "NVAPI_NO_IMPLEMENTATION"});
    }
    expectNvapiReleased();
}

} // namespace
