#include "libKestrel/Session.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <utility>

#include "libKestrel/internal/Kestrel.h"
#include "libKestrel/internal/LiveSource.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/SourceTable.h"

// Every update is made aside and swapped in whole: a rescan builds new sources
// while the old ones still hold their vendors (so a vendor's second load and
// initialisation only count), and a refresh reads into each source's spare
// readings. An exception on the way (no memory, a host's source that throws)
// leaves the sources, the readings and the snapshot as they were.

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;
using Records = std::vector<std::shared_ptr<IGPU>>;

logging::LogSite site("libKestrel.Session", "libKestrel/src/session/Session.cpp");

// What a refresh writes of one source.
struct Readings {
    // Per live GPU: the readings last read (only those properties are set, on a
    // record at the GPU's location), and whether it was reported as no longer
    // answering.
    std::vector<GPU> values;
    std::vector<char> silent;
    Records records; // the source's records, with those readings
    bool up = false;
};

// One source as the session keeps it between refreshes.
struct Kept {
    GPUQuerier query = nullptr;
    const OwnSource* own = nullptr;  // null for a host's own source
    std::optional<LiveSource> live;  // for a source read through handles
    std::vector<std::size_t> merged; // per record: its place among the merged GPUs
    bool enumerated = false;         // its last enumeration worked
    Readings now;                    // of the last enumeration or refresh
    Readings next;                   // where a refresh reads to, swapped with 'now' when it is done

    const char* name() const { return own ? own->name : "host"; }
    // A source whose records a refresh does not replace: read through handles,
    // or with nothing that changes.
    bool refreshedInPlace() const { return live || (own && !own->readingsChange); }
    // Whether a refresh reads it again: through handles, or by running it again.
    bool refreshed() const { return live || !refreshedInPlace(); }
    std::size_t readers() const { return live ? live->gpus.size() : 0; }
};

Kept enumerate(GPUQuerier query, const OwnSource* own, std::bitset<4>& status)
{
    Kept kept;
    kept.query = query;
    kept.own = own;
    if (own && own->live) {
        kept.live = own->live(status);
        for (const LiveGPU& gpu : kept.live->gpus) {
            kept.now.records.push_back(gpu.record);
            kept.now.values.emplace_back(*gpu.record->pciLocation());
        }
        kept.now.silent.assign(kept.live->gpus.size(), 0);
        kept.next = kept.now;
    } else {
        kept.now.records = query(status);
    }
    kept.enumerated = (kept.live && kept.live->vendor) || !kept.now.records.empty();
    kept.now.up = kept.enumerated;
    return kept;
}

// Reads each GPU's changing properties again into the source's spare readings.
// A GPU that no longer answers is marked silent; its readings stay absent until
// it answers again.
void readAgain(Kept& kept)
{
    const LiveSource& live = *kept.live;
    Readings& next = kept.next;
    for (GPU& values : next.values)
        clearReadings(values);
    next.silent = kept.now.silent;
    const bool reached = live.around && live.around([&] {
        for (std::size_t i = 0; i < live.gpus.size(); ++i) {
            if (!live.gpus[i].read)
                continue;
            // Its vendor said why when it stopped answering; not again at every refresh.
            std::optional<logging::QuietScope> quiet;
            if (kept.now.silent[i])
                quiet.emplace();
            live.gpus[i].read(next.values[i]);
        }
    });
    std::size_t readers = 0;
    std::size_t silent = 0;
    for (std::size_t i = 0; i < live.gpus.size(); ++i) {
        if (!live.gpus[i].read)
            continue;
        ++readers;
        const bool answered = reached && hasReadings(next.values[i]);
        if (!answered && hasReadings(*live.gpus[i].record))
            next.silent[i] = 1;
        else if (answered)
            next.silent[i] = 0;
        silent += next.silent[i] ? 1 : 0;
    }
    next.up = kept.enumerated && reached && (readers == 0 || silent < readers);
}

