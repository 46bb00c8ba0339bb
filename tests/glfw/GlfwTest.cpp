#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Records.h"
#include "common/Simulator.h"
#include "libKestrel/Query.h"
#include "libKestrel/internal/Main.h"
#include "libKestrel/internal/multi/GLFW/glfwWrapper.h"
#include "libKestrel/vendor/glfw.h"
#include "tova/DynamicLibrary.h"

namespace {

using kestrel::test::LogCapture;
using kestrel::test::SimulatedMachine;
using libKestrel::IGPU;
using Priority = tova::LoggerPriority;
namespace glfw = libKestrel::glfw;

#if defined(_WIN32)
const char* const glfwModule = "glfw3.dll";
#else
const char* const glfwModule = "libglfw.so.3";
#endif

// What a monitor-side source saw of one monitor, read back through GLFW itself.
struct Visit {
    void* window;
    void* monitor;
    int windowX, windowY;
    int monitorX, monitorY;
    int visible;
};

// The GLFW the library loaded, held by the test to read windows back.
tova::DynamicLibrary readBack{tova::String(glfwModule)};
std::vector<Visit> visits;

template <class Function>
Function glfwFunction(const char* name)
{
    readBack.load();
    return reinterpret_cast<Function>(readBack.getSymbol(name));
}

// Records what it is given and reports one GPU per monitor, at bus 1, 2, ...
std::vector<std::shared_ptr<IGPU>> monitorSource(void* const& window, void* const& monitor)
{
    Visit visit{window, monitor, -1, -1, -1, -1, -1};
    auto* glfwWindow = static_cast<glfw::GLFWwindow*>(window);
    glfwFunction<glfw::PFN_glfwGetWindowPos>("glfwGetWindowPos")(glfwWindow, &visit.windowX, &visit.windowY);
    glfwFunction<glfw::PFN_glfwGetMonitorPos>("glfwGetMonitorPos")(static_cast<glfw::GLFWmonitor*>(monitor),
                                                                     &visit.monitorX, &visit.monitorY);
    visit.visible = glfwFunction<glfw::PFN_glfwGetWindowAttrib>("glfwGetWindowAttrib")(glfwWindow, glfw::GLFW_VISIBLE);
    visits.push_back(visit);
    auto gpu = kestrel::test::gpuAt(static_cast<unsigned char>(visits.size()));
    gpu->setNativeMonitorHandle(monitor);
    return {gpu};
}

// After every enumeration, whatever its outcome, the table is empty and the flag down.
void expectReleased()
{
    const libKestrel::GLFWBinding& binding = libKestrel::glfwBinding();
    EXPECT_FALSE(binding.loaded.load());
    // Every slot null: the table as a fresh one is, byte for byte.
    const libKestrel::GLFWFunctions empty;
    EXPECT_EQ(std::memcmp(&binding.functions, &empty, sizeof empty), 0);
}

const char* const twoMonitors = R"({"monitors": [{"name": "Left", "x": 0, "y": 0},
                                                 {"name": "Right", "x": 1920, "y": -120}]})";

class GlfwSimulated : public testing::Test {
protected:
    void SetUp() override { visits.clear(); }
};

