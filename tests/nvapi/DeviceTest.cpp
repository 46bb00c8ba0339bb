// The exported NVIDIAGPU class against the simulated driver.
#include <exception>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Simulator.h"
#include "libKestrel/NVIDIAGPU.h"
#include "libKestrel/internal/windows/NVidia/nvapiwrapper.h"
#include "nvapi/NvapiTesting.h"

namespace {

using kestrel::test::expectNvapiReleased;
using kestrel::test::LogCapture;
using kestrel::test::messagesStartingWith;
using kestrel::test::SimulatedMachine;
using libKestrel::NVIDIAGPU;
using Priority = tova::LoggerPriority;

const char* const logger = "libKestrel";

// References of the test's own that keep NVAPI up while the objects a test
// drops unload it (see CopiesAndMovesNeverInitialiseButAlwaysUnload).
using HeldNvapi = std::vector<NVIDIAGPU::NvAPIInitializer>;

// A desktop GPU whose first sensor measures memory and second the GPU, and a
// laptop GPU without sensors. The desktop GPU's memory clock is marked absent.
std::string machine(const std::string& extra = "", const std::string& settings = R"("stereo": true)")
{
    return R"({"nvapi": {)" + settings + R"(}, "gpus": [
        {"name": "Quadro RTX 8000", "pci": {"bus": 101, "device": 0},
         "nvapi": {"memory": {"dedicated": 50331648}, "systemType": 2, "tach": 1450,
                   "clocks": {"current": {"graphics": 1530000, "memory": {"frequency": 1529999, "present": false}},
                              "base": {"graphics": 1395000, "memory": 7000000}},
                   "thermal": [{"controller": 1, "target": 2, "current": 70},
                               {"controller": 1, "target": 1, "current": 55}]}},
        {"name": "GeForce GTX 1050 Mobile", "pci": {"bus": 2, "device": 0},
         "nvapi": {"memory": {"dedicated": 4194304}, "systemType": 1}}])" +
           extra + "}";
}

class NvidiaGpu : public testing::Test {
protected:
    // Whatever a test built and copied, NVAPI is let go once everything is gone.
    void TearDown() override { expectNvapiReleased(); }
};

TEST_F(NvidiaGpu, EnumerateReplacesTheListOnlyWhenNvapiAnswers)
{
    SimulatedMachine simulated(machine(R"(, "faults": {"NvAPI_EnumPhysicalGPUs": [{"call": 1, "return": -6},
                                                                                  {"call": 2, "count": 0}],
                                                         "NvAPI_GPU_GetMemoryInfo": {"call": 1, "return": -1}})"));
    const HeldNvapi nvapi(8);
    LogCapture capture;
    std::vector<NVIDIAGPU> gpus;
    EXPECT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
    ASSERT_EQ(gpus.size(), 2u);
    EXPECT_EQ(gpus[0].pciLocation(), pci::PciLocation(101, 0, 0, 0));
    EXPECT_EQ(gpus[0].name(), "Quadro RTX 8000");
    EXPECT_EQ(gpus[0].videoMemoryKB(), 50331648u);
    EXPECT_EQ(gpus[1].pciLocation(), pci::PciLocation(2, 0, 0, 0));
    EXPECT_EQ(gpus[1].name(), "GeForce GTX 1050 Mobile");
    EXPECT_EQ(gpus[1].videoMemoryKB(), 0u) << "its memory read failed";
    EXPECT_EQ(capture.messages(logger),
              (std::vector<std::string>{"2|99 Total Video Memory 50331648 kb",
                                        "3|28 Function : NvAPI_GPU_GetMemoryInfo returns NVAPI_ERROR"}));
    EXPECT_TRUE(capture.has(logger, 1,
                            "Entering NVIDIAGPU::enumerate(std::vector<NVIDIAGPU>& kestrel) "
                            "(libKestrel/windows/NVIDIAGPU.cpp:70)"));
    EXPECT_TRUE(capture.has(logger, 1,
                            "Entering NVIDIAGPU::NVIDIAGPU(GPUHandle handle) (libKestrel/windows/NVIDIAGPU.cpp:90)"));

    capture.clear();
    EXPECT_EQ(NVIDIAGPU::enumerate(gpus), 0u);
    EXPECT_EQ(gpus.size(), 2u) << "a failed enumeration leaves the list alone";
    EXPECT_EQ(gpus[0].name(), "Quadro RTX 8000");
    EXPECT_EQ(capture.messages(logger),
              std::vector<std::string>{"3|28 Function : NvAPI_EnumPhysicalGPUs returns NVAPI_NVIDIA_DEVICE_NOT_FOUND"});

    EXPECT_EQ(NVIDIAGPU::enumerate(gpus), 0u);
    EXPECT_TRUE(gpus.empty()) << "no GPUs empties the list";
}

