#include <string>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Simulator.h"
#include "libKestrel/NVIDIAGPU.h"

namespace {

using kestrel::test::LogCapture;
using kestrel::test::SimulatedMachine;
using libKestrel::NVIDIAGPU;

// One card at bus 0x65 as NVAPI sees it, and CUDA's view of the same machine.
std::string machine(int driverVersion, int cudaBus, const std::string& faults = "{}")
{
    return R"({"cudaDriver": {"version": )" + std::to_string(driverVersion) + R"(},
               "gpus": [{"name": "NVIDIA GeForce GTX 1080", "pci": {"bus": 101, "device": 0},
                         "nvapi": {},
                         "cuda": {"major": 6, "minor": 1, "pci": {"bus": )" +
           std::to_string(cudaBus) + R"(, "device": 0}}}],
               "faults": )" + faults + "}";
}

struct Answer {
    bool supported;
    unsigned int major;
    unsigned int minor;
};

Answer ask()
{
    NVIDIAGPU gpu(pci::PciLocation(101, 0, 0, 0));
    Answer answer{false, 99, 99};
    answer.supported = gpu.supportsCuda(answer.major, answer.minor);
    return answer;
}

TEST(SupportsCuda, FindsTheCudaDeviceAtTheSameBusAndDevice)
{
    SimulatedMachine simulated(machine(12040, 101));
    LogCapture capture;
    const Answer answer = ask();
    EXPECT_TRUE(answer.supported);
    EXPECT_EQ(answer.major, 6u);
    EXPECT_EQ(answer.minor, 1u);
    EXPECT_TRUE(capture.has("libKestrel", 1,
                            "Entering bool NVIDIAGPU::supportsCuda(unsigned int& major, unsigned int& minor) "
                            "(libKestrel/windows/NVIDIAGPU.cpp:223)"));
    EXPECT_EQ(simulated.count("cuInit"), 1u) << "one driver load serves every question";
}

TEST(SupportsCuda, ADriverAsOldAsTheRuntimeIsEnoughAndAnOlderOneIsNot)
{
    {
        SimulatedMachine simulated(machine(5000, 101));
        EXPECT_TRUE(ask().supported);
    }
    SimulatedMachine simulated(machine(4020, 101));
    LogCapture capture;
    const Answer answer = ask();
    EXPECT_FALSE(answer.supported);
    EXPECT_EQ(answer.major, 99u) << "outputs are written only on success";
    EXPECT_TRUE(capture.has("libKestrel", 1,
                            "286 Older version of CUDA is installed. Support for this version is not available. "
                            "Driver Version is 4020 Runtime Version is 5000"));
}

TEST(SupportsCuda, FailuresAnswerFalseWithTheirMessage)
{
    {
        SimulatedMachine simulated(machine(12040, 23));
        LogCapture capture;
        const Answer answer = ask();
        EXPECT_FALSE(answer.supported) << "no CUDA device at this bus";
        EXPECT_EQ(answer.minor, 99u);
        EXPECT_EQ(capture.count("276 "), 0u);
        EXPECT_EQ(capture.count("294 "), 0u);
    }
    {
        SimulatedMachine simulated(machine(12040, 101, R"({"cuDriverGetVersion": {"return": 3}})"));
        LogCapture capture;
        EXPECT_FALSE(ask().supported);
        EXPECT_TRUE(capture.has("libKestrel", 1, "276 Could not get driver version"));
    }
    {
        SimulatedMachine simulated(machine(12040, 101, R"({"cuDeviceGetCount": {"return": 999}})"));
        LogCapture capture;
        EXPECT_FALSE(ask().supported);
        EXPECT_TRUE(capture.has("libKestrel", 1, "294 Cannot enumerate any CUDA devices"));
    }
    {
        // One device's properties fail: it is skipped, not fatal.
        SimulatedMachine simulated(machine(12040, 101, R"({"cuDeviceGetAttribute": {"device": 0, "return": 1}})"));
        EXPECT_FALSE(ask().supported);
    }
}

} // namespace
