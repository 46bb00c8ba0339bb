#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "libKestrel/IGPU.h"
#include "libKestrel/Query.h"

namespace libKestrel {

// Runs every monitor-side source with one monitor's probe window and monitor, in
// order, and returns their records unmerged.
std::vector<std::shared_ptr<IGPU>> queryAllMonitorGPUs(const std::vector<MonitorGPUQuerier>& monitorQueriers,
                                                       void* const& first, void* const& second);

// Folds a list of records into one record per GPU, in order of first
// appearance, each GPU found by its PCI location as Identities says (a record
// without domain joins the one GPU of a known domain at its bus, device and
// function). A record without a location, or one without domain that fits
// several GPUs, is dropped; a record with no counterpart is passed through as
// it is (the same shared record).
std::vector<std::shared_ptr<IGPU>> mergeGPUs(const std::vector<std::shared_ptr<IGPU>>& gpus);

// The same merge, and where each record went: places[i] is the place in 'gpus'
// of the GPU that the i-th record is part of, or leftOut.
struct Merged {
    std::vector<std::shared_ptr<IGPU>> gpus;
    std::vector<std::size_t> places;
};
constexpr std::size_t leftOut = static_cast<std::size_t>(-1);
Merged mergePlaced(const std::vector<std::shared_ptr<IGPU>>& gpus);

// A new record for the common PCI location of both, each property merged by its
// own rule. gpuLHS is the earlier record. Neither input is changed.
std::shared_ptr<IGPU> mergeTwoGPUs(const std::shared_ptr<IGPU>& gpuLHS, const std::shared_ptr<IGPU>& gpuRHS);

// Per-property rules. With one side empty the other side wins unchanged; with
// both present the rule below decides.
using OptionalText = std::optional<std::string>;
using OptionalFlag = std::optional<bool>;
using Optional32 = std::optional<std::uint32_t>;
using Optional64 = std::optional<std::uint64_t>;
using OptionalHandle = std::optional<void*>;

// Texts: the longer one; on equal length the right one.
OptionalText mergeNames(const OptionalText& lhs, const OptionalText& rhs);
OptionalText mergeDriverVersions(const OptionalText& lhs, const OptionalText& rhs);
OptionalText mergeVBIOSVersions(const OptionalText& lhs, const OptionalText& rhs);
OptionalText mergeBusType(const OptionalText& lhs, const OptionalText& rhs);
OptionalText mergeUUIDs(const OptionalText& lhs, const OptionalText& rhs);
// Flags: both must say true.
OptionalFlag mergeHardwareAcceleration(const OptionalFlag& lhs, const OptionalFlag& rhs);
OptionalFlag mergeSLI(const OptionalFlag& lhs, const OptionalFlag& rhs);
OptionalFlag mergeCrossfire(const OptionalFlag& lhs, const OptionalFlag& rhs);
OptionalFlag mergeECCMemory(const OptionalFlag& lhs, const OptionalFlag& rhs);
// Sizes and counts: the smaller.
Optional32 mergeCoreCount(const Optional32& lhs, const Optional32& rhs);
Optional64 mergeMemory(const Optional64& lhs, const Optional64& rhs);
Optional32 mergeMemoryWidth(const Optional32& lhs, const Optional32& rhs);
Optional64 mergeMemoryBandwidth(const Optional64& lhs, const Optional64& rhs);
// Rates, readings and versions: the larger, each value on its own.
Optional32 mergeClockFrequencies(const Optional32& lhs, const Optional32& rhs);
Optional32 mergeUtilizationPercent(const Optional32& lhs, const Optional32& rhs);
Optional64 mergeECCErrorCounts(const Optional64& lhs, const Optional64& rhs);
Optional64 mergeTemperature(const Optional64& lhs, const Optional64& rhs);
Optional32 mergeFanSpeed(const Optional32& lhs, const Optional32& rhs);
Optional32 mergeVersion(const Optional32& lhs, const Optional32& rhs);
// The monitor handle: the left one.
OptionalHandle mergeNativeMonitorHandle(const OptionalHandle& lhs, const OptionalHandle& rhs);
// Power draw and the energy counter: the left one, that is the earlier source's.
// Every list of the library's own sources names the vendor libraries (NVML,
// ADL) before the kernel's files (sysfs), so their reading wins; and a counter
// taken from one source only never jumps between two sources' counts.
Optional32 mergePowerDraw(const Optional32& lhs, const Optional32& rhs);
Optional64 mergeEnergy(const Optional64& lhs, const Optional64& rhs);
// The power limit: the smaller, the one the GPU keeps to.
Optional32 mergePowerLimit(const Optional32& lhs, const Optional32& rhs);
// Hot spot and memory temperatures take mergeTemperature's rule, the larger.
// PCIe link generations and widths, current and maximum: the smaller, as a link
// runs at what its slower end allows (sysfs's maximum is the GPU's own, NVML's
// the GPU's in its slot).
Optional32 mergePCIeLink(const Optional32& lhs, const Optional32& rhs);
// The performance state: the larger number, the slower state.
Optional32 mergePerformanceState(const Optional32& lhs, const Optional32& rhs);
// Clock event reasons: every reason either source names.
Optional64 mergeClockEventReasons(const Optional64& lhs, const Optional64& rhs);

} // namespace libKestrel
