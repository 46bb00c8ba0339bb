// An isolated session gives what a session in the host's process gives, with
// each of the library's own sources in a helper process of its own; a vendor
// that hangs or crashes mid-run costs its own source only, within the deadline,
// until a helper started again answers.
#include <chrono>
#include <optional>
#include <thread>

#include <nlohmann/json.hpp>

#include "common/MachineInFile.h"
#include "common/Paths.h"
#include "common/Process.h"
#include "common/Test.h"
#include "libKestrel/Session.h"
#include "state/SimulatorState.h"
#include "tova/System.h"

#if !defined(_WIN32)
#include <unistd.h>
#endif

namespace {

using namespace kestrel::test;
using namespace std::chrono_literals;
using libKestrel::GPUQuerier;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

const std::vector<GPUQuerier> ownSources = {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs,
                                            libKestrel::queryNVidiaCudaGPUsMulti, libKestrel::queryAMDGPUsMulti};

json example(const std::string& name)
{
    return json::parse(
        fileText(tova::System::getEnvironmentVariable("KESTREL_SCENARIOS").str() + "/" + name + ".json"));
}

// The machine warmer and busier: every temperature a vendor reports raised, the
// memory NVAPI reports available lowered (on Windows a helper has no NVML), and
// the power NVML and ADL's PM log report raised, with the energy NVML counts.
json busier(json machine)
{
    for (json& gpu : machine["gpus"]) {
        for (const char* reading : {"temperature", "power", "energy"})
            if (gpu.contains("nvml") && gpu["nvml"].contains(reading))
                gpu["nvml"][reading] = gpu["nvml"][reading].get<long long>() + 9;
        if (gpu.contains("adl") && gpu["adl"].contains("overdrive8"))
            for (json& sensor : gpu["adl"]["overdrive8"]["pmlog"])
                sensor["value"] = sensor["value"].get<int>() + 9;
        if (gpu.contains("adl") && gpu["adl"].contains("overdrive5"))
            gpu["adl"]["overdrive5"]["temperature"] = gpu["adl"]["overdrive5"].value("temperature", 0) + 9000;
        if (gpu.contains("nvapi") && gpu["nvapi"].contains("memory"))
            gpu["nvapi"]["memory"]["available"] = gpu["nvapi"]["memory"].value("available", 0) / 2;
    }
    return machine;
}

libKestrel::SessionOptions isolated(std::chrono::milliseconds deadline = 2s, std::chrono::milliseconds backOff = 1s)
{
    libKestrel::SessionOptions options;
    options.isolate = true;
    options.deadline = deadline;
    options.backOff = backOff;
    return options;
}

Lines states(const libKestrel::Session& session)
{
    Lines lines;
    for (const auto& source : session.sources())
        lines.push_back(source.name + (source.up ? " up" : " down"));
    return lines;
}

TEST(IsolatedSession, GivesWhatASessionInTheHostsProcessGives)
{
    for (const char* name : {"workstation", "laptop", "power-starved", "two-radeons"}) {
        SCOPED_TRACE(name);
        MachineInFile machine(example(name).dump());
        libKestrel::Session inProcess(ownSources);
        libKestrel::Session outOfProcess(ownSources, isolated());
        const auto before = describe(outOfProcess.gpus());
        EXPECT_EQ(before, describe(inProcess.gpus()));
        EXPECT_EQ(outOfProcess.status(), inProcess.status());
        EXPECT_EQ(states(outOfProcess), states(inProcess));
        machine.change(busier(example(name)).dump());
        inProcess.refresh();
        outOfProcess.refresh();
        EXPECT_EQ(describe(outOfProcess.gpus()), describe(inProcess.gpus()));
        EXPECT_NE(describe(outOfProcess.gpus()), before) << "the change was read";
        EXPECT_EQ(outOfProcess.answering(), inProcess.answering());
    }
}

// A cloud machine's GPUs, each passed through in a PCI domain of its own at bus
// 0, which NVAPI sees too, without domains: each GPU keeps its own readings
// across refreshes, in the host's process and isolated alike, and NVAPI's
// records, which fit all four, lend their values (core counts, the available
// memory NVAPI reads again at each refresh) to none.
TEST(IsolatedSession, EachGpuOfACloudMachineKeepsItsDomainAndItsOwnReadings)
{
    SimulatedModules modules{"sim_nvml", "sim_nvapi", "sim_cuda", "sim_adl", "sim_glfw"}; // NVML in-process on Windows
    json machine = example("cloud-vm");
    for (json& gpu : machine["gpus"])
        gpu["nvapi"] = {{"coreCount", 6912}, {"memory", {{"dedicated", 41943040}, {"available", 41000000}}}};
    std::vector<std::pair<std::string, libKestrel::SessionOptions>> rows = {{"in the host's process", {}}};
#if !defined(_WIN32)
    // Under Wine a helper cannot be shown where NVML is.
    rows.emplace_back("isolated", isolated());
#endif
    const std::string ambiguous = "3|295 GPU record without PCI domain fits several GPUs and is left out: 00:00.0 "
                                  "could be 0001:00:00.0, 0002:00:00.0, 0003:00:00.0, 0004:00:00.0";
    for (const auto& [how, options] : rows) {
        SCOPED_TRACE(how);
        MachineInFile file(machine.dump());
        LogCapture log(Priority::WARNING);
        libKestrel::Session session(ownSources, options);
        const auto seen = [&session] {
            Lines lines;
            for (const auto& gpu : session.gpus())
                lines.push_back(gpu->pciLocation()->toString(true).str() + " " +
                                std::to_string(gpu->temperatureCurrent().value_or(0)) +
                                (gpu->coreCount() || gpu->availableDedicatedMemory() ? " and NVAPI's" : ""));
            return lines;
        };
        EXPECT_EQ(seen(), (Lines{"0001:00:00.0 34", "0002:00:00.0 41", "0003:00:00.0 37", "0004:00:00.0 45"}));
        file.change(busier(machine).dump());
        session.refresh();
        EXPECT_EQ(seen(), (Lines{"0001:00:00.0 43", "0002:00:00.0 50", "0003:00:00.0 46", "0004:00:00.0 54"}));
        EXPECT_EQ(session.answering(), std::vector<bool>(4, true));
        EXPECT_EQ(log.of("libKestrel.Kestrel"), Lines(4, ambiguous)) << "one line per NVAPI record, at enumeration";
    }
}

bool hasTemperature(const libKestrel::IGPU& gpu) { return gpu.temperatureCurrent().has_value(); }
bool hasShaderClock(const libKestrel::IGPU& gpu) { return gpu.shaderClock().has_value(); }

// For each vendor that is read again: its reading entries (ADL's of both
// interfaces: a helper started again reads through the first as it enumerates)
// start hanging after good refreshes, then crash, then work again.
TEST(IsolatedSession, AVendorThatHangsOrCrashesMidRunCostsItsOwnSourceUntilItsHelperAnswersAgain)
{
    const struct {
        const char* source;
        std::vector<const char*> entries;
        std::size_t gpu;       // a GPU that source reads, in the snapshot
        bool (*reading)(const libKestrel::IGPU&); // a reading only that source gives it
    } rows[] = {
#if !defined(_WIN32)
        // Under Wine a helper cannot be shown where NVML is: Wine sets
        // ProgramW6432 itself in every process it starts.
        {"nvml", {"nvmlDeviceGetTemperature"}, 0, hasTemperature},
#endif
        {"nvapi", {"NvAPI_GPU_GetAllClockFrequencies"}, 0, hasShaderClock},
        {"adl", {"ADL_Overdrive5_Temperature_Get", "ADL2_Overdrive5_Temperature_Get"}, 2, hasTemperature},
    };
    const auto deadline = 500ms;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.source);
        json machine = example("workstation");
        MachineInFile file(machine.dump());
        libKestrel::Session session(ownSources, isolated(deadline, 100ms));
        LogCapture log(Priority::WARNING);
        const auto names = states(session);
        const std::size_t source = static_cast<std::size_t>(
            std::find(names.begin(), names.end(), std::string(row.source) + " up") - names.begin());
        ASSERT_LT(source, names.size());
        const auto refresh = [&] {
            const auto start = Clock::now();
            session.refresh();
            EXPECT_LT(Clock::now() - start, deadline + 500ms) << "a refresh waits for the deadline at most";
            return session.gpus();
        };
        const auto fault = [&](const char* kind) {
            json faulty = machine;
            for (const char* entry : row.entries)
                if (kind)
                    faulty["faults"][entry] = {{kind, true}};
            file.change(faulty.dump());
        };
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(row.reading(*refresh()[row.gpu]));
        for (const char* kind : {"hang", "crash"}) {
            SCOPED_TRACE(kind);
            fault(kind);
            for (int i = 0; i < 3; ++i, std::this_thread::sleep_for(150ms)) {
                const auto gpus = refresh();
                ASSERT_EQ(gpus.size(), 3u) << "its GPUs keep what does not change";
                EXPECT_TRUE(gpus[row.gpu]->name().has_value());
                EXPECT_FALSE(row.reading(*gpus[row.gpu]));
                EXPECT_FALSE(session.sources()[source].up);
                EXPECT_FALSE(session.answering()[row.gpu]);
                EXPECT_TRUE(gpus[1 - std::min<std::size_t>(row.gpu, 1)]->name().has_value());
            }
        }
        fault(nullptr);
        std::this_thread::sleep_for(1s); // past the back-off, however far it grew
        EXPECT_TRUE(row.reading(*refresh()[row.gpu])) << "a helper started again reads it";
        EXPECT_TRUE(session.sources()[source].up);
        EXPECT_GE(session.sources()[source].restarts, 1u);
        const std::string helper = "Source " + std::string(row.source) + "'s helper ";
        EXPECT_EQ(log.of("libKestrel.Session"),
                  (Lines{"4|60 " + helper + "did not answer by the deadline and was stopped; its readings are left "
                                            "out until it answers again",
                         "3|61 " + helper + "was started again and answers; its readings are back"}))
            << "said once each: when it went down, and when it came back";
    }
}

