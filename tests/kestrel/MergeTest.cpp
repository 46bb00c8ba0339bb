#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Records.h"
#include "libKestrel/internal/Kestrel.h"

namespace {

using libKestrel::GPU;
using libKestrel::IGPU;
using kestrel::test::gpuAt;
using kestrel::test::LogCapture;
using Priority = tova::LoggerPriority;

int monitorA = 0;
int monitorB = 0;

// One row per property: the left and right values, and what the merge must give.
struct Row {
    const char* property;
    std::function<void(GPU&)> left;
    std::function<void(GPU&)> right;
    std::function<void(const IGPU&)> expect;
};

#define ROW(getter, setter, lhs, rhs, expected)                                                            \
    Row{#getter, [](GPU& g) { g.setter(lhs); }, [](GPU& g) { g.setter(rhs); },                              \
        [](const IGPU& g) { EXPECT_EQ(g.getter(), expected) << #getter; }}

using Text = std::optional<std::string>;
using U32 = std::optional<std::uint32_t>;
using U64 = std::optional<std::uint64_t>;
using Flag = std::optional<bool>;
using Handle = std::optional<void*>;

const std::vector<Row> rows = {
    // Texts: the longer wins, a tie goes right, content is never compared.
    ROW(name, setName, Text("NVIDIA GeForce RTX 3080"), Text("GeForce RTX 3080"), Text("NVIDIA GeForce RTX 3080")),
    ROW(driverVersion, setDriverVersion, Text("452.6"), Text("451.9"), Text("451.9")),
    ROW(vbiosVersion, setVBIOSVersion, Text("94.02"), Text("94.02.42.00.A1"), Text("94.02.42.00.A1")),
    ROW(busType, setBusType, Text("PCI Express"), Text("AGP"), Text("PCI Express")),
    ROW(uuid, setUUID, Text("GPU-1"), std::nullopt, Text("GPU-1")),
    // Flags: both must agree on true.
    ROW(hardwareAcceleration, setHardwareAcceleration, Flag(true), Flag(false), Flag(false)),
    ROW(sli, setSLI, Flag(true), Flag(false), Flag(false)),
    ROW(crossfire, setCrossfire, Flag(false), Flag(true), Flag(false)),
    ROW(eccSupported, setECCSupported, Flag(true), std::nullopt, Flag(true)),
    ROW(eccEnabled, setECCEnabled, Flag(false), Flag(true), Flag(false)),
    // Sizes and counts: the smaller.
    ROW(coreCount, setCoreCount, U32(8704), U32(4352), U32(4352)),
    ROW(totalMemory, setTotalMemory, U64(16), U64(32), U64(16)),
    ROW(dedicatedMemory, setDedicatedMemory, U64(10485760), U64(8388608), U64(8388608)),
    ROW(availableDedicatedMemory, setAvailableDedicatedMemory, U64(100), U64(0), U64(0)),
    ROW(memoryWidth, setMemoryWidth, U32(384), U32(320), U32(320)),
    ROW(memoryBandwidth, setMemoryBandwidth, U64(1), U64(2), U64(1)),
    // Rates, readings and versions: the larger, compared unsigned.
    ROW(graphicsClock, setGraphicsClock, U32(1440000), U32(1710000), U32(1710000)),
    ROW(memoryClock, setMemoryClock, U32(0xFFFFFFFFu), U32(9501000), U32(0xFFFFFFFFu)),
    ROW(shaderClock, setShaderClock, std::nullopt, U32(3420000), U32(3420000)),
    ROW(utilizationGPU, setUtilizationGPU, U32(40), U32(7), U32(40)),
    ROW(utilizationMemory, setUtilizationMemory, U32(3), U32(9), U32(9)),
    ROW(eccErrorsCorrectedVolatile, setECCErrorsCorrectedVolatile, U64(1), U64(2), U64(2)),
    ROW(eccErrorsUncorrectedVolatile, setECCErrorsUncorrectedVolatile, U64(5), U64(2), U64(5)),
    ROW(eccErrorsCorrectedAggregate, setECCErrorsCorrectedAggregate, U64(~0ull), U64(2), U64(~0ull)),
    ROW(eccErrorsUncorrectedAggregate, setECCErrorsUncorrectedAggregate, U64(0), U64(1), U64(1)),
    ROW(temperatureCurrent, setTemperatureCurrent, U64(54), U64(61), U64(61)),
    ROW(temperatureSlowdown, setTemperatureSlowdown, U64(93), U64(90), U64(93)),
    ROW(temperatureShutdown, setTemperatureShutdown, U64(98), U64(98), U64(98)),
    ROW(fanSpeedPercent, setFanSpeedPercent, U32(30), U32(45), U32(45)),
    ROW(fanSpeedRPM, setFanSpeedRPM, U32(1800), U32(1200), U32(1800)),
    // Each half of the version on its own: 7.5 and 8.0 give 8.5.
    ROW(versionMajor, setVersionMajor, U32(7), U32(8), U32(8)),
    ROW(versionMinor, setVersionMinor, U32(5), U32(0), U32(5)),
    // The monitor handle: the left one when there is one.
    ROW(nativeMonitorHandle, setNativeMonitorHandle, Handle(&monitorA), Handle(&monitorB), Handle(&monitorA)),
};

TEST(Merge, EveryPropertyFollowsItsGroupsRuleAndInputsStayUnchanged)
{
    auto lhs = gpuAt(1);
    auto rhs = gpuAt(1);
    for (const auto& row : rows) {
        row.left(*lhs);
        row.right(*rhs);
    }
    const auto merged = libKestrel::mergeTwoGPUs(lhs, rhs);
    ASSERT_NE(merged, lhs);
    ASSERT_NE(merged, rhs);
    EXPECT_EQ(merged->pciLocation(), lhs->pciLocation());
    for (const auto& row : rows)
        row.expect(*merged);

    // The inputs keep their own values.
    EXPECT_EQ(lhs->name(), "NVIDIA GeForce RTX 3080");
    EXPECT_EQ(rhs->sli(), false);
    EXPECT_EQ(lhs->sli(), true);
    EXPECT_EQ(rhs->dedicatedMemory(), 8388608u);
    EXPECT_EQ(lhs->dedicatedMemory(), 10485760u);

    // Both sides empty stays empty.
    const auto bare = libKestrel::mergeTwoGPUs(gpuAt(1), gpuAt(1));
#define EXPECT_EMPTY(type, getter, setter, unit) EXPECT_FALSE(bare->getter().has_value()) << #getter;
    LIBKESTREL_GPU_PROPERTIES(EXPECT_EMPTY)
#undef EXPECT_EMPTY
}

TEST(Merge, RulesHandleTiesAndEmptySides)
{
    EXPECT_EQ(libKestrel::mergeNames(Text("ABCD"), Text("WXYZ")), Text("WXYZ"));
    EXPECT_EQ(libKestrel::mergeUUIDs(Text("short"), Text("GPU-0f3a")), Text("GPU-0f3a"));
    EXPECT_EQ(libKestrel::mergeNames(std::nullopt, std::nullopt), std::nullopt);
    EXPECT_EQ(libKestrel::mergeSLI(Flag(true), std::nullopt), Flag(true));
    EXPECT_EQ(libKestrel::mergeSLI(std::nullopt, Flag(false)), Flag(false));
    EXPECT_EQ(libKestrel::mergeSLI(Flag(true), Flag(true)), Flag(true));
    EXPECT_EQ(libKestrel::mergeMemory(std::nullopt, U64(3)), U64(3));
    EXPECT_EQ(libKestrel::mergeNativeMonitorHandle(std::nullopt, Handle(&monitorB)), Handle(&monitorB));
    EXPECT_EQ(libKestrel::mergeNativeMonitorHandle(Handle(nullptr), Handle(&monitorB)), Handle(nullptr));
}

TEST(Merge, ListKeepsFirstAppearanceOrderAndDropsUnlocatedRecords)
{
    LogCapture capture(Priority::WARNING);
    EXPECT_TRUE(libKestrel::mergeGPUs({}).empty());
    EXPECT_TRUE(capture.lines().empty());

    auto a1 = gpuAt(0x65);
    auto b = gpuAt(0x01);
    auto a2 = gpuAt(0x65);
    auto a3 = gpuAt(0x65);
    auto c = gpuAt(0x01, 0, 1); // same bus and device as b, another function
    a1->setName(std::string("first"));
    a2->setName(std::string("second!"));
    a3->setName(std::string("third"));
    a1->setCoreCount(std::uint32_t{10});
    a3->setCoreCount(std::uint32_t{4});

    const auto merged = libKestrel::mergeGPUs(
        {a1, std::make_shared<kestrel::test::UnlocatedGPU>(), b, a2, nullptr, c, a3});
    ASSERT_EQ(merged.size(), 3u);
    EXPECT_EQ(*merged[0]->pciLocation(), *a1->pciLocation());
    EXPECT_EQ(merged[1], b) << "a record without a counterpart is passed through, not copied";
    EXPECT_EQ(merged[2], c);
    // ((a1 with a2) with a3): the longest name and the smallest core count.
    EXPECT_EQ(merged[0]->name(), "second!");
    EXPECT_EQ(merged[0]->coreCount(), 4u);
    EXPECT_EQ(a1->name(), "first");

    EXPECT_EQ(capture.of("libKestrel.Kestrel"),
              (std::vector<std::string>{"3|294 Could not obtain PCI Location from GPU",
                                        "3|294 Could not obtain PCI Location from GPU"}));
}

TEST(Merge, TracesEachPropertyMergeUnderItsOwnName)
{
    LogCapture capture(Priority::TRACE);
    libKestrel::mergeGPUs({gpuAt(1), gpuAt(1)});
    const auto lines = capture.of("libKestrel.Kestrel");
    const auto entries = [&](const std::string& function) {
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.rfind("1|Entering " + function + " ", 0) == 0;
        });
    };
    EXPECT_EQ(entries("mergeGPUs"), 1);
    EXPECT_EQ(entries("mergeTwoGPUs"), 1);
    EXPECT_EQ(entries("mergeNames"), 1);
    EXPECT_EQ(entries("mergeMemory"), 3);
    EXPECT_EQ(entries("mergeECCErrorCounts"), 4);
    EXPECT_EQ(entries("mergeNativeMonitorHandle"), 1);
    EXPECT_EQ(lines.front(), "1|Entering mergeGPUs (libKestrel/src/Kestrel.cpp:120)");
    EXPECT_EQ(lines.back(), "1|Leaving mergeGPUs");
}

using MergeDeathTest = testing::Test;

TEST(MergeDeathTest, MergingRecordsOfDifferentLocationsStopsTheProcess)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
#if defined(_WIN32)
    // An unhandled structured exception ends the process with its code.
    const auto stopped = testing::ExitedWithCode(7);
#else
    const auto stopped = testing::KilledBySignal(SIGABRT);
#endif
    EXPECT_EXIT(libKestrel::mergeTwoGPUs(gpuAt(1), gpuAt(2)), stopped,
                "Assertion failed: \\*\\(gpuLHS->pciLocation\\(\\)\\) == \\*\\(gpuRHS->pciLocation\\(\\)\\)");
}

} // namespace
