#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <tova/DynamicLibrary.h>

namespace kestrel {

// Runs the program against the vendor simulator: the simulated modules built
// beside the program are loaded before the library asks for its vendors, so the
// library's own loads of "libnvidia-ml.so.1", "atiadlxx.dll" and the like find
// them, and all of them are given the scenario. On Linux the scenario's sysfs
// tree is written to a temporary folder, which the sysfs source is pointed at.
class Simulation {
public:
    // Loads the simulated modules. 'error' says what failed when the simulator
    // is not where the program expects it.
    explicit Simulation(std::string& error);

    // Reads the scenario at 'path', has the modules check it and hands it to
    // them; a one-line reason when it cannot be read or is not one they
    // understand (a key or fault they do not know, a value of the wrong kind).
    std::optional<std::string> use(const std::string& path);

    // Uses the scenario file again when it changed since it was last used, so a
    // watching or serving program follows the simulated machine; a file that is
    // no longer a scenario the modules understand is reported and the machine
    // stays as it was.
    void follow();

    // Removes the sysfs tree written for the scenario.
    ~Simulation();
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

private:
    std::vector<tova::DynamicLibrary> modules_;
    std::string sysfsRoot_; // the scenario's sysfs tree, on Linux
    std::string path_;      // the scenario file in use
    std::filesystem::file_time_type written_{};

};

} // namespace kestrel
