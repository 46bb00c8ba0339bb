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
// (the kestrel-probe program installed beside the library, found where the
// library was loaded from when it was loaded), side by side, so that a vendor
// library that crashes or never returns costs only that source's records and a
// log line. Each child has until 'deadline' (the longest deadline there is
// waits for every child); one still running then, or one whose answer passes
// 4 MiB, is stopped with whatever it started, and the call returns a moment
// later (a quarter of a second at most) even if it has not ended: a child stuck
// in a driver is collected by a later call. A child gets no descriptor or
// handle of the host's beyond its own pipes, answers on a pipe of its own (what
// its vendor prints goes to the host's standard error) and ends with the host;
// on Linux it ends with the calling thread, and a host that ignores SIGCHLD or
// collects its children itself still gets its answers. The children's log
// lines reach the host's sink with their loggers' names and priorities, under
// the host's thresholds (the process-wide one and each logger's own). Monitor
// sources and a host's own GPU sources run in the host's process, as with
// queryAllGPUs, and the records are merged exactly as queryAllGPUs merges them.
LIBKESTREL_API std::vector<std::shared_ptr<IGPU>>
queryAllGPUsIsolated(const std::vector<MonitorGPUQuerier>& monitorQueriers, const std::vector<GPUQuerier>& gpuQueriers,
                     std::bitset<4>& status, std::chrono::milliseconds deadline = std::chrono::seconds(10));

} // namespace libKestrel
