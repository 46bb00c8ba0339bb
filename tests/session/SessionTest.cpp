// A session keeps each vendor open across refreshes, reads the changing
// properties through the handles it enumerated, says once when a GPU stops
// answering, and gives readers whole snapshots while another thread refreshes.
#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Modules.h"
#include "common/Simulator.h"
#include "common/Sources.h"
#include "libKestrel/Session.h"
#include "libKestrel/Sources.h"
#include "state/SimulatorState.h"

namespace {

using kestrel::test::describe;
using kestrel::test::LogCapture;
using kestrel::test::SimulatedMachine;
using kestrel::test::SimulatedModules;

const std::vector<libKestrel::GPUQuerier> sources = {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs,
                                                     libKestrel::queryAMDGPUsMulti};

// An NVIDIA card seen by NVML, NVAPI and CUDA and an AMD card, both at 'load' degrees
// and percent busy; with 'second', another NVIDIA card; without 'nvidia' or
// 'amd', the machine has lost that card.
struct Machine {
    int load = 40;
    bool second = false;
    bool nvidia = true;
    bool amd = true;

    std::string json() const
    {
        const std::string value = std::to_string(load);
        std::vector<std::string> gpus;
        if (nvidia)
            gpus.push_back(R"({"name": "RTX", "pci": {"bus": 101}, "nvml": {"temperature": )" + value +
                           R"(, "utilization": {"gpu": )" + value + R"(}}, "nvapi": {}, "cuda": {}})");
        if (amd)
            gpus.push_back(R"({"name": "Radeon", "pci": {"bus": 3}, "adl": {"adapters": 2, "overdrive5": {"temperature": )" +
                           value + R"(000}, "overdrive6": {"activity": )" + value + R"(}}})");
        if (second)
            gpus.push_back(R"({"name": "Second", "pci": {"bus": 102}, "nvml": {}})");
        std::string text;
        for (const auto& gpu : gpus)
            text += (text.empty() ? "" : ", ") + gpu;
        return R"({"gpus": [)" + text + "]}";
    }
};

class Session : public testing::Test {
protected:
    SimulatedModules modules{"sim_nvml", "sim_nvapi", "sim_cuda", "sim_adl", "sim_glfw"};
};

TEST_F(Session, VendorsStayOpenAcrossRefreshesAndCloseOnceInReverse)
{
    SimulatedMachine simulated(Machine{}.json());
    {
        libKestrel::Session session(sources);
        for (int i = 0; i < 5; ++i)
            session.refresh();
        EXPECT_EQ(simulated.count("nvml initialized"), 1u) << "NVML started once";
        EXPECT_EQ(simulated.count("nvml shut down"), 0u);
        EXPECT_EQ(simulated.count("nvmlInit_v2"), 2u) << "the session's own and the enumeration's";
        EXPECT_EQ(simulated.count("nvmlDeviceGetCount_v2"), 1u) << "refreshes read through the handles";
        EXPECT_EQ(simulated.count("nvmlDeviceGetTemperature"), 6u);
        EXPECT_EQ(simulated.count("nvmlDeviceGetName"), 1u) << "what does not change is read once";
        EXPECT_EQ(simulated.count("ADL_Overdrive5_Temperature_Get"), 7u) << "both adapters once, then one per GPU";
        EXPECT_EQ(simulated.count("ADL_Adapter_NumberOfAdapters_Get"), 1u);
        EXPECT_EQ(simulated.count("ADL2 context 1 created"), 1u);
        EXPECT_EQ(simulated.count("ADL2 context 1 destroyed"), 0u) << "the session's context stays";
        std::vector<std::string> up;
        for (const auto& source : session.sources())
            up.push_back(source.name + (source.up ? " up" : " down"));
        EXPECT_EQ(up, (std::vector<std::string>{"nvml up", "nvapi up", "adl up"}));
        session.close();
        EXPECT_EQ(describe(session.gpus()).size(), 2u) << "the last snapshot stays readable";
        session.refresh(); // does nothing once closed
    }
    // Each initialisation matched by its shutdown; the session's own released last, in reverse order.
    EXPECT_EQ(simulated.count("nvmlInit_v2"), simulated.count("nvmlShutdown"));
    EXPECT_EQ(simulated.count("nvml shut down"), 1u);
    EXPECT_EQ(simulated.count("NvAPI_Initialize"), simulated.count("NvAPI_Unload"));
    EXPECT_EQ(simulated.count("ADL_Main_Control_Create"), simulated.count("ADL_Main_Control_Destroy"));
    const auto journal = simulated.journal();
    const auto last = [&journal](const std::string& event) {
        return std::find(journal.rbegin(), journal.rend(), event) - journal.rbegin();
    };
    EXPECT_LT(last("nvml shut down"), last("ADL2 context 1 destroyed")) << "ADL, opened last, is closed first";
}

// After a change of readings, a refresh gives what a one-shot query of the same
// sources gives: through handles only (NVML, CUDA, ADL, the readings folded into
// the records merged at enumeration), or with a source that runs again (NVAPI).
TEST_F(Session, RefreshGivesWhatAQueryGivesAndRescanFindsNewGpus)
{
    using libKestrel::GPUQuerier;
    const std::vector<std::vector<GPUQuerier>> rows = {
        {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaCudaGPUsMulti, libKestrel::queryAMDGPUsMulti},
        sources,
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.size() == sources.size() ? "with NVAPI" : "through handles only");
        SimulatedMachine simulated(Machine{}.json());
        libKestrel::Session session(row);
        const auto first = session.gpus();
        ASSERT_EQ(first.size(), 2u);

        const std::string changed = Machine{65, true}.json();
        kestrelSimSetScenario(changed.c_str());
        session.refresh();
        const auto second = session.gpus();
        ASSERT_EQ(second.size(), 2u) << "a refresh reads the GPUs it knows";
        EXPECT_EQ(second[0]->temperatureCurrent(), 65u);
        EXPECT_EQ(second[1]->utilizationGPU(), 65u);
        EXPECT_EQ(first[0]->temperatureCurrent(), 40u) << "an earlier snapshot is never written again";

        std::bitset<4> status;
        const auto queried = libKestrel::queryAllGPUs({}, row, status);
        auto expected = describe(queried);
        expected.erase(expected.begin() + 1); // the new card, which only a rescan finds
        EXPECT_EQ(describe(second), expected);
        session.rescan();
        EXPECT_EQ(describe(session.gpus()), describe(queried));
    }
}

