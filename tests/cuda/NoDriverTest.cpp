// Run once per kind of unusable driver, named by KESTREL_TEST_CUDA_DRIVER: none at
// all ("absent"), a file that is no module ("unloadable"), a driver lacking an
// entry point the runtime calls ("incomplete") and NVIDIA's toolkit stub ("stub").

#include "common/Test.h"
#include "libKestrel/internal/multi/NVidia/cudaRuntime.h"
#include "tova/DynamicLibrary.h"
#include "tova/System.h"

namespace {

namespace cuda = libKestrel::cuda;

TEST(CudaNoDriver, NoUsableDriverMeansNoCudaAndNothingLeftLoaded)
{
    const std::string kind = tova::System::getEnvironmentVariable("KESTREL_TEST_CUDA_DRIVER").str();
    {
#if defined(_WIN32)
        tova::DynamicLibrary probe{tova::String("nvcuda.dll")};
#else
        tova::DynamicLibrary probe{tova::String("libcuda.so.1")};
#endif
        EXPECT_EQ(probe.load(), kind == "incomplete" || kind == "stub") << "this run's driver is " << kind;
    }

    // A machine with a CUDA device, which an unusable driver cannot show.
    kestrel::test::SimulatedMachine machine(R"({"gpus": [{"pci": {"bus": 101}, "cuda": {}}]})");
    kestrel::test::LogCapture capture;
    std::bitset<4> status("0110");
    EXPECT_TRUE(libKestrel::queryNVidiaCudaGPUsMulti(status).empty());
    EXPECT_EQ(status, std::bitset<4>("0110"));
    EXPECT_EQ(capture.messages(), (std::vector<kestrel::test::LogLine>{
                                      {"libKestrel.NVidiaCudaGPUQuerierMulti", 3,
                                       "87 Could not retrieve the CUDA driver version: cudaErrorInsufficientDriver: "
                                       "CUDA driver version is insufficient for CUDA runtime version"}}));

    // Every driver call says the same; the runtime version needs no driver.
    int version = -1;
    int count = -1;
    cuda::cudaDeviceProp prop{};
    EXPECT_EQ(libKestrel::cudaDriverGetVersion(&version), cuda::cudaErrorInsufficientDriver);
    EXPECT_EQ(libKestrel::cudaGetDeviceCount(&count), cuda::cudaErrorInsufficientDriver);
    EXPECT_EQ(libKestrel::cudaGetDeviceProperties(&prop, 0), cuda::cudaErrorInsufficientDriver);
    EXPECT_EQ(version | count, 0) << "outputs zeroed";
    EXPECT_EQ(libKestrel::cudaRuntimeGetVersion(&version), cuda::cudaSuccess);
    EXPECT_EQ(version, 5000);

    EXPECT_EQ(machine.count("cuInit"), 0u) << "an unusable driver is never initialised";
    EXPECT_EQ(machine.count("load cuda"), machine.count("unload cuda"));
}

} // namespace
