// What a query of the simulated workstation costs, wall time: in process, with
// each vendor in a child process, and as a session's refresh, which keeps the
// vendors open; then the same with drivers that take 250 ms to start.
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "common/Paths.h"
#include <fstream>
#include <sstream>

#include "libKestrel/Isolated.h"
#include "libKestrel/Query.h"
#include "libKestrel/Session.h"
#include "libKestrel/Sources.h"
#include "state/SimulatorState.h"
#include "tova/DynamicLibrary.h"

namespace {

const std::vector<libKestrel::GPUQuerier> sources = {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs,
                                                     libKestrel::queryNVidiaCudaGPUsMulti, libKestrel::queryAMDGPUsMulti};

// The simulated modules held by path for this process, found by their folders
// on the search path by the children, and the workstation for both.
struct Workstation {
    Workstation()
    {
        std::string path;
        for (const char* module : {"sim_glfw/libglfw.so.3", "sim_nvml/libnvidia-ml.so.1", "sim_nvapi/libnvapi64.so",
                                   "sim_cuda/libcuda.so.1", "sim_adl/libatiadlxx.so"}) {
            const std::string file = kestrel::test::executableDirectory() + "sim/" + module;
            modules.emplace_back(file.c_str());
            modules.back().load();
            path += file.substr(0, file.rfind('/')) + ":";
        }
        setenv("LD_LIBRARY_PATH", path.c_str(), 1);
        setenv("KESTREL_SIM_SCENARIO", KESTREL_WORKSTATION, 1);
    }
    std::vector<tova::DynamicLibrary> modules;
};

void BM_QueryInProcess(benchmark::State& state)
{
    static Workstation workstation;
    for (auto _ : state) {
        std::bitset<4> status;
        benchmark::DoNotOptimize(libKestrel::queryAllGPUs({}, sources, status));
    }
}

void BM_QueryIsolated(benchmark::State& state)
{
    static Workstation workstation;
    for (auto _ : state) {
        std::bitset<4> status;
        benchmark::DoNotOptimize(libKestrel::queryAllGPUsIsolated({}, sources, status));
    }
}

void BM_SessionRefresh(benchmark::State& state)
{
    static Workstation workstation;
    libKestrel::Session session(sources);
    for (auto _ : state)
        session.refresh();
}

// The workstation whose NVML, NVAPI, CUDA driver and ADL each take 250 ms to start.
std::string slowWorkstation()
{
    std::ifstream file(KESTREL_WORKSTATION);
    std::stringstream text;
    text << file.rdbuf();
    std::string scenario = text.str();
    const std::string latency = R"("initLatencyMs": 250, )";
    for (const char* section : {"\"nvml\": { ", "\"nvapi\": { ", "\"cudaDriver\": { "})
        scenario.insert(scenario.find(section) + std::string(section).size(), latency);
    scenario.insert(scenario.find('{') + 1, R"( "adl": { "initLatencyMs": 250 },)");
    return scenario;
}

void BM_QueryInProcessSlowDrivers(benchmark::State& state)
{
    static Workstation workstation;
    kestrelSimSetScenario(slowWorkstation().c_str());
    for (auto _ : state) {
        std::bitset<4> status;
        benchmark::DoNotOptimize(libKestrel::queryAllGPUs({}, sources, status));
    }
    kestrelSimSetScenario(nullptr);
}

void BM_SessionRefreshSlowDrivers(benchmark::State& state)
{
    static Workstation workstation;
    kestrelSimSetScenario(slowWorkstation().c_str());
    {
        libKestrel::Session session(sources);
        for (auto _ : state)
            session.refresh();
    }
    kestrelSimSetScenario(nullptr);
}

BENCHMARK(BM_QueryInProcess)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_QueryIsolated)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SessionRefresh)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_QueryInProcessSlowDrivers)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_SessionRefreshSlowDrivers)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
