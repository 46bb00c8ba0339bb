#pragma once

#include <bitset>
#include <chrono>
#include <memory>
#include <vector>

#include "libKestrel/Export.h"
#include "libKestrel/IGPU.h"
#include "libKestrel/Query.h"

namespace libKestrel {

// queryAllGPUs with the library's own GPU sources each run in a child process
// (the kestrel-probe program installed beside the library), side by side, so
// that a vendor library that crashes or never returns costs only that source's
// records and a log line. Each child has until 'deadline' (so has the whole
// call, give or take a moment to stop them); one still running then is killed.
// The children's log lines reach the host's sink with their loggers' names and
// priorities, under the host's process-wide threshold. Monitor sources and a
// host's own GPU sources run in the host's process, as with queryAllGPUs, and
// the records are merged exactly as queryAllGPUs merges them.
LIBKESTREL_API std::vector<std::shared_ptr<IGPU>>
queryAllGPUsIsolated(const std::vector<MonitorGPUQuerier>& monitorQueriers, const std::vector<GPUQuerier>& gpuQueriers,
                     std::bitset<4>& status, std::chrono::milliseconds deadline = std::chrono::seconds(10));

} // namespace libKestrel
