#include <gtest/gtest.h>

#include "CudaTest.h"
#include "common/Simulator.h"
#include "libKestrel/vendor/cuda.h"
#include "tova/DynamicLibrary.h"

namespace {

using namespace libKestrel::cuda;

// The simulated driver as any driver API client sees it.
TEST(SimulatedCudaDriver, AnswersAsTheDriverDoes)
{
    kestrel::test::SimulatedMachine machine(R"({
      "cudaDriver": {"version": 11080},
      "gpus": [{"name": "NVIDIA A100-SXM4-80GB", "pci": {"bus": 7}, "cuda": {}}],
      "faults": {"cuGetErrorString": {"call": 1, "return": 34}}})");
    tova::DynamicLibrary driver{tova::String(kestrel::test::cudaDriverFile)};
    ASSERT_TRUE(driver.load());
    const auto entry = [&driver](const char* name) {
        void* symbol = driver.getSymbol(name);
        EXPECT_NE(symbol, nullptr) << name;
        return symbol;
    };
    const auto init = reinterpret_cast<PFN_cuInit>(entry("cuInit"));
    const auto driverGetVersion = reinterpret_cast<PFN_cuDriverGetVersion>(entry("cuDriverGetVersion"));
    const auto deviceGetCount = reinterpret_cast<PFN_cuDeviceGetCount>(entry("cuDeviceGetCount"));
    const auto deviceGet = reinterpret_cast<PFN_cuDeviceGet>(entry("cuDeviceGet"));
    const auto deviceGetName = reinterpret_cast<PFN_cuDeviceGetName>(entry("cuDeviceGetName"));
    const auto deviceGetAttribute = reinterpret_cast<PFN_cuDeviceGetAttribute>(entry("cuDeviceGetAttribute"));
    const auto getErrorName = reinterpret_cast<PFN_cuGetErrorName>(entry("cuGetErrorName"));
    const auto getErrorString = reinterpret_cast<PFN_cuGetErrorString>(entry("cuGetErrorString"));
    ASSERT_FALSE(testing::Test::HasFailure());

    int count = -1;
    EXPECT_EQ(deviceGetCount(&count), CUDA_ERROR_NOT_INITIALIZED) << "nothing about devices before cuInit";
    int version = 0;
    EXPECT_EQ(driverGetVersion(&version), CUDA_SUCCESS);
    EXPECT_EQ(version, 11080);
    EXPECT_EQ(init(1), CUDA_ERROR_INVALID_VALUE);
    ASSERT_EQ(init(0), CUDA_SUCCESS);
    EXPECT_EQ(deviceGetCount(&count), CUDA_SUCCESS);
    EXPECT_EQ(count, 1);

    CUdevice device = -1;
    EXPECT_EQ(deviceGet(&device, 1), CUDA_ERROR_INVALID_DEVICE);
    ASSERT_EQ(deviceGet(&device, 0), CUDA_SUCCESS);
    char name[8];
    EXPECT_EQ(deviceGetName(name, sizeof name, device), CUDA_SUCCESS);
    EXPECT_STREQ(name, "NVIDIA ") << "truncated to the buffer and terminated";
    int value = 0;
    EXPECT_EQ(deviceGetAttribute(&value, CU_DEVICE_ATTRIBUTE_PCI_BUS_ID, device), CUDA_SUCCESS);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(deviceGetAttribute(&value, static_cast<CUdevice_attribute>(12345), device), CUDA_ERROR_INVALID_VALUE);

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
