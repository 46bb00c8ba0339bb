#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "tova/DynamicLibrary.h"

namespace kestrel::test {

// The simulated vendor modules a test runs against, chosen by their folder under
// the build's bin/sim ("sim_nvml", "sim_adl_without_x2"). Each is loaded by its
// path while the object lives, so the library's own load by name (soname on
// Linux, module name on Windows) finds it; a vendor without a module here is
// absent. NVML on Windows is found through ProgramW6432, which is pointed at its
// folder meanwhile (and elsewhere when the test has no NVML).
class SimulatedModules {
public:
    explicit SimulatedModules(std::initializer_list<std::string> folders);
    ~SimulatedModules();
    SimulatedModules(const SimulatedModules&) = delete;
    SimulatedModules& operator=(const SimulatedModules&) = delete;

    // The full path of a module folder under bin/sim.
    static std::string folder(const std::string& name);

private:
    std::vector<tova::DynamicLibrary> modules_;
    std::string programFiles_;
};

} // namespace kestrel::test
