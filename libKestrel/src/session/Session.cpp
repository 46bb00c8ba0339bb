#include "libKestrel/Session.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <utility>

#include "libKestrel/internal/Kestrel.h"
#include "libKestrel/internal/LiveSource.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/SourceTable.h"
#include "libKestrel/internal/isolation/ChildProcess.h"
#include "libKestrel/internal/session/RemoteSource.h"

// Every update is made aside and swapped in whole: a rescan builds new sources
// while the old ones still hold their vendors (so a vendor's second load and
// initialisation only count), and a refresh reads into each source's spare
// readings. An exception on the way (no memory, a host's source that throws)
// leaves the sources, the readings and the snapshot as they were.
//
// An isolated session has each own source run by a helper (RemoteSource): the
// helper's enumeration gives the source's records and readers that take what
// the helper answers to each refresh, so that the records and their merging
// are those of an in-process session. The helpers are asked first, all of them,
// and their answers taken after, each by the same deadline.

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
    bool reached = true; // the vendor (or the source's helper) answered the last read
};

// A source as given to the session.
struct Given {
    GPUQuerier query = nullptr;
    const OwnSource* own = nullptr;                 // null for a host's own source
    std::shared_ptr<session::RemoteSource> remote; // its helper, for an own source of an isolated session
};

// One source as the session keeps it between refreshes.
struct Kept {
    GPUQuerier query = nullptr;
    const OwnSource* own = nullptr;  // null for a host's own source
    std::shared_ptr<session::RemoteSource> remote;
    unsigned long generation = 0;    // which of the helper's enumerations it holds
    std::optional<LiveSource> live;  // for a source read through handles
    std::vector<std::size_t> merged; // per record: its place among the GPUs merged at enumeration
    bool enumerated = false;         // its last enumeration worked
    Readings now;                    // of the last enumeration or refresh
    Readings next;                   // where a refresh reads to, swapped with 'now' when it is done

    const char* name() const { return own ? own->name : "host"; }
    // A source whose records a refresh does not replace: read through handles,
    // or with nothing that changes, or run by a helper (never in the host's
    // process, whatever became of the helper).
    bool refreshedInPlace() const { return live || remote || (own && !own->readingsChange); }
    // Whether a refresh reads it again: through handles, or by running it again.
    bool refreshed() const { return live || !refreshedInPlace(); }
    std::size_t readers() const { return live ? live->gpus.size() : 0; }
};

// The source's records and readings as its live source enumerated them.
void takeLive(Kept& kept, LiveSource live)
{
    kept.live = std::move(live);
    for (const LiveGPU& gpu : kept.live->gpus) {
        kept.now.records.push_back(gpu.record);
        kept.now.values.emplace_back(*gpu.record->pciLocation());
    }
    kept.now.silent.assign(kept.live->gpus.size(), 0);
    kept.next = kept.now;
}

// A source enumerated, in the host's process or, through its helper, out of it;
// 'enumerated' says whether it worked.
Kept settled(Kept kept)
{
    kept.enumerated = (kept.live && kept.live->vendor) || !kept.now.records.empty();
    kept.now.up = kept.enumerated;
    return kept;
}

Kept enumerate(const Given& given, std::bitset<4>& status)
{
    Kept kept;
    kept.query = given.query;
    kept.own = given.own;
    if (given.own && given.own->live)
        takeLive(kept, given.own->live(status));
    else
        kept.now.records = given.query(status);
    return settled(std::move(kept));
}

// An own source as its helper enumerated it, or, when that failed, as it last
// did: its GPUs' readings are absent then.
Kept enumerate(const Given& given, std::optional<session::RemoteSource::Enumeration> enumerated,
               std::bitset<4>& status)
{
    Kept kept;
    kept.query = given.query;
    kept.own = given.own;
    kept.remote = given.remote;
    if (enumerated) {
        kept.generation = enumerated->generation;
        status |= enumerated->status;
        if (enumerated->live)
            takeLive(kept, std::move(*enumerated->live));
        else
            kept.now.records = std::move(enumerated->records);
    }
    kept = settled(std::move(kept));
    kept.now.reached = !given.remote->down();
    kept.now.up = kept.enumerated && kept.now.reached;
    return kept;
}

