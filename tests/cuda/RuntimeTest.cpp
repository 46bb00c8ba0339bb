#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/Simulator.h"
#include "libKestrel/internal/multi/NVidia/cudaRuntime.h"
#include "state/SimulatorState.h"

namespace {

using kestrel::test::SimulatedMachine;
namespace cuda = libKestrel::cuda;

const char* const oneDevice = R"({"gpus": [{"name": "Only", "pci": {"bus": 101}, "cuda": {}}]})";

// The journal's CUDA driver lifetime events, in order.
std::vector<std::string> lifetime(const SimulatedMachine& machine)
{
    std::vector<std::string> events;
    for (const auto& event : machine.journal())
        if (event == "load cuda" || event == "unload cuda" || event == "cuInit")
            events.push_back(event);
    return events;
}

TEST(CudaRuntime, EachCallLoadsTheDriverUnlessAHoldOnItsThreadShares)
{
    SimulatedMachine machine(oneDevice);
    int version = 0;
    ASSERT_EQ(libKestrel::cudaDriverGetVersion(&version), cuda::cudaSuccess);
    EXPECT_EQ(version, 12040);
    int count = 0;
    ASSERT_EQ(libKestrel::cudaGetDeviceCount(&count), cuda::cudaSuccess);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(lifetime(machine),
              (std::vector<std::string>{"load cuda", "unload cuda", "load cuda", "cuInit", "unload cuda"}));

    kestrelSimClearJournal();
    {
        const libKestrel::CudaDriverHold hold;
        const libKestrel::CudaDriverHold inner; // changes nothing
        cuda::cudaDeviceProp prop{};
        EXPECT_EQ(libKestrel::cudaGetDeviceCount(&count), cuda::cudaSuccess);
        EXPECT_EQ(libKestrel::cudaGetDeviceProperties(&prop, 0), cuda::cudaSuccess);
        EXPECT_STREQ(prop.name, "Only");
        EXPECT_EQ(prop.pciBusID, 101);
        EXPECT_EQ(lifetime(machine), (std::vector<std::string>{"load cuda", "cuInit"}));

        // Another thread does not use this thread's driver: it takes its own load
        // (of the module that is mapped already) and initialises it itself.
        std::thread other([] {
            int otherCount = 0;
            EXPECT_EQ(libKestrel::cudaGetDeviceCount(&otherCount), cuda::cudaSuccess);
        });
        other.join();
        EXPECT_EQ(machine.count("cuInit"), 2u);
        EXPECT_EQ(machine.count("unload cuda"), 0u);
    }
    EXPECT_EQ(lifetime(machine).back(), "unload cuda") << "the hold releases the driver when it ends";
}

TEST(CudaRuntime, BadArgumentsAreRefusedAndLeaveNothingBehind)
{
    SimulatedMachine machine(oneDevice);
    EXPECT_EQ(libKestrel::cudaDriverGetVersion(nullptr), cuda::cudaErrorInvalidValue);
    EXPECT_EQ(libKestrel::cudaRuntimeGetVersion(nullptr), cuda::cudaErrorInvalidValue);
    EXPECT_EQ(libKestrel::cudaGetDeviceCount(nullptr), cuda::cudaErrorInvalidValue);
    EXPECT_EQ(libKestrel::cudaGetDeviceProperties(nullptr, 0), cuda::cudaErrorInvalidValue);
    EXPECT_EQ(machine.count("load cuda"), 0u) << "no driver is loaded for a call that cannot be answered";

    // A failed call leaves the properties zeroed, whatever they held.
    for (const int device : {-1, 1, 32}) {
        cuda::cudaDeviceProp prop;
        std::memset(&prop, 0x5a, sizeof prop);
        EXPECT_EQ(libKestrel::cudaGetDeviceProperties(&prop, device), cuda::cudaErrorInvalidDevice);
        EXPECT_EQ(prop.name[0], '\0');
        EXPECT_EQ(prop.clockRate, 0);
        EXPECT_EQ(prop.memoryBusWidth, 0);
    }
    EXPECT_EQ(machine.count("load cuda"), machine.count("unload cuda"));

    // Codes from a later numbering mean nothing here.
    EXPECT_STREQ(libKestrel::cudaGetErrorName(static_cast<cuda::cudaError_t>(100)), "unrecognized error code");
    EXPECT_STREQ(libKestrel::cudaGetErrorString(static_cast<cuda::cudaError_t>(100)), "unrecognized error code");
}

TEST(CudaRuntime, ANameThatFillsTheBufferIsTerminatedWithinIt)
{
    SimulatedMachine machine(R"({"gpus": [{"name": "0123456789", "pci": {"bus": 101}, "cuda": {}}],
                                 "faults": {"cuDeviceGetName": {"unterminated": true}}})");
    cuda::cudaDeviceProp prop{};
    ASSERT_EQ(libKestrel::cudaGetDeviceProperties(&prop, 0), cuda::cudaSuccess);
    EXPECT_EQ(std::memchr(prop.name, '\0', sizeof prop.name), prop.name + sizeof prop.name - 1);
    EXPECT_EQ(prop.name[254], '4');
    EXPECT_EQ(prop.pciBusID, 101) << "the properties after the name are still read";
}

} // namespace
