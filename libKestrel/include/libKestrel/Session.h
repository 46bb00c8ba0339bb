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
// (temperatures, utilisation, fan speeds, clocks, available memory, ECC counts,
// power, energy, the PCIe link as it runs, the performance state, clock event
// reasons) through the handles the enumeration gave: NVML's device handles, NVAPI's GPU
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
//
// Isolated sessions (SessionOptions::isolate) run each of the library's own
// sources in a helper process of its own (the kestrel-probe program beside the
// library), which keeps its vendor open and answers each refresh and rescan
// with what the source read; a host's own sources run in the host's process.
// The records and their merging are those of a session in the host's process.
// The helpers are asked side by side, each request with a deadline, so a
// vendor that hangs delays a refresh by the deadline at most, and one that
// crashes costs only its own source. A helper that misses the deadline, ends,
// or answers what does not parse is stopped, said once (libKestrel.Session,
// priority 4), and its source is down: its GPUs keep the properties that do not
// change and lose their readings. A helper is started again after a back-off
// (1 s at first, doubling at each failure up to 60 times that) by the refresh
// that comes after it, which then enumerates anew; when it answers, the readings are back (priority 3). On Linux
// a helper ends with the thread that started it (a later refresh on another
// thread starts it again), and with the host on every platform.
struct SessionOptions {
    bool isolate = false;
    // How long a helper may take to answer one request (isolated sessions).
    std::chrono::milliseconds deadline = std::chrono::seconds(2);
    // How long a source whose helper failed waits, at first, before a helper is
    // started again (isolated sessions).
    std::chrono::milliseconds backOff = std::chrono::seconds(1);
};

class LIBKESTREL_API Session {
public:
    // How one source of the session stands.
    struct Source {
        std::string name; // "nvml", "nvapi", "cuda", "adl", ... or "host" for a host's own source
        bool up = false;  // its vendor library is open and its last enumeration or refresh worked
        unsigned long restarts = 0; // how often its helper was started again (isolated sessions)
    };

    // Opens the vendor libraries of 'sources' (the library's own GPU sources, in
    // the order their records are merged; a host's own source is run at every
    // rescan and its records kept as they are) and enumerates.
    explicit Session(const std::vector<GPUQuerier>& sources);
    // The same, isolated when 'options' say so.
    Session(const std::vector<GPUQuerier>& sources, const SessionOptions& options);
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
    // When the last refresh or rescan finished.
    std::chrono::system_clock::time_point lastUpdate() const;
    // Per GPU of gpus(), in the same order: whether it answered at the last
    // refresh: false while a source that reads it found it no longer answering,
    // or could not be reached (its helper down, its vendor gone).
    std::vector<bool> answering() const;

    // All of the above at once, of one refresh or rescan.
    struct Snapshot {
        std::vector<std::shared_ptr<IGPU>> gpus;
        std::vector<bool> answering;
        std::bitset<4> status;
        std::vector<Source> sources;
        std::chrono::nanoseconds duration{0};
        std::chrono::system_clock::time_point updated;
    };
    Snapshot snapshot() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace libKestrel
