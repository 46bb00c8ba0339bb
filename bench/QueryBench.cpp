// What a query of the simulated workstation costs, wall time: in process and
// with each vendor in a child process.
#include <vector>

#include <benchmark/benchmark.h>

#include "SimulatedMachine.h"
#include "libKestrel/Isolated.h"
#include "libKestrel/Query.h"
#include "libKestrel/Sources.h"

namespace {

using kestrel::bench::simulatedModules;

const std::vector<libKestrel::GPUQuerier> sources = {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs,
                                                     libKestrel::queryNVidiaCudaGPUsMulti, libKestrel::queryAMDGPUsMulti};

void BM_QueryInProcess(benchmark::State& state)
{
    simulatedModules();
    for (auto _ : state) {
        std::bitset<4> status;
        benchmark::DoNotOptimize(libKestrel::queryAllGPUs({}, sources, status));
    }
}

void BM_QueryIsolated(benchmark::State& state)
{
    simulatedModules();
    for (auto _ : state) {
        std::bitset<4> status;
        benchmark::DoNotOptimize(libKestrel::queryAllGPUsIsolated({}, sources, status));
    }
}

BENCHMARK(BM_QueryInProcess)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_QueryIsolated)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
