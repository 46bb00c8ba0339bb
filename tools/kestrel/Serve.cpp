#include "Serve.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>

#include "Http.h"
#include "Platform.h"
#include "Refresher.h"

namespace kestrel {
namespace {

using Clock = std::chrono::steady_clock;

const char* const page = R"(<!DOCTYPE html>
<html><head><title>kestrel</title></head>
<body><h1>kestrel</h1><p>Every GPU of this machine, as its vendor interfaces see it:
<a href="/metrics">metrics</a> in Prometheus's text format.</p></body></html>
)";

// "127.0.0.1:9835" or "[::1]:9835" into host and port; false when it is neither.
bool split(const std::string& listen, std::string& host, int& port)
{
    const auto colon = listen.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return false;
    host = listen.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    try {
        std::size_t used = 0;
        port = std::stoi(listen.substr(colon + 1), &used);
        return used == listen.size() - colon - 1 && port > 0 && port < 65536;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace

int serve(const ServeOptions& options, const std::vector<libKestrel::GPUQuerier>& sources,
          const std::function<void()>& beforeRefresh)
{
    std::string host;
    int port = 0;
    if (!split(options.listen, host, port)) {
        std::fprintf(stderr, "kestrel: '%s' is no ADDRESS:PORT to listen on\n", options.listen.c_str());
        return 2;
    }
    const auto interval = std::chrono::duration<double>(options.intervalSeconds);
    std::optional<Refresher> refresher;
    const auto metrics = [&refresher] {
        const auto start = Clock::now();
        std::string body = *refresher->latest();
        char duration[160];
        std::snprintf(duration, sizeof duration,
                      "# HELP kestrel_scrape_duration_seconds How long this scrape took.\n"
                      "# TYPE kestrel_scrape_duration_seconds gauge\nkestrel_scrape_duration_seconds %.9f\n",
                      std::chrono::duration<double>(Clock::now() - start).count());
        body += duration;
        return http::Content{"text/plain; version=0.0.4; charset=utf-8", std::move(body)};
    };
    http::Server server({{"/metrics", metrics}, {"/", [] { return http::Content{"text/html", page}; }}});
    if (!server.listen(host, port)) {
        std::fprintf(stderr, "kestrel: cannot listen on %s\n", options.listen.c_str());
        return 1;
    }
    catchInterrupt();

    libKestrel::SessionOptions session;
    session.isolate = !options.inProcess;
    // A helper answers within the interval, or within two seconds when the
    // interval is longer; a quarter of a second is the least a driver gets.
    session.deadline = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::clamp<std::chrono::duration<double>>(interval, std::chrono::milliseconds(250), std::chrono::seconds(2)));
    refresher.emplace(sources, session, interval, beforeRefresh);
    // Connections wait in the queue while the GPUs are enumerated the first
    // time, so that the first scrapes see them; a vendor that hangs in-process
    // keeps them from it for five seconds at most.
    refresher->awaitFirst(std::chrono::seconds(5), interrupted);
    std::fprintf(stderr, "kestrel: serving http://%s/metrics\n", options.listen.c_str());
    std::fflush(stderr);
    server.run(interrupted);

    // The session closes on its own thread. A vendor call that does not return
    // in time is left behind: the process ends, and its helpers with it.
    if (!refresher->stop(std::chrono::milliseconds(1500))) {
        std::fputs("kestrel: a vendor call did not return; stopping without it\n", stderr);
        std::fflush(stderr);
        std::_Exit(0);
    }
    return 0;
}

} // namespace kestrel