TEST_F(GlfwSimulated, EachMonitorGetsAHiddenProbeWindowAtItsOrigin)
{
    SimulatedMachine machine(twoMonitors);
    LogCapture capture;
    const auto records = libKestrel::queryAvailableMonitorInfo({monitorSource});

    ASSERT_EQ(visits.size(), 2u);
    EXPECT_EQ(visits[0].windowX, 0);
    EXPECT_EQ(visits[0].windowY, 0);
    EXPECT_EQ(visits[1].windowX, 1920);
    EXPECT_EQ(visits[1].windowY, -120);
    EXPECT_NE(visits[0].monitor, visits[1].monitor);
    EXPECT_EQ(visits[0].visible, glfw::GLFW_FALSE);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]->nativeMonitorHandle(), visits[0].monitor) << "monitor 0 first";
    EXPECT_EQ(records[1]->nativeMonitorHandle(), visits[1].monitor);

    EXPECT_EQ(capture.messages("libKestrel.Main"),
              (std::vector<std::string>{"1|74 Monitors found: 2", "1|77 Monitor 0", "1|78   Name: Left",
                                        "1|98 Found 1 from vendor query", "1|77 Monitor 1", "1|78   Name: Right",
                                        "1|98 Found 1 from vendor query"}));
    EXPECT_TRUE(capture.has("libKestrel.GLFWWrapper", 1, "Entering initializeGLFWLibrary "
                                                         "(libKestrel/src/multi/GLFW/glfwWrapper.cpp:43)"));

    EXPECT_EQ(machine.count("glfwCreateWindow"), 2u);
    EXPECT_EQ(machine.count("glfwDestroyWindow"), 2u);
    EXPECT_EQ(machine.count("glfwTerminate"), 1u);
    EXPECT_EQ(machine.count("windows left open at glfwTerminate: 1"), 0u);
    expectReleased();
}

TEST_F(GlfwSimulated, InitFailureAndMissingMonitorsEndTheEnumerationCleanly)
{
    {
        SimulatedMachine machine(R"({"monitors": [{"name": "A"}], "faults": {"glfwInit": {"return": 0}}})");
        LogCapture capture(Priority::WARNING);
        EXPECT_TRUE(libKestrel::queryAvailableMonitorInfo({monitorSource}).empty());
        EXPECT_EQ(capture.of("libKestrel.Main"),
                  (std::vector<std::string>{"3|31 GLFW Error: Simulated: GLFW refused to initialize",
                                            "3|53 Failed to initialize GLFW"}));
        EXPECT_EQ(machine.count("glfwTerminate"), 0u) << "GLFW that never started is not terminated";
        expectReleased();
    }
    for (const char* noMonitors : {R"({"monitors": []})", R"({"monitors": [{"name": "A"}],
                                                             "faults": {"glfwGetMonitors": {"null": true}}})"}) {
        SimulatedMachine machine(noMonitors);
        LogCapture capture(Priority::WARNING);
        EXPECT_TRUE(libKestrel::queryAvailableMonitorInfo({monitorSource}).empty());
        EXPECT_EQ(capture.of("libKestrel.Main"),
                  (std::vector<std::string>{"4|70 Could not find a suitable monitor to enumerate"}));
        EXPECT_EQ(machine.count("glfwTerminate"), 1u);
        expectReleased();
    }
    EXPECT_TRUE(visits.empty());
}

int hostErrors = 0;
void hostErrorCallback(int, const char*) { ++hostErrors; }

// A host that uses GLFW itself shares the module with the library: the
// library's callback serves only while it enumerates.
TEST_F(GlfwSimulated, TheHostsErrorCallbackIsPutBack)
{
    const auto setCallback = glfwFunction<glfw::PFN_glfwSetErrorCallback>("glfwSetErrorCallback");
    setCallback(hostErrorCallback);
    SimulatedMachine machine(R"({"monitors": [{"name": "A"}], "faults": {"glfwInit": {"return": 0}}})");
    LogCapture capture(Priority::WARNING);
    EXPECT_TRUE(libKestrel::queryAvailableMonitorInfo({monitorSource}).empty());
    EXPECT_TRUE(capture.has("libKestrel.Main", 3, "31 GLFW Error: Simulated: GLFW refused to initialize"));
    EXPECT_EQ(hostErrors, 0);
    EXPECT_EQ(setCallback(nullptr), &hostErrorCallback);
}

