// The cost of a log message the thresholds stop, against one that is written.
// A stopped message must allocate nothing: "allocs" reports allocations per message.
#include <benchmark/benchmark.h>

#include "common/AllocationCounter.h"
#include "libKestrel/internal/Logging.h"

namespace {

using libKestrel::logging::log;
using libKestrel::logging::LogSite;
using libKestrel::logging::Priority;
using libKestrel::logging::shown;

LogSite site("kestrel.bench.Logging", "bench/LoggingBench.cpp");

void measure(benchmark::State& state, Priority::LOGGER_PRIORITY threshold)
{
    tova::LogFactory::setPriority(threshold);
    tova::LogFactory::setSink([](const std::string&, Priority::LOGGER_PRIORITY, const std::string& text) {
        benchmark::DoNotOptimize(text.data());
    });
    const tova::String label("Dedicated memory (kb): ");
    kestrel::test::startCountingAllocations();
    for (auto _ : state) {
        auto trace = site.trace("measure", 17);
        log(site, Priority::TRACE, "119 ", label, shown(std::uint64_t{8388608}));
    }
    state.counters["allocs"] =
        benchmark::Counter(kestrel::test::stopCountingAllocations(), benchmark::Counter::kAvgIterations);
    tova::LogFactory::setSink(nullptr);
    tova::LogFactory::setPriority(Priority::CRITICAL);
}

void BM_TracedValueMessageDisabled(benchmark::State& state) { measure(state, Priority::INFO); }
void BM_TracedValueMessageWritten(benchmark::State& state) { measure(state, Priority::TRACE); }

BENCHMARK(BM_TracedValueMessageDisabled);
BENCHMARK(BM_TracedValueMessageWritten);

} // namespace
