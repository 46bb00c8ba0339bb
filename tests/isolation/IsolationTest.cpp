// The isolated query: the same records as in-process, a crashing or hanging
// vendor that costs only its own records, the children's log lines in the host's
// sink, and the probe's output format read strictly. ContractTest.cpp holds what
// a helper or its host may do beyond that.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "TestCopy.h"
#include "common/MachineInFile.h"
#include "common/Paths.h"
#include "common/Process.h"
#include "common/Records.h"
#include "common/Test.h"
#include "libKestrel/GPU.h"
#include "libKestrel/Isolated.h"
#include "libKestrel/internal/SourceTable.h"
#include "libKestrel/internal/isolation/ProbeFormat.h"
#include "state/SimulatorState.h"
#include "tova/System.h"

namespace {

namespace fs = std::filesystem;
using kestrel::test::describe;
using kestrel::test::LogCapture;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

const std::vector<libKestrel::GPUQuerier> ownSources = {
    libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs, libKestrel::queryNVidiaCudaGPUsMulti,
    libKestrel::queryAMDGPUsMulti};

std::string scenarioFile(const std::string& name)
{
    return tova::System::getEnvironmentVariable("KESTREL_SCENARIOS").str() + "/" + name + ".json";
}

// A host's own source, which an isolated query runs in the host's process.
std::vector<std::shared_ptr<libKestrel::IGPU>> hostSource(std::bitset<4>&) { return {kestrel::test::gpuAt(0x7e)}; }

// The longest deadline there is waits for the helpers as long as they take.
TEST(Isolation, EveryExampleMachineGivesTheRecordsOfAnInProcessQuery)
{
    std::vector<libKestrel::GPUQuerier> sources = ownSources;
    sources.push_back(hostSource);
    for (const char* machine : {"workstation", "laptop", "power-starved", "two-radeons", "cloud-vm"}) {
        const auto file = kestrel::test::MachineInFile::existing(scenarioFile(machine));
        std::bitset<4> inProcess;
        const auto expected = describe(libKestrel::queryAllGPUs({}, sources, inProcess));
        EXPECT_FALSE(expected.empty());
        for (const auto deadline : {std::chrono::milliseconds(10000), std::chrono::milliseconds::max()}) {
            SCOPED_TRACE(std::string(machine) + ", deadline " + std::to_string(deadline.count()) + " ms");
            std::bitset<4> isolated;
            EXPECT_EQ(describe(libKestrel::queryAllGPUsIsolated({}, sources, isolated, deadline)), expected);
            EXPECT_EQ(isolated, inProcess);
        }
    }
}

// For each vendor: a crash in its initialisation, and a hang in its enumeration.
TEST(Isolation, ACrashingOrHangingVendorCostsOnlyItsOwnRecords)
{
    const struct {
        const char* source;
        const char* entry;
        const char* fault;
    } rows[] = {
#if !defined(_WIN32)
        // Under Wine a child cannot be shown where NVML is: Wine sets ProgramW6432
        // itself in every process it starts.
        {"nvml", "nvmlInit_v2", "crash"},           {"nvml", "nvmlDeviceGetCount_v2", "hang"},
#endif
        {"nvapi", "NvAPI_Initialize", "crash"},     {"nvapi", "NvAPI_EnumPhysicalGPUs", "hang"},
        {"cuda", "cuInit", "crash"},                {"cuda", "cuDeviceGetCount", "hang"},
        {"adl", "ADL_Main_Control_Create", "crash"}, {"adl", "ADL_Adapter_NumberOfAdapters_Get", "hang"},
    };
    const json workstation = json::parse(kestrel::test::fileText(scenarioFile("workstation")));
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.entry) + " " + row.fault);
        json machine = workstation;
        machine["faults"] = {{row.entry, {{row.fault, true}}}};
        const kestrel::test::MachineInFile file(machine.dump());
        LogCapture capture(tova::LoggerPriority::CRITICAL);
        // Every other vendor's records, as an in-process query of them alone gives.
        std::vector<libKestrel::GPUQuerier> others;
        for (const auto* own = libKestrel::ownSourcesBegin(); own != libKestrel::ownSourcesEnd(); ++own)
            if (own->name != std::string(row.source) && std::find(ownSources.begin(), ownSources.end(), own->query) != ownSources.end())
                others.push_back(own->query);
        std::bitset<4> status;
        const auto expected = describe(libKestrel::queryAllGPUs({}, others, status));
        const auto start = Clock::now();
        const auto records = libKestrel::queryAllGPUsIsolated({}, ownSources, status, std::chrono::seconds(2));
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
        EXPECT_EQ(describe(records), expected);
        const std::string said = std::string("152 Source ") + row.source +
                                 (row.fault == std::string("hang") ? " did not end by the deadline and was stopped"
                                                                   : " crashed with ");
        bool found = false;
        for (const auto& line : capture.lines())
            found = found || (line.logger == "libKestrel.Isolation" && line.priority == 4 &&
                              line.text.rfind(said, 0) == 0);
        EXPECT_TRUE(found) << said;
    }
}

// Each line reaches the host as it is written: one written before a crash is not lost.
TEST(Isolation, ACrashedHelpersLogLinesReachTheHost)
{
    json machine = json::parse(kestrel::test::fileText(scenarioFile("workstation")));
    machine["faults"] = {{"ADL_Adapter_AdapterInfo_Get", {{"crash", true}}}};
    const kestrel::test::MachineInFile file(machine.dump());
    LogCapture capture(tova::LoggerPriority::TRACE);
    std::bitset<4> status;
    EXPECT_TRUE(libKestrel::queryAllGPUsIsolated({}, {libKestrel::queryAMDGPUsMulti}, status).empty());
    EXPECT_TRUE(capture.has("libKestrel.AMDGPUQuerierMulti", 1, "171 Enumerated AMD adapter count: 3"));
    EXPECT_EQ(capture.count("152 Source adl crashed with "), 1u);
}

