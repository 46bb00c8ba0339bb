// Hostile machines through everything a host and a user run: the whole query,
// both reports and the device classes. Whatever the machine: no crash, no
// sanitizer report, no hang (the test's time limit), records only where a PCI
// device can be, and reports that are valid JSON and UTF-8. The machine last
// run is written to hostile-last.json in the temporary folder, to replay one
// that fails.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "Report.h"
#include "Utf8.h"
#include "common/Paths.h"
#include "common/Test.h"
#include "hostile/ScenarioGenerator.h"
#include "libKestrel/AMDGPU.h"
#include "libKestrel/NVIDIAGPU.h"
#include "libKestrel/Query.h"
#include "state/SimulatorState.h"
#include "tova/System.h"

namespace {

using nlohmann::json;
using Records = std::vector<std::shared_ptr<libKestrel::IGPU>>;
namespace fs = std::filesystem;

Records noMonitorRecords(void* const&, void* const&) { return {}; }

std::string environment(const char* name, const std::string& fallback)
{
    const std::string value = tova::System::getEnvironmentVariable(name).str();
    return value.empty() ? fallback : value;
}

// The live questions of both device classes. Their documented failures are
// exceptions; anything else is a fault.
void askTheDeviceClasses()
{
    const libKestrel::NVIDIAGPU::NvAPIInitializer nvapi;
    std::vector<libKestrel::NVIDIAGPU> nvidia;
    try {
        libKestrel::NVIDIAGPU::enumerate(nvidia);
        for (libKestrel::NVIDIAGPU& gpu : nvidia) {
            std::vector<float> temperatures;
            unsigned int graphics = 0;
            unsigned int memory = 0;
            unsigned int major = 0;
            unsigned int minor = 0;
            std::vector<libKestrel::NVIDIAGPU> others;
            gpu.currentTemperature(temperatures);
            gpu.currentClock(graphics, memory);
            gpu.fanSpeed();
            gpu.supportsCuda(major, minor);
            gpu.isInSLI(others);
        }
    } catch (const std::exception&) {
    }
    std::vector<libKestrel::AMDGPU> amd;
    try {
        libKestrel::AMDGPU::enumerate(amd);
        for (libKestrel::AMDGPU& gpu : amd) {
            std::vector<float> temperatures;
            std::vector<int> usage;
            std::vector<libKestrel::AMDGPU> linked;
            gpu.currentTemperature(temperatures);
            gpu.currentClock();
            gpu.currentMemoryClock();
            gpu.defaultClock();
            gpu.currentGPUUsage(usage);
            gpu.hasCrossFireSlaveGPU(linked);
            gpu.isDiscrete();
            gpu.refresh();
        }
    } catch (const std::exception&) {
    }
}

const std::string lastMachine = kestrel::test::temporaryPath("hostile-last.json");
// The machine's sysfs tree, which the sysfs source reads.
const std::string sysfsRoot = kestrel::test::temporaryPath("hostile-sysfs");

// The machine last run stays behind only when something failed.
class Hostile : public testing::Test {
protected:
    void SetUp() override { setenv("KESTREL_SYSFS_ROOT", sysfsRoot.c_str(), 1); }
    void TearDown() override
    {
        std::error_code ignored;
        fs::remove_all(fs::u8path(sysfsRoot), ignored);
        unsetenv("KESTREL_SYSFS_ROOT");
        if (!HasFailure())
            std::remove(lastMachine.c_str());
    }
};

// 'withSysfs': the machine's sysfs tree is written too (naming its devices costs
// a read of the whole PCI ID database, so not every machine has one).
void runEverything(const std::string& scenario, const std::string& origin, bool withSysfs = true)
{
    SCOPED_TRACE(origin);
    std::ofstream(lastMachine) << scenario;
    kestrelSimSetScenario(scenario.c_str());
    kestrelSimWriteSysfs(withSysfs ? scenario.c_str() : "{}", sysfsRoot.c_str());
    std::bitset<4> status;
    Records records;
    try {
        records = libKestrel::queryAllGPUs({noMonitorRecords},
                                           {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs,
                                            libKestrel::queryNVidiaCudaGPUsMulti, libKestrel::queryAMDGPUsMulti,
                                            libKestrel::querySysfsGPUs},
                                           status);
    } catch (const std::exception& error) {
        ADD_FAILURE() << "the query threw: " << error.what();
    }
    for (const auto& gpu : records) {
        if (const auto location = gpu->pciLocation()) {
            EXPECT_TRUE(location->device <= 31 && location->function <= 7) << location->toString(true).str();
        }
    }
    const std::string document = kestrel::jsonReport(records, status);
    EXPECT_TRUE(json::accept(document)) << document;
    const std::string text = kestrel::textReport(records, status);
    EXPECT_EQ(kestrel::validUtf8(text), text);
    askTheDeviceClasses();
    kestrelSimSetScenario(nullptr);
}

TEST_F(Hostile, RandomMachines)
{
    const auto seed = static_cast<std::uint32_t>(std::stoul(environment("KESTREL_HOSTILE_SEED", "20261123")));
    const int count = std::stoi(environment("KESTREL_HOSTILE_COUNT", "100"));
    kestrel::test::ScenarioGenerator generator(seed);
    for (int i = 0; i < count; ++i)
        runEverything(generator.machine().dump(), "seed " + std::to_string(seed) + ", machine " + std::to_string(i),
                      i % 8 == 0);
}

TEST_F(Hostile, EveryFaultOnEveryEntryPoint)
{
    // The example workstation: two NVIDIA cards in SLI seen by every NVIDIA
    // interface, and an AMD card of three adapters.
    const json rich = json::parse(kestrel::test::fileText(environment("KESTREL_HOSTILE_RICH", "workstation.json")));
    const kestrel::test::ScenarioGenerator generator(1);
    for (const std::string& entry : generator.entries())
        for (const json& fault : generator.faultsFor(entry)) {
            json machine = rich;
            machine["faults"] = {{entry, fault}};
            runEverything(machine.dump(), entry + " " + fault.dump(), false);
        }
}

TEST_F(Hostile, TheCorpusOfMachinesThatBrokeSomething)
{
    const fs::path corpus = fs::u8path(environment("KESTREL_HOSTILE_CORPUS", "corpus"));
    size_t machines = 0;
    for (const auto& file : fs::directory_iterator(corpus)) {
        runEverything(kestrel::test::fileText(file.path().u8string()), file.path().filename().u8string());
        ++machines;
    }
    EXPECT_GE(machines, 6u) << "the corpus is missing";
}

} // namespace
