#pragma once

#include <bitset>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "libKestrel/Export.h"
#include "libKestrel/IGPU.h"
#include "libKestrel/Query.h"

namespace libKestrel {

// A live view of the machine's GPUs for programs that watch them. The vendor
// libraries are loaded and initialised, and the GPUs enumerated, when the
// session is made and at each rescan; the vendors stay open in between (NVML
// initialised, an NVAPI reference, an ADL2 context; CUDA's driver and libpci
// stay loaded for the process anyway). A refresh reads only what changes
// (temperatures, utilisation, fan speeds, clocks, available memory, ECC counts)
// through the handles the enumeration gave: NVML's device handles, NVAPI's GPU
// handles, one ADL adapter index per GPU, the sysfs sensor files. CUDA's
// properties do not change and are not read again; a host's own source runs
// again at each refresh. A GPU that stops answering is logged once and loses
// its readings until it answers again or a rescan finds it anew.
//
// Threads: refresh(), rescan() and close() may be called from any thread, one
// at a time per session (calls from several threads are serialised). gpus(),
// status(), sources() and lastUpdateDuration() may be called from any thread at
// any time, also while another thread refreshes: they return the snapshot of
// the last finished refresh or rescan. A snapshot's records are never written
// again, so a reader never sees a record half refreshed. Several sessions, and
// one-shot queries (queryAllGPUs, queryAllGPUsIsolated, the sources of
// libKestrel/Sources.h), may run on different threads at the same time.
//
// Failures: a refresh or rescan that throws (no memory left, a host's own source
// that throws) leaves the session as it was before the call: the last snapshot
// stays, whole, and the next call starts from it.
class LIBKESTREL_API Session {
public:
    // How one source of the session stands.
    struct Source {
        std::string name; // "nvml", "nvapi", "cuda", "adl", ... or "host" for a host's own source
        bool up = false;  // its vendor library is open and its last enumeration or refresh worked
    };

    // Opens the vendor libraries of 'sources' (the library's own GPU sources, in
    // the order their records are merged; a host's own source is run at every
    // rescan and its records kept as they are) and enumerates.
    explicit Session(const std::vector<GPUQuerier>& sources);
    // Closes the session.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Reads the GPUs again through the vendors the session holds open.
    void refresh();
    // Enumerates again, for GPUs added or gone.
    void rescan();
    // Releases every vendor library, in the reverse order of opening. The last
    // snapshot stays readable; refresh() and rescan() do nothing afterwards.
    void close();

    // The merged records of the last refresh or rescan, one per GPU, in the
    // order of a query of the same sources.
    std::vector<std::shared_ptr<IGPU>> gpus() const;
    // The status bits the last enumeration set (bit 0: NVML refused a GPU for
    // insufficient power).
    std::bitset<4> status() const;
    // Every source, in the order given.
    std::vector<Source> sources() const;
    // How long the last refresh or rescan took.
    std::chrono::nanoseconds lastUpdateDuration() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace libKestrel
