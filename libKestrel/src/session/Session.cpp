#include "libKestrel/Session.h"

#include <algorithm>
#include <mutex>
#include <optional>

#include "libKestrel/internal/Kestrel.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/SourceTable.h"
#include "libKestrel/internal/session/LiveSource.h"
#include "libKestrel/internal/session/VendorHold.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;
using Records = std::vector<std::shared_ptr<IGPU>>;

logging::LogSite site("libKestrel.Session", "libKestrel/src/session/Session.cpp");

// One source as the session keeps it between refreshes.
struct Kept {
    GPUQuerier query = nullptr;
    const OwnSource* own = nullptr; // null for a host's own source
    std::unique_ptr<session::VendorHold> hold;
    std::optional<session::LiveSource> live; // for a source read through handles
    std::vector<bool> silent;                // per live GPU: reported as no longer answering
    Records records;                         // of the last enumeration or refresh
    bool enumerated = false;                 // its last enumeration worked
    bool up = false;

    const char* name() const { return own ? own->name : "host"; }
};

void enumerate(Kept& kept, std::bitset<4>& status)
{
    kept.records.clear();
    if (kept.own && kept.own->live) {
        kept.live = kept.own->live(status);
        kept.silent.assign(kept.live->gpus.size(), false);
        for (const session::LiveGPU& gpu : kept.live->gpus)
            kept.records.push_back(gpu.record);
    } else {
        kept.records = kept.query(status);
    }
    kept.enumerated = kept.hold->holds() || !kept.records.empty();
    kept.up = kept.enumerated;
}

// Reads each GPU's changing properties again into a copy of its record. A GPU
// that stops answering is reported once, and its readings stay absent until it
// answers again.
void readAgain(Kept& kept)
{
    const session::LiveSource& live = *kept.live;
    std::vector<std::shared_ptr<GPU>> fresh;
    fresh.reserve(live.gpus.size());
    for (const session::LiveGPU& gpu : live.gpus) {
        fresh.push_back(std::make_shared<GPU>(*gpu.record));
        if (gpu.read)
            session::clearReadings(*fresh.back());
    }
    const bool reached = live.around && live.around([&] {
        for (std::size_t i = 0; i < fresh.size(); ++i)
            if (live.gpus[i].read)
                live.gpus[i].read(*fresh[i]);
    });
    std::size_t readers = 0;
    std::size_t silent = 0;
    for (std::size_t i = 0; i < fresh.size(); ++i) {
        if (!live.gpus[i].read)
            continue;
        ++readers;
        const bool answered = reached && session::hasReadings(*fresh[i]);
        if (!answered && session::hasReadings(*live.gpus[i].record) && !kept.silent[i]) {
            log(site, Priority::WARNING, "41 ", "GPU no longer answers, its readings are left out: ",
                *fresh[i]->pciLocation(), " (", kept.name(), ")");
            kept.silent[i] = true;
        } else if (answered && kept.silent[i]) {
            log(site, Priority::INFO, "48 ", "GPU answers again: ", *fresh[i]->pciLocation(), " (", kept.name(), ")");
            kept.silent[i] = false;
        }
        silent += kept.silent[i] ? 1 : 0;
    }
    kept.records.assign(fresh.begin(), fresh.end());
    kept.up = kept.enumerated && reached && (readers == 0 || silent < readers);
}

} // namespace

struct Session::State {
    std::mutex updating; // one refresh, rescan or close at a time
    bool closed = false;
    std::vector<Kept> kept; // in the order given; released in reverse
    std::bitset<4> enumerationStatus;

    mutable std::mutex reading; // guards the snapshot below
    std::vector<std::shared_ptr<IGPU>> gpus;
    std::bitset<4> status;
    std::vector<Source> sources;
    std::chrono::nanoseconds duration{0};

    // Merges the sources' records and makes them the snapshot readers see.
    void publish(std::chrono::steady_clock::time_point start, std::bitset<4> lastStatus)
    {
        Records all;
        std::vector<Source> states;
        for (const Kept& source : kept) {
            all.insert(all.end(), source.records.begin(), source.records.end());
            states.push_back({source.name(), source.up});
        }
        auto merged = mergeGPUs(all);
        const auto took = std::chrono::steady_clock::now() - start;
        std::lock_guard<std::mutex> lock(reading);
        gpus = std::move(merged);
        status = lastStatus;
        sources = std::move(states);
        duration = std::chrono::duration_cast<std::chrono::nanoseconds>(took);
    }
};

Session::Session(const std::vector<GPUQuerier>& sources) : state_(std::make_unique<State>())
{
    for (GPUQuerier querier : sources) {
        if (!querier)
            continue;
        Kept kept;
        kept.query = querier;
        kept.own = findOwnSource(querier);
        kept.hold = std::make_unique<session::VendorHold>(kept.own ? kept.own->name : "");
        state_->kept.push_back(std::move(kept));
    }
    rescan();
}

Session::~Session() { close(); }

void Session::refresh()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    if (state_->closed)
        return;
    const auto start = std::chrono::steady_clock::now();
    std::bitset<4> status = state_->enumerationStatus;
    for (Kept& kept : state_->kept) {
        if (kept.live)
            readAgain(kept);
        else if (!kept.own || kept.own->readingsChange)
            kept.records = kept.query(status); // no handles to read through: the source runs again
    }
    state_->publish(start, status);
}

void Session::rescan()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    if (state_->closed)
        return;
    const auto start = std::chrono::steady_clock::now();
    std::bitset<4> status;
    // Each source runs inside its vendor's hold: loading and initialising nest,
    // and cost next to nothing.
    for (Kept& kept : state_->kept)
        enumerate(kept, status);
    state_->enumerationStatus = status;
    state_->publish(start, status);
}

void Session::close()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    state_->closed = true;
    // The last opened is released first; a source's handles go before its vendor.
    while (!state_->kept.empty()) {
        state_->kept.back().live.reset();
        state_->kept.back().hold.reset();
        state_->kept.pop_back();
    }
}

std::vector<std::shared_ptr<IGPU>> Session::gpus() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->gpus;
}

std::bitset<4> Session::status() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->status;
}

std::vector<Session::Source> Session::sources() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->sources;
}

std::chrono::nanoseconds Session::lastUpdateDuration() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->duration;
}

} // namespace libKestrel