TEST_F(NvidiaGpu, ConstructionByLocationFindsTheGpuThere)
{
    {
        SimulatedMachine simulated(machine());
        // Each object built here costs NVAPI a reference more than it takes:
        // its enumeration's list dies.
        const HeldNvapi nvapi(8);
        LogCapture capture;
        const NVIDIAGPU laptop(pci::PciLocation(2, 0, 0, 0));
        EXPECT_EQ(laptop.name(), "GeForce GTX 1050 Mobile");
        EXPECT_EQ(laptop.videoMemoryKB(), 4194304u);
        EXPECT_TRUE(laptop.isNotebook());
        EXPECT_TRUE(capture.has(logger, 1,
                                "Entering NVIDIAGPU::NVIDIAGPU(const pci::PciLocation& pciLocation) "
                                "(libKestrel/windows/NVIDIAGPU.cpp:119)"));

        // No GPU at the location (a GPU differing only in function is another place).
        for (const pci::PciLocation& nowhere : {pci::PciLocation(7, 0, 0, 0), pci::PciLocation(2, 0, 1, 0)}) {
            const NVIDIAGPU gpu(nowhere);
            EXPECT_EQ(gpu.pciLocation(), nowhere);
            EXPECT_EQ(gpu.name(), "");
            EXPECT_EQ(gpu.videoMemoryKB(), 0u);
            EXPECT_FALSE(gpu.isDesktop());
            EXPECT_FALSE(gpu.isNotebook());
            EXPECT_EQ(gpu.fanSpeed(), 0u) << "it has no handle to ask with";
        }
    }
    {
        SimulatedMachine simulated(R"({"gpus": []})");
        const HeldNvapi nvapi(8);
        LogCapture capture;
        EXPECT_THROW({ NVIDIAGPU gpu(pci::PciLocation(2, 0, 0, 0)); }, std::exception);
        EXPECT_EQ(capture.messages(logger), (std::vector<std::string>{"3|113 No NVIDIA GPUS enumerated."}));
    }
    {
        SimulatedMachine simulated(machine(R"(, "faults": {"NvAPI_GPU_GetBusId": {"device": 1, "return": -8}})"));
        const HeldNvapi nvapi(8);
        LogCapture capture;
        std::vector<NVIDIAGPU> gpus;
        EXPECT_THROW(NVIDIAGPU::enumerate(gpus), std::exception);
        EXPECT_EQ(gpus.size(), 1u) << "the GPUs before the unreadable one are kept";
        EXPECT_EQ(messagesStartingWith(capture, logger, "3|"),
                  (std::vector<std::string>{"3|28 Function : NvAPI_GPU_GetBusId returns NVAPI_INVALID_HANDLE"}));
    }
}

