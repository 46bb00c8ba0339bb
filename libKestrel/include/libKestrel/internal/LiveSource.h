#pragma once

#include <bitset>
#include <functional>
#include <memory>
#include <vector>

#include "libKestrel/GPU.h"

// What one of the library's own sources offers a program that keeps watching
// its GPUs: the records of one enumeration, each with a reader bound to the
// vendor handle the GPU was enumerated by, and what keeps the vendor open for
// those readers. A reader calls only through what it holds (the vendor's
// entries, a context), never through a table another thread may change.
namespace libKestrel {

// Reads one GPU's changing properties (temperatures, utilisation, fan speeds,
// clocks, available memory, ECC counts, power, energy, the PCIe link, the
// performance state, clock event reasons) again into 'gpu', through the handle
// its source enumerated it by; what it cannot read it leaves absent.
using Reader = std::function<void(GPU& gpu)>;

struct LiveGPU {
    std::shared_ptr<GPU> record; // as enumerated
    Reader read;                 // empty for a record none of whose properties change
};

struct LiveSource {
    // Keeps the vendor's library loaded and initialised, and the handles valid,
    // for as long as the source and its readers live (they may share it). Null
    // when the vendor could not be opened.
    std::shared_ptr<const void> vendor;
    std::vector<LiveGPU> gpus;
    // Runs 'reads' with what the readers need made ready around them (a
    // control of ADL's first interface); false, without running them, when the
    // vendor can no longer be reached.
    std::function<bool(const std::function<void()>& reads)> around;
};

// The 'around' of a source whose readers need nothing made ready: runs them.
inline bool readDirectly(const std::function<void()>& reads)
{
    reads();
    return true;
}

// What keeps a vendor open for a live source whose vendor counts its own
// initialisations: 'release' runs when the last holder lets go, and also when
// the holder itself cannot be made.
inline std::shared_ptr<const void> releasedWhenLetGo(void (*release)())
{
    static const char held = 0;
    return std::shared_ptr<const void>(&held, [release](const void*) { release(); });
}

// Enumerates one source for a watching program: its records, each with its reader.
using LiveEnumerator = LiveSource (*)(std::bitset<4>& status);

// Clears the properties a reader writes, so that what it cannot read is absent.
void clearReadings(GPU& gpu);
// Whether any of those properties is present.
bool hasReadings(const GPU& gpu);
// Whether both have the same of those properties, absent ones included.
bool sameReadings(const GPU& one, const GPU& other);
// Sets those properties of 'into' to those of 'from', absent ones included.
void takeReadings(GPU& into, const GPU& from);
// Merges those properties of 'from' into 'into', each by its merge rule, with
// 'from' as the later record. Some rules keep the earlier record's value, so
// records folded in their order give what merging them gives.
void foldReadings(GPU& into, const GPU& from);

} // namespace libKestrel
