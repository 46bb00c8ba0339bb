#include "libKestrel/internal/multi/AMD/amd_adl2.h"

#include "libKestrel/internal/Logging.h"

namespace libKestrel {
namespace {

logging::LogSite site("libKestrel.ADL2", "libKestrel/src/multi/AMD/amd_adl2.cpp");

} // namespace

std::optional<std::uint32_t> query_CoreInfo()
{
    auto trace = site.trace("query_CoreInfo", 12);
    return std::nullopt;
}

} // namespace libKestrel
