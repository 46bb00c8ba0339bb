#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "libKestrel/ADLWrapper.h"
#include "tova/DynamicLibrary.h"

// What the two ADL call tables of the device classes share: the library load,
// the start of ADL, the memory callback and the forwarding of a call.
namespace libKestrel {

// ADL's memory callback for the device classes: a fresh block of 'size' bytes
// from malloc, so that whoever releases it with free is right; null for a size
// below 1 byte. Throws std::bad_alloc when the heap is exhausted.
void* adlMemoryAlloc(int size);

// The size of a block from malloc or adlMemoryAlloc, as the C runtime reports it
// (at least what was asked for). Zero for null.
std::size_t allocatedBytes(const void* block);

// How many of the 'reported' entries can be read from a list that ADL allocated
// through adlMemoryAlloc (or that came from malloc): ADL hands such lists back
// without their length, and a count from another call may exceed them. Never
// negative, never past the block.
template <class T>
std::size_t readableEntries(long long reported, const T* list)
{
    const auto held = static_cast<long long>(allocatedBytes(list) / sizeof(T));
    return static_cast<std::size_t>(std::clamp(reported, 0LL, held));
}

// Replaces the holder's library by the driver's ADL library, trying its file
// names in turn. False, logged, when none loads.
bool loadADL(std::unique_ptr<tova::DynamicLibrary>& holder);

// One way of starting ADL: whether the driver has the create entry, the call
// itself, and the line that reports its status.
struct ADLStart {
    bool present;
    std::function<int()> create;
    const char* tag;
    const char* text;
};

// Starts ADL through 'newer', or through 'older' when the driver lacks the newer
// entry or it fails (a negative status; ADL's warnings count as started). When
// neither starts ADL, logs "Unable to initialize ADL" under 'failedTag' and
// throws std::runtime_error with those words.
void startADL(const ADLStart& newer, const ADLStart& older, const char* failedTag);

// Makes the call tables: the initializer on the first table, then an ADL2 table
// with its own context, or an ADL table on the process's one main control.
// Throw std::runtime_error when they cannot.
struct ADLTables {
    static std::shared_ptr<ADL> makeADL();
    static std::shared_ptr<ADL2> makeADL2();
};

// One row of a call table: the driver's entry, called when the driver has it;
// else std::runtime_error "<missing> not in the driver".
template <class Entry, class... Args>
int forwardToADL(Entry entry, const char* missing, Args... args)
{
    if (!entry)
        throw std::runtime_error(std::string(missing) + " not in the driver");
    return entry(args...);
}

} // namespace libKestrel