// Sensors are counted by target but read by position.
TEST_F(NvidiaGpu, TemperaturesAreReadByPositionForEachGpuSensor)
{
    SimulatedMachine simulated(machine(R"(, "faults": {"NvAPI_GPU_GetThermalSettings": {"call": 3, "return": -1}})"));
    const HeldNvapi nvapi(8);
    LogCapture capture;
    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
    EXPECT_TRUE(capture.has(logger, 1,
                            "Entering void NVIDIAGPU::enumerateThermalSensors() "
                            "(libKestrel/windows/NVIDIAGPU.cpp:264)"));

    std::vector<float> temps{1.0f, 2.0f};
    EXPECT_TRUE(gpus[0].currentTemperature(temps));
    EXPECT_EQ(temps, std::vector<float>{70.0f}) << "sensor 0's temperature, for the one GPU sensor at position 1";

    // The next read fails: reported, and nothing is left.
    EXPECT_FALSE(gpus[0].currentTemperature(temps));
    EXPECT_TRUE(temps.empty());
    EXPECT_TRUE(capture.has(logger, 3, "28 Function : NvAPI_GPU_GetThermalSettings returns NVAPI_ERROR"));

    temps = {1.0f};
    EXPECT_FALSE(gpus[1].currentTemperature(temps)) << "a GPU without GPU sensors";
    EXPECT_TRUE(temps.empty());
}

TEST_F(NvidiaGpu, AnAbsurdSensorCountNeverReadsPastTheSensorArray)
{
    SimulatedMachine simulated(R"({"gpus": [{"pci": {"bus": 1}, "nvapi": {"thermal": [
                                       {"target": 1, "current": 40}, {"target": 1, "current": 41}]}}],
                                  "faults": {"NvAPI_GPU_GetThermalSettings": {"count": 1000}}})");
    const HeldNvapi nvapi(8);
    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 1u);
    std::vector<float> temps;
    EXPECT_TRUE(gpus[0].currentTemperature(temps));
    EXPECT_EQ(temps, (std::vector<float>{40.0f, 41.0f}));
}

TEST_F(NvidiaGpu, AnOldDriverIsAskedForThermalSettingsOfTheFirstRevision)
{
    for (const bool oldDriver : {false, true}) {
        SCOPED_TRACE(oldDriver ? "old driver" : "current driver");
        SimulatedMachine simulated(machine("", std::string(R"("oldDriver": )") + (oldDriver ? "true" : "false")));
        const HeldNvapi nvapi(8);
        LogCapture capture(Priority::WARNING);
        std::vector<NVIDIAGPU> gpus;
        ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
        std::vector<float> temps;
        EXPECT_TRUE(gpus[0].currentTemperature(temps));
        EXPECT_EQ(temps, std::vector<float>{70.0f});
        // Two GPUs built and one read: each a refused revision 2 and a revision 1 for the old driver.
        EXPECT_EQ(simulated.count("NvAPI_GPU_GetThermalSettings"), oldDriver ? 6u : 3u);
        EXPECT_EQ(capture.of(logger), std::vector<std::string>{});
    }
}

TEST_F(NvidiaGpu, ClocksAreWholeMegahertzWhateverThePresentBits)
{
    SimulatedMachine simulated(
        machine(R"(, "faults": {"NvAPI_GPU_GetAllClockFrequencies": {"call": 2, "return": -1}})"));
    const HeldNvapi nvapi(8);
    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
    LogCapture capture;
    unsigned int graphics = 0;
    unsigned int memory = 0;
    EXPECT_TRUE(gpus[0].currentClock(graphics, memory));
    EXPECT_EQ(graphics, 1530u);
    EXPECT_EQ(memory, 1529u) << "1529999 kHz, truncated, though marked absent";
    EXPECT_TRUE(gpus[0].baseClock(graphics, memory));
    EXPECT_EQ(graphics, 1395u);
    EXPECT_EQ(memory, 7000u);

    graphics = memory = 77;
    EXPECT_FALSE(gpus[0].currentClock(graphics, memory));
    EXPECT_EQ(graphics, 77u);
    EXPECT_EQ(memory, 77u);
    EXPECT_EQ(capture.of(logger), std::vector<std::string>{}) << "clock failures are silent";
}

