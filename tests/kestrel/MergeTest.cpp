#include <csignal>
#include <functional>
#include <optional>

#include "common/Records.h"
#include "common/Test.h"
#include "libKestrel/internal/Kestrel.h"
#include "libKestrel/internal/Properties.h"

namespace {

using libKestrel::GPU;
using libKestrel::IGPU;
using kestrel::test::gpuAt;

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
    ROW(busType, setBusType, std::nullopt, Text("AGP"), Text("AGP")),
    ROW(uuid, setUUID, Text("short"), Text("GPU-0f3a"), Text("GPU-0f3a")),
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
    // Power draw and the energy counter: the earlier source's (a vendor library's over the kernel's files).
    ROW(powerDraw, setPowerDraw, U32(141000), U32(142000), U32(141000)),
    ROW(energyConsumed, setEnergyConsumed, U64(900), U64(4318275000), U64(900)),
    // The power limit the GPU keeps to: the smaller.
    ROW(powerLimit, setPowerLimit, U32(250000), U32(213000), U32(213000)),
    // Further temperatures: the larger, as the others.
    ROW(temperatureHotspot, setTemperatureHotspot, U64(67), U64(68), U64(68)),
    ROW(temperatureMemory, setTemperatureMemory, std::nullopt, U64(60), U64(60)),
    // The link: what its slower end allows, each value on its own.
    ROW(pcieLinkGeneration, setPCIeLinkGeneration, U32(4), U32(3), U32(3)),
    ROW(pcieLinkWidth, setPCIeLinkWidth, U32(8), U32(16), U32(8)),
    ROW(pcieLinkGenerationMax, setPCIeLinkGenerationMax, std::nullopt, U32(4), U32(4)),
    ROW(pcieLinkWidthMax, setPCIeLinkWidthMax, U32(16), U32(16), U32(16)),
    // The slower performance state, and every reason either side names.
    ROW(performanceState, setPerformanceState, U32(2), U32(8), U32(8)),
    ROW(clockEventReasons, setClockEventReasons, U64(0x4), U64(0x21), U64(0x25)),
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
    LIBKESTREL_ALL_GPU_PROPERTIES(EXPECT_EMPTY)
#undef EXPECT_EMPTY
}

// Each record folds into the first one of its location, in the order they come
// (equal-length names: the later wins), locations differing in their domain
// alone stay apart, and a record with no counterpart is passed on as it is.
TEST(Merge, RecordsFoldIntoTheFirstOfTheirLocationInOrder)
{
    const auto named = [](std::shared_ptr<GPU> gpu, const char* name) {
        gpu->setName(std::string(name));
        return gpu;
    };
    const auto alone = gpuAt(2);
    auto third = named(gpuAt(1), "cc");
    third->setCoreCount(std::uint32_t{5});
    const auto otherDomain = std::make_shared<GPU>(pci::PciLocation(1, 0, 0, 1));
    kestrel::test::LogCapture capture(kestrel::test::Priority::WARNING);
    const auto merged = libKestrel::mergeGPUs(
        {named(gpuAt(1), "aa"), alone, nullptr, named(gpuAt(1), "bb"), otherDomain, third});
    EXPECT_EQ(kestrel::test::describe(merged),
              (std::vector<std::string>{"0000:01:00.0 name=cc coreCount=5", "0000:02:00.0", "0001:01:00.0"}));
    ASSERT_EQ(merged.size(), 3u);
    EXPECT_EQ(merged[1], alone);
    EXPECT_EQ(capture.of("libKestrel.Kestrel"), kestrel::test::Lines{"3|294 Could not obtain PCI Location from GPU"});
}

// A record at bus 'bus' (device and function 0) named 'name', in 'domain' or,
// without one, as NVAPI and ADL place their GPUs.
std::shared_ptr<IGPU> gpuNamed(std::optional<std::uint32_t> domain, unsigned char bus, const char* name)
{
    auto gpu = std::make_shared<GPU>(domain ? pci::PciLocation(bus, 0, 0, *domain)
                                            : pci::PciLocation::withoutDomain(bus, 0, 0));
    gpu->setName(std::string(name));
    return gpu;
}

// "0002:17:00.0 name" for a GPU in a known domain, "?:17:00.0 name" without.
kestrel::test::Lines shown(const std::vector<std::shared_ptr<IGPU>>& gpus)
{
    kestrel::test::Lines lines;
    for (const auto& gpu : gpus) {
        const auto location = *gpu->pciLocation();
        lines.push_back((location.domainKnown ? "" : "?:") + location.toString(location.domainKnown).str() + " " +
                        gpu->name().value_or(""));
    }
    return lines;
}

// Records of different domains are different GPUs; a record without domain is
// the one GPU of a known domain at its bus, device and function, in whichever
// order they come, and takes its domain; with none there it stays without
// domain, and with several it is left out, and says so.
TEST(Merge, RecordsOfDifferentDomainsAreDifferentGPUsAndOneWithoutDomainJoinsTheOnlyGPUItFits)
{
    const std::nullopt_t none = std::nullopt;
    const struct {
        const char* what;
        std::vector<std::shared_ptr<IGPU>> records;
        kestrel::test::Lines gpus;
        kestrel::test::Lines lines;
    } rows[] = {
        {"equal domains", {gpuNamed(2, 0x17, "aa"), gpuNamed(2, 0x17, "bb")}, {"0002:17:00.0 bb"}, {}},
        {"different domains at one bus, device and function",
         {gpuNamed(1, 0, "one"), gpuNamed(2, 0, "two"), gpuNamed(0, 0, "zero"), gpuNamed(1, 0, "uno")},
         {"0001:00:00.0 uno", "0002:00:00.0 two", "0000:00:00.0 zero"},
         {}},
        {"without domain, fitting one GPU",
         {gpuNamed(none, 0x17, "GeForce"), gpuNamed(3, 0x17, "NVIDIA GeForce"), gpuNamed(none, 0x17, "Quadro"),
          gpuNamed(none, 0x18, "alone"), gpuNamed(none, 0x18, "again")},
         {"0003:17:00.0 NVIDIA GeForce", "?:18:00.0 again"},
         {}},
        {"without domain, fitting several GPUs",
         {gpuNamed(1, 0, "one"), gpuNamed(none, 0, "either"), gpuNamed(2, 0, "two"), gpuNamed(none, 0, "or")},
         {"0001:00:00.0 one", "0002:00:00.0 two"},
         {"3|295 GPU record without PCI domain fits several GPUs and is left out: 00:00.0 could be 0001:00:00.0, "
          "0002:00:00.0",
          "3|295 GPU record without PCI domain fits several GPUs and is left out: 00:00.0 could be 0001:00:00.0, "
          "0002:00:00.0"}},
        {"domains wider than 16 bits",
         {gpuNamed(0x10000, 0, "low"), gpuNamed(0xffffffff, 0, "high"), gpuNamed(0, 0, "zero"),
          gpuNamed(none, 0, "any")},
         {"10000:00:00.0 low", "ffffffff:00:00.0 high", "0000:00:00.0 zero"},
         {"3|295 GPU record without PCI domain fits several GPUs and is left out: 00:00.0 could be 0000:00:00.0, "
          "10000:00:00.0, ffffffff:00:00.0"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        kestrel::test::LogCapture capture(kestrel::test::Priority::WARNING);
        EXPECT_EQ(shown(libKestrel::mergeGPUs(row.records)), row.gpus);
        EXPECT_EQ(capture.of("libKestrel.Kestrel"), row.lines);
    }
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
