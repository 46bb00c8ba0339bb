// The module's one export. Variants of the module leave entries out:
// SIM_OMIT_ENTRIES lists, comma-separated, the names whose ids get null, and
// SIM_OMIT_nvapi_QueryInterface drops the export itself.
#include <string_view>
#include <type_traits>

#include "common/Simulator.h"
#include "nvapi/Entries.h"

#if !defined(SIM_OMIT_nvapi_QueryInterface)

#if !defined(SIM_OMIT_ENTRIES)
#define SIM_OMIT_ENTRIES ""
#endif

namespace {

bool omitted(std::string_view name)
{
    std::string_view list = SIM_OMIT_ENTRIES;
    for (;;) {
        const std::size_t comma = list.find(',');
        if (list.substr(0, comma) == name)
            return true;
        if (comma == std::string_view::npos)
            return false;
        list.remove_prefix(comma + 1);
    }
}

} // namespace

// Not journaled: it is the loader's look-up, not an NVAPI call.
SIM_EXPORT void* nvapi_QueryInterface(libKestrel::nvapi::NvU32 id)
{
    const sim::Guard guard;
    for (std::size_t i = 0; i < simnvapi::entryCount; ++i)
        if (simnvapi::entries[i].id == id)
            return omitted(simnvapi::entries[i].name) ? nullptr : simnvapi::entries[i].function;
    return nullptr;
}
static_assert(std::is_same_v<decltype(&nvapi_QueryInterface), libKestrel::nvapi::PFN_nvapi_QueryInterface>,
              "nvapi_QueryInterface has the wrong signature");

#endif