TEST_F(NvidiaGpu, SliMembershipListsTheOtherGpusOfTheGroup)
{
    SimulatedMachine simulated(R"({"gpus": [{"name": "A", "pci": {"bus": 1}, "nvapi": {}},
                                             {"name": "B", "pci": {"bus": 2}, "nvapi": {}},
                                             {"name": "C", "pci": {"bus": 3}, "nvapi": {}}],
                                   "sli": [[0, 1]],
                                   "faults": {"NvAPI_GetLogicalGPUFromPhysicalGPU": {"call": 2, "return": -104},
                                              "NvAPI_GetPhysicalGPUsFromLogicalGPU": {"call": 2, "count": 9}}})");
    const HeldNvapi nvapi(8);
    LogCapture capture(Priority::WARNING);
    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 3u);

    std::vector<NVIDIAGPU> others;
    EXPECT_TRUE(gpus[0].isInSLI(others));
    ASSERT_EQ(others.size(), 1u);
    EXPECT_EQ(others[0].name(), "B");
    EXPECT_EQ(others[0].pciLocation(), gpus[1].pciLocation());

    EXPECT_FALSE(gpus[2].isInSLI(others));
    EXPECT_TRUE(others.empty()) << "a GPU alone in its logical GPU has no partners";

    EXPECT_FALSE(gpus[1].isInSLI(others));
    EXPECT_EQ(capture.of(logger),
              std::vector<std::string>{"3|28 Function : NvAPI_GetLogicalGPUFromPhysicalGPU returns "
                                       "NVAPI_NOT_SUPPORTED"});

    // A count beyond the handles written sends empty handles to the handle
    // constructor, whose unreadable bus throws; nothing is read past the array.
    EXPECT_THROW(gpus[0].isInSLI(others), std::exception);
}

// The list asked to hold the partners may hold the asking GPU itself, and grow
// past its room while it is filled.
TEST_F(NvidiaGpu, TheAskingGpuMayBeInTheListOfPartners)
{
    SimulatedMachine simulated(R"({"gpus": [{"name": "A", "pci": {"bus": 1}, "nvapi": {}},
                                             {"name": "B", "pci": {"bus": 2}, "nvapi": {}},
                                             {"name": "C", "pci": {"bus": 3}, "nvapi": {}}],
                                   "sli": [[0, 1, 2]]})");
    const HeldNvapi nvapi(8);
    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 3u);
    std::vector<NVIDIAGPU> list;
    list.push_back(gpus[0]);
    list.shrink_to_fit();
    EXPECT_TRUE(list[0].isInSLI(list));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].name(), "B");
    EXPECT_EQ(list[1].name(), "C");
}

// Hosts use the class from many threads: every reference taken and dropped
// meanwhile is counted, and no call runs into a release.
TEST_F(NvidiaGpu, ReferencesTakenOnManyThreadsAreCountedExactly)
{
    SimulatedMachine simulated(machine());
    const HeldNvapi keep(1);
    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
    const unsigned int references = libKestrel::nvapiBinding().references;
    std::vector<std::thread> hosts;
    for (int t = 0; t < 4; ++t)
        hosts.emplace_back([&gpus] {
            for (int i = 0; i < 500; ++i) {
                const NVIDIAGPU::NvAPIInitializer reference;
                EXPECT_EQ(gpus[0].fanSpeed(), 1450u);
            }
        });
    for (std::thread& host : hosts)
        host.join();
    EXPECT_EQ(libKestrel::nvapiBinding().references, references);
    EXPECT_EQ(simulated.count("NvAPI_Initialize"), simulated.count("NvAPI_Unload") + references);
}

TEST_F(NvidiaGpu, LiveAnswersAndTheirSilentFailures)
{
    SimulatedMachine simulated(machine(R"(, "faults": {"NvAPI_GPU_GetTachReading": {"call": 1, "return": -1},
                                                       "NvAPI_Stereo_IsEnabled": {"call": 1, "return": -1}})"));
    const HeldNvapi nvapi(8);
    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
    LogCapture capture;
    EXPECT_EQ(gpus[0].fanSpeed(), 1450u);
    EXPECT_TRUE(gpus[0].isStereoEnabled());
    EXPECT_TRUE(gpus[0].isDesktop());
    EXPECT_FALSE(gpus[0].isNotebook());
    EXPECT_FALSE(gpus[0].supportOptimus());
    EXPECT_FALSE(gpus[1].isDesktop());
    EXPECT_TRUE(gpus[1].isNotebook());
    EXPECT_TRUE(gpus[1].supportOptimus()) << "a laptop counts as an Optimus system";
    EXPECT_TRUE(capture.has(logger, 1, "Entering NVIDIAAdapterInfo::isOptimus (libKestrel/windows/NVIDIAGPU.cpp:150)"));

    EXPECT_EQ(gpus[0].fanSpeed(), 0u);
    EXPECT_FALSE(gpus[0].isStereoEnabled());
    EXPECT_EQ(messagesStartingWith(capture, logger, "3|"), std::vector<std::string>{});
}

