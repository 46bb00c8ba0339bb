// Monitor enumeration through GLFW, and queryAllGPUs putting it together with the vendor sources.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include <gmock/gmock.h>

#include "common/Records.h"
#include "common/Test.h"
#include "libKestrel/Query.h"
#include "libKestrel/internal/Main.h"
#include "libKestrel/internal/multi/GLFW/glfwWrapper.h"
#include "tova/DynamicLibrary.h"

namespace {

using namespace kestrel::test;
namespace glfw = libKestrel::glfw;

// The GLFW the library loaded, held by the test to read windows back.
#if defined(_WIN32)
tova::DynamicLibrary readBack{tova::String("glfw3.dll")};
#else
tova::DynamicLibrary readBack{tova::String("libglfw.so.3")};
#endif

template <class Function>
Function glfwFunction(const char* name)
{
    readBack.load();
    return reinterpret_cast<Function>(readBack.getSymbol(name));
}

// What the monitor-side source below saw: monitor and probe window positions, the window shown or not; monitors.
std::vector<std::string> visits;
std::vector<void*> monitors;

// Reports one GPU per monitor, at bus 1, 2, ...
Records monitorSource(void* const& window, void* const& monitor)
{
    int at[4] = {-1, -1, -1, -1};
    glfwFunction<glfw::PFN_glfwGetMonitorPos>("glfwGetMonitorPos")(static_cast<glfw::GLFWmonitor*>(monitor), &at[0],
                                                                     &at[1]);
    auto* probe = static_cast<glfw::GLFWwindow*>(window);
    glfwFunction<glfw::PFN_glfwGetWindowPos>("glfwGetWindowPos")(probe, &at[2], &at[3]);
    const bool shown = glfwFunction<glfw::PFN_glfwGetWindowAttrib>("glfwGetWindowAttrib")(probe, glfw::GLFW_VISIBLE);
    visits.push_back("monitor at " + std::to_string(at[0]) + "," + std::to_string(at[1]) + ": window at " +
                     std::to_string(at[2]) + "," + std::to_string(at[3]) + (shown ? ", shown" : ", hidden"));
    monitors.push_back(monitor);
    auto gpu = gpuAt(static_cast<unsigned char>(monitors.size()));
    gpu->setNativeMonitorHandle(monitor);
    return {gpu};
}

Records enumerate()
{
    visits.clear();
    monitors.clear();
    return libKestrel::queryAvailableMonitorInfo({monitorSource});
}

std::vector<void*> handles(const Records& records)
{
    std::vector<void*> result;
    for (const auto& record : records)
        result.push_back(record->nativeMonitorHandle().value_or(nullptr));
    return result;
}

// After every enumeration, whatever its outcome, the table is empty and the flag down.
void expectReleased()
{
    const libKestrel::GLFWBinding& binding = libKestrel::glfwBinding();
    EXPECT_FALSE(binding.loaded.load());
    const libKestrel::GLFWFunctions empty;
    EXPECT_EQ(std::memcmp(&binding.functions, &empty, sizeof empty), 0);
}

TEST(GlfwSimulated, EachMonitorGetsAHidden1x1ProbeWindowAtItsOrigin)
{
    SimulatedMachine machine(R"({"monitors": [{"name": "Left"}, {"name": "Right", "x": 1920, "y": -120}]})");
    LogCapture capture;
    EXPECT_EQ(handles(enumerate()), monitors) << "one record per monitor, in monitor order";
    EXPECT_EQ(visits, (std::vector<std::string>{"monitor at 0,0: window at 0,0, hidden",
                                                "monitor at 1920,-120: window at 1920,-120, hidden"}));
    EXPECT_EQ(capture.of("libKestrel.Main"), // each monitor's lines before its records'
              (std::vector<std::string>{"1|74 Monitors found: 2", "1|77 Monitor 0", "1|78   Name: Left",
                                        "1|98 Found 1 from vendor query", "1|77 Monitor 1", "1|78   Name: Right",
                                        "1|98 Found 1 from vendor query"}));
    // An OpenGL 1.0 context in a hidden 1x1 window: three hints, then the windows.
    const std::vector<std::string> journal = machine.journal();
    const auto firstWindow = std::find(journal.begin(), journal.end(), "glfwCreateWindow 1x1");
    EXPECT_THAT(std::vector<std::string>(journal.begin(), firstWindow),
                testing::IsSupersetOf({"glfwWindowHint 139266 1", "glfwWindowHint 139267 0",
                                       "glfwWindowHint 131076 0"}));
    EXPECT_EQ(machine.count("glfwWindowHint"), 3u);
    EXPECT_EQ(machine.count("glfwCreateWindow 1x1"), 2u);
    EXPECT_EQ(machine.count("glfwDestroyWindow"), 2u);
    EXPECT_EQ(machine.count("windows left open at glfwTerminate: 1"), 0u);
    expectReleased();
    EXPECT_TRUE(libKestrel::glfwBinding().library.isLoaded()) << "the module stays mapped between calls";
}

int hostErrors = 0;

// A failure costs only what it stops and ends the enumeration cleanly. The library's error callback hears it;
// a host that uses GLFW itself gets its own callback back, unheard.
TEST(GlfwSimulated, FailuresEndTheEnumerationCleanly)
{
    const auto setCallback = glfwFunction<glfw::PFN_glfwSetErrorCallback>("glfwSetErrorCallback");
    const glfw::GLFWerrorfun host = [](int, const char*) { ++hostErrors; };
    setCallback(host);
    const char* const logger = "libKestrel.Main";
    const LogLine noMonitor{logger, 4, "70 Could not find a suitable monitor to enumerate"};
    const struct { const char* name; std::string scenario; std::vector<std::string> visits; LogLines lines;
                   size_t terminations; } rows[] = {
        {"GLFW refuses to start", R"({"monitors": [{}], "faults": {"glfwInit": {"return": 0}}})", {},
         {{logger, 3, "31 GLFW Error: Simulated: GLFW refused to initialize"},
          {logger, 3, "53 Failed to initialize GLFW"}}, 0},
        {"no monitor", R"({"monitors": []})", {}, {noMonitor}, 1},
        {"no monitor list", R"({"monitors": [{}], "faults": {"glfwGetMonitors": {"null": true}}})", {}, {noMonitor}, 1},
        {"no window on monitor 0", R"({"monitors": [{}, {"x": 1920}], "faults": {"glfwCreateWindow": {"call": 0,
         "null": true}}})", {"monitor at 1920,0: window at 1920,0, hidden"},
         {{logger, 3, "31 GLFW Error: Simulated: the window could not be created"},
          {logger, 4, "84 Failed to create window on monitor 0"}}, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SimulatedMachine machine(row.scenario);
        LogCapture capture(Priority::WARNING);
        EXPECT_EQ(handles(enumerate()), monitors);
        EXPECT_EQ(visits, row.visits);
        EXPECT_EQ(capture.messages(), row.lines);
        EXPECT_EQ(machine.count("glfwTerminate"), row.terminations) << "GLFW that never started is not terminated";
        EXPECT_EQ(machine.count("glfwDestroyWindow"), row.visits.size());
        expectReleased();
    }
    EXPECT_EQ(hostErrors, 0);
    EXPECT_EQ(setCallback(nullptr), host);
}