// Reads each GPU's changing properties again into the source's spare readings.
// A GPU that no longer answers is marked silent; its readings stay absent until
// it answers again. A source whose helper is down has no readings, and its
// GPUs are not said to stop answering one by one: the helper's line said it.
void readAgain(Kept& kept)
{
    const LiveSource& live = *kept.live;
    Readings& next = kept.next;
    for (GPU& values : next.values)
        clearReadings(values);
    next.silent = kept.now.silent;
    if (kept.remote && kept.remote->down()) {
        next.reached = next.up = false;
        return;
    }
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
    next.reached = reached;
    next.up = kept.enumerated && reached && (readers == 0 || silent < readers);
}

// The source's readings as an update left them: 'next' for a source a refresh
// read, else 'now'.
const Readings& readingsOf(const Kept& source, bool refreshed)
{
    return refreshed && source.refreshed() ? source.next : source.now;
}

// Per merged GPU: whether every source that reads it answered for it. 'merged'
// is the merge of every source's records (readingsOf each), in order.
std::vector<bool> answeringOf(const std::vector<Kept>& kept, const Merged& merged, bool refreshed)
{
    std::vector<bool> answering(merged.gpus.size(), true);
    std::size_t first = 0; // the source's first record among all merged
    for (const Kept& source : kept) {
        const Readings& readings = readingsOf(source, refreshed);
        for (std::size_t i = 0; i < source.readers(); ++i) {
            const std::size_t place = merged.places[first + i];
            if (source.live->gpus[i].read && (!readings.reached || readings.silent[i]) && place < answering.size())
                answering[place] = false;
        }
        first += readings.records.size();
    }
    return answering;
}

