#pragma once

#include <bitset>
#include <functional>
#include <memory>
#include <vector>

#include "libKestrel/GPU.h"

namespace libKestrel::session {

// Reads one GPU's changing properties (temperature, utilisation, fan speeds,
// clocks, available memory, ECC counts) again into 'gpu', through the handle
// its source enumerated it by; what it cannot read it leaves absent.
using Reader = std::function<void(GPU& gpu)>;

struct LiveGPU {
    std::shared_ptr<GPU> record; // as enumerated
    Reader read;                 // empty for a record none of whose properties change
};

// A source's GPUs as a session keeps them between refreshes.
struct LiveSource {
    std::vector<LiveGPU> gpus;
    // Runs 'reads' with what the readers call through made ready (the vendor's
    // entries bound, a control created); false, without running them, when the
    // vendor can no longer be reached.
    std::function<bool(const std::function<void()>& reads)> around;
};

// The 'around' of a source whose readers need nothing made ready: runs them.
inline bool readDirectly(const std::function<void()>& reads)
{
    reads();
    return true;
}

// Enumerates one source for a session: its records, each with its reader.
using LiveEnumerator = LiveSource (*)(std::bitset<4>& status);

// Clears the properties a reader writes, so that what it cannot read is absent.
void clearReadings(GPU& gpu);
// Whether any of those properties is present.
bool hasReadings(const GPU& gpu);
// Whether both have the same of those properties, absent ones included.
bool sameReadings(const GPU& one, const GPU& other);
// Sets those properties of 'into' to those of 'from', absent ones included.
void takeReadings(GPU& into, const GPU& from);
// Merges those properties of 'from' into 'into', each by its merge rule. The
// rules keep the larger or smaller value, so the order of folding is free.
void foldReadings(GPU& into, const GPU& from);

// Puts a vendor's entries, looked up at enumeration, in its global binding for
// one refresh's reads, and puts back what was there. The session's share of the
// module keeps the entries valid; only the table of pointers is copied.
template <class Entries>
class BorrowedEntries {
public:
    BorrowedEntries(Entries& global, const Entries& borrowed) : global_(global), saved_(global) { global_ = borrowed; }
    ~BorrowedEntries() { global_ = saved_; }
    BorrowedEntries(const BorrowedEntries&) = delete;
    BorrowedEntries& operator=(const BorrowedEntries&) = delete;

private:
    Entries& global_;
    Entries saved_;
};

} // namespace libKestrel::session
