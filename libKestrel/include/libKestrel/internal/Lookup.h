#pragma once

#include <type_traits>

#include "tova/DynamicLibrary.h"

namespace libKestrel {

// Every vendor binding lists its entry points once, in look-up order, as calls
// visit(name, &slot). An entry that is looked up but not kept has the slot
// 'dropped'. The helpers below walk such a list.
struct Dropped {};
inline Dropped* const dropped = nullptr;

// Looks up every listed name in 'library', in order, storing each kept result
// (null for a missing export or an unloaded library).
template <class ListEntries>
void resolveEntries(const tova::DynamicLibrary& library, ListEntries listEntries)
{
    listEntries([&library](const char* name, auto* slot) {
        void* symbol = library.getSymbol(name);
        using Slot = std::remove_pointer_t<decltype(slot)>;
        if constexpr (!std::is_same_v<Slot, Dropped>)
            *slot = reinterpret_cast<Slot>(symbol);
    });
}

// The name of the first kept entry that is still null, or null when none is.
template <class ListEntries>
const char* firstMissingEntry(ListEntries listEntries)
{
    const char* missing = nullptr;
    listEntries([&missing](const char* name, auto* slot) {
        using Slot = std::remove_pointer_t<decltype(slot)>;
        if constexpr (!std::is_same_v<Slot, Dropped>) {
            if (!missing && !*slot)
                missing = name;
        }
    });
    return missing;
}

} // namespace libKestrel
