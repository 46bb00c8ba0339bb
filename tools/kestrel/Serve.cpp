#include "Serve.h"

#include <chrono>
#include <cstdio>
#include <mutex>
#include <utility>

#include "Http.h"
#include "Platform.h"
#include "Prometheus.h"

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
    libKestrel::Session session(sources);
    const auto interval = std::chrono::duration<double>(options.intervalSeconds);
    std::mutex refreshing;
    Clock::time_point refreshed = Clock::now();
    Clock::time_point rescanned = refreshed;

    const auto metrics = [&] {
        const auto start = Clock::now();
        {
            // Scrapes closer together than the interval share one refresh.
            const std::lock_guard<std::mutex> lock(refreshing);
            if (start - refreshed >= interval) {
                beforeRefresh();
                if (start - rescanned >= rescanInterval) {
                    session.rescan();
                    rescanned = start;
                } else {
                    session.refresh();
                }
                refreshed = Clock::now();
            }
        }
        std::string body = prometheusExposition(session);
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
    std::fprintf(stderr, "kestrel: serving http://%s/metrics\n", options.listen.c_str());
    std::fflush(stderr);
    server.run(interrupted);
    return 0;
}

} // namespace kestrel
