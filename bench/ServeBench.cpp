// What a scrape of the simulated workstation costs a client of `kestrel serve`
// on loopback, wall time from request to whole response: on the connection
// Prometheus keeps alive, and on a new connection each time.
#include <chrono>
#include <string>

#include <benchmark/benchmark.h>

#include "common/Paths.h"
#include "tool/HttpClient.h"
#include "tool/ServedKestrel.h"

namespace {

using kestrel::test::HttpClient;
using namespace std::chrono_literals;

// One server for every benchmark, started on first use.
kestrel::test::ServedKestrel& server()
{
    static kestrel::test::ServedKestrel served(kestrel::test::executableDirectory() + "kestrel", KESTREL_WORKSTATION);
    return served;
}

void BM_ScrapeKeptAlive(benchmark::State& state)
{
    HttpClient client(server().port());
    const std::string request = kestrel::test::scrapeRequest();
    for (auto _ : state) {
        client.send(request);
        if (client.receive(1s).status != 200) {
            state.SkipWithError("the scrape was not answered");
            break;
        }
    }
}
BENCHMARK(BM_ScrapeKeptAlive)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_ScrapeNewConnection(benchmark::State& state)
{
    const int port = server().port();
    for (auto _ : state) {
        if (kestrel::test::httpGet(port, "/metrics", 1s).status != 200) {
            state.SkipWithError("the scrape was not answered");
            break;
        }
    }
}
BENCHMARK(BM_ScrapeNewConnection)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace
