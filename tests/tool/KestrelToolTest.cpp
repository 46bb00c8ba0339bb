#include <algorithm>
#include <fstream>
#include <set>

#include <nlohmann/json.hpp>

#include "common/Paths.h"
#include "common/Process.h"
#include "common/Test.h"

namespace {

using kestrel::test::ProcessResult;
using nlohmann::json;

#if defined(_WIN32)
const char* const program = "kestrel.exe";
#else
const char* const program = "kestrel";
#endif

// Windows programs end their lines with CR LF; the tests read LF.
std::string withoutCarriageReturns(std::string text)
{
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

ProcessResult kestrelWith(const std::vector<std::string>& arguments)
{
    ProcessResult run = kestrel::test::runProcess(kestrel::test::executableDirectory() + program, arguments);
    run.out = withoutCarriageReturns(run.out);
    run.err = withoutCarriageReturns(run.err);
    return run;
}

std::string scenario(const std::string& name) { return std::string(KESTREL_SCENARIOS) + "/" + name + ".json"; }

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    return lines;
}

bool hasLine(const std::string& text, const std::string& line)
{
    for (const auto& each : linesOf(text))
        if (each == line)
            return true;
    return false;
}

// The AMD card's hot spot: ADL's, or on Linux the hotter one of its hwmon files.
#if defined(_WIN32)
const char* const hotspot = "67";
#else
const char* const amdKernelName = "Advanced Micro Devices, Inc. [AMD/ATI] Navi 21 GL-XL [Radeon PRO W6800]";
const char* const hotspot = "68";
#endif

// Two NVIDIA cards in SLI seen by NVML, NVAPI and CUDA, and one AMD card with
// three ADL adapters: three merged records.
TEST(KestrelTool, JsonHoldsEveryPropertyOfTheWorkstationsMergedGPUs)
{
    const ProcessResult run = kestrelWith({"--simulate", scenario("workstation"), "--json"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    const json document = json::parse(run.out);
    EXPECT_EQ(document["insufficientPower"], false);
    const json& gpus = document["gpus"];
    ASSERT_EQ(gpus.size(), 3u);
    for (const auto& gpu : gpus)
        EXPECT_EQ(gpu.size(), 45u) << "the location and 44 properties, null when unknown";

    // Each GPU's properties in the record's own units, null where no source knows them: the
    // NVIDIA cards merged from NVML, NVAPI and CUDA (the second card's NVML reports no ECC
    // counts); the AMD card's ADL view, to which sysfs adds on Linux.
    json expected = json::parse(R"([
        {"pciLocation": "0000:65:00.0", "name": "NVIDIA GeForce RTX 2080 Ti", "driverVersion": "452.6",
         "coreCount": 4352, "graphicsClock": 1545000, "shaderClock": 1350000, "memoryWidth": 352,
         "busType": "PCI Express", "sli": true, "versionMajor": 7, "versionMinor": 5, "temperatureCurrent": 47,
         "uuid": "GPU-6d5e3c2a-8f41-4b7e-a1c9-2f6b0d9e4a11", "eccErrorsCorrectedVolatile": 0, "crossfire": null,
         "nativeMonitorHandle": null, "powerDraw": 215300, "powerLimit": 250000, "energyConsumed": 4318275000,
         "temperatureHotspot": null, "pcieLinkGeneration": 3, "pcieLinkWidthMax": 16, "performanceState": 2,
         "clockEventReasons": 4},
        {"pciLocation": "0000:66:00.0", "sli": true, "eccErrorsCorrectedVolatile": null, "pcieLinkGeneration": 1,
         "clockEventReasons": 1},
        {"pciLocation": "0000:0a:00.0", "name": "AMD Radeon Pro W6800", "temperatureShutdown": null,
         "temperatureCurrent": 52, "dedicatedMemory": 33554432, "graphicsClock": 2155000, "fanSpeedRPM": 980,
         "coreCount": null, "powerDraw": 141000, "powerLimit": null, "energyConsumed": null,
         "temperatureHotspot": 67, "temperatureMemory": 60, "pcieLinkGeneration": null, "performanceState": null,
         "clockEventReasons": null}])");
#if !defined(_WIN32)
    expected[2]["name"] = amdKernelName; // the kernel's name (the PCI ID database's) is the longer
    expected[2]["temperatureShutdown"] = 100; // from the card's hwmon files
    // ADL's power (the vendor library's) over the files' 142 W; the hotter hot spot; the files' limit and link.
    expected[2]["temperatureHotspot"] = 68;
    expected[2]["powerLimit"] = 213000;
    expected[2]["pcieLinkGeneration"] = 4;
#endif
    for (size_t gpu = 0; gpu < expected.size(); ++gpu)
        for (const auto& [property, value] : expected[gpu].items())
            EXPECT_EQ(gpus[gpu][property], value) << "GPU " << gpu << ", " << property;
}

TEST(KestrelTool, TextReportShowsWhatIsKnownWithUnits)
{
    const ProcessResult run = kestrelWith({"--simulate", scenario("workstation")});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    for (const char* line : {"0000:65:00.0  NVIDIA GeForce RTX 2080 Ti", "  Graphics clock: 1545 MHz",
                             "  Dedicated memory: 11 GiB", "  Temperature: 47 °C", "  GPU utilization: 12%",
                             "  CUDA compute capability: 7.5", "  SLI: yes",
                             "  Fan speed: 980 RPM", "  Memory bandwidth: 512000 MB/s", "  Power: 215.3 W",
                             "  Power limit: 250 W", "  Energy (since driver load): 4318.3 kJ",
                             "  Link: PCIe 1.0 x16 (of 3.0 x16)", "  Performance state: P8",
                             "  Clock event reasons: software power cap", "  Memory temperature: 60 °C"})
        EXPECT_TRUE(hasLine(run.out, line)) << line << "\n" << run.out;
#if !defined(_WIN32)
    // What the kernel's sysfs files add to ADL's view of the AMD card.
    for (const std::string& line : {"0000:0a:00.0  " + std::string(amdKernelName), std::string("  Bus: PCI Express"),
                                   std::string("  Available dedicated memory: 30 GiB"),
                                   std::string("  Shutdown temperature: 100 °C")})
        EXPECT_TRUE(hasLine(run.out, line)) << line;
#endif
    EXPECT_EQ(run.out.find("null"), std::string::npos);
    EXPECT_EQ(run.out.find("CrossFire"), std::string::npos) << "unknown properties are left out";

    const ProcessResult starved = kestrelWith({"--simulate", scenario("power-starved")});
    EXPECT_TRUE(hasLine(starved.out, "Note: NVML left out a GPU that does not have enough power (check its power "
                                     "cables)."));
    EXPECT_EQ(json::parse(kestrelWith({"--simulate", scenario("power-starved"), "--json"}).out)["insufficientPower"],
              true);
}

// NVAPI cuts names to 63 bytes: a cut inside a character leaves a byte that is
// no UTF-8, which both reports show as U+FFFD.
TEST(KestrelTool, TextThatIsNotUtf8IsShownWithReplacementCharacters)
{
    std::string accents;
    for (int i = 0; i < 40; ++i)
        accents += "\u00e9";
    const std::string cut = kestrel::test::temporaryPath("cut-name.json");
    std::ofstream(cut) << R"({"gpus": [{"name": ")" << accents << R"(", "pci": {"bus": 1}, "nvapi": {}}]})";
    std::string shown;
    for (int i = 0; i < 31; ++i)
        shown += "\xC3\xA9";
    shown += "\xEF\xBF\xBD";

    const ProcessResult asJson = kestrelWith({"--simulate", cut, "--json"});
    ASSERT_EQ(asJson.exitCode, 0) << asJson.err;
    EXPECT_EQ(json::parse(asJson.out)["gpus"][0]["name"], shown);
    const ProcessResult asText = kestrelWith({"--simulate", cut});
    EXPECT_TRUE(hasLine(asText.out, "0000:01:00.0  " + shown)) << asText.out;
    std::remove(cut.c_str());
}

// The exposition as Prometheus reads it: base units, one series per GPU and
// property, no sample for what a GPU does not report.
TEST(KestrelTool, PrometheusExpositionOfTheWorkstation)
{
    const ProcessResult run = kestrelWith({"--simulate", scenario("workstation"), "--prometheus"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string nvidia = R"(pci="0000:65:00.0",uuid="GPU-6d5e3c2a-8f41-4b7e-a1c9-2f6b0d9e4a11")";
    for (const std::string& line : {
             "kestrel_gpu_temperature_celsius{" + nvidia + "} 47",
             "kestrel_gpu_utilization_ratio{" + nvidia + "} 0.12",
             "kestrel_gpu_memory_dedicated_bytes{" + nvidia + "} 11811160064",
             "kestrel_gpu_clock_hertz{" + nvidia + ",domain=\"graphics\"} 1545000000",
             "kestrel_gpu_fan_speed_ratio{" + nvidia + "} 0.35",
             "kestrel_gpu_ecc_errors_total{" + nvidia + ",type=\"corrected\",scope=\"volatile\"} 0",
             std::string("# TYPE kestrel_gpu_ecc_errors_total counter"),
             std::string("kestrel_source_up{source=\"nvml\"} 1"),
             "kestrel_gpu_power_watts{" + nvidia + "} 215.3",
             "kestrel_gpu_power_limit_watts{" + nvidia + "} 250",
             "kestrel_gpu_energy_joules_total{" + nvidia + "} 4318275",
             std::string("# TYPE kestrel_gpu_energy_joules_total counter"),
             "kestrel_gpu_pcie_link_generation{" + nvidia + ",link=\"current\"} 3",
             "kestrel_gpu_pcie_link_lanes{" + nvidia + ",link=\"maximum\"} 16",
             "kestrel_gpu_performance_state{" + nvidia + "} 2",
             "kestrel_gpu_clock_event_reason{" + nvidia + ",reason=\"sw_power_cap\"} 1",
             "kestrel_gpu_clock_event_reason{" + nvidia + ",reason=\"gpu_idle\"} 0"})
        EXPECT_TRUE(hasLine(run.out, line)) << line << "\n" << run.out;
    // ADL reports no slowdown temperature for the AMD card: no sample, not a 0; nor
    // clock event reasons, of which it has no series at all.
    EXPECT_EQ(run.out.find("kestrel_gpu_temperature_slowdown_celsius{pci=\"0000:0a:00.0\""), std::string::npos);
    EXPECT_EQ(run.out.find("kestrel_gpu_clock_event_reason{pci=\"0000:0a:00.0\""), std::string::npos);
    EXPECT_TRUE(hasLine(run.out, "kestrel_gpu_temperature_hotspot_celsius{pci=\"0000:0a:00.0\",uuid=\"PCI_VEN_1002&"
                                 "DEV_73A3&SUBSYS_0E1E1002&REV_00\"} " + std::string(hotspot)));

#if !defined(_WIN32)
    // Every example machine's exposition passes Prometheus's own check.
    for (const char* machine : {"workstation", "laptop", "power-starved", "two-radeons", "cloud-vm"}) {
        const std::string file = kestrel::test::temporaryPath(std::string(machine) + ".prom");
        std::ofstream(file) << kestrelWith({"--simulate", scenario(machine), "--prometheus"}).out;
        const ProcessResult check = kestrel::test::runProcess("/bin/sh", {"-c", "promtool check metrics < " + file});
        EXPECT_EQ(check.exitCode, 0) << machine << ": " << check.out << check.err;
        std::remove(file.c_str());
    }
#endif
}

// A cloud machine's four GPUs, each passed through in a PCI domain of its own at
// bus 0: four GPUs in every output, each with its own location and readings.
TEST(KestrelTool, EachGpuOfACloudMachineIsShownInItsOwnDomain)
{
    const std::vector<std::pair<std::string, int>> gpus = {
        {"0001:00:00.0", 34}, {"0002:00:00.0", 41}, {"0003:00:00.0", 37}, {"0004:00:00.0", 45}};
    const ProcessResult text = kestrelWith({"--simulate", scenario("cloud-vm")});
    ASSERT_EQ(text.exitCode, 0) << text.err;
    const json document = json::parse(kestrelWith({"--simulate", scenario("cloud-vm"), "--json"}).out);
    ASSERT_EQ(document["gpus"].size(), gpus.size());
    const std::string exposition = kestrelWith({"--simulate", scenario("cloud-vm"), "--prometheus"}).out;
    std::set<std::string> uuids;
    for (size_t i = 0; i < gpus.size(); ++i) {
        const auto& [location, temperature] = gpus[i];
        const json& gpu = document["gpus"][i];
        EXPECT_EQ(gpu["pciLocation"], location);
        EXPECT_EQ(gpu["temperatureCurrent"], temperature) << location;
        uuids.insert(gpu["uuid"].get<std::string>());
        // The report's block of the GPU: its location first, its own temperature in it.
        const std::string block = text.out.substr(text.out.find(location + "  "));
        EXPECT_NE(block.substr(0, block.find("\n\n")).find("  Temperature: " + std::to_string(temperature) + " °C"),
                  std::string::npos)
            << location << "\n" << text.out;
        EXPECT_TRUE(hasLine(exposition, "kestrel_gpu_temperature_celsius{pci=\"" + location + "\",uuid=\"" +
                                            gpu["uuid"].get<std::string>() + "\"} " + std::to_string(temperature)))
            << exposition;
    }
    EXPECT_EQ(uuids.size(), gpus.size()) << "each GPU's own identity";
}

// Each source gives the domain in its own width: NVML 32 bits unsigned, CUDA an
// int (a domain past 2^31 is negative there), sysfs hex text with as many digits
// as it takes; NVAPI none. All meet in one GPU each, whole.
TEST(KestrelTool, DomainsOfEveryWidthMeetAcrossSources)
{
    const std::string file = kestrel::test::temporaryPath("wide-domains.json");
    std::ofstream(file) << R"({"gpus": [
        {"pci": {"domain": 65536, "bus": 23}, "nvml": {"temperature": 50}, "cuda": {}, "nvapi": {"coreCount": 6912},
         "sysfs": {"vendor": 4318, "device": 8368, "files": {"current_link_speed": "16.0 GT/s PCIe"}}},
        {"pci": {"domain": 2147483649, "bus": 24}, "nvml": {"temperature": 60}, "cuda": {},
         "nvapi": {"coreCount": 6912}}]})";
    const ProcessResult run = kestrelWith({"--simulate", file, "--json"});
    std::remove(file.c_str());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const json gpus = json::parse(run.out)["gpus"];
    ASSERT_EQ(gpus.size(), 2u) << run.out;
    EXPECT_EQ(gpus[0]["pciLocation"], "10000:17:00.0");
    EXPECT_EQ(gpus[1]["pciLocation"], "80000001:18:00.0");
    for (const json& gpu : gpus) {
        EXPECT_FALSE(gpu["temperatureCurrent"].is_null()) << "NVML's";
        EXPECT_EQ(gpu["coreCount"], 6912) << "NVAPI's";
        EXPECT_EQ(gpu["versionMajor"], 8) << "CUDA's";
    }
#if !defined(_WIN32)
    EXPECT_EQ(gpus[0]["busType"], "PCI Express") << "sysfs's";
#endif
}

TEST(KestrelTool, AnEmptyMachineSaysSo)
{
    const std::string empty = kestrel::test::temporaryPath("empty.json");
    std::ofstream(empty) << "{}";
    const ProcessResult run = kestrelWith({"--simulate", empty});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out, "No GPU found.\n");
    std::remove(empty.c_str());
}

