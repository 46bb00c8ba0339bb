#include "libKestrel/internal/SourceTable.h"

#include <algorithm>
#include <iterator>

#include "libKestrel/Sources.h"
#include "libKestrel/internal/multi/AMDGPUQuerierMulti.h"
#include "libKestrel/internal/multi/NVidiaNvmlGPUQuerierMulti.h"
#include "libKestrel/internal/windows/NVidiaGPUQuerier.h"
#if !defined(_WIN32)
#include "libKestrel/internal/linux/SysfsGPUQuerier.h"
#endif

namespace libKestrel {
namespace {

const OwnSource sources[] = {
    {"nvml", queryNVidiaNvmlGPUsMulti, enumerateNvmlLive, true},
    {"nvapi", queryNVidiaGPUs, enumerateNvapiLive, true},
    {"cuda", queryNVidiaCudaGPUsMulti, nullptr, false}, // the device's fixed properties only
    {"adl", queryAMDGPUsMulti, enumerateAdlLive, true},
#if !defined(_WIN32)
    {"sysfs", querySysfsGPUs, enumerateSysfsLive, true},
#endif
};

template <class Matches>
const OwnSource* findWhere(Matches matches)
{
    const OwnSource* found = std::find_if(std::begin(sources), std::end(sources), matches);
    return found == std::end(sources) ? nullptr : found;
}

} // namespace

const OwnSource* ownSourcesBegin() { return std::begin(sources); }
const OwnSource* ownSourcesEnd() { return std::end(sources); }

const OwnSource* findOwnSource(GPUQuerier query)
{
    return findWhere([query](const OwnSource& source) { return source.query == query; });
}

const OwnSource* findOwnSource(std::string_view name)
{
    return findWhere([name](const OwnSource& source) { return name == source.name; });
}

} // namespace libKestrel