// The source's records, copied with the readings just read.
void renewRecords(Kept& kept)
{
    kept.next.records = kept.now.records;
    for (std::size_t i = 0; i < kept.readers(); ++i) {
        if (!kept.live->gpus[i].read)
            continue;
        auto gpu = std::make_shared<GPU>(*kept.live->gpus[i].record);
        takeReadings(*gpu, kept.next.values[i]);
        kept.next.records[i] = std::move(gpu);
    }
}

// Says which GPUs stopped or started answering at the refresh just committed:
// 'before' is what the source's readings were.
void sayChanges(const Kept& kept, const Readings& before)
{
    for (std::size_t i = 0; i < kept.now.silent.size(); ++i) {
        if (kept.now.silent[i] == before.silent[i])
            continue;
        const pci::PciLocation location = *kept.live->gpus[i].record->pciLocation();
        if (kept.now.silent[i])
            log(site, Priority::WARNING, "41 ", "GPU no longer answers, its readings are left out: ", location, " (",
                kept.name(), ")");
        else
            log(site, Priority::INFO, "48 ", "GPU answers again: ", location, " (", kept.name(), ")");
    }
}

// Every source's records as a refresh left them, or as enumerated for a source
// a refresh does not read.
Records recordsOf(const std::vector<Kept>& kept)
{
    Records records;
    for (const Kept& source : kept) {
        const Records& own = source.refreshed() ? source.next.records : source.now.records;
        records.insert(records.end(), own.begin(), own.end());
    }
    return records;
}

// Everything a rescan replaces: the sources as enumerated and what the
// enumeration merged of them.
struct Enumeration {
    std::vector<Kept> kept; // in the order given; released in reverse
    std::bitset<4> status;
    // When every source is refreshed in place, a refresh folds the new readings
    // into the records merged at enumeration instead of merging everything
    // again: the readings' merge rules keep the larger or smaller value, in any
    // order. Those sources are all the library's own, so every record is a GPU.
    bool keptOnly = false;
    Records merged;
    std::vector<GPU> unread; // per merged GPU: the readings of its records that are not read again
    std::vector<GPU> folded; // per merged GPU: where a refresh folds its readings

    // Where each record of the sources went among the merged GPUs, and what the
    // records that are not read again say of the readings.
    void placeRecords()
    {
        for (const auto& gpu : merged)
            unread.emplace_back(*gpu->pciLocation());
        folded = unread;
        for (Kept& source : kept) {
            for (std::size_t i = 0; i < source.now.records.size(); ++i) {
                const auto& record = static_cast<const GPU&>(*source.now.records[i]);
                const auto same = std::find_if(merged.begin(), merged.end(),
                                               [&record](const auto& gpu) { return gpu->isSameGPU(record); });
                const auto place = static_cast<std::size_t>(same - merged.begin());
                source.merged.push_back(place);
                const bool read = i < source.readers() && source.live->gpus[i].read;
                if (!read && place < unread.size())
                    foldReadings(unread[place], record);
            }
        }
    }

    // The merged records of the enumeration with the readings just read into the
    // sources' spare readings. A GPU whose readings did not change keeps the
    // record readers already have.
    Records fold(const Records& current)
    {
        for (std::size_t j = 0; j < merged.size(); ++j)
            takeReadings(folded[j], unread[j]);
        for (const Kept& source : kept)
            for (std::size_t i = 0; i < source.readers(); ++i)
                if (source.live->gpus[i].read && source.merged[i] < folded.size())
                    foldReadings(folded[source.merged[i]], source.next.values[i]);
        Records result;
        result.reserve(merged.size());
        for (std::size_t j = 0; j < merged.size(); ++j) {
            if (j < current.size() && sameReadings(static_cast<const GPU&>(*current[j]), folded[j])) {
                result.push_back(current[j]);
                continue;
            }
            auto gpu = std::make_shared<GPU>(static_cast<const GPU&>(*merged[j]));
            takeReadings(*gpu, folded[j]);
            result.push_back(std::move(gpu));
        }
        return result;
    }
};

} // namespace

