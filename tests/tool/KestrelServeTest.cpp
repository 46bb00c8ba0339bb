// `kestrel serve` on the simulated workstation, on loopback, against clients
// that are careless or hostile: what they get, and that the scrapes of everyone
// else are still answered at once.
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "HttpClient.h"
#include "ServedKestrel.h"
#include "common/Paths.h"

namespace {

using namespace std::chrono_literals;
using kestrel::test::HttpClient;
using kestrel::test::HttpResponse;
using kestrel::test::ServedKestrel;
using Clock = std::chrono::steady_clock;

// The server's limits, as the README gives them.
constexpr size_t requestLineLimit = 8 * 1024;
constexpr size_t headersLimit = 16 * 1024;
constexpr size_t bodyLimit = 64 * 1024;
constexpr int connectionLimit = 64;
constexpr auto requestDeadline = 5s;
constexpr auto idleDeadline = 5s;

// What a loaded machine may add to a deadline.
constexpr auto margin = 1s;

ServedKestrel workstation()
{
    return ServedKestrel(kestrel::test::executableDirectory() + "kestrel",
                         std::string(KESTREL_SCENARIOS) + "/workstation.json");
}

TEST(KestrelServe, AnswersGetAndHeadOfItsResourcesAndRefusesTheRestAtOnce)
{
    ServedKestrel server = workstation();
    struct Case {
        std::string request;
        int status;
        bool keptAlive; // the connection answers another request
    };
    const std::string get = "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    const std::vector<Case> cases = {
        {get + "\r\n", 200, true},
        {"GET /metrics?name[]=kestrel_gpu_temperature_celsius HTTP/1.1\r\n\r\n", 200, true},
        {"HEAD /metrics HTTP/1.1\r\n\r\n", 200, true},
        {"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", 200, true},
        {"GET /metrics HTTP/1.0\r\n\r\n", 200, false},
        {"GET /metrics HTTP/1.1\r\nConnection: close\r\n\r\n", 200, false},
        {"GET /metric HTTP/1.1\r\n\r\n", 404, true},
        {"POST /metrics HTTP/1.1\r\nContent-Length: 0\r\n\r\n", 405, true},
        {"DELETE / HTTP/1.1\r\n\r\n", 405, true},
        {"POST /metrics HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello", 405, false},
        // Refused as soon as the limit is passed, without waiting for the end of the request.
        {"GET /" + std::string(requestLineLimit, 'a'), 414, false},
        {get + "Cookie: " + std::string(headersLimit, 'c'), 431, false},
        {get + "Content-Length: " + std::to_string(bodyLimit + 1) + "\r\n\r\n", 413, false},
        {get + "Transfer-Encoding: chunked\r\n\r\n", 411, false},
        {get + "Content-Length: 1\r\nContent-Length: 2\r\n\r\n", 400, false},
        {get + " Folded: header\r\n\r\n", 400, false},
        {"GET /metrics HTTP/2.0\r\n\r\n", 505, false},
        {"\x16\x03\x01\x02\x01\x01\x01\xfc\x03\x03\r\n\r\n", 400, false}, // TLS
    };
    for (const Case& each : cases) {
        const std::string name = each.request.substr(0, 40);
        HttpClient client(server.port());
        ASSERT_TRUE(client.send(each.request)) << name;
        const HttpResponse response = client.receive(2s, each.request.rfind("HEAD", 0) == 0);
        EXPECT_EQ(response.status, each.status) << name;
        EXPECT_EQ(response.header("connection"), each.keptAlive ? "keep-alive" : "close") << name;
        if (each.status == 405) {
            EXPECT_EQ(response.header("allow"), "GET, HEAD") << name;
        }
        if (each.status == 200 && each.request.rfind("GET /metrics", 0) == 0) {
            EXPECT_EQ(response.header("content-type"), "text/plain; version=0.0.4; charset=utf-8") << name;
        }
        if (each.status == 200 && each.request.rfind("HEAD", 0) == 0) {
            EXPECT_GT(std::stoul(response.header("content-length")), 1000u) << name << ": the length a GET has";
        }
        if (each.keptAlive) {
            client.send("GET / HTTP/1.1\r\n\r\n");
            EXPECT_EQ(client.receive(2s).header("content-type"), "text/html") << name;
        } else {
            EXPECT_TRUE(client.endsWithin(2s)) << name;
        }
    }

    // A client mid-request does not hold the server up when it is told to stop.
    HttpClient slow(server.port());
    slow.send("GET /met");
    EXPECT_EQ(server.stop(500ms), 0);
}

