#include <gtest/gtest.h>

#include "CudaTest.h"
#include "common/Simulator.h"
#include "libKestrel/vendor/cuda.h"
#include "tova/DynamicLibrary.h"

namespace {

using namespace libKestrel::cuda;

// The simulated driver as any driver API client sees it: what the library's own
// calls do not reach (the state before cuInit, truncated names, error texts).
TEST(SimulatedCudaDriver, AnswersAsTheDriverDoes)
{
    kestrel::test::SimulatedMachine machine(R"({
      "cudaDriver": {"version": 11080},
      "gpus": [{"name": "NVIDIA A100-SXM4-80GB", "pci": {"bus": 7}, "cuda": {}}],
      "faults": {"cuGetErrorString": {"call": 1, "return": 34}}})");
    tova::DynamicLibrary driver{tova::String(kestrel::test::cudaDriverFile)};
    ASSERT_TRUE(driver.load());
    const auto init = reinterpret_cast<PFN_cuInit>(driver.getSymbol("cuInit"));
    const auto driverGetVersion = reinterpret_cast<PFN_cuDriverGetVersion>(driver.getSymbol("cuDriverGetVersion"));
    const auto deviceGetName = reinterpret_cast<PFN_cuDeviceGetName>(driver.getSymbol("cuDeviceGetName"));
    const auto getErrorName = reinterpret_cast<PFN_cuGetErrorName>(driver.getSymbol("cuGetErrorName"));
    const auto getErrorString = reinterpret_cast<PFN_cuGetErrorString>(driver.getSymbol("cuGetErrorString"));
    ASSERT_TRUE(init && driverGetVersion && deviceGetName && getErrorName && getErrorString);

    int version = 0;
    EXPECT_EQ(driverGetVersion(&version), CUDA_SUCCESS) ;
    EXPECT_EQ(version, 11080);
    EXPECT_EQ(init(1), CUDA_ERROR_INVALID_VALUE);
    ASSERT_EQ(init(0), CUDA_SUCCESS);
    char name[8];
    EXPECT_EQ(deviceGetName(name, sizeof name, 0), CUDA_SUCCESS);
    EXPECT_STREQ(name, "NVIDIA ") << "truncated to the buffer and terminated";

    const char* text = nullptr;
    EXPECT_EQ(getErrorName(CUDA_ERROR_NO_DEVICE, &text), CUDA_SUCCESS);
    EXPECT_STREQ(text, "CUDA_ERROR_NO_DEVICE");
    EXPECT_EQ(getErrorString(CUDA_ERROR_NO_DEVICE, &text), CUDA_SUCCESS);
    EXPECT_STREQ(text, "no CUDA-capable device is detected");
    EXPECT_EQ(getErrorString(CUDA_ERROR_NO_DEVICE, &text), CUDA_ERROR_STUB_LIBRARY) << "the injected failure";
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(getErrorName(static_cast<CUresult>(12345), &text), CUDA_ERROR_INVALID_VALUE);
    EXPECT_EQ(text, nullptr);
}

} // namespace
