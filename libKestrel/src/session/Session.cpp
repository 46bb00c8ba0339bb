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
    // Per live GPU: its last readings (only the readings are set), whether it
    // was reported as no longer answering, and its place among the merged GPUs.
    std::vector<GPU> readings;
    std::vector<bool> silent;
    std::vector<std::size_t> merged;
    Records records; // of the last enumeration or refresh
    bool enumerated = false; // its last enumeration worked
    bool up = false;

    const char* name() const { return own ? own->name : "host"; }
    // A source whose records a refresh does not replace: read through handles,
    // or with nothing that changes.
    bool refreshedInPlace() const { return live || (own && !own->readingsChange); }
};

void enumerate(Kept& kept, std::bitset<4>& status)
{
    kept.records.clear();
    kept.readings.clear();
    if (kept.own && kept.own->live) {
        kept.live = kept.own->live(status);
        kept.silent.assign(kept.live->gpus.size(), false);
        for (const session::LiveGPU& gpu : kept.live->gpus) {
            kept.records.push_back(gpu.record);
            kept.readings.emplace_back(*gpu.record->pciLocation());
        }
    } else {
        kept.records = kept.query(status);
    }
    kept.enumerated = kept.hold->holds() || !kept.records.empty();
    kept.up = kept.enumerated;
}

// Reads each GPU's changing properties again. A GPU that stops answering is
// reported once, and its readings stay absent until it answers again.
void readAgain(Kept& kept)
{
    const session::LiveSource& live = *kept.live;
    for (GPU& readings : kept.readings)
        session::clearReadings(readings);
    const bool reached = live.around && live.around([&] {
        for (std::size_t i = 0; i < live.gpus.size(); ++i) {
            if (!live.gpus[i].read)
                continue;
            // Its vendor said why when it stopped answering; not again at every refresh.
            std::optional<logging::QuietScope> quiet;
            if (kept.silent[i])
                quiet.emplace();
            live.gpus[i].read(kept.readings[i]);
        }
    });
    std::size_t readers = 0;
    std::size_t silent = 0;
    for (std::size_t i = 0; i < live.gpus.size(); ++i) {
        if (!live.gpus[i].read)
            continue;
        ++readers;
        const pci::PciLocation location = *kept.readings[i].pciLocation();
        const bool answered = reached && session::hasReadings(kept.readings[i]);
        if (!answered && !kept.silent[i] && session::hasReadings(*live.gpus[i].record)) {
            log(site, Priority::WARNING, "41 ", "GPU no longer answers, its readings are left out: ", location, " (",
                kept.name(), ")");
            kept.silent[i] = true;
        } else if (answered && kept.silent[i]) {
            log(site, Priority::INFO, "48 ", "GPU answers again: ", location, " (", kept.name(), ")");
            kept.silent[i] = false;
        }
        silent += kept.silent[i] ? 1 : 0;
    }
    kept.up = kept.enumerated && reached && (readers == 0 || silent < readers);
}

// The source's records, copied with the readings just read.
void renewRecords(Kept& kept)
{
    for (std::size_t i = 0; i < kept.live->gpus.size(); ++i) {
        if (!kept.live->gpus[i].read)
            continue;
        auto gpu = std::make_shared<GPU>(*kept.live->gpus[i].record);
        session::takeReadings(*gpu, kept.readings[i]);
        kept.records[i] = gpu;
    }
}

} // namespace

struct Session::State {
    std::mutex updating; // one refresh, rescan or close at a time
    bool closed = false;
    std::vector<Kept> kept; // in the order given; released in reverse
    std::bitset<4> enumerationStatus;
    // When every source is refreshed in place, a refresh folds the new readings into the
    // records merged at enumeration instead of merging everything again: the
    // readings' merge rules keep the larger or smaller value, in any order. Those
    // sources are all the library's own, so every record is a GPU.
    bool keptOnly = false;
    Records enumerated;       // merged at the last enumeration
    std::vector<GPU> unread;  // per merged GPU: the readings of its records that are not read again
    std::vector<GPU> folded;  // per merged GPU: the readings of the last refresh

    mutable std::mutex reading; // guards the snapshot below
    Records gpus;
    std::bitset<4> status;
    std::vector<Source> sources;
    std::chrono::nanoseconds duration{0};

    Records all() const
    {
        Records records;
        for (const Kept& source : kept)
            records.insert(records.end(), source.records.begin(), source.records.end());
        return records;
    }

    // Where each record of the sources went among the merged GPUs, and what the
    // records that are not read again say of the readings.
    void placeRecords()
    {
        unread.clear();
        folded.clear();
        for (const auto& gpu : enumerated) {
            unread.emplace_back(*gpu->pciLocation());
            folded.emplace_back(*gpu->pciLocation());
        }
        for (Kept& source : kept) {
            source.merged.clear();
            for (std::size_t i = 0; i < source.records.size(); ++i) {
                const auto& record = static_cast<const GPU&>(*source.records[i]);
                const auto same = std::find_if(enumerated.begin(), enumerated.end(),
                                               [&record](const auto& gpu) { return gpu->isSameGPU(record); });
                const auto place = static_cast<std::size_t>(same - enumerated.begin());
                source.merged.push_back(place);
                const bool read = source.live && source.live->gpus[i].read;
                if (!read && place < unread.size())
                    session::foldReadings(unread[place], record);
            }
        }
    }

    // The merged records of the enumeration with the readings just read. A GPU
    // whose readings did not change keeps the record readers already have.
    Records foldReadings()
    {
        for (std::size_t j = 0; j < enumerated.size(); ++j)
            session::takeReadings(folded[j], unread[j]);
        for (const Kept& source : kept)
            for (std::size_t i = 0; source.live && i < source.live->gpus.size(); ++i)
                if (source.live->gpus[i].read && source.merged[i] < folded.size())
                    session::foldReadings(folded[source.merged[i]], source.readings[i]);
        Records merged;
        merged.reserve(enumerated.size());
        for (std::size_t j = 0; j < enumerated.size(); ++j) {
            if (j < gpus.size() && session::sameReadings(static_cast<const GPU&>(*gpus[j]), folded[j])) {
                merged.push_back(gpus[j]);
                continue;
            }
            auto gpu = std::make_shared<GPU>(static_cast<const GPU&>(*enumerated[j]));
            session::takeReadings(*gpu, folded[j]);
            merged.push_back(std::move(gpu));
        }
        return merged;
    }

    // Makes 'merged' the snapshot readers see.
    void publish(Records merged, std::chrono::steady_clock::time_point start, std::bitset<4> lastStatus)
    {
        std::vector<Source> states;
        states.reserve(kept.size());
        for (const Kept& source : kept)
            states.push_back({source.name(), source.up});
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
        if (!state_->keptOnly && kept.live)
            renewRecords(kept);
        else if (!kept.refreshedInPlace())
            kept.records = kept.query(status); // no handles to read through: the source runs again
    }
    state_->publish(state_->keptOnly ? state_->foldReadings() : mergeGPUs(state_->all()), start, status);
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
    state_->enumerated = mergeGPUs(state_->all());
    const auto& kept = state_->kept;
    state_->keptOnly = std::all_of(kept.begin(), kept.end(), [](const Kept& source) { return source.refreshedInPlace(); });
    if (state_->keptOnly)
        state_->placeRecords();
    state_->publish(state_->enumerated, start, status);
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
