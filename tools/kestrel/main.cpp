// kestrel: reports every GPU of this machine (or of a simulated one) as the
// vendor interfaces see it, merged into one record per GPU.
#include <chrono>
#include <cstdio>
#include <ctime>
#include <optional>
#include <thread>

#include <libKestrel/libKestrel.h>
#include <tova/LogFactory.h>

#include "Options.h"
#include "Prometheus.h"
#include "Platform.h"
#include "Report.h"
#include "Serve.h"
#include "Simulation.h"

namespace {

// The library's own GPU sources, in the order their records are merged.
const std::vector<libKestrel::GPUQuerier> gpuSources = {
    libKestrel::queryNVidiaNvmlGPUsMulti,
    libKestrel::queryNVidiaGPUs,
    libKestrel::queryNVidiaCudaGPUsMulti,
    libKestrel::queryAMDGPUsMulti,
#if !defined(_WIN32)
    libKestrel::querySysfsGPUs,
#endif
};

void report(const kestrel::Options& options, const std::vector<std::shared_ptr<libKestrel::IGPU>>& gpus,
            const std::bitset<4>& status)
{
    const std::string text = options.json ? kestrel::jsonReport(gpus, status, options.watchSeconds.has_value())
                                          : kestrel::textReport(gpus, status);
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

// Sleeps for the watch interval, waking early when interrupted.
void pause(double seconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!kestrel::interrupted() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

} // namespace

int main(int argc, char** argv)
{
    const kestrel::Parsed parsed = kestrel::parseCommandLine(argc, argv);
    if (!parsed.options)
        return parsed.exitCode;
    const kestrel::Options& options = *parsed.options;

    tova::LogFactory::setPriority(options.logLevel
                                      ? static_cast<tova::LoggerPriority::LOGGER_PRIORITY>(*options.logLevel)
                                      : tova::LoggerPriority::OFF);

    std::optional<kestrel::Simulation> simulation;
    if (options.scenario) {
        std::string error;
        simulation.emplace(error);
        if (!error.empty()) {
            std::fprintf(stderr, "kestrel: %s\n", error.c_str());
            return 1;
        }
        if (const auto problem = simulation->use(*options.scenario)) {
            std::fprintf(stderr, "kestrel: %s\n", problem->c_str());
            return 2;
        }
    }

    const auto follow = [&simulation] {
        if (simulation)
            simulation->follow();
    };
    if (options.serve)
        return kestrel::serve(*options.serve, gpuSources, follow);
    if (options.prometheus) {
        const libKestrel::Session session(gpuSources);
        std::fputs(kestrel::prometheusExposition(session).c_str(), stdout);
        return 0;
    }
    if (!options.watchSeconds) {
        std::bitset<4> status;
        const auto gpus = options.isolate ? libKestrel::queryAllGPUsIsolated({}, gpuSources, status)
                                          : libKestrel::queryAllGPUs({}, gpuSources, status);
        report(options, gpus, status);
        return 0;
    }
    // Watching keeps a session, isolated with --isolate: the vendors stay open,
    // and each report reads what changed.
    libKestrel::SessionOptions sessionOptions;
    sessionOptions.isolate = options.isolate;
    libKestrel::Session session(gpuSources, sessionOptions);
    kestrel::catchInterrupt();
    auto rescanned = std::chrono::steady_clock::now();
    while (!kestrel::interrupted()) {
        if (!options.json) {
            const std::time_t now = std::time(nullptr);
            char stamp[32];
            std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", std::localtime(&now));
            std::printf("--- %s\n", stamp);
        }
        const auto snapshot = session.snapshot();
        report(options, snapshot.gpus, snapshot.status);
        pause(*options.watchSeconds);
        follow();
        if (std::chrono::steady_clock::now() - rescanned >= kestrel::rescanInterval) {
            session.rescan();
            rescanned = std::chrono::steady_clock::now();
        } else {
            session.refresh();
        }
    }
    return 0;
}
