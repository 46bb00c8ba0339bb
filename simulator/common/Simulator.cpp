#include "common/Simulator.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "state/SimulatorState.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/stat.h>
#endif

namespace sim {
namespace {

// The module's lock (see Guard), which the thread that holds it may take again.
struct ModuleLock {
    std::mutex mutex;
    std::atomic<std::thread::id> owner{std::thread::id()};
    unsigned depth = 0; // how often the owner holds it

    bool held() const { return owner.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

    // Waits for the lock and holds it 'times' over.
    void take(unsigned times)
    {
        mutex.lock();
        owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
        depth = times;
    }

    // Lets go of it however often it is held; returns how often that was.
    unsigned letGo()
    {
        const unsigned times = depth;
        depth = 0;
        owner.store(std::thread::id(), std::memory_order_relaxed);
        mutex.unlock();
        return times;
    }
};

ModuleLock moduleLock;

// Read and written under the module's lock.
// What tells one version of a file from another without reading it: its
// identity (replaced by a rename, it is another file), size and time.
struct FileStamp {
    std::uint64_t identity = 0;
    std::uintmax_t size = 0;
    std::int64_t modified = 0; // in the clock's own units

    bool operator==(const FileStamp& other) const
    {
        return identity == other.identity && size == other.size && modified == other.modified;
    }
    bool operator!=(const FileStamp& other) const { return !(*this == other); }
};

std::optional<FileStamp> stampOf(const std::string& path)
{
#if defined(_WIN32)
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(std::filesystem::u8path(path).wstring().c_str(), GetFileExInfoStandard, &data))
        return std::nullopt;
    return FileStamp{0, (static_cast<std::uintmax_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow,
                     static_cast<std::int64_t>((static_cast<std::uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                                               data.ftLastWriteTime.dwLowDateTime)};
#else
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return std::nullopt;
    return FileStamp{static_cast<std::uint64_t>(status.st_ino) ^ (static_cast<std::uint64_t>(status.st_dev) << 32),
                     static_cast<std::uintmax_t>(status.st_size),
                     static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec};
#endif
}

struct ModuleState {
    nlohmann::json scenario = nlohmann::json::object();
    std::map<std::string, std::int64_t> calls;
    unsigned long generation = 0; // of the scenario last read
    // Where that scenario came from when no text was set: the file's path (empty:
    // none named) and what it held (none: it could not be read).
    bool fromFile = false;
    std::string path;
    std::optional<std::string> contents;
    std::optional<FileStamp> stamp; // of the file when it was read
    bool readThisCall = false; // since the outermost Guard of this call was taken
};

ModuleState& module()
{
    static ModuleState state;
    return state;
}

// An exported function that forgot its Guard would race with other threads'
// calls; the journal says so, and the tests fail on it.
void checkGuarded(const char* what)
{
    if (!moduleLock.held())
        record(std::string("simulator error: ") + what + " ran without " + moduleName() + "'s lock");
}

// Records a scenario that cannot be used, on standard error too, and gives the
// empty machine in its place.
nlohmann::json rejected(const std::string& origin, const std::string& reason)
{
    const std::string event = std::string("scenario error (") + moduleName() + "): " + origin + ": " + reason;
    kestrelSimRecord(event.c_str());
    std::fprintf(stderr, "%s\n", event.c_str());
    return nlohmann::json::object();
}

nlohmann::json parse(const std::string& text, const std::string& origin)
{
    if (const char* problem = kestrelSimCheckScenario(text.c_str()))
        return rejected(origin, problem);
    return nlohmann::json::parse(text);
}

std::string scenarioPath()
{
    const char* path = std::getenv("KESTREL_SIM_SCENARIO");
    return path ? path : "";
}

std::optional<std::string> readFile(const std::string& path)
{
    std::ifstream file(path);
    if (!file)
        return std::nullopt;
    std::stringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

// The scenario in force, and in 'state' the setting or file it came from.
nlohmann::json loadScenario(ModuleState& state)
{
    const char* text = kestrelSimScenario(&state.generation);
    state.fromFile = !text;
    if (text)
        return parse(text, "scenario text");
    state.path = scenarioPath();
    state.stamp = state.path.empty() ? std::nullopt : stampOf(state.path);
    state.contents = state.path.empty() ? std::nullopt : readFile(state.path);
    if (state.path.empty())
        return nlohmann::json::object();
    if (!state.contents)
        return rejected(state.path, "cannot read the file");
    return parse(*state.contents, state.path);
}

bool matches(const nlohmann::json& fault, const char* key, std::int64_t value)
{
    const auto selector = fault.find(key);
    return selector == fault.end() || (selector->is_number_integer() && selector->get<std::int64_t>() == value);
}

// "fromCall": n selects call n and every later one: a driver that works for a
// while, then fails until it is restarted.
bool reached(const nlohmann::json& fault, std::int64_t call)
{
    const auto selector = fault.find("fromCall");
    return selector == fault.end() || (selector->is_number_integer() && call >= selector->get<std::int64_t>());
}

// The faults a driver shows by how it behaves rather than by what it returns:
// late ("delayMs"), never ("hang"), or dying of a memory fault ("crash").
void misbehave(const nlohmann::json& spec)
{
    if (const auto delay = spec.find("delayMs"); delay != spec.end() && delay->is_number_integer())
        std::this_thread::sleep_for(std::chrono::milliseconds(delay->get<std::int64_t>()));
    if (const auto hang = spec.find("hang"); hang != spec.end() && hang->is_boolean() && hang->get<bool>()) {
        record(std::string(moduleName()) + " hangs");
        for (;;)
            std::this_thread::sleep_for(std::chrono::hours(1));
    }
    if (const auto crash = spec.find("crash"); crash != spec.end() && crash->is_boolean() && crash->get<bool>()) {
        volatile int* const nowhere = nullptr;
        *nowhere = 0; // as a driver dies: an access violation, a SIGSEGV
    }
}

Fault toFault(const nlohmann::json& spec)
{
    Fault fault;
    fault.spec = spec;
    if (const auto code = spec.find("return"); code != spec.end() && code->is_number_integer())
        fault.returnCode = code->get<std::int64_t>();
    if (const auto null = spec.find("null"); null != spec.end() && null->is_boolean())
        fault.null = null->get<bool>();
    if (const auto count = spec.find("count"); count != spec.end() && count->is_number_integer())
        fault.count = count->get<std::int64_t>();
    return fault;
}

// Records the module's load and unload in the journal.
struct Lifetime {
    Lifetime() { kestrelSimRecord((std::string("load ") + moduleName()).c_str()); }
    ~Lifetime() { kestrelSimRecord((std::string("unload ") + moduleName()).c_str()); }
} lifetime;

} // namespace

Guard::Guard()
{
    kestrelSimCallDepth(1);
    if (moduleLock.held()) {
        ++moduleLock.depth;
        return;
    }
    moduleLock.take(1);
    module().readThisCall = false;
    followScenario();
}

Guard::~Guard()
{
    if (moduleLock.depth > 1)
        --moduleLock.depth;
    else
        moduleLock.letGo();
    kestrelSimCallDepth(-1);
}

Unguarded::Unguarded() : depth_(moduleLock.held() ? moduleLock.letGo() : 0), calls_(kestrelSimCallDepth(0))
{
    kestrelSimCallDepth(-calls_);
}

Unguarded::~Unguarded()
{
    kestrelSimCallDepth(calls_);
    if (depth_ > 0)
        moduleLock.take(depth_);
}

const nlohmann::json& scenario() { return module().scenario; }

void reload()
{
    checkGuarded("a scenario reload");
    ModuleState& state = module();
    if (state.readThisCall)
        return;
    state.readThisCall = true;
    state.scenario = loadScenario(state);
    state.calls.clear();
}

void initLatency(const char* section)
{
    const nlohmann::json& machine = scenario();
    const auto found = machine.find(section);
    if (found == machine.end() || !found->is_object())
        return;
    const auto latency = found->find("initLatencyMs");
    if (latency != found->end() && latency->is_number_integer() && latency->get<std::int64_t>() > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(latency->get<std::int64_t>()));
}

bool scenarioChanged()
{
    const ModuleState& state = module();
    if (state.generation != kestrelSimScenarioGeneration())
        return true;
    if (!state.fromFile)
        return false;
    // Looked at, not read, at every call: a file renamed over it, or written
    // again at another size or time, is read anew.
    const std::string path = scenarioPath();
    return path != state.path || (!path.empty() && stampOf(path) != state.stamp);
}

std::optional<Fault> enter(const char* entry, std::int64_t device)
{
    record(entry);
    checkGuarded(entry);
    // Faults are checked against the modules' schemas; an entry missing there
    // could never be given one.
    if (!kestrelSimKnowsEntry(entry))
        record(std::string("simulator error: ") + entry + " is missing from " + moduleName() + "'s scenario schema");
    ModuleState& state = module();
    const std::int64_t call = state.calls[entry]++;
    const auto faults = state.scenario.find("faults");
    if (faults == state.scenario.end() || !faults->is_object())
        return std::nullopt;
    const auto found = faults->find(entry);
    if (found == faults->end())
        return std::nullopt;
    // One fault object, or a list of them tried in order.
    const nlohmann::json candidates = found->is_array() ? *found : nlohmann::json::array({*found});
    for (const auto& candidate : candidates)
        if (candidate.is_object() && matches(candidate, "call", call) && reached(candidate, call) &&
            matches(candidate, "device", device)) {
            Fault fault = toFault(candidate);
            misbehave(fault.spec);
            return fault;
        }
    return std::nullopt;
}

void record(const std::string& event) { kestrelSimRecord(event.c_str()); }

std::string text(const nlohmann::json& object, const char* key, const std::string& fallback)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : fallback;
}

} // namespace sim

// Lets a program holding a module check a scenario before using it: null when
// the modules understand it, else the reason.
SIM_EXPORT const char* kestrelSimulatorCheckScenario(const char* json)
{
    const sim::Guard guard;
    return kestrelSimCheckScenario(json);
}

// Lets a program holding a module write the scenario's sysfs tree (see
// kestrelSimWriteSysfs), for the Linux sysfs source to read.
SIM_EXPORT int kestrelSimulatorWriteSysfs(const char* scenario, const char* folder)
{
    const sim::Guard guard;
    return kestrelSimWriteSysfs(scenario, folder);
}

// Lets a host or a test choose the scenario through any simulated module it holds.
// Every module, this one included, takes it in at its next call.
SIM_EXPORT void kestrelSimulatorSetScenario(const char* json)
{
    const sim::Guard guard;
    kestrelSimSetScenario(json);
}
