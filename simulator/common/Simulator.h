#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

// What every simulated module shares: the scenario, fault injection and the
// journal.
#if defined(_WIN32)
#define SIM_EXPORT extern "C" __declspec(dllexport)
#else
#define SIM_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace sim {

// A module answers one call at a time, as a driver with an internal lock does:
// a Guard taken at the top of every exported function (each vendor entry and
// the simulator's own controls) holds the module's lock until the function
// returns, so no call sees the module's state, the scenario it read or what it
// handed out change under it. A thread that holds the lock may take it again,
// so an entry can call another of its module. A fault that delays or hangs a
// call keeps the lock meanwhile: a hung driver blocks its other callers too.
// Taking the lock, a Guard has the module follow a new scenario first
// (followScenario), so every call answers from the scenario then in force.
class Guard {
public:
    Guard();
    ~Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
};

// Lets go of the calling thread's hold on the module's lock while it lives, and
// takes it back as it was.
class Unguarded {
public:
    Unguarded();
    ~Unguarded();
    Unguarded(const Unguarded&) = delete;
    Unguarded& operator=(const Unguarded&) = delete;

private:
    unsigned depth_;
    int calls_; // the thread's depth in simulated calls, back in its own code meanwhile
};

// Calls back into the module's caller (GLFW's error callback, ADL's memory
// callback) without the module's lock: a callback may take the caller's own
// locks, or call the module again, without waiting on a call of another thread
// that is waiting for those locks. What the call needs afterwards it must hold
// in its own copy, since other calls may change the module meanwhile.
template <class Callback, class... Arguments>
auto callBack(Callback callback, Arguments... arguments)
{
    const Unguarded unguarded;
    return callback(arguments...);
}

// The module's short name ("glfw", "nvml"), for the journal.
const char* moduleName();

// The machine the module pretends to see. Empty (no GPUs, no monitors) until
// reload() finds a scenario. Valid while the call's Guard lives.
const nlohmann::json& scenario();

// Reads the scenario again: the text set through kestrelSimSetScenario, else the
// file named by KESTREL_SIM_SCENARIO, else an empty machine. Modules call it when
// their vendor's library is initialised. Restarts the per-entry call counts. A
// call reads it once: one whose Guard already read a new scenario keeps that.
void reload();

// Defined by each module: takes in a new scenario (scenarioChanged()) as the
// vendor's running library would show it, or leaves it for the vendor's next
// initialisation while it is not initialised. The Guard calls it as each call
// of the module begins.
void followScenario();

// Waits as long as the scenario's "<section>": {"initLatencyMs": n} says: a real
// driver takes that long to start, which a program that keeps it open pays once.
void initLatency(const char* section);

// True when a scenario was set since this module last reloaded, or when the
// scenario came from the KESTREL_SIM_SCENARIO file and the variable now names
// another file or the file holds another text: a module whose vendor stays
// initialised reloads then, so that a host or test can change the machine under
// it, and a child process following the file sees what a fresh one would.
bool scenarioChanged();

// A fault the scenario injects into one call.
struct Fault {
    std::optional<std::int64_t> returnCode; // "return": the status to return instead
    bool null = false;                      // "null": give no result (a null pointer, nothing written)
    std::optional<std::int64_t> count;      // "count": the count to report instead of the true one
    nlohmann::json spec;                    // the whole fault, for module-specific fields
};

// Records a call of 'entry' in the journal and returns the fault that the
// scenario's "faults" injects into it, if any. 'device' is the index of the
// device the call is about (-1: none) and is matched against a fault's "device";
// the call's place among the entry's calls since the scenario was read, against
// its "call" (that call) and "fromCall" (that call and every later one).
std::optional<Fault> enter(const char* entry, std::int64_t device = -1);

// Appends an event to the journal.
void record(const std::string& event);

// A string field of a JSON object, or 'fallback'.
std::string text(const nlohmann::json& object, const char* key, const std::string& fallback = "");

} // namespace sim
