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
    double intervalSeconds = 1;           // the time between two refreshes
    bool inProcess = false;               // vendor calls in this process rather than in helpers
};

// Serves /metrics and a page at / until interrupted. A thread of its own keeps a
// session over 'sources' (isolated unless in-process), refreshes it every
// interval and formats its exposition; a scrape sends the latest one, so it
// never waits for a vendor. 'beforeRefresh' runs on that thread before each
// refresh. Stops within two seconds of SIGINT or SIGTERM, whatever a vendor is
// doing. Returns the program's exit code.
int serve(const ServeOptions& options, const std::vector<libKestrel::GPUQuerier>& sources,
          const std::function<void()>& beforeRefresh);

} // namespace kestrel