TEST(KestrelServe, AHundredMegabyteBodyIsRefusedUnread)
{
    ServedKestrel server = workstation();
    ASSERT_EQ(kestrel::test::httpGet(server.port(), "/metrics", 2s).status, 200);
    const long before = server.residentBytes();

    // The client sends the head and as much of the body as the connection
    // takes before the answer comes.
    HttpClient client(server.port());
    const std::string head = "POST /metrics HTTP/1.1\r\nContent-Length: 100000000\r\n\r\n";
    ASSERT_TRUE(client.send(head));
    const HttpResponse refused = client.receive(2s);
    EXPECT_EQ(refused.status, 413);
    EXPECT_EQ(refused.header("connection"), "close");
    const std::string megabyte(1 << 20, '\0');
    int sent = 0;
    while (sent < 100 && client.send(megabyte))
        ++sent;
    EXPECT_LT(sent, 100) << "the server stopped reading and closed";
    EXPECT_LT(server.residentBytes() - before, 10l << 20);
    EXPECT_EQ(kestrel::test::httpGet(server.port(), "/metrics", 2s).status, 200);
}

// Eight clients that send a request a byte a second, and 200 that connect and
// say nothing, beside a scraper on a new connection each time and one that
// keeps its connection.
TEST(KestrelServe, ScrapesAreAnsweredWhileSlowAndIdleClientsHoldConnections)
{
    ServedKestrel server = workstation();
    std::vector<std::unique_ptr<HttpClient>> idle;
    for (int i = 0; i < 200; ++i)
        idle.push_back(std::make_unique<HttpClient>(server.port()));
    std::vector<std::unique_ptr<HttpClient>> slow;
    for (int i = 0; i < 8; ++i)
        slow.push_back(std::make_unique<HttpClient>(server.port()));
    auto keptAlive = std::make_unique<HttpClient>(server.port());

    const std::string request = "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: slow\r\n\r\n";
    const auto start = Clock::now();
    for (size_t second = 0; second < 5; ++second) {
        for (auto& client : slow)
            client->send(request.substr(second, 1));
        std::this_thread::sleep_for(500ms);
        ASSERT_LE(server.openSockets(), connectionLimit + 1) << "at most the limit, and the listening one";

        const auto asked = Clock::now();
        EXPECT_EQ(kestrel::test::httpGet(server.port(), "/metrics", 100ms).status, 200) << second;
        keptAlive->send(kestrel::test::scrapeRequest());
        EXPECT_EQ(keptAlive->receive(100ms).status, 200) << second;
        std::this_thread::sleep_until(asked + 500ms);
    }

    // The whole request has a deadline, though each byte came within it.
    for (auto& client : slow) {
        EXPECT_TRUE(client->endsWithin(std::chrono::duration_cast<std::chrono::milliseconds>(
            start + requestDeadline + margin - Clock::now())));
        EXPECT_EQ(client->received().rfind("HTTP/1.1 408 ", 0), 0u) << client->received();
    }
    // The idle ones were closed to make room, or when their deadline passed.
    for (auto& client : idle)
        EXPECT_TRUE(client->endsWithin(std::chrono::duration_cast<std::chrono::milliseconds>(
            start + idleDeadline + margin - Clock::now())));
    slow.clear();
    keptAlive.reset();
    const auto closing = Clock::now();
    while (server.openSockets() > 1 && Clock::now() < closing + margin)
        std::this_thread::sleep_for(10ms);
    EXPECT_EQ(server.openSockets(), 1) << "only the listening socket is left";
}

// Prometheus keeps its connection: a scrape on it must not wait for the
// acknowledgement of the last one, which would cost it tens of milliseconds.
TEST(KestrelServe, KeptAliveScrapesCostWhatNewConnectionsDo)
{
    ServedKestrel server = workstation();
    constexpr int scrapes = 20;
    const auto timed = [](const auto& scrape) {
        const auto start = Clock::now();
        for (int i = 0; i < scrapes; ++i)
            EXPECT_EQ(scrape().status, 200);
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    };
    const auto onNewConnections = timed([&] { return kestrel::test::httpGet(server.port(), "/metrics", 1s); });
    HttpClient client(server.port());
    const auto onOneConnection = timed([&] {
        client.send(kestrel::test::scrapeRequest());
        return client.receive(1s);
    });
    EXPECT_LT(onOneConnection, onNewConnections + 100) << "milliseconds for " << scrapes << " scrapes";

    // Requests sent together are answered in order.
    client.send(kestrel::test::scrapeRequest("/") + kestrel::test::scrapeRequest("/metrics"));
    EXPECT_EQ(client.receive(1s).header("content-type"), "text/html");
    EXPECT_EQ(client.receive(1s).header("content-type"), "text/plain; version=0.0.4; charset=utf-8");
}

} // namespace