TEST(GlfwUnloadable, AModuleThatWillNotLoadGivesNoMonitorRecords)
{
    LogCapture capture;
    EXPECT_TRUE(enumerate().empty());
    EXPECT_TRUE(capture.has("libKestrel.Main", 1, "44 Could not load libglfw, likely X libraries are not installed"));
    EXPECT_FALSE(libKestrel::glfwBinding().library.isLoaded());
    expectReleased();
}

TEST(GlfwPartial, AModuleWithoutAnEntryWeCallIsNotUsed)
{
    SimulatedMachine machine(R"({"monitors": [{}]})");
    LogCapture capture(Priority::WARNING);
    EXPECT_TRUE(enumerate().empty());
    EXPECT_EQ(capture.messages(),
              (LogLines{{"libKestrel.Main", 3, "46 GLFW lacks the entry point glfwGetMonitorPos"}}));
    EXPECT_EQ(machine.count("glfwInit"), 0u);
    expectReleased();
}

// On a virtual X display with two 1024x768 monitors side by side; the source knows the GPU behind monitor 0.
TEST(GlfwReal, EachMonitorGetsAProbeWindowAtItsOriginAndTheRecordsMerge)
{
    const libKestrel::GPUQuerier displayGpu = [](std::bitset<4>&) -> Records {
        auto gpu = gpuAt(1);
        gpu->setName(std::string("Display GPU"));
        return {gpu};
    };
    LogCapture capture;
    std::bitset<4> status;
    visits.clear();
    monitors.clear();
    const Records records = libKestrel::queryAllGPUs({monitorSource}, {displayGpu}, status);
    EXPECT_EQ(handles(records), monitors) << "in monitor order";
    EXPECT_EQ(visits, (std::vector<std::string>{"monitor at 0,0: window at 0,0, hidden",
                                                "monitor at 1024,0: window at 1024,0, hidden"}));
    EXPECT_EQ(describe(records), (std::vector<std::string>{"0000:01:00.0 name=Display GPU nativeMonitorHandle=handle",
                                                           "0000:02:00.0 nativeMonitorHandle=handle"}));
    EXPECT_TRUE(capture.has("libKestrel.Main", 1, "74 Monitors found: 2"));
    EXPECT_TRUE(capture.has("libKestrel.Main", 1, "78   Name: DUMMY0"));
    expectReleased();
}