// A host may open and refresh a session from threads that end before it: its
// helpers live on.
TEST(IsolatedSession, HelpersOutliveTheThreadsThatStartedThem)
{
    const MachineInFile machine(example("workstation").dump());
    const Lines expected = states(libKestrel::Session(ownSources));
    std::optional<libKestrel::Session> session;
    std::thread([&] { session.emplace(ownSources, isolated()); }).join();
    std::thread([&] { session->rescan(); }).join();
    LogCapture log(Priority::WARNING);
    std::this_thread::sleep_for(100ms);
    session->refresh();
    EXPECT_EQ(states(*session), expected);
    EXPECT_EQ(std::count(expected.begin(), expected.end(), "nvapi up"), 1) << "the machine's vendors answer";
    for (const auto& source : session->sources())
        EXPECT_EQ(source.restarts, 0u) << source.name;
    EXPECT_EQ(log.of("libKestrel.Session"), Lines{});
}

#if !defined(_WIN32)
// A helper that crashes at once, again and again: every one is collected and
// leaves no descriptor open; closing the session ends the helpers.
TEST(IsolatedSession, HelpersStartedAgainAndAgainLeaveNothingBehind)
{
    json machine = example("workstation");
    machine["faults"] = {{"NvAPI_Initialize", {{"crash", true}}}};
    const MachineInFile file(machine.dump());
    const auto descriptors = openDescriptors();
    {
        libKestrel::Session session(ownSources, isolated(1s, 5ms));
        for (int i = 0; i < 40; ++i, std::this_thread::sleep_for(10ms))
            session.refresh();
        EXPECT_GE(session.sources()[1].restarts, 5u);
        EXPECT_EQ(childProcesses(getpid()).size(), 3u) << "the other sources' helpers, and no ended one";
    }
    EXPECT_EQ(childProcesses(getpid()), std::vector<int>{});
    EXPECT_EQ(openDescriptors(), descriptors);
}
#endif

} // namespace
