#include "libKestrel/internal/SourceTable.h"

#include <algorithm>
#include <iterator>

#include "libKestrel/Sources.h"

namespace libKestrel {
namespace {

const OwnSource sources[] = {
    {"nvml", queryNVidiaNvmlGPUsMulti},
    {"nvapi", queryNVidiaGPUs},
    {"cuda", queryNVidiaCudaGPUsMulti},
    {"adl", queryAMDGPUsMulti},
#if !defined(_WIN32)
    {"sysfs", querySysfsGPUs},
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
