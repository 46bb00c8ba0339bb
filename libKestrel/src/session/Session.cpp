#include "libKestrel/Session.h"

#include <mutex>

#include "libKestrel/internal/Kestrel.h"
#include "libKestrel/internal/SourceTable.h"
#include "libKestrel/internal/session/VendorHold.h"

namespace libKestrel {

struct Session::State {
    std::vector<GPUQuerier> queriers;
    std::mutex updating; // one refresh, rescan or close at a time
    bool closed = false;
    // The vendors kept open, in the order of the sources; released in reverse.
    std::vector<std::unique_ptr<session::VendorHold>> holds;

    mutable std::mutex reading; // guards the snapshot below
    std::vector<std::shared_ptr<IGPU>> gpus;
    std::bitset<4> status;
    std::vector<Source> sources;
    std::chrono::nanoseconds duration{0};
};

Session::Session(const std::vector<GPUQuerier>& sources) : state_(std::make_unique<State>())
{
    state_->queriers = sources;
    for (GPUQuerier querier : sources) {
        const OwnSource* own = querier ? findOwnSource(querier) : nullptr;
        state_->holds.push_back(std::make_unique<session::VendorHold>(own ? own->name : ""));
    }
    rescan();
}

Session::~Session() { close(); }

void Session::refresh() { rescan(); }

void Session::rescan()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    if (state_->closed)
        return;
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::shared_ptr<IGPU>> all;
    std::vector<Source> sources;
    std::bitset<4> status;
    // Each source runs inside its vendor's hold: loading and initialising nest,
    // and cost next to nothing.
    for (std::size_t i = 0; i < state_->queriers.size(); ++i) {
        const GPUQuerier querier = state_->queriers[i];
        if (!querier)
            continue;
        const auto records = querier(status);
        const OwnSource* own = findOwnSource(querier);
        sources.push_back({own ? own->name : "host", state_->holds[i]->holds() || !records.empty()});
        all.insert(all.end(), records.begin(), records.end());
    }
    auto merged = mergeGPUs(all);
    const auto duration = std::chrono::steady_clock::now() - start;

    std::lock_guard<std::mutex> reading(state_->reading);
    state_->gpus = std::move(merged);
    state_->status = status;
    state_->sources = std::move(sources);
    state_->duration = std::chrono::duration_cast<std::chrono::nanoseconds>(duration);
}

void Session::close()
{
    std::lock_guard<std::mutex> updating(state_->updating);
    state_->closed = true;
    while (!state_->holds.empty())
        state_->holds.pop_back(); // the last opened is released first
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
