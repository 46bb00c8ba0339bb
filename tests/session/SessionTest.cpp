// A session keeps each vendor open across refreshes, reads the changing
// properties through the handles it enumerated, says once when a GPU stops
// answering, and gives readers whole snapshots while another thread refreshes.
#include <algorithm>
#include <atomic>
#include <thread>

#include <nlohmann/json.hpp>

#include "common/AllocationCounter.h"
#include "common/Paths.h"
#include "common/Records.h"
#include "common/Test.h"
#include "libKestrel/AMDGPU.h"
#include "libKestrel/Session.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/ScopeExit.h"
#include "state/SimulatorState.h"

namespace {

using namespace kestrel::test;
using libKestrel::GPUQuerier;
using nlohmann::json;

const std::vector<GPUQuerier> sources = {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs,
                                         libKestrel::queryAMDGPUsMulti};

// An NVIDIA card seen by NVML, NVAPI and CUDA and an AMD card, both at 'load'
// degrees and percent busy, drawing 'load' watts (the NVIDIA card having used
// 'load' kilojoules, its memory at 'load' degrees, the AMD card's hot spot and
// memory 10 and 5 degrees hotter), less the cards named in 'gone'; with
// 'second', another NVIDIA card.
std::string machine(int load, const std::string& gone = "", bool second = false)
{
    json gpus = json::array();
    if (gone != "nvidia")
        gpus.push_back({{"name", "RTX"}, {"pci", {{"bus", 101}}}, {"cuda", json::object()},
                        {"nvapi", {{"clocks", {{"current", {{"processor", load * 1000}}}}}}},
                        {"nvml", {{"temperature", load}, {"utilization", {{"gpu", load}, {"memory", load}}},
                                  {"fanSpeed", load}, {"ecc", {{"corrected", {{"volatile", {{"l2Cache", load}}}}}}},
                                  {"power", load * 1000}, {"energy", load * 1000000}, {"memoryTemperature", load}}}});
    const json pmLog = {{{"sensor", 23}, {"value", load}}, {{"sensor", 27}, {"value", load + 10}},
                        {{"sensor", 9}, {"value", load + 5}}};
    if (gone != "amd")
        gpus.push_back({{"name", "Radeon"}, {"pci", {{"bus", 3}}},
                        {"adl", {{"adapters", 2}, {"overdrive5", {{"temperature", load * 1000}}},
                                 {"overdrive6", {{"activity", load}, {"engineClock", load * 1000},
                                                 {"memoryClock", load * 500}, {"fan", {{"percent", load}, {"rpm", load * 30}}}}},
                                 {"overdrive8", {{"pmlog", pmLog}}}}}});
    if (second)
        gpus.push_back({{"name", "Second"}, {"pci", {{"bus", 102}}}, {"nvml", json::object()}});
    return json{{"gpus", gpus}}.dump();
}

class Session : public testing::Test {
protected:
    kestrel::test::SimulatedModules modules{"sim_nvml", "sim_nvapi", "sim_cuda", "sim_adl", "sim_glfw"};
};

TEST_F(Session, VendorsStayOpenAcrossRefreshesAndCloseOnceInReverse)
{
    SimulatedMachine simulated(machine(40));
    {
        libKestrel::Session session(sources);
        const auto first = session.gpus();
        for (int i = 0; i < 5; ++i)
            session.refresh();
        EXPECT_EQ(session.gpus(), first) << "GPUs whose readings did not change keep their records";
        const std::vector<std::pair<const char*, size_t>> calls = {
            {"nvml initialized", 1},      {"nvmlInit_v2", 2}, // the session's own and the enumeration's
            {"nvmlDeviceGetCount_v2", 1}, {"nvmlDeviceGetName", 1}, {"nvmlDeviceGetTemperature", 6},
            {"NvAPI_EnumPhysicalGPUs", 1}, {"ADL_Adapter_NumberOfAdapters_Get", 1}, {"ADL_Main_Control_Create", 1},
            {"ADL_Overdrive5_Temperature_Get", 2}, {"ADL2_Overdrive5_Temperature_Get", 5}, // then one adapter
            {"ADL2 context 1 created", 1}, {"ADL2 context 1 destroyed", 0}, {"nvml shut down", 0}};
        for (const auto& [event, count] : calls)
            EXPECT_EQ(simulated.count(event), count) << event;
        Lines up;
        for (const auto& source : session.sources())
            up.push_back(source.name + (source.up ? " up" : " down"));
        EXPECT_EQ(up, (Lines{"nvml up", "nvapi up", "adl up"}));
        session.close();
        session.refresh(); // does nothing once closed
        EXPECT_EQ(session.gpus().size(), 2u) << "the last snapshot stays readable";
    }
    // Each initialisation matched by its shutdown; the session's own released last, in reverse order.
    EXPECT_EQ(simulated.count("nvmlInit_v2"), simulated.count("nvmlShutdown"));
    EXPECT_EQ(simulated.count("nvml shut down"), 1u);
    EXPECT_EQ(simulated.count("ADL2 context 1 destroyed"), 1u);
    EXPECT_EQ(simulated.count("NvAPI_Initialize"), simulated.count("NvAPI_Unload"));
    EXPECT_EQ(simulated.count("ADL_Main_Control_Create"), simulated.count("ADL_Main_Control_Destroy"));
    const auto journal = simulated.journal();
    const auto last = [&journal](const std::string& event) {
        return std::find(journal.rbegin(), journal.rend(), event) - journal.rbegin();
    };
    EXPECT_LT(last("nvml shut down"), last("ADL2 context 1 destroyed")) << "ADL, opened last, is closed first";
}

// A host's own source, which a refresh runs again: the NVIDIA card's core count.
std::vector<std::shared_ptr<libKestrel::IGPU>> hostCores(std::bitset<4>&)
{
    auto gpu = gpuAt(101);
    gpu->setCoreCount(4096);
    return {gpu};
}

// After a change of readings, a refresh gives what a one-shot query of the same sources
// gives: through handles only (the readings folded into the records merged at
// enumeration), or with a host's source that runs again (everything merged again).
TEST_F(Session, RefreshGivesWhatAQueryGivesAndRescanFindsNewGpus)
{
    const std::vector<GPUQuerier> handlesOnly = {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs,
                                                 libKestrel::queryNVidiaCudaGPUsMulti, libKestrel::queryAMDGPUsMulti};
    const std::vector<GPUQuerier> withHost = {libKestrel::queryNVidiaNvmlGPUsMulti, hostCores,
                                              libKestrel::queryAMDGPUsMulti};
    for (const auto& row : {handlesOnly, withHost}) {
        SCOPED_TRACE(row == withHost ? "with a host's source" : "through handles only");
        SimulatedMachine simulated(machine(40));
        libKestrel::Session session(row);
        const auto first = session.gpus();
        kestrelSimSetScenario(machine(65, "", true).c_str());
        session.refresh();
        const auto second = session.gpus();
        ASSERT_EQ(second.size(), 2u) << "a refresh reads the GPUs it knows";
        EXPECT_EQ(second[0]->temperatureCurrent(), 65u);
        EXPECT_EQ(second[1]->utilizationGPU(), 65u);
        // Power, energy and the further temperatures are read again too.
        EXPECT_EQ(second[0]->powerDraw(), 65000u);
        EXPECT_EQ(second[0]->energyConsumed(), 65000000u);
        EXPECT_EQ(second[0]->temperatureMemory(), 65u);
        EXPECT_EQ(second[1]->powerDraw(), 65000u);
        EXPECT_EQ(second[1]->temperatureHotspot(), 75u);
        EXPECT_EQ(second[1]->temperatureMemory(), 70u);
        EXPECT_EQ(first[0]->temperatureCurrent(), 40u) << "an earlier snapshot is never written again";

        std::bitset<4> status;
        const auto queried = describe(libKestrel::queryAllGPUs({}, row, status));
        auto known = queried;
        known.erase(known.begin() + 1); // the new card, which only a rescan finds
        EXPECT_EQ(describe(second), known);
        session.rescan();
        EXPECT_EQ(describe(session.gpus()), queried);
    }
}

#if !defined(_WIN32)
// Power and energy are the earlier source's, whether merged whole at an
// enumeration or folded into the enumeration's records at a refresh: NVML's
// over the kernel's files when NVML comes first, the files' when they do.
TEST_F(Session, PowerAndEnergyAreTheEarlierSourcesAtEveryRefresh)
{
    const std::string sysfs = temporaryPath("session-sysfs");
    setenv("KESTREL_SYSFS_ROOT", sysfs.c_str(), 1);
    const libKestrel::ScopeExit unset([] { unsetenv("KESTREL_SYSFS_ROOT"); });
    // The card at 'watts' to NVML, one watt more to its hwmon files.
    const auto card = [&sysfs](int watts) {
        const std::string scenario =
            json{{"gpus", {{{"pci", {{"bus", 101}}},
                            {"nvml", {{"power", watts * 1000}, {"energy", watts}}},
                            {"sysfs", {{"vendor", 4318}, {"device", 7682}, {"driver", "nvidia"},
                                       {"hwmon", {{"power1_average", (watts + 1) * 1000000},
                                                  {"energy1_input", (watts + 1) * 1000}}}}}}}}}
                .dump();
        EXPECT_EQ(kestrelSimWriteSysfs(scenario.c_str(), sysfs.c_str()), 1);
        return scenario;
    };
    const GPUQuerier nvml = libKestrel::queryNVidiaNvmlGPUsMulti;
    const GPUQuerier files = libKestrel::querySysfsGPUs;
    for (const bool nvmlFirst : {true, false}) {
        SCOPED_TRACE(nvmlFirst ? "NVML first" : "the files first");
        SimulatedMachine simulated(card(100));
        libKestrel::Session session(nvmlFirst ? std::vector<GPUQuerier>{nvml, files}
                                              : std::vector<GPUQuerier>{files, nvml});
        ASSERT_EQ(session.gpus().size(), 1u);
        EXPECT_EQ(session.gpus()[0]->powerDraw(), nvmlFirst ? 100000u : 101000u);
        kestrelSimSetScenario(card(200).c_str());
        session.refresh();
        EXPECT_EQ(session.gpus()[0]->powerDraw(), nvmlFirst ? 200000u : 201000u);
        EXPECT_EQ(session.gpus()[0]->energyConsumed(), nvmlFirst ? 200u : 201u);
    }
}
#endif

// A host's own source that throws when told to, at the next call only.
std::atomic<bool> hostThrows{false};
std::vector<std::shared_ptr<libKestrel::IGPU>> hostThatThrows(std::bitset<4>&)
{
    if (hostThrows.exchange(false))
        throw std::runtime_error("the host's source failed");
    return {gpuAt(0x7e)};
}

// An update is all or nothing. A rescan or refresh that fails on its way (the
// n-th allocation fails, for n spread over the whole call; a host's source that
// throws) leaves the last snapshot as it was, and the session goes on from it.
TEST_F(Session, AnUpdateThatFailsLeavesTheLastSnapshotAsItWas)
{
    const std::vector<GPUQuerier> handlesOnly = {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs,
                                                 libKestrel::queryNVidiaCudaGPUsMulti, libKestrel::queryAMDGPUsMulti};
    const std::vector<GPUQuerier> withHost = {libKestrel::queryNVidiaNvmlGPUsMulti, hostThatThrows,
                                              libKestrel::queryAMDGPUsMulti};
    for (const bool rescan : {true, false}) {
        for (const auto& row : {handlesOnly, withHost}) {
            SCOPED_TRACE(std::string(rescan ? "rescan" : "refresh") +
                         (row == withHost ? ", with a host's source" : ""));
            // 0: the host's source throws; then the n-th allocation fails, until the call needs fewer.
            for (int n = row == withHost ? 0 : 1;; n += n / 4 + 1) {
                SimulatedMachine simulated(machine(40));
                libKestrel::Session session(row);
                const auto before = session.gpus();
                kestrelSimSetScenario(machine(65, "", true).c_str());
                hostThrows = n == 0;
                kestrel::test::failNthAllocation(n);
                bool failed = false;
                try {
                    rescan ? session.rescan() : session.refresh();
                } catch (const std::exception&) {
                    failed = true;
                }
                kestrel::test::stopCountingAllocations();
                if (!failed)
                    break;
                SCOPED_TRACE("failed at allocation " + std::to_string(n));
                EXPECT_EQ(session.gpus(), before);
                session.refresh();
                ASSERT_EQ(session.gpus().size(), before.size()) << "a refresh reads the GPUs it knows";
                EXPECT_EQ(session.gpus()[0]->temperatureCurrent(), 65u);
                session.rescan();
                std::bitset<4> status;
                EXPECT_EQ(describe(session.gpus()), describe(libKestrel::queryAllGPUs({}, row, status)));
            }
        }
    }
}

// A driver without ADL2 is read through a first-interface control made for each refresh.
TEST(SessionOnADriverWithoutAdl2, ReadsThroughAControlPerRefresh)
{
    kestrel::test::SimulatedModules modules{"sim_adl_without_adl2"};
    SimulatedMachine simulated(machine(40));
    libKestrel::Session session({libKestrel::queryAMDGPUsMulti});
    kestrelSimSetScenario(machine(65).c_str());
    session.refresh();
    EXPECT_EQ(session.gpus()[0]->temperatureCurrent(), 65u);
    EXPECT_EQ(simulated.count("ADL_Main_Control_Create"), 1u) << "the refresh's (a new scenario clears the journal)";
    EXPECT_EQ(simulated.count("ADL_Main_Control_Destroy"), 1u);
}

// Run in a process of its own, on a driver without ADL2 (CMake): the device
// classes keep ADL loaded for the rest of the process. ADL's first interface
// has one control per process; a host's AMDGPU, the session's refreshes and a
// one-shot query share it, and none ends it under the others.
TEST(SessionBesideAHostsAmdGpu, SharesTheFirstInterfaceWithoutEndingIt)
{
    SimulatedMachine simulated(machine(40));
    std::vector<libKestrel::AMDGPU> amd;
    ASSERT_EQ(libKestrel::AMDGPU::enumerate(amd), 1u);
    libKestrel::Session session({libKestrel::queryAMDGPUsMulti});
    kestrelSimSetScenario(machine(65).c_str());
    session.refresh();
    EXPECT_EQ(session.gpus()[0]->temperatureCurrent(), 65u);
    std::bitset<4> status;
    EXPECT_EQ(libKestrel::queryAMDGPUsMulti(status).size(), 2u) << "one record per adapter: no ADL2, no second pass";
    std::vector<float> temperatures;
    amd[0].currentTemperature(temperatures);
    EXPECT_EQ(temperatures, std::vector<float>(2, 65.0f)) << "the host's AMDGPU still reads";
    EXPECT_EQ(simulated.count("ADL main control destroyed"), 0u);
}

// A GPU that leaves the machine while the session holds its handle keeps what
// does not change and loses its readings, with one line and no vendor lines at
// the refreshes after. An ADL adapter index that comes back answers again, with
// a line; NVML's lost handle stays lost until a rescan.
TEST_F(Session, AGpuThatStopsAnsweringIsReportedOnceAndLosesItsReadings)
{
    const struct {
        GPUQuerier source;
        const char* gone;
        std::string location;
        bool answersAgain;
    } rows[] = {{libKestrel::queryNVidiaNvmlGPUsMulti, "nvidia", "0000:65:00.0 (nvml)", false},
                {libKestrel::queryAMDGPUsMulti, "amd", "0000:03:00.0 (adl)", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.location);
        SimulatedMachine simulated(machine(40));
        libKestrel::Session session({row.source});
        LogCapture log(tova::LoggerPriority::INFO);
        kestrelSimSetScenario(machine(40, row.gone).c_str());
        session.refresh();
        EXPECT_EQ(log.of("libKestrel.Session"),
                  Lines{"3|41 GPU no longer answers, its readings are left out: " + row.location});
        log.clear();
        session.refresh();
        session.refresh();
        EXPECT_EQ(log.messages(), std::vector<LogLine>{});
        const auto gone = session.gpus();
        ASSERT_EQ(gone.size(), 1u);
        EXPECT_TRUE(gone[0]->name() && !gone[0]->temperatureCurrent() && !gone[0]->utilizationGPU());
        EXPECT_FALSE(session.sources()[0].up);

        kestrelSimSetScenario(machine(55).c_str());
        session.refresh();
        session.refresh();
        EXPECT_EQ(session.gpus()[0]->temperatureCurrent().has_value(), row.answersAgain);
        EXPECT_EQ(session.sources()[0].up, row.answersAgain);
        EXPECT_EQ(log.of("libKestrel.Session"),
                  row.answersAgain ? Lines{"2|48 GPU answers again: " + row.location} : Lines{});
        session.rescan();
        EXPECT_EQ(session.gpus()[0]->temperatureCurrent(), 55u);
    }
}

// NVAPI has no PCI domain: a GPU whose NVAPI record joined NVML's in domain 5
// is named in that domain when NVAPI, too, finds it gone.
TEST_F(Session, AGpuThatStopsAnsweringIsNamedInTheDomainItsRecordsJoined)
{
    const json gpu = {{"pci", {{"domain", 5}, {"bus", 0x17}}},
                      {"nvml", {{"temperature", 40}}},
                      {"nvapi", {{"clocks", {{"current", {{"graphics", 1500000}}}}}}}};
    SimulatedMachine simulated(json{{"gpus", {gpu}}}.dump());
    libKestrel::Session session({libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs});
    LogCapture log(tova::LoggerPriority::WARNING);
    kestrelSimSetScenario(R"({"gpus": []})");
    session.refresh();
    const std::string gone = "3|41 GPU no longer answers, its readings are left out: 0005:17:00.0 ";
    EXPECT_EQ(log.of("libKestrel.Session"), (Lines{gone + "(nvml)", gone + "(nvapi)"}));
}

// One thread refreshes while others read: every snapshot a reader gets is whole,
// its temperature and utilisation from the same machine.
TEST_F(Session, ReadersSeeWholeSnapshotsWhileAnotherThreadRefreshes)
{
    SimulatedMachine simulated(machine(40));
    libKestrel::Session session(sources);
    ASSERT_EQ(session.gpus().size(), 2u); // so that the readers below see records
    std::atomic<bool> done{false};
    std::atomic<int> seen{0};
    std::atomic<int> torn{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r)
        readers.emplace_back([&] {
            while (!done)
                for (const auto& gpu : session.gpus())
                    torn += ++seen && gpu->temperatureCurrent() != gpu->utilizationGPU() ? 1 : 0;
        });
    while (seen == 0)
        std::this_thread::yield(); // the readers are running
    for (int i = 0; i < 200; ++i) {
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