TEST(Isolation, TheChildrensLogLinesReachTheHostsSinkUnderItsThreshold)
{
    const kestrel::test::MachineInFile file(R"({"gpus": [{"pci": {"bus": 3}, "adl": {}}],
                                               "faults": {"ADL_Main_Control_Create": {"return": -1}}})");
    LogCapture capture(tova::LoggerPriority::WARNING);
    std::bitset<4> status;
    EXPECT_TRUE(libKestrel::queryAllGPUsIsolated({}, {libKestrel::queryAMDGPUsMulti}, status).empty());
    EXPECT_EQ(capture.of("libKestrel.AMDGPUQuerierMulti"),
              std::vector<std::string>{"3|149 Failed to create main control: -1"});
    EXPECT_EQ(capture.count("Entering "), 0u) << "trace lines stay under the host's threshold";
}

#if !defined(_WIN32)
// Run only by the test below, from a copy of this program in a folder of its
// own, where no helper program is beside it (the CTest run filters it out).
TEST(IsolationAlone, WithoutTheHelperProgramASourceGivesNothingAndSaysWhy)
{
    const auto file = kestrel::test::MachineInFile::existing(scenarioFile("workstation"));
    LogCapture capture(tova::LoggerPriority::CRITICAL);
    std::bitset<4> status;
    EXPECT_EQ(describe(libKestrel::queryAllGPUsIsolated({}, {libKestrel::queryNVidiaGPUs}, status)),
              std::vector<std::string>{});
    const auto lines = capture.of("libKestrel.Isolation");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("4|140 The helper program kestrel-probe is not beside the library in ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find("alone, not querying source nvapi"), std::string::npos) << lines[0];
}

TEST(Isolation, AMissingHelperProgramCostsItsSourcesAndALine)
{
    const kestrel::test::TestCopy alone(fs::u8path(kestrel::test::temporaryPath("alone")), "");
    const auto run = alone.run({"--gtest_filter=IsolationAlone.*"});
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
}
#endif

// The probe's output is taken only when it is whole and well formed.
TEST(Isolation, ProbeOutputThatDoesNotParseIsNamed)
{
    const struct {
        const char* output;
        const char* problem;
    } rows[] = {
        {"", "no output"},
        {"kestrel-probe 1\ngpu 0 1 0 0\nname A\nend\n", "cut short after line 4"},
        {"kestrel-probe 2\ndone\n", "line 1: not kestrel-probe output"},
        {"kestrel-probe 1\ngpu 0 1 32 0\n", "line 2: not a PCI location: 0 1 32 0"},
        {"kestrel-probe 1\ngpu 0 1 0 8\n", "line 2: not a PCI location: 0 1 0 8"},
        {"kestrel-probe 1\ngpu 4294967296 1 0 0\n", "line 2: not a PCI location: 4294967296 1 0 0"},
        {"kestrel-probe 1\ngpu -1 1 0 0\n", "line 2: not a PCI location: -1 1 0 0"},
        {"kestrel-probe 1\ngpu 0 1 0 0\ncolour red\n", "line 3: not a property: colour"},
        {"kestrel-probe 1\ngpu 0 1 0 0\ncoreCount many\n", "line 3: not a property: coreCount"},
        {"kestrel-probe 1\nstatus 12\n", "line 2: not a status: 12"},
        {"kestrel-probe 1\ndone\nlog 3 x late\n", "line 3: output after done"},
        {"kestrel-probe 1\nlog 3 x bad\\q\ndone\n", "line 2: a log text badly escaped"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.output);
        std::string problem;
        libKestrel::probe::parse(row.output, problem);
        EXPECT_EQ(problem, row.problem);
    }
    // What is written reads back whole: texts with every escaped character, a
    // domain of 32 bits, a location without domain.
    const auto gpu = std::make_shared<libKestrel::GPU>(pci::PciLocation(0x65, 31, 7, 0));
    const std::vector<std::shared_ptr<libKestrel::IGPU>> written{
        gpu, std::make_shared<libKestrel::GPU>(pci::PciLocation(0, 0, 0, 0xfffffffe)),
        std::make_shared<libKestrel::GPU>(pci::PciLocation::withoutDomain(3, 0, 1))};
    gpu->setName(std::string("A\\B\nC\tD\rE"));
    gpu->setCoreCount(std::uint32_t{4352});
    gpu->setSLI(true);
    std::string problem;
    const auto output = libKestrel::probe::parse(
        libKestrel::probe::header() + libKestrel::probe::logLine("libKestrel.NVML", 3, "two\nlines") +
            libKestrel::probe::records(written, std::bitset<4>("0001")),
        problem);
    EXPECT_EQ(problem, "");
    EXPECT_EQ(describe(output.records), describe(written));
    std::vector<bool> domainsKnown;
    for (const auto& record : output.records)
        domainsKnown.push_back(record->pciLocation()->domainKnown);
    EXPECT_EQ(domainsKnown, (std::vector<bool>{true, true, false}));
    EXPECT_EQ(output.status, std::bitset<4>("0001"));
    ASSERT_EQ(output.logs.size(), 1u);
    EXPECT_EQ(output.logs[0].text, "two\nlines");
}

} // namespace
