// NVIDIAGPU::supportsCuda: the CUDA device at the GPU's bus and device number.

#include "common/Test.h"
#include "libKestrel/NVIDIAGPU.h"

namespace {

using kestrel::test::LogLine;

// A CUDA device at 'bus' and 'device' with compute capability 'major'.'minor',
// which NVAPI does not see.
std::string cudaDevice(int bus, int device, int major, int minor)
{
    return R"({"pci": {"bus": )" + std::to_string(bus) + R"(, "device": )" + std::to_string(device) +
           R"(}, "cuda": {"major": )" + std::to_string(major) + R"(, "minor": )" + std::to_string(minor) + "}}";
}

TEST(SupportsCuda, AnswersForTheCudaDeviceAtTheGpusBusAndDevice)
{
    const std::string at65 = cudaDevice(101, 0, 6, 1);
    const std::string atOtherBus = cudaDevice(23, 0, 7, 5);
    const std::string atOtherDevice = cudaDevice(101, 1, 7, 5);
    const struct {
        std::string gpus;
        int driverVersion;
        const char* faults;
        bool supported;
        unsigned major, minor; // 99 where they must stay untouched
        std::vector<LogLine> lines;
    } rows[] = {
        {at65, 12040, "{}", true, 6, 1, {}},
        {at65, 5000, "{}", true, 6, 1, {}}, // a driver as old as the runtime is enough
        {at65, 4020, "{}", false, 99, 99,
         {{"libKestrel", 1, "286 Older version of CUDA is installed. Support for this version is not available. "
                            "Driver Version is 4020 Runtime Version is 5000"}}},
        // The device must match in bus and device number, wherever it is in CUDA's order.
        {atOtherBus + "," + at65, 12040, "{}", true, 6, 1, {}},
        {atOtherDevice + "," + at65, 12040, "{}", true, 6, 1, {}},
        {at65 + "," + atOtherDevice, 12040, "{}", true, 6, 1, {}},
        {atOtherBus, 12040, "{}", false, 99, 99, {}},
        {atOtherDevice, 12040, "{}", false, 99, 99, {}},
        {at65, 12040, R"({"cuDriverGetVersion": {"return": 3}})", false, 99, 99,
         {{"libKestrel", 1, "276 Could not get driver version"}}},
        {at65, 12040, R"({"cuDeviceGetCount": {"return": 999}})", false, 99, 99,
         {{"libKestrel", 1, "294 Cannot enumerate any CUDA devices"}}},
        // A device whose properties fail is skipped, not fatal.
        {at65, 12040, R"({"cuDeviceGetAttribute": {"device": 0, "return": 1}})", false, 99, 99, {}},
        {atOtherBus + "," + at65, 12040, R"({"cuDeviceGetAttribute": {"device": 0, "return": 1}})", true, 6, 1, {}},
    };
    // NVAPI's card at 65:00.0, the one asked about.
    const kestrel::test::SimulatedModules modules{"sim_nvapi"};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.gpus + " " + std::to_string(row.driverVersion) + " " + row.faults);
        kestrel::test::SimulatedMachine machine(
            R"({"cudaDriver": {"version": )" + std::to_string(row.driverVersion) +
            R"(}, "gpus": [{"name": "NVIDIA GeForce GTX 1080", "pci": {"bus": 101, "device": 0}, "nvapi": {}}, )" +
            row.gpus + R"(], "faults": )" + row.faults + "}");
        libKestrel::NVIDIAGPU gpu(pci::PciLocation(101, 0, 0, 0));
        kestrel::test::LogCapture capture;
        unsigned major = 99, minor = 99;
        EXPECT_EQ(gpu.supportsCuda(major, minor), row.supported);
        EXPECT_EQ(std::make_pair(major, minor), std::make_pair(row.major, row.minor));
        EXPECT_EQ(capture.messages(), row.lines);
    }
}

} // namespace