struct Session::State {
    std::mutex updating; // one refresh, rescan or close at a time
    bool closed = false;
    std::vector<std::pair<GPUQuerier, const OwnSource*>> given; // the sources, in the order given
    Enumeration enumeration;

    mutable std::mutex reading; // guards the snapshot below
    Records gpus;
    std::bitset<4> status;
    std::vector<Source> sources;
    std::chrono::nanoseconds duration{0};

    // Makes 'merged' the snapshot readers see, with how the sources stand.
    void publish(Records merged, std::vector<Source> states, std::chrono::steady_clock::time_point start,
                 std::bitset<4> lastStatus)
    {
        const auto took = std::chrono::steady_clock::now() - start;
        std::lock_guard<std::mutex> lock(reading);
        gpus.swap(merged);
        status = lastStatus;
        sources.swap(states);
        duration = std::chrono::duration_cast<std::chrono::nanoseconds>(took);
    }
};

Session::Session(const std::vector<GPUQuerier>& sources) : state_(std::make_unique<State>())
{
    for (GPUQuerier querier : sources)
        if (querier)
            state_->given.emplace_back(querier, findOwnSource(querier));
    rescan();
}

Session::~Session() { close(); }

void Session::refresh()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    if (state_->closed)
        return;
    const auto start = std::chrono::steady_clock::now();
    Enumeration& enumeration = state_->enumeration;
    std::bitset<4> status = enumeration.status;
    std::vector<Source> states;
    for (Kept& kept : enumeration.kept) {
        if (kept.live) {
            readAgain(kept);
            if (!enumeration.keptOnly)
                renewRecords(kept);
        } else if (kept.refreshed()) {
            // No handles to read through: the source runs again.
            kept.next.records = kept.query(status);
            kept.next.up = kept.enumerated;
        }
        states.push_back({kept.name(), kept.refreshed() ? kept.next.up : kept.now.up});
    }
    Records merged = enumeration.keptOnly ? enumeration.fold(state_->gpus) : mergeGPUs(recordsOf(enumeration.kept));
    // Everything is read: from here nothing can fail.
    for (Kept& kept : enumeration.kept)
        if (kept.refreshed())
            std::swap(kept.now, kept.next);
    state_->publish(std::move(merged), std::move(states), start, status);
    for (const Kept& kept : enumeration.kept)
        if (kept.live)
            sayChanges(kept, kept.next);
}

void Session::rescan()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    if (state_->closed)
        return;
    const auto start = std::chrono::steady_clock::now();
    Enumeration fresh;
    // Each source enumerates while its earlier enumeration still holds the
    // vendor open: the loads and initialisations nest, and cost next to nothing.
    std::vector<Source> states;
    for (const auto& [query, own] : state_->given) {
        fresh.kept.push_back(enumerate(query, own, fresh.status));
        states.push_back({fresh.kept.back().name(), fresh.kept.back().now.up});
    }
    Records all;
    for (const Kept& source : fresh.kept)
        all.insert(all.end(), source.now.records.begin(), source.now.records.end());
    fresh.merged = mergeGPUs(all);
    fresh.keptOnly = std::all_of(fresh.kept.begin(), fresh.kept.end(),
                                 [](const Kept& source) { return source.refreshedInPlace(); });
    if (fresh.keptOnly)
        fresh.placeRecords();
    Records merged = fresh.merged;
    // Everything is enumerated: from here nothing can fail.
    std::swap(state_->enumeration, fresh);
    state_->publish(std::move(merged), std::move(states), start, state_->enumeration.status);
    // 'fresh' now holds the earlier enumeration: its sources let go of their
    // vendors here, last given first.
    while (!fresh.kept.empty())
        fresh.kept.pop_back();
}

void Session::close()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    state_->closed = true;
    // The last opened is released first; a source's readers go before what
    // keeps its vendor open, which they share.
    std::vector<Kept>& kept = state_->enumeration.kept;
    while (!kept.empty())
        kept.pop_back();
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