// A GPU that leaves the machine while the session holds its handle: its record
// stays with what does not change, its readings go, and one line says so. An
// ADL adapter index that comes back answers again, with a line; NVML's lost
// handle stays lost until a rescan.
TEST_F(Session, AGpuThatStopsAnsweringIsReportedOnceAndLosesItsReadings)
{
    struct Row {
        const char* name;
        libKestrel::GPUQuerier source;
        Machine without;
        std::string location;
        bool answersAgain;
    };
    const Row rows[] = {
        {"NVML handle lost", libKestrel::queryNVidiaNvmlGPUsMulti, Machine{40, false, false, true},
         "0000:65:00.0 (nvml)", false},
        {"ADL adapter index gone", libKestrel::queryAMDGPUsMulti, Machine{40, false, true, false},
         "0000:03:00.0 (adl)", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        SimulatedMachine simulated(Machine{}.json());
        libKestrel::Session session({row.source});
        LogCapture log(tova::LoggerPriority::INFO);
        kestrelSimSetScenario(row.without.json().c_str());
        session.refresh();
        EXPECT_EQ(log.of("libKestrel.Session"),
                  std::vector<std::string>{"3|41 GPU no longer answers, its readings are left out: " + row.location});
        log.clear();
        session.refresh();
        session.refresh();
        EXPECT_EQ(log.messages(), std::vector<kestrel::test::LogLine>{}) << "neither the session nor the vendor again";
        const auto gone = session.gpus();
        ASSERT_EQ(gone.size(), 1u);
        EXPECT_TRUE(gone[0]->name().has_value());
        EXPECT_FALSE(gone[0]->temperatureCurrent().has_value());
        EXPECT_FALSE(gone[0]->utilizationGPU().has_value());
        EXPECT_FALSE(session.sources()[0].up);


        kestrelSimSetScenario(Machine{55}.json().c_str());
        session.refresh();
        session.refresh();
        EXPECT_EQ(session.gpus()[0]->temperatureCurrent().has_value(), row.answersAgain);
        EXPECT_EQ(session.sources()[0].up, row.answersAgain);
        EXPECT_EQ(log.of("libKestrel.Session"),
                  row.answersAgain ? std::vector<std::string>{"2|48 GPU answers again: " + row.location}
                                   : std::vector<std::string>{});
        session.rescan();
        EXPECT_EQ(session.gpus()[0]->temperatureCurrent(), 55u);
    }
}

// One thread refreshes while others read: every snapshot a reader gets is whole,
// its temperature and utilisation from the same machine.
TEST_F(Session, ReadersSeeWholeSnapshotsWhileAnotherThreadRefreshes)
{
    SimulatedMachine simulated(Machine{}.json());
    libKestrel::Session session(sources);
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    std::atomic<int> torn{0};
    std::atomic<int> seen{0};
    for (int r = 0; r < 3; ++r)
        readers.emplace_back([&] {
            while (!done)
                for (const auto& gpu : session.gpus()) {
                    ++seen;
                    if (gpu->temperatureCurrent() != gpu->utilizationGPU())
                        ++torn;
                }
        });
    while (seen == 0)
        std::this_thread::yield(); // the readers are running
    for (int i = 0; i < 200; ++i) {
        kestrelSimSetScenario(Machine{i % 2 ? 70 : 40}.json().c_str());
        session.refresh();
    }
    done = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(torn, 0);
    EXPECT_GT(session.lastUpdateDuration().count(), 0);
}

} // namespace