// A helper's quiet flags: '1' for each GPU whose vendor's lines are held back.
std::string quietOf(const Readings& readings)
{
    std::string quiet;
    for (const char silent : readings.silent)
        quiet += silent ? '1' : '0';
    return quiet;
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
// 'before' is what the source's readings were. A GPU is named by the location
// of the merged GPU ('gpus', as enumerated) its record is part of, with the
// domain that a record without one took.
void sayChanges(const Kept& kept, const Readings& before, const Records& gpus)
{
    for (std::size_t i = 0; i < kept.now.silent.size(); ++i) {
        if (kept.now.silent[i] == before.silent[i])
            continue;
        const std::size_t place = kept.merged[i];
        const pci::PciLocation location =
            *(place < gpus.size() ? gpus[place] : kept.live->gpus[i].record)->pciLocation();
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
        const Records& own = readingsOf(source, true).records;
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
    // again, record after record in the order of a merge, so that each rule
    // (some keep the earlier record's value) gives what the merge gives. Those
    // sources are all the library's own, so every record is a GPU.
    bool keptOnly = false;
    Merged merged; // with each record's place
    // One record's readings folded at a refresh: those a refresh reads into its
    // source's spare readings, or the record's own when it is not read again.
    struct Fold {
        std::size_t place;  // among the merged GPUs
        std::size_t source; // in 'kept'
        std::size_t index;  // among the source's records
        const GPU* unread;  // the record, when a refresh does not read it
    };
    std::vector<Fold> folds; // in the records' order
    std::vector<GPU> folded; // per merged GPU: where a refresh folds its readings

    // Where each record of the sources went among the merged GPUs.
    void placeRecords()
    {
        auto place = merged.places.begin();
        for (Kept& source : kept) {
            const auto records = static_cast<std::ptrdiff_t>(source.now.records.size());
            source.merged.assign(place, place + records);
            place += records;
        }
    }

    // What a refresh folds of each record, in the records' order. A record that
    // is not read again and has no readings has nothing to fold, nor has one
    // the merge left out.
    void planFolds()
    {
        for (const auto& gpu : merged.gpus)
            folded.emplace_back(*gpu->pciLocation());
        for (std::size_t k = 0; k < kept.size(); ++k) {
            const Kept& source = kept[k];
            for (std::size_t i = 0; i < source.now.records.size(); ++i) {
                const auto& record = static_cast<const GPU&>(*source.now.records[i]);
                const bool read = i < source.readers() && source.live->gpus[i].read;
                if (source.merged[i] < folded.size() && (read || hasReadings(record)))
                    folds.push_back({source.merged[i], k, i, read ? nullptr : &record});
            }
        }
    }

    // The merged records of the enumeration with the readings just read into the
    // sources' spare readings. A GPU whose readings did not change keeps the
    // record readers already have.
    Records fold(const Records& current)
    {
        const Records& gpus = merged.gpus;
        for (GPU& gpu : folded)
            clearReadings(gpu);
        for (const Fold& step : folds)
            foldReadings(folded[step.place], step.unread ? *step.unread : kept[step.source].next.values[step.index]);
        Records result;
        result.reserve(gpus.size());
        for (std::size_t j = 0; j < gpus.size(); ++j) {
            if (j < current.size() && sameReadings(static_cast<const GPU&>(*current[j]), folded[j])) {
                result.push_back(current[j]);
                continue;
            }
            auto gpu = std::make_shared<GPU>(static_cast<const GPU&>(*gpus[j]));
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
    SessionOptions options;
    std::vector<Given> given; // in the order given
    Enumeration enumeration;

    mutable std::mutex reading; // guards the snapshot
    Snapshot current;

    // How each of 'sources' stands after the update, from its readings ('next'
    // for those a refresh read) and its helper.
    static std::vector<Source> states(const std::vector<Kept>& sources, bool refreshed)
    {
        std::vector<Source> result;
        result.reserve(sources.size());
        for (const Kept& kept : sources) {
            const Readings& readings = readingsOf(kept, refreshed);
            result.push_back({kept.name(), readings.up, kept.remote ? kept.remote->restarts() : 0});
        }
        return result;
    }

    // Makes 'merged' the snapshot readers see, with how the sources stand.
    void publish(Records merged, std::vector<bool> answered, std::vector<Source> states,
                 std::chrono::steady_clock::time_point start, std::bitset<4> lastStatus)
    {
        const auto took = std::chrono::steady_clock::now() - start;
        const auto now = std::chrono::system_clock::now();
        std::lock_guard<std::mutex> lock(reading);
        current.gpus.swap(merged);
        current.answering.swap(answered);
        current.status = lastStatus;
        current.sources.swap(states);
        current.duration = std::chrono::duration_cast<std::chrono::nanoseconds>(took);
        current.updated = now;
    }

    void rescan()
    {
        const auto start = std::chrono::steady_clock::now();
        // The helpers enumerate side by side, while the host's own sources do.
        for (const Given& source : given)
            if (source.remote)
                source.remote->askEnumeration();
        const auto until = isolation::deadlineAfter(options.deadline);
        Enumeration fresh;
        // Each source enumerates while its earlier enumeration still holds the
        // vendor open: the loads and initialisations nest, and cost next to nothing.
        for (const Given& source : given)
            fresh.kept.push_back(source.remote ? enumerate(source, source.remote->enumeration(until), fresh.status)
                                               : enumerate(source, fresh.status));
        Records all;
        for (const Kept& source : fresh.kept)
            all.insert(all.end(), source.now.records.begin(), source.now.records.end());
        fresh.merged = mergePlaced(all);
        fresh.keptOnly = std::all_of(fresh.kept.begin(), fresh.kept.end(),
                                     [](const Kept& source) { return source.refreshedInPlace(); });
        fresh.placeRecords();
        if (fresh.keptOnly)
            fresh.planFolds();
        Records merged = fresh.merged.gpus;
        std::vector<bool> answered = answeringOf(fresh.kept, fresh.merged, false);
        std::vector<Source> now = states(fresh.kept, false);
        // Everything is enumerated: from here nothing can fail.
        std::swap(enumeration, fresh);
        publish(std::move(merged), std::move(answered), std::move(now), start, enumeration.status);
        // 'fresh' now holds the earlier enumeration: its sources let go of their
        // vendors here, last given first.
        while (!fresh.kept.empty())
            fresh.kept.pop_back();
    }

    void refresh()
    {
        // A helper due to start again, or one that enumerated since the
        // session's enumeration (a rescan that failed after): enumerate anew.
        for (const Kept& kept : enumeration.kept)
            if (kept.remote && (kept.remote->due() || kept.remote->generation() != kept.generation)) {
                rescan();
                return;
            }
        const auto start = std::chrono::steady_clock::now();
        for (const Kept& kept : enumeration.kept)
            if (kept.remote && kept.live)
                kept.remote->askReadings(quietOf(kept.now));
        const auto until = isolation::deadlineAfter(options.deadline);
        std::bitset<4> lastStatus = enumeration.status;
        for (Kept& kept : enumeration.kept) {
            if (kept.live) {
                if (kept.remote)
                    kept.remote->takeReadings(until);
                readAgain(kept);
                if (!enumeration.keptOnly)
                    renewRecords(kept);
            } else if (kept.refreshed()) {
                // No handles to read through: the source runs again.
                kept.next.records = kept.query(lastStatus);
                kept.next.up = kept.enumerated;
            }
        }
        // Only this thread writes the snapshot: it reads it without the lock.
        // Folding leaves the GPUs, and each record's place among them, as the enumeration merged them.
        Merged merged = enumeration.keptOnly ? Merged{enumeration.fold(current.gpus), enumeration.merged.places}
                                             : mergePlaced(recordsOf(enumeration.kept));
        std::vector<bool> answered = answeringOf(enumeration.kept, merged, true);
        std::vector<Source> now = states(enumeration.kept, true);
        // Everything is read: from here nothing can fail.
        for (Kept& kept : enumeration.kept)
            if (kept.refreshed())
                std::swap(kept.now, kept.next);
        publish(std::move(merged.gpus), std::move(answered), std::move(now), start, lastStatus);
        for (const Kept& kept : enumeration.kept)
            if (kept.live)
                sayChanges(kept, kept.next, enumeration.merged.gpus);
    }
};

Session::Session(const std::vector<GPUQuerier>& sources) : Session(sources, SessionOptions()) {}

Session::Session(const std::vector<GPUQuerier>& sources, const SessionOptions& options)
    : state_(std::make_unique<State>())
{
    state_->options = options;
    for (GPUQuerier querier : sources) {
        if (!querier)
            continue;
        const OwnSource* own = findOwnSource(querier);
        state_->given.push_back(
            {querier, own, own && options.isolate ? std::make_shared<session::RemoteSource>(*own, options.backOff) : nullptr});
    }
    rescan();
}

Session::~Session() { close(); }

void Session::refresh()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    if (!state_->closed)
        state_->refresh();
}

void Session::rescan()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    if (!state_->closed)
        state_->rescan();
}

void Session::close()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    state_->closed = true;
    // The last opened is released first; a source's readers go before what
    // keeps its vendor open, which they share, and its helper goes with them.
    std::vector<Kept>& kept = state_->enumeration.kept;
    while (!kept.empty())
        kept.pop_back();
    while (!state_->given.empty())
        state_->given.pop_back();
}

Session::Snapshot Session::snapshot() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->current;
}

std::vector<std::shared_ptr<IGPU>> Session::gpus() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->current.gpus;
}

std::bitset<4> Session::status() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->current.status;
}

std::vector<Session::Source> Session::sources() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->current.sources;
}

std::chrono::nanoseconds Session::lastUpdateDuration() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->current.duration;
}

std::chrono::system_clock::time_point Session::lastUpdate() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->current.updated;
}

std::vector<bool> Session::answering() const
{
    std::lock_guard<std::mutex> reading(state_->reading);
    return state_->current.answering;
}

} // namespace libKestrel
