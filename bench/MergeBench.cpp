// Merging looks each record's location up among those seen before it: n log n in
// the number of records. A handful of GPUs is the usual case; an isolated
// query's helpers may answer with tens of thousands of records.
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include "libKestrel/GPU.h"
#include "libKestrel/internal/Kestrel.h"

namespace {

template <class T>
std::optional<T> present()
{
    return T{};
}

// 'sources' sources reporting the same 'gpus' GPUs, every property set; past
// 256 GPUs the device and function numbers tell them apart.
std::vector<std::shared_ptr<libKestrel::IGPU>> sourcesOf(int sources, int gpus)
{
    std::vector<std::shared_ptr<libKestrel::IGPU>> records;
    for (int source = 0; source < sources; ++source)
        for (int place = 0; place < gpus; ++place) {
            auto gpu = std::make_shared<libKestrel::GPU>(pci::PciLocation(static_cast<unsigned char>(place % 256),
                                                                          static_cast<unsigned char>(place / 256 % 32),
                                                                          static_cast<unsigned char>(place / 8192 % 8), 0));
#define FILL(type, getter, setter, unit) gpu->setter(present<type>());
            LIBKESTREL_GPU_PROPERTIES(FILL)
#undef FILL
            records.push_back(gpu);
        }
    return records;
}

void merge(benchmark::State& state, int sources)
{
    const auto records = sourcesOf(sources, static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(libKestrel::mergeGPUs(records));
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(records.size()));
}

// Four sources that see the same GPUs: 10000 GPUs are 40,000 records.
void BM_MergeGPUs(benchmark::State& state) { merge(state, 4); }
// 40,000 records of as many GPUs, nothing to merge: every lookup misses.
void BM_MergeDistinctGPUs(benchmark::State& state) { merge(state, 1); }

BENCHMARK(BM_MergeGPUs)->Arg(2)->Arg(8)->Arg(64)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MergeDistinctGPUs)->Arg(40000)->Unit(benchmark::kMicrosecond);

} // namespace