TEST(KestrelTool, BadInputEndsWithOneLineAndExitCode2)
{
    const std::string broken = kestrel::test::temporaryPath("broken.json");
    std::ofstream(broken) << "{\n  \"gpus\": [\n    { \"name\": \"x\", }\n  ]\n}\n";
    const std::string huge = kestrel::test::temporaryPath("huge.json");
    std::ofstream(huge) << R"({"gpus": [{"nvml": {"temperature": 1e999}}]})";
    const std::string mistyped = kestrel::test::temporaryPath("mistyped.json");
    std::ofstream(mistyped) << R"({"monitors": [{"x": "0"}]})";
    const std::string misspelled = kestrel::test::temporaryPath("misspelled.json");
    std::ofstream(misspelled) << R"({"gpus": [{"nvml": {"fanspeed": 40}}]})";
    const std::string unknownEntry = kestrel::test::temporaryPath("unknown-entry.json");
    std::ofstream(unknownEntry) << R"({"faults": {"nvmlInit": {"return": 1}}})";
    struct Case {
        std::vector<std::string> arguments;
        std::string mentions;
    };
    const std::vector<Case> cases = {
        {{"--frobnicate"}, "--frobnicate"},
        {{"--log-level", "9"}, "--log-level"},
        {{"--watch", "soon"}, "--watch: 'soon' is not a positive number of seconds"},
        {{"serve", "--interval", "0"}, "--interval: '0' is not a positive number of seconds"},
        {{"serve", "--interval", "inf"}, "--interval: 'inf' is not a positive number of seconds"},
        {{"--simulate", scenario("no-such-machine")}, "cannot read scenario"},
        {{"--simulate", broken}, "line 3, column"},
        {{"--simulate", huge}, "number overflow"},
        {{"--simulate", mistyped}, "monitors[0].x: expected an integer"},
        {{"--simulate", misspelled}, "gpus[0].nvml.fanspeed: unknown key"},
        {{"--simulate", unknownEntry}, "faults.nvmlInit: no simulated module has this entry point"},
    };
    for (const Case& bad : cases) {
        const ProcessResult run = kestrelWith(bad.arguments);
        EXPECT_EQ(run.exitCode, 2) << bad.arguments[0];
        EXPECT_EQ(run.out, "") << bad.arguments[0];
        EXPECT_EQ(linesOf(run.err).size(), 1u) << run.err;
        EXPECT_EQ(run.err.rfind("kestrel: ", 0), 0u) << run.err;
        EXPECT_NE(run.err.find(bad.mentions), std::string::npos) << run.err;
    }
    for (const std::string& file : {broken, huge, mistyped, misspelled, unknownEntry})
        std::remove(file.c_str());
}

