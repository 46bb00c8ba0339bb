#include "Serve.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>

#if defined(KESTREL_HTTP)
#include <httplib.h>
#endif

#include "Platform.h"
#include "Prometheus.h"

namespace kestrel {

#if !defined(KESTREL_HTTP)
int serve(const ServeOptions&, const std::vector<libKestrel::GPUQuerier>&, const std::function<void()>&)
{
    std::fprintf(stderr, "kestrel: this build cannot serve: it was made without an HTTP library\n");
    return 1;
}
#else
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

    httplib::Server server;
    server.Get("/metrics", [&](const httplib::Request&, httplib::Response& response) {
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
        response.set_content(body, "text/plain; version=0.0.4; charset=utf-8");
    });
    server.Get("/", [](const httplib::Request&, httplib::Response& response) { response.set_content(page, "text/html"); });

    if (!server.bind_to_port(host.c_str(), port)) {
        std::fprintf(stderr, "kestrel: cannot listen on %s\n", options.listen.c_str());
        return 1;
    }
    catchInterrupt();
    std::atomic<bool> done{false};
    std::thread stopper([&server, &done] {
        while (!interrupted() && !done)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        server.stop();
    });
    std::fprintf(stderr, "kestrel: serving http://%s/metrics\n", options.listen.c_str());
    std::fflush(stderr);
    server.listen_after_bind();
    done = true;
    stopper.join();
    return 0;
}
#endif

} // namespace kestrel
