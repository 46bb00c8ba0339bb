// Merging is a linear scan per record: quadratic in the number of records, meant
// for a handful of GPUs. This shows what a handful, and more, cost.
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

// Four sources reporting the same 'gpus' GPUs, every property set.
std::vector<std::shared_ptr<libKestrel::IGPU>> fourSourcesOf(int gpus)
{
    std::vector<std::shared_ptr<libKestrel::IGPU>> records;
    for (int source = 0; source < 4; ++source)
        for (int bus = 0; bus < gpus; ++bus) {
            auto gpu = std::make_shared<libKestrel::GPU>(pci::PciLocation(static_cast<unsigned char>(bus), 0, 0, 0));
#define FILL(type, getter, setter, unit) gpu->setter(present<type>());
            LIBKESTREL_GPU_PROPERTIES(FILL)
#undef FILL
            records.push_back(gpu);
        }
    return records;
}

void BM_MergeGPUs(benchmark::State& state)
{
    const auto records = fourSourcesOf(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(libKestrel::mergeGPUs(records));
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(records.size()));
}

BENCHMARK(BM_MergeGPUs)->Arg(2)->Arg(8)->Arg(64);

} // namespace
