// `kestrel serve` while a vendor hangs or crashes mid-run: scrapes are answered
// at once with what the other vendors read, the failing source is shown down,
// and SIGTERM ends the server and its helpers within two seconds.
#include <cmath>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "HttpClient.h"
#include "ServedKestrel.h"
#include "common/MachineInFile.h"
#include "common/Paths.h"

namespace {

using namespace std::chrono_literals;
using kestrel::test::ServedKestrel;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

// The value of one series of an exposition ('name{labels}'), NaN when absent.
double sample(const std::string& exposition, const std::string& series)
{
    const auto at = exposition.find("\n" + series + " ");
    return at == std::string::npos ? NAN : std::stod(exposition.substr(at + series.size() + 2));
}

// Whether a process has ended (a zombie no one collects has).
bool ended(int pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    return !std::getline(stat, line) || line.find(") Z ") != std::string::npos;
}

const std::string nvmlUp = "kestrel_source_up{source=\"nvml\"}";
const std::string nvmlRestarts = "kestrel_source_restarts_total{source=\"nvml\"}";
const std::string radeon = "kestrel_gpu_temperature_celsius{pci=\"0000:0a:00.0\",uuid=\"PCI_VEN_1002&DEV_73A3&"
                           "SUBSYS_0E1E1002&REV_00\"}";
const std::string geforceUp = "kestrel_gpu_up{pci=\"0000:65:00.0\",uuid=\"GPU-6d5e3c2a-8f41-4b7e-a1c9-2f6b0d9e4a11\"}";
const std::string lastUpdate = "kestrel_last_update_timestamp_seconds";

TEST(KestrelServe, AVendorThatHangsOrCrashesHoldsNeitherAScrapeNorTheStop)
{
    const struct {
        const char* fault;
        bool inProcess;
    } rows[] = {{"hang", false}, {"crash", false}, {"hang", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.fault) + (row.inProcess ? " in-process" : " isolated"));
        json machine = json::parse(kestrel::test::fileText(std::string(KESTREL_SCENARIOS) + "/workstation.json"));
        kestrel::test::MachineInFile file(machine.dump());
        std::vector<std::string> options = {"--interval", "0.2"};
        if (row.inProcess)
            options.push_back("--in-process");
        ServedKestrel server(kestrel::test::executableDirectory() + "kestrel", file.path(), options);
        const auto scrape = [&] {
            const auto response = kestrel::test::httpGet(server.port(), "/metrics", 100ms);
            EXPECT_EQ(response.status, 200) << "answered within a tenth of a second";
            return response.body;
        };
        // The first scrape waits for the first enumeration (five seconds at most); the others are answered at once.
        const std::string before = kestrel::test::httpGet(server.port(), "/metrics", 6s).body;
        EXPECT_EQ(sample(before, nvmlUp), 1);
        EXPECT_EQ(sample(before, radeon), 52);
        const std::vector<int> helpers = server.children();
        EXPECT_EQ(helpers.size(), row.inProcess ? 0u : 5u) << "a helper for each source";

        // The GeForces' temperature entry fails; the Radeon warms up.
        machine["faults"] = {{"nvmlDeviceGetTemperature", {{row.fault, true}}}};
        machine["gpus"][2]["adl"]["overdrive5"]["temperature"] = 71000;
        machine["gpus"][2]["sysfs"]["hwmon"]["temp1_input"] = 71000;
        file.change(machine.dump());
        std::string body;
        for (const auto until = Clock::now() + 2500ms; Clock::now() < until; std::this_thread::sleep_for(100ms))
            body = scrape();
        if (row.inProcess) {
            // The refreshing thread is stuck in the driver: the readings stop.
            std::this_thread::sleep_for(500ms);
            EXPECT_EQ(sample(scrape(), lastUpdate), sample(body, lastUpdate));
        } else {
            EXPECT_EQ(sample(body, nvmlUp), 0);
            EXPECT_EQ(sample(body, geforceUp), 0) << "the GeForce no longer answers";
            EXPECT_EQ(sample(body, radeon), 71) << "the other sources are read as ever";
            EXPECT_GE(sample(body, nvmlRestarts), 1) << "its helper was started again";
            EXPECT_LT(std::abs(sample(body, lastUpdate) - static_cast<double>(std::time(nullptr))), 2);
        }

        const auto stopping = Clock::now();
        EXPECT_EQ(server.stop(2s), 0);
        EXPECT_LT(Clock::now() - stopping, 2s);
        for (const int helper : helpers)
            EXPECT_TRUE(ended(helper)) << "helper " << helper << " ended with the server";
    }
}

// A server killed outright, while a helper is stuck in its driver, leaves no
// helper behind.
TEST(KestrelServe, HelpersEndWithAServerThatIsKilled)
{
    json machine = json::parse(kestrel::test::fileText(std::string(KESTREL_SCENARIOS) + "/workstation.json"));
    kestrel::test::MachineInFile file(machine.dump());
    std::vector<int> helpers;
    {
        ServedKestrel server(kestrel::test::executableDirectory() + "kestrel", file.path(), {"--interval", "0.2"});
        // The first scrape waits for the first enumeration, which has every helper started.
        EXPECT_EQ(kestrel::test::httpGet(server.port(), "/metrics", 6s).status, 200);
        helpers = server.children();
        machine["faults"] = {{"nvmlDeviceGetTemperature", {{"hang", true}}}};
        file.change(machine.dump());
        std::this_thread::sleep_for(300ms);
    } // killed with SIGKILL
    ASSERT_EQ(helpers.size(), 5u);
    const auto until = Clock::now() + 4s;
    for (const int helper : helpers) {
        while (!ended(helper) && Clock::now() < until)
            std::this_thread::sleep_for(20ms);
        EXPECT_TRUE(ended(helper)) << "helper " << helper;
    }
}

} // namespace
