#include "libKestrel/Isolated.h"

#include <string>

#include "libKestrel/internal/Kestrel.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Main.h"
#include "libKestrel/internal/SourceTable.h"
#include "libKestrel/internal/isolation/ChildProcess.h"
#include "libKestrel/internal/isolation/HelperProgram.h"
#include "libKestrel/internal/isolation/LogForwarding.h"
#include "libKestrel/internal/isolation/Process.h"
#include "libKestrel/internal/isolation/ProbeFormat.h"
#include "tova/LogFactory.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;
using isolation::ChildEnd;

logging::LogSite site("libKestrel.Isolation", "libKestrel/src/isolation/IsolatedQuery.cpp");

} // namespace

std::vector<std::shared_ptr<IGPU>> queryAllGPUsIsolated(const std::vector<MonitorGPUQuerier>& monitorQueriers,
                                                        const std::vector<GPUQuerier>& gpuQueriers,
                                                        std::bitset<4>& status, std::chrono::milliseconds deadline)
{
    auto trace = site.trace("queryAllGPUsIsolated", 110);
    const isolation::HelperProgram& helper = isolation::helperProgram();
    // Only a regular file that may be run, where the helper was at load.
    const bool runnable = helper.program && isolation::Process::isProgram(helper.program->u8string());
    // One child per own source, all started together.
    std::vector<std::vector<std::string>> commands;
    std::vector<int> childOf(gpuQueriers.size(), -1);
    for (std::size_t i = 0; i < gpuQueriers.size(); ++i) {
        const OwnSource* own = gpuQueriers[i] ? findOwnSource(gpuQueriers[i]) : nullptr;
        if (!own || !runnable)
            continue;
        childOf[i] = static_cast<int>(commands.size());
        commands.push_back({helper.program->u8string(), own->name, "--log-level",
                            std::to_string(static_cast<int>(tova::LogFactory::getPriority()))});
    }
    const std::vector<ChildEnd> ends =
        isolation::runChildren(commands, deadline, {probe::mostAnswer, probe::complete});

    std::vector<std::shared_ptr<IGPU>> all = queryAvailableMonitorInfo(monitorQueriers);
    for (std::size_t i = 0; i < gpuQueriers.size(); ++i) {
        if (!gpuQueriers[i])
            continue;
        const OwnSource* own = findOwnSource(gpuQueriers[i]);
        if (!own) {
            const auto records = gpuQueriers[i](status);
            all.insert(all.end(), records.begin(), records.end());
            continue;
        }
        if (!runnable) {
            log(site, Priority::CRITICAL, "140 ", "The helper program kestrel-probe is not beside the library in ",
                helper.folder.u8string(), ", not querying source ", own->name);
            continue;
        }
        const ChildEnd& end = ends[static_cast<std::size_t>(childOf[i])];
        std::string problem;
        const probe::Output output = probe::parse(end.answer, problem);
        for (const probe::LogLine& line : output.logs)
            isolation::forward(line);
        // How it ended is lost when the host collected it itself: its answer tells.
        const bool endedWell = end.how == ChildEnd::How::unknown || (end.how == ChildEnd::How::exited && end.code == 0);
        if (!endedWell || !problem.empty()) {
            log(site, Priority::CRITICAL, "152 ", "Source ", own->name, " ", isolation::describe(end, problem),
                "; its records are left out");
            continue;
        }
        status |= output.status;
        all.insert(all.end(), output.records.begin(), output.records.end());
    }
    return mergeGPUs(all);
}

} // namespace libKestrel
