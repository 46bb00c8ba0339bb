#pragma once

#include <bitset>
#include <memory>
#include <vector>

#include "libKestrel/Export.h"
#include "libKestrel/IGPU.h"

namespace libKestrel {

// A GPU source: reports the GPUs one vendor interface can see. The status set is
// shared by every source of one query; a source may set bits, never clear them.
// Bit 0: NVML refused a device because the GPU has insufficient power.
using GPUQuerier = std::vector<std::shared_ptr<IGPU>> (*)(std::bitset<4>& status);

// A monitor-side source, supplied by the host: called once per attached monitor
// with a hidden 1x1 window placed on that monitor (first, a GLFWwindow*) and the
// monitor itself (second, a GLFWmonitor*), so it can tell which GPU drives it.
using MonitorGPUQuerier = std::vector<std::shared_ptr<IGPU>> (*)(void* const& first, void* const& second);

// Runs the monitor-side sources for every monitor, then each GPU source in the
// given order, and merges all records by PCI location: one record per GPU, in
// order of first appearance, monitor-side records first. Records without a PCI
// location are dropped. Sources run one after another on the calling thread;
// an exception thrown by a source reaches the caller.
//
// PCI domains: records are of one GPU when their bus, device and function are
// equal and so are their domains; records in different domains are different
// GPUs (a cloud machine may have a GPU in each of several domains, all at bus 0).
// NVML, CUDA and sysfs know the domain; NVAPI and ADL do not, and their records'
// locations have none (pci::PciLocation::domainKnown false; a host's source
// makes such locations with pci::PciLocation::withoutDomain). A record without
// domain is the one GPU of a known domain at its bus, device and function, and
// the merged record has that domain; where no source knows a domain there, it
// merges with the other records without domain there. A record without domain
// that fits several GPUs (of different domains) is left out, with a priority-3
// line naming its location and theirs (libKestrel.Kestrel, tag 295): it is not
// given to one of them at random, nor counted as a GPU of its own, so those
// GPUs lack what only its source tells. NVML, NVAPI and CUDA place a GPU at
// function 0, ADL and sysfs at its real function: records merge only at equal
// functions. On a machine where every domain is 0 this is the merge by bus,
// device and function alone.
//
// Threads: queries may run on several threads at once, beside sessions, with
// the same sources or others: each vendor's library is loaded once for all who
// use it at the time and released when the last is done. Monitor enumeration
// runs one at a time in the process (GLFW keeps one state per process): a second
// query with monitor sources waits for the first, and a monitor source must not
// start another query with monitor sources. A host's own sources run on the
// calling thread and must allow that themselves.
LIBKESTREL_API std::vector<std::shared_ptr<IGPU>> queryAllGPUs(const std::vector<MonitorGPUQuerier>& monitorQueriers,
                                                               const std::vector<GPUQuerier>& gpuQueriers,
                                                               std::bitset<4>& status);

} // namespace libKestrel