TEST(KestrelTool, LogLevelOneTracesTheLibraryOnStandardError)
{
    const ProcessResult quiet = kestrelWith({"--simulate", scenario("laptop")});
    EXPECT_EQ(quiet.err, "") << "the log is off by default";

    const ProcessResult traced = kestrelWith({"--simulate", scenario("laptop"), "--log-level", "1"});
    EXPECT_EQ(traced.exitCode, 0);
    EXPECT_EQ(traced.out, quiet.out) << "the report is the same";
    EXPECT_TRUE(hasLine(traced.err, "libKestrel.NVidiaNvmlGPUQuerierMulti [TRACE] Entering queryNVidiaNvmlGPUsMulti "
                                    "(libKestrel/src/multi/NVidiaNvmlGPUQuerierMulti.cpp:189)"))
        << traced.err;
    EXPECT_TRUE(hasLine(traced.err, "libKestrel.Kestrel [TRACE] Leaving mergeGPUs"));
    EXPECT_TRUE(hasLine(traced.err, "libKestrel.NVML [TRACE] 188 Temperature current (Celsius): 63"));
}

TEST(KestrelTool, HelpAndVersionEndWell)
{
    const ProcessResult help = kestrelWith({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("--simulate FILE"), std::string::npos);
    const ProcessResult version = kestrelWith({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out.rfind("kestrel ", 0), 0u);
}

#if !defined(_WIN32)
// Watching with --isolate keeps each vendor in one helper across reports: a
// temperature entry that crashes from its fourth call on (the first refresh's
// second GPU) brings NVML's helper down, which helpers started afresh for each
// report, counting their calls from 0, never would.
TEST(KestrelTool, WatchingIsolatedKeepsEachVendorInOneHelper)
{
    json machine = json::parse(kestrel::test::fileText(scenario("workstation")));
    machine["faults"] = {{"nvmlDeviceGetTemperature", {{"crash", true}, {"fromCall", 3}}}};
    const std::string file = kestrel::test::temporaryPath("watched-machine.json");
    std::ofstream(file) << machine.dump();
    const std::string command = kestrel::test::executableDirectory() + program + " --simulate " + file +
                                " --watch 0.2 --isolate --json --log-level 4 & sleep 1.5; kill -TERM $!; wait $!";
    const ProcessResult run = kestrel::test::runProcess("/bin/sh", {"-c", command});
    std::remove(file.c_str());
    EXPECT_EQ(run.exitCode, 0) << "a watch ends well when interrupted";
    std::vector<bool> read;
    for (const std::string& line : linesOf(run.out))
        read.push_back(!json::parse(line)["gpus"][0]["temperatureCurrent"].is_null());
    ASSERT_GE(read.size(), 4u);
    EXPECT_TRUE(read.front()) << "read as it was enumerated";
    EXPECT_FALSE(read[1]) << "the first refresh crashed the helper";
    EXPECT_TRUE(hasLine(run.err, "libKestrel.Session [CRITICAL] 60 Source nvml's helper crashed with signal 11; "
                                 "its readings are left out until it answers again"))
        << run.err;
}
#endif

} // namespace
