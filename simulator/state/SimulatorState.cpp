#include "state/SimulatorState.h"

#include <mutex>
#include <optional>
#include <string>

#include "state/Journal.h"

namespace {

struct State {
    std::mutex mutex;
    std::optional<std::string> scenario;
    sim::Journal journal;
    unsigned long generation = 0;
};

State& state()
{
    // Built by the first module to record (its load), so destroyed only after that
    // module's own static destructors have recorded its unload.
    static State instance;
    return instance;
}

} // namespace

void kestrelSimSetScenario(const char* json)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.scenario = json ? std::optional<std::string>(json) : std::nullopt;
    s.journal.clear();
    ++s.generation;
}

unsigned long kestrelSimScenarioGeneration()
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.generation;
}

// A copy: another thread may set a scenario while a module parses this one.
const char* kestrelSimScenario(unsigned long* generation)
{
    static thread_local std::optional<std::string> copy;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    copy = s.scenario;
    if (generation)
        *generation = s.generation;
    return copy ? copy->c_str() : nullptr;
}

int kestrelSimCallDepth(int change)
{
    static thread_local int depth = 0;
    return depth += change;
}

void kestrelSimRecord(const char* event)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.journal.add(event ? event : "");
}

const char* kestrelSimJournal()
{
    static thread_local std::string copy;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    copy = s.journal.text();
    return copy.c_str();
}

void kestrelSimClearJournal()
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.journal.clear();
}
