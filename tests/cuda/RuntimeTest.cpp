// The library's CUDA runtime calls over the simulated driver.
#include <thread>
#include <utility>

#include "common/Test.h"
#include "libKestrel/internal/multi/NVidia/cudaRuntime.h"

namespace {

using kestrel::test::SimulatedMachine;
namespace cuda = libKestrel::cuda;

const char* const oneDevice = R"({"gpus": [{"name": "Only", "pci": {"bus": 101}, "cuda": {}}]})";

std::pair<cuda::cudaError_t, int> deviceCount()
{
    int count = -1;
    return {libKestrel::cudaGetDeviceCount(&count), count};
}

// Run in a process of its own that starts without a driver: the driver, once
// found, stays for the rest of the process.
TEST(CudaLifetime, TheDriverIsLookedForUntilFoundThenLoadedAndInitialisedOncePerProcess)
{
    SimulatedMachine machine(oneDevice);
    EXPECT_EQ(deviceCount(), std::make_pair(cuda::cudaErrorInsufficientDriver, 0)) << "no driver installed yet";
    {
        // A driver installed while the host runs is found by the next call.
        const kestrel::test::SimulatedModules installed{"sim_cuda"};
        // Initialisation that fails is tried again, and so is a driver older
        // than the runtime.
        SimulatedMachine failing(R"({"gpus": [{"pci": {"bus": 101}, "cuda": {}}],
                                     "faults": {"cuInit": {"return": 3}}})");
        EXPECT_EQ(deviceCount(), std::make_pair(cuda::cudaErrorInitializationError, 0));
        SimulatedMachine old(R"({"gpus": [{"pci": {"bus": 101}, "cuda": {}}], "cudaDriver": {"version": 4020}})");
        EXPECT_EQ(deviceCount(), std::make_pair(cuda::cudaErrorInsufficientDriver, 0));
        EXPECT_EQ(old.count("cuInit"), 1u);

        SimulatedMachine good(oneDevice);
        std::vector<std::thread> hosts;
        for (int i = 0; i < 4; ++i)
            hosts.emplace_back([] {
                EXPECT_EQ(deviceCount(), std::make_pair(cuda::cudaSuccess, 1));
                std::bitset<4> status;
                EXPECT_EQ(libKestrel::queryNVidiaCudaGPUsMulti(status).size(), 1u);
            });
        for (std::thread& host : hosts)
            host.join();
        EXPECT_EQ(good.count("cuInit"), 1u) << "one initialisation for every thread and query";
    }
    // The test's own hold on the module is gone; the library's stays, initialised.
    EXPECT_EQ(machine.count("unload cuda"), 0u);
    SimulatedMachine after(oneDevice);
    EXPECT_EQ(deviceCount(), std::make_pair(cuda::cudaSuccess, 1));
    EXPECT_EQ(after.count("cuInit"), 0u);
}

} // namespace