// Only constructors initialise NVAPI; every object that dies unloads it.
TEST_F(NvidiaGpu, CopiesAndMovesNeverInitialiseButAlwaysUnload)
{
    SimulatedMachine simulated(machine());
    // Enough references that NVAPI stays up, so every unload reaches the driver.
    const HeldNvapi keep(8);
    const auto initializations = [&simulated] { return simulated.count("NvAPI_Initialize"); };
    const auto unloads = [&simulated] { return simulated.count("NvAPI_Unload"); };
    EXPECT_EQ(initializations(), 8u);

    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
    EXPECT_EQ(initializations(), 10u) << "one per GPU built from its handle";
    EXPECT_EQ(unloads(), 2u) << "the two objects moved into the list";
    {
        NVIDIAGPU copy(gpus[0]);
        NVIDIAGPU moved(std::move(copy));
        // A moved-from object keeps its location and memory size, not its name or sensors.
        EXPECT_EQ(copy.pciLocation(), gpus[0].pciLocation());
        EXPECT_EQ(copy.videoMemoryKB(), gpus[0].videoMemoryKB());
        EXPECT_EQ(copy.name(), "");
        std::vector<float> temps;
        EXPECT_FALSE(copy.currentTemperature(temps));
        EXPECT_TRUE(moved.currentTemperature(temps));
        EXPECT_EQ(moved.name(), "Quadro RTX 8000");

        copy = gpus[1];
        moved = std::move(copy);
        EXPECT_EQ(moved.name(), "GeForce GTX 1050 Mobile");
        EXPECT_EQ(initializations(), 10u);
        EXPECT_EQ(unloads(), 2u);
    }
    EXPECT_EQ(unloads(), 4u) << "the copy and the moved-to object unload once each";
    {
        const NVIDIAGPU byLocation(gpus[1].pciLocation());
        EXPECT_EQ(initializations(), 13u) << "its own, and one per GPU of its enumeration";
        EXPECT_EQ(unloads(), 8u) << "the enumeration's temporaries and its list";
    }
    EXPECT_EQ(unloads(), 9u);
}

// With nothing but the objects' own initialisations, a dying copy lets NVAPI
// go under the original, whose live questions then fail safely.
TEST_F(NvidiaGpu, ACopyLetsNvapiGoUnderTheOriginal)
{
    SimulatedMachine simulated(machine());
    NVIDIAGPU::NvAPIInitializer nvapi;
    std::vector<NVIDIAGPU> gpus;
    ASSERT_EQ(NVIDIAGPU::enumerate(gpus), 2u);
    EXPECT_EQ(gpus[0].fanSpeed(), 1450u);
    { const NVIDIAGPU copy = gpus[0]; }
    expectNvapiReleased();

    LogCapture capture(Priority::WARNING);
    unsigned int graphics = 0;
    unsigned int memory = 0;
    std::vector<float> temps;
    EXPECT_EQ(gpus[0].fanSpeed(), 0u);
    EXPECT_FALSE(gpus[0].currentClock(graphics, memory));
    EXPECT_FALSE(gpus[0].isStereoEnabled());
    EXPECT_FALSE(gpus[0].currentTemperature(temps));
    EXPECT_EQ(gpus[0].name(), "Quadro RTX 8000") << "captured when it was built";
    // NVAPI cannot describe its status while it is down: the number stands in.
    EXPECT_EQ(capture.of(logger),
              std::vector<std::string>{"3|28 Function : NvAPI_GPU_GetThermalSettings returns -4"});
}

} // namespace
