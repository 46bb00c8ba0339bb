#pragma once

// State shared by every simulated vendor module of a process and by the tests:
// the scenario text in force and a journal of what the modules were asked.
// It lives in a library of its own that the tests link, so it outlives the
// modules, which the library under test loads and unloads as it likes.
#if defined(_WIN32)
#  if defined(SIM_STATE_BUILDING)
#    define SIM_STATE_API extern "C" __declspec(dllexport)
#  else
#    define SIM_STATE_API extern "C" __declspec(dllimport)
#  endif
#else
#  define SIM_STATE_API extern "C" __attribute__((visibility("default")))
#endif

// Sets the scenario, as JSON text, that modules read when they next initialise;
// null goes back to the file named by KESTREL_SIM_SCENARIO. Clears the journal.
SIM_STATE_API void kestrelSimSetScenario(const char* json);

// How many times a scenario was set: a module that stays initialised compares it
// to see a new machine.
SIM_STATE_API unsigned long kestrelSimScenarioGeneration();
// The scenario text set above, or null when none is set, and in 'generation'
// (unless null) the count of settings it belongs to, read together. Valid until
// the next call on this thread.
SIM_STATE_API const char* kestrelSimScenario(unsigned long* generation);

// Adds 'change' to how deep the calling thread is in simulated vendor calls and
// returns the new depth (0: it runs its own code, or a callback a module made
// into it). A test that makes the heap fail fails only the host's allocations:
// a driver, written in C, reports an exhausted heap through its return codes.
SIM_STATE_API int kestrelSimCallDepth(int change);

// Appends one event ("glfwInit", "load glfw", ...) to the journal.
SIM_STATE_API void kestrelSimRecord(const char* event);

// The journal, one event per line: the newest events since it was last cleared
// that fit in a megabyte, after a line "journal: <n> older events dropped" when
// there were more. Valid until the next call on this thread.
SIM_STATE_API const char* kestrelSimJournal();

SIM_STATE_API void kestrelSimClearJournal();

// Null when the scenario (JSON text) is one the simulated modules understand;
// else what is wrong with it and where ("gpus[0].nvml.fanspeed: unknown key"),
// valid until the next call on this thread. Every key must be one a module
// reads, every value of the kind and range of the field it fills, and every
// fault on an entry point a module has.
SIM_STATE_API const char* kestrelSimCheckScenario(const char* json);

// 1 when a simulated module has an entry point of this name, else 0.
SIM_STATE_API int kestrelSimKnowsEntry(const char* entry);

// Writes into 'folder' (emptied first) the sysfs tree of the scenario (JSON
// text): for each GPU with a "sysfs" section, its PCI device's folder under
// bus/pci/devices with the identity files, the driver link, the section's files
// and its hwmon folder. 1 when written, 0 for a scenario the modules would
// refuse or a folder that cannot be written.
SIM_STATE_API int kestrelSimWriteSysfs(const char* scenario, const char* folder);
