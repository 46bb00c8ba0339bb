#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <libKestrel/Query.h>

namespace kestrel {

// How often a program that watches the GPUs enumerates them again, for cards
// added, gone or back.
constexpr std::chrono::seconds rescanInterval{60};

// What `kestrel serve` was asked for.
struct ServeOptions {
    std::string listen = "127.0.0.1:9835"; // ADDRESS:PORT, [IPv6]:PORT
    double intervalSeconds = 1;           // the shortest time between two refreshes
};

// Serves /metrics (the Prometheus exposition of a session over 'sources',
// refreshed at most once per interval whatever the scrape rate) and a page at /
// until interrupted; 'beforeRefresh' runs before each refresh. Returns the
// program's exit code.
int serve(const ServeOptions& options, const std::vector<libKestrel::GPUQuerier>& sources,
          const std::function<void()>& beforeRefresh);

} // namespace kestrel
