// What running each vendor in a child process costs: the simulated workstation
// queried in process and isolated, wall time per query.
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "common/Paths.h"
#include "libKestrel/Isolated.h"
#include "libKestrel/Query.h"
#include "libKestrel/Sources.h"
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

BENCHMARK(BM_QueryInProcess)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_QueryIsolated)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
