// A session keeps each vendor open across refreshes, follows the machine, and
// gives readers whole snapshots while another thread refreshes.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/Modules.h"
#include "common/Simulator.h"
#include "common/Sources.h"
#include "libKestrel/Session.h"
#include "libKestrel/Sources.h"
#include "state/SimulatorState.h"

namespace {

using kestrel::test::describe;
using kestrel::test::SimulatedMachine;
using kestrel::test::SimulatedModules;

const std::vector<libKestrel::GPUQuerier> sources = {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs,
                                                     libKestrel::queryAMDGPUsMulti};

// An NVIDIA card seen by NVML and NVAPI at 'temperature' (and as busy), and an
// AMD card; with 'second', another NVIDIA card.
std::string machine(int temperature, bool second = false)
{
    const std::string nvidia = R"({"name": "RTX", "pci": {"bus": 101}, "nvml": {"temperature": )" +
                               std::to_string(temperature) + R"(, "utilization": {"gpu": )" +
                               std::to_string(temperature) + R"(}}, "nvapi": {}})";
    return R"({"gpus": [)" + nvidia + R"(, {"name": "Radeon", "pci": {"bus": 3}, "adl": {"adapters": 1}})" +
           (second ? R"(, {"name": "Second", "pci": {"bus": 102}, "nvml": {}})" : "") + "]}";
}

class Session : public testing::Test {
protected:
    SimulatedModules modules{"sim_nvml", "sim_nvapi", "sim_adl", "sim_glfw"};
};

TEST_F(Session, VendorsStayOpenAcrossRefreshesAndCloseOnceInReverse)
{
    SimulatedMachine simulated(machine(40));
    {
        libKestrel::Session session(sources);
        for (int i = 0; i < 5; ++i)
            session.refresh();
        EXPECT_EQ(simulated.count("nvml initialized"), 1u) << "NVML started once";
        EXPECT_EQ(simulated.count("nvml shut down"), 0u);
        EXPECT_EQ(simulated.count("nvmlInit_v2"), 7u) << "the session's own and one per enumeration";
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
    const auto journal = simulated.journal();
    const auto last = [&journal](const std::string& event) {
        return std::find(journal.rbegin(), journal.rend(), event) - journal.rbegin();
    };
    EXPECT_LT(last("nvml shut down"), last("ADL2 context 1 destroyed")) << "ADL, opened last, is closed first";
}

TEST_F(Session, RefreshFollowsTheMachineAndRescanFindsNewGpus)
{
    auto simulated = std::make_unique<SimulatedMachine>(machine(40));
    libKestrel::Session session(sources);
    const auto first = session.gpus();
    ASSERT_EQ(first.size(), 2u);
    EXPECT_EQ(first[0]->temperatureCurrent(), 40u);

    simulated.reset(); // before the next machine, which it would otherwise end
    simulated = std::make_unique<SimulatedMachine>(machine(65, true));
    session.refresh();
    const auto second = session.gpus();
    ASSERT_EQ(second.size(), 3u);
    EXPECT_EQ(second[0]->temperatureCurrent(), 65u);
    EXPECT_EQ(second[0]->utilizationGPU(), 65u);
    EXPECT_EQ(second[0]->name(), first[0]->name()) << "what does not change stays";
    EXPECT_EQ(second[1]->name(), "Second");
    EXPECT_EQ(first[0]->temperatureCurrent(), 40u) << "an earlier snapshot is never written again";
    session.rescan();
    EXPECT_EQ(session.gpus().size(), 3u);
}

// One thread refreshes while others read: every snapshot a reader gets is whole,
// its temperature and utilisation from the same machine.
TEST_F(Session, ReadersSeeWholeSnapshotsWhileAnotherThreadRefreshes)
{
    SimulatedMachine simulated(machine(40));
    libKestrel::Session session(sources);
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    std::atomic<int> torn{0};
    for (int r = 0; r < 3; ++r)
        readers.emplace_back([&] {
            while (!done)
                for (const auto& gpu : session.gpus())
                    if (gpu->temperatureCurrent() && gpu->utilizationGPU() &&
                        *gpu->temperatureCurrent() != *gpu->utilizationGPU())
                        ++torn;
        });
    for (int i = 0; i < 20; ++i) {
        kestrelSimSetScenario(machine(i % 2 ? 70 : 40).c_str());
        session.refresh();
    }
    done = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(torn, 0);
    EXPECT_GT(session.lastUpdateDuration().count(), 0);
}

} // namespace
