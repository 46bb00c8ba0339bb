// The lines the library writes at TRACE priority while it queries the whole
// workstation and merges what every interface said: the trace scopes (each
// function's name and line) and the values read, as a host that turns tracing
// on reads them. They are kept in trace-lines.txt as a set, one "logger|text"
// per line, so that only what is written counts, not in which order.
#include <algorithm>
#include <set>

#include "common/Paths.h"
#include "common/Test.h"
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
    std::set<std::string> written;
    for (const LogLine& line : capture.lines())
        if (line.priority == Priority::TRACE && line.text.rfind("Leaving ", 0) != 0)
            written.insert(line.logger + "|" + line.text);
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