TEST_F(GlfwSimulated, AMonitorWithoutAWindowCostsOnlyThatMonitor)
{
    SimulatedMachine machine(R"({"monitors": [{"name": "Left", "x": 0}, {"name": "Right", "x": 1920}],
                                 "faults": {"glfwCreateWindow": {"call": 0, "null": true}}})");
    LogCapture capture(Priority::WARNING);
    const auto records = libKestrel::queryAvailableMonitorInfo({monitorSource});
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_EQ(visits[0].windowX, 1920) << "the source ran for monitor 1 only";
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(capture.of("libKestrel.Main"),
              (std::vector<std::string>{"3|31 GLFW Error: Simulated: the window could not be created",
                                        "4|84 Failed to create window on monitor 0"}));
    EXPECT_EQ(machine.count("glfwDestroyWindow"), 1u);
    EXPECT_EQ(machine.count("glfwTerminate"), 1u);
    expectReleased();
}

TEST_F(GlfwSimulated, EveryCallLoadsTheModuleAgainAndRefillsTheTable)
{
    SimulatedMachine machine(twoMonitors);
    EXPECT_EQ(libKestrel::queryAvailableMonitorInfo({monitorSource}).size(), 2u);
    expectReleased();
    // The module stays mapped between calls; the table does not survive.
    EXPECT_TRUE(libKestrel::glfwBinding().library.isLoaded());
    EXPECT_EQ(libKestrel::queryAvailableMonitorInfo({monitorSource}).size(), 2u);
    expectReleased();
    EXPECT_EQ(machine.count("glfwInit"), 2u);
    EXPECT_EQ(visits.size(), 4u);
}

TEST(GlfwUnloadable, AModuleThatWillNotLoadGivesNoMonitorRecords)
{
    LogCapture capture;
    EXPECT_TRUE(libKestrel::queryAvailableMonitorInfo({monitorSource}).empty());
    EXPECT_TRUE(capture.has("libKestrel.Main", 1, "44 Could not load libglfw, likely X libraries are not installed"));
    EXPECT_FALSE(libKestrel::glfwBinding().library.isLoaded());
    expectReleased();
}

TEST(GlfwPartial, AModuleWithoutAnEntryWeCallIsNotUsed)
{
    SimulatedMachine machine(twoMonitors);
    LogCapture capture(Priority::WARNING);
    EXPECT_TRUE(libKestrel::queryAvailableMonitorInfo({monitorSource}).empty());
    EXPECT_EQ(capture.of("libKestrel.Main"),
              (std::vector<std::string>{"3|46 GLFW lacks the entry point glfwGetMonitorPos"}));
    EXPECT_EQ(machine.count("glfwInit"), 0u);
    expectReleased();
}

// A GPU source that knows the GPU at bus 1, the one driving monitor 0 here.
std::vector<std::shared_ptr<IGPU>> gpuSourceAtBus1(std::bitset<4>&)
{
    auto gpu = kestrel::test::gpuAt(1);
    gpu->setName(std::string("Display GPU"));
    return {gpu};
}

// On a virtual X display with two 1024x768 monitors side by side.
TEST(GlfwReal, EachMonitorGetsAProbeWindowAtItsOriginAndTheRecordsMerge)
{
    visits.clear();
    LogCapture capture;
    std::bitset<4> status;
    const auto records = libKestrel::queryAllGPUs({monitorSource}, {gpuSourceAtBus1}, status);
    ASSERT_EQ(visits.size(), 2u) << "GLFW should see both outputs of the dummy display";
    EXPECT_EQ(visits[0].monitorX, 0);
    EXPECT_EQ(visits[1].monitorX, 1024);
    for (const auto& visit : visits) {
        EXPECT_EQ(visit.windowX, visit.monitorX);
        EXPECT_EQ(visit.windowY, visit.monitorY);
        EXPECT_EQ(visit.visible, glfw::GLFW_FALSE);
    }
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]->nativeMonitorHandle(), visits[0].monitor) << "monitor 0 first";
    EXPECT_EQ(records[0]->name(), "Display GPU") << "merged with the GPU source's record";
    EXPECT_EQ(records[1]->nativeMonitorHandle(), visits[1].monitor);
    EXPECT_TRUE(capture.has("libKestrel.Main", 1, "74 Monitors found: 2"));
    EXPECT_TRUE(capture.has("libKestrel.Main", 1, "78   Name: DUMMY0"));
    expectReleased();
}

} // namespace
