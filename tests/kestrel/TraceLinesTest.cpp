// The lines the library writes at TRACE priority while it queries the whole
// workstation and merges what every interface said, and while the device
// classes answer for each of its GPUs: the trace scopes (each function's name
// and line) and the values read, as a host that turns tracing on reads them.
// They are kept in trace-lines.txt as a set, one "logger|text" per line (a line
// break in a text written as \n), so that only what is written counts, not in
// which order.
#include <algorithm>
#include <regex>
#include <set>

#include "common/Paths.h"
#include "common/Test.h"
#include "libKestrel/AMDGPU.h"
#include "libKestrel/NVIDIAGPU.h"
#include "libKestrel/Query.h"
#include "state/SimulatorState.h"

namespace {

using namespace kestrel::test;

TEST(TraceLines, EachTraceScopeAndValueOfAWholeQueryIsWritten)
{
    const SimulatedModules modules{"sim_glfw", "sim_nvml", "sim_nvapi", "sim_cuda", "sim_adl"};
    const SimulatedMachine simulated(fileText(std::getenv("KESTREL_WORKSTATION")));
    LogCapture capture(Priority::TRACE);
    std::bitset<4> status;
    libKestrel::queryAllGPUs({}, {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs,
                                  libKestrel::queryNVidiaCudaGPUsMulti, libKestrel::queryAMDGPUsMulti}, status);
    std::vector<libKestrel::AMDGPU> amd;
    libKestrel::AMDGPU::enumerate(amd);
    for (libKestrel::AMDGPU& gpu : amd) {
        std::vector<float> temperatures;
        std::vector<int> usage;
        gpu.currentTemperature(temperatures);
        gpu.currentGPUUsage(usage);
        for (auto clock : {&libKestrel::AMDGPU::currentClock, &libKestrel::AMDGPU::currentMemoryClock,
                           &libKestrel::AMDGPU::defaultClock, &libKestrel::AMDGPU::defaultMemoryClock})
            (gpu.*clock)();
        libKestrel::adl::ADLOD8InitSetting init;
        libKestrel::adl::ADLOD8CurrentSetting current;
        gpu.GetOD8InitSetting(0, init);
        gpu.GetOD8CurrentSetting(0, current);
    }
    const libKestrel::NVIDIAGPU::NvAPIInitializer nvapi;
    std::vector<libKestrel::NVIDIAGPU> nvidia;
    libKestrel::NVIDIAGPU::enumerate(nvidia);
    for (const libKestrel::NVIDIAGPU& gpu : nvidia) {
        unsigned int graphics = 0, memory = 0;
        std::vector<float> temperatures;
        gpu.currentClock(graphics, memory);
        gpu.baseClock(graphics, memory);
        gpu.currentTemperature(temperatures);
        gpu.fanSpeed();
        const libKestrel::NVIDIAGPU byLocation(gpu.pciLocation());
    }
    std::set<std::string> written;
    for (const LogLine& line : capture.lines())
        if (line.priority == Priority::TRACE && line.text.rfind("Leaving ", 0) != 0)
            written.insert(line.logger + "|" + std::regex_replace(line.text, std::regex("\n"), "\\n"));
    std::set<std::string> expected;
    std::istringstream golden(fileText(std::getenv("KESTREL_TRACE_LINES")));
    for (std::string line; std::getline(golden, line);)
        expected.insert(line);
    Lines missing, unexpected;
    std::set_difference(expected.begin(), expected.end(), written.begin(), written.end(), std::back_inserter(missing));
    std::set_difference(written.begin(), written.end(), expected.begin(), expected.end(), std::back_inserter(unexpected));
    EXPECT_EQ(missing, Lines{});
    EXPECT_EQ(unexpected, Lines{});
}

} // namespace