int sourceCalls = 0;

// Monitor-side records come first, each source's merge into them in the sources' order; a null source is
// passed over, one listed twice runs twice; records without a location are dropped with a line, and records
// that differ in their function alone stay apart. Status bits stay. Without sources the monitors are still walked.
TEST(Query, MonitorRecordsComeFirstAndSourcesMergeInTheirOrder)
{
    // The GPU behind the one monitor as two sources see it; the first also gives two functions of bus 9, an
    // unlocated record and a null one.
    const libKestrel::GPUQuerier first = [](std::bitset<4>& status) -> Records {
        ++sourceCalls;
        status.set(2);
        auto gpu = gpuAt(1);
        gpu->setName(std::string("First source name"));
        gpu->setCoreCount(std::uint32_t{80});
        gpu->setGraphicsClock(std::uint32_t{1500000});
        return {gpu, gpuAt(9), std::make_shared<UnlocatedGPU>(), nullptr, gpuAt(9, 0, 1)};
    };
    const libKestrel::GPUQuerier second = [](std::bitset<4>&) -> Records {
        ++sourceCalls;
        auto gpu = gpuAt(1);
        gpu->setName(std::string("A longer second-source name"));
        gpu->setGraphicsClock(std::uint32_t{1700000});
        gpu->setNativeMonitorHandle(nullptr);
        return {gpu};
    };
    SimulatedMachine machine(R"({"monitors": [{"name": "Only"}]})");
    LogCapture capture(Priority::WARNING);
    std::bitset<4> status("0001");
    sourceCalls = 0;
    monitors.clear();
    Records records = libKestrel::queryAllGPUs({monitorSource}, {first, nullptr, second}, status);
    EXPECT_EQ(sourceCalls, 2);
    EXPECT_EQ(describe(records), (std::vector<std::string>{"0000:01:00.0 name=A longer second-source name coreCount=80 "
                                                           "graphicsClock=1700000 nativeMonitorHandle=handle",
                                                           "0000:09:00.0", "0000:09:00.1"}));
    EXPECT_EQ(handles(records), (std::vector<void*>{monitors.empty() ? nullptr : monitors[0], nullptr, nullptr}))
        << "the monitor side's, not the second source's null";
    EXPECT_EQ(status, std::bitset<4>("0101"));
    EXPECT_EQ(capture.messages(), LogLines(2, {"libKestrel.Kestrel", 3, "294 Could not obtain PCI Location from GPU"}));

    status.reset();
    records = libKestrel::queryAllGPUs({}, {first, first}, status);
    EXPECT_EQ(sourceCalls, 4);
    EXPECT_EQ(describe(records), (std::vector<std::string>{"0000:01:00.0 name=First source name coreCount=80 "
                                                           "graphicsClock=1500000", "0000:09:00.0", "0000:09:00.1"}));
    EXPECT_EQ(status, std::bitset<4>("0100"));

    status = std::bitset<4>("1010");
    EXPECT_TRUE(libKestrel::queryAllGPUs({}, {}, status).empty());
    EXPECT_EQ(machine.count("glfwCreateWindow"), 3u) << "one probe window per call";
    EXPECT_EQ(status, std::bitset<4>("1010"));
}

} // namespace
