#pragma once

#include <cstddef>
#include <string_view>

#include "libKestrel/Query.h"
#include "libKestrel/internal/LiveSource.h"

namespace libKestrel {

// The library's own GPU sources by name ("nvml", "nvapi", "cuda", "adl"), for the
// code that must tell them apart from a host's sources or name them outside the
// process.
struct OwnSource {
    const char* name;
    GPUQuerier query;
    // How a session refreshes the source: through the handles this enumerates
    // (when given), or by querying it again when its readings change, or not at
    // all when none of its properties change while the GPU runs.
    LiveEnumerator live;
    bool readingsChange;
};

// Every own source, in the order a host would usually list them.
const OwnSource* ownSourcesBegin();
const OwnSource* ownSourcesEnd();

// The own source behind 'query' or named 'name'; null for anything else.
const OwnSource* findOwnSource(GPUQuerier query);
const OwnSource* findOwnSource(std::string_view name);

} // namespace libKestrel
