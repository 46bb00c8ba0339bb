#pragma once

#include <optional>
#include <string>
#include <vector>

#include <tova/DynamicLibrary.h>

namespace kestrel {

// Runs the program against the vendor simulator: the simulated modules built
// beside the program are loaded before the library asks for its vendors, so the
// library's own loads of "libnvidia-ml.so.1", "atiadlxx.dll" and the like find
// them, and all of them are given the scenario.
class Simulation {
public:
    // Reads and checks the scenario; a one-line reason when it is unusable.
    static std::optional<std::string> check(const std::string& path, std::string& scenario);

    // Loads the simulated modules and hands them the scenario text. 'error' says
    // what failed when the simulator is not where the program expects it.
    Simulation(const std::string& scenario, std::string& error);

private:
    std::vector<tova::DynamicLibrary> modules_;
};

} // namespace kestrel
