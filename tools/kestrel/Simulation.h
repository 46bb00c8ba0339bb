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
    // Loads the simulated modules. 'error' says what failed when the simulator
    // is not where the program expects it.
    explicit Simulation(std::string& error);

    // Reads the scenario at 'path', has the modules check it and hands it to
    // them; a one-line reason when it cannot be read or is not one they
    // understand (a key or fault they do not know, a value of the wrong kind).
    std::optional<std::string> use(const std::string& path);

private:
    std::vector<tova::DynamicLibrary> modules_;
};

} // namespace kestrel
