#include <bitset>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Records.h"
#include "common/Simulator.h"
#include "libKestrel/Query.h"

namespace {

using kestrel::test::gpuAt;
using kestrel::test::LogCapture;
using kestrel::test::SimulatedMachine;
using libKestrel::IGPU;
using Records = std::vector<std::shared_ptr<IGPU>>;

int sourceCalls = 0;
int monitorHandle = 0;

// The GPU at bus 7 as a monitor-side source sees it.
Records monitorSide(void* const&, void* const&)
{
    auto gpu = gpuAt(7);
    gpu->setName(std::string("Monitor-side name"));
    gpu->setNativeMonitorHandle(&monitorHandle);
    gpu->setCoreCount(std::uint32_t{100});
    return {gpu};
}

// The same GPU as two vendor sources see it, and one GPU only the first knows.
Records firstSource(std::bitset<4>& status)
{
    ++sourceCalls;
    status.set(2);
    auto same = gpuAt(7);
    same->setName(std::string("First source name"));
    same->setCoreCount(std::uint32_t{80});
    same->setGraphicsClock(std::uint32_t{1500000});
    return {same, gpuAt(9), std::make_shared<kestrel::test::UnlocatedGPU>()};
}

Records secondSource(std::bitset<4>&)
{
    ++sourceCalls;
    auto same = gpuAt(7);
    same->setName(std::string("A longer second-source name"));
    same->setGraphicsClock(std::uint32_t{1700000});
    same->setNativeMonitorHandle(nullptr);
    return {same};
}

const char* const oneMonitor = R"({"monitors": [{"name": "Only", "x": 0, "y": 0}]})";

TEST(Query, MonitorRecordsComeFirstAndSourcesMergeInTheirOrder)
{
    SimulatedMachine machine(oneMonitor);
    LogCapture capture(tova::LoggerPriority::WARNING);
    std::bitset<4> status;
    status.set(0);
    sourceCalls = 0;

    const auto records = libKestrel::queryAllGPUs({monitorSide}, {firstSource, nullptr, secondSource}, status);
    EXPECT_EQ(sourceCalls, 2);
    ASSERT_EQ(records.size(), 2u);
    const IGPU& merged = *records[0];
    EXPECT_EQ(merged.pciLocation()->bus, 7);
    EXPECT_EQ(merged.nativeMonitorHandle(), static_cast<void*>(&monitorHandle)) << "the monitor side is the left side";
    EXPECT_EQ(merged.name(), "A longer second-source name");
    EXPECT_EQ(merged.coreCount(), 80u);
    EXPECT_EQ(merged.graphicsClock(), 1700000u);
    EXPECT_EQ(records[1]->pciLocation()->bus, 9);

    // Bits set before the call stay; sources add theirs.
    EXPECT_TRUE(status.test(0));
    EXPECT_TRUE(status.test(2));
    // The record without a location is dropped with its message.
    EXPECT_TRUE(capture.has("libKestrel.Kestrel", 3, "294 Could not obtain PCI Location from GPU"));
}

TEST(Query, ASourceListedTwiceRunsTwiceAndMergesWithItself)
{
    SimulatedMachine machine(R"({"monitors": []})");
    std::bitset<4> status;
    sourceCalls = 0;
    const auto records = libKestrel::queryAllGPUs({}, {firstSource, firstSource}, status);
    EXPECT_EQ(sourceCalls, 2);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]->name(), "First source name");
    EXPECT_EQ(records[0]->coreCount(), 80u);
    EXPECT_EQ(status, std::bitset<4>("0100"));
}

TEST(Query, WithoutSourcesTheMonitorsAreStillWalked)
{
    SimulatedMachine machine(oneMonitor);
    std::bitset<4> status("1010");
    EXPECT_TRUE(libKestrel::queryAllGPUs({}, {}, status).empty());
    EXPECT_EQ(machine.count("glfwCreateWindow"), 1u);
    EXPECT_EQ(machine.count("glfwDestroyWindow"), 1u);
    EXPECT_EQ(status, std::bitset<4>("1010"));
}

} // namespace
