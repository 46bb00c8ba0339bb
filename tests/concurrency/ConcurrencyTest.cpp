// Hosts use the library from several threads at once: two sessions refreshing
// and rescanning, and one-shot queries of every vendor (monitors included), side
// by side, while the machine's readings change under them. Nothing crashes,
// every snapshot and every query holds each GPU once, and under the sanitizers
// nothing races or touches memory it should not.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "common/Paths.h"
#include "common/Records.h"
#include "common/Test.h"
#include "libKestrel/Session.h"
#include "state/SimulatorState.h"
#include "tova/System.h"

namespace {

using namespace kestrel::test;
using libKestrel::GPUQuerier;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

const std::vector<GPUQuerier> everySource = {
    libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs, libKestrel::queryNVidiaCudaGPUsMulti,
    libKestrel::queryAMDGPUsMulti,
#if !defined(_WIN32)
    libKestrel::querySysfsGPUs,
#endif
};

// A host's monitor source: the first NVIDIA card drives every monitor.
std::vector<std::shared_ptr<libKestrel::IGPU>> monitorSource(void* const&, void* const&) { return {gpuAt(0x65)}; }

// The simulated workstation (three GPUs), every GPU's temperature raised by 'warmer'.
std::string workstation(int warmer)
{
    json machine = json::parse(fileText(tova::System::getEnvironmentVariable("KESTREL_SCENARIOS").str() +
                                        "/workstation.json"));
    for (json& gpu : machine["gpus"]) {
        if (gpu.contains("nvml"))
            gpu["nvml"]["temperature"] = 40 + warmer;
        if (gpu.contains("adl"))
            gpu["adl"]["overdrive5"]["temperature"] = (40 + warmer) * 1000;
    }
    return machine.dump();
}

#if !defined(_WIN32)
// The scenario's sysfs tree, which the sysfs source reads while it lives.
class SysfsTree {
public:
    explicit SysfsTree(const std::string& scenario) : root_(temporaryPath("concurrency-sysfs"))
    {
        EXPECT_EQ(kestrelSimWriteSysfs(scenario.c_str(), root_.c_str()), 1);
        setenv("KESTREL_SYSFS_ROOT", root_.c_str(), 1);
    }
    ~SysfsTree()
    {
        unsetenv("KESTREL_SYSFS_ROOT");
        std::filesystem::remove_all(std::filesystem::u8path(root_));
    }

private:
    std::string root_;
};
#endif

// How long the threads run: some seconds, more when KESTREL_CONCURRENCY_SECONDS says so.
std::chrono::milliseconds runningTime()
{
    const std::string seconds = tova::System::getEnvironmentVariable("KESTREL_CONCURRENCY_SECONDS").str();
    return std::chrono::milliseconds(seconds.empty() ? 3000 : std::atoi(seconds.c_str()) * 1000);
}

// Whether 'gpus' holds each of the machine's three GPUs once.
bool whole(const std::vector<std::shared_ptr<libKestrel::IGPU>>& gpus)
{
    std::vector<std::string> locations;
    for (const auto& gpu : gpus)
        locations.push_back(gpu->pciLocation()->toString(true).str());
    std::sort(locations.begin(), locations.end());
    return locations == std::vector<std::string>{"0000:0a:00.0", "0000:65:00.0", "0000:66:00.0"};
}

TEST(Concurrency, TwoSessionsAndOneShotQueriesOfEveryVendorOnFourThreads)
{
    SimulatedModules modules{"sim_nvml", "sim_nvapi", "sim_cuda", "sim_adl", "sim_glfw"};
    SimulatedMachine machine(workstation(0));
#if !defined(_WIN32)
    const SysfsTree sysfs(workstation(0));
#endif
    std::atomic<bool> done{false};
    std::atomic<int> updates{0};
    std::atomic<int> broken{0};
    const auto check = [&](const std::vector<std::shared_ptr<libKestrel::IGPU>>& gpus) {
        ++updates;
        if (!whole(gpus))
            ++broken;
    };
    // Two sessions, each refreshing, and rescanning at every fifth turn.
    const auto watch = [&] {
        libKestrel::Session session(everySource);
        for (int turn = 0; !done; ++turn) {
            turn % 5 == 4 ? session.rescan() : session.refresh();
            check(session.gpus());
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(watch);
    threads.emplace_back(watch);
    // A whole query with monitors, and each vendor's source queried alone.
    threads.emplace_back([&] {
        while (!done) {
            std::bitset<4> status;
            check(libKestrel::queryAllGPUs({monitorSource}, everySource, status));
        }
    });
    threads.emplace_back([&] {
        while (!done)
            for (GPUQuerier source : everySource) {
                std::bitset<4> status;
                libKestrel::queryAllGPUs({}, {source}, status);
            }
    });
    // The machine's readings change under them.
    const auto end = Clock::now() + runningTime();
    for (int warmer = 1; Clock::now() < end; ++warmer) {
        kestrelSimSetScenario(workstation(warmer % 20).c_str());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    done = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GT(updates, 0);
    EXPECT_EQ(broken, 0) << "of " << updates << " snapshots and queries";
}

} // namespace
