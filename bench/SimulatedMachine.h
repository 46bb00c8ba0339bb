#pragma once

// The simulated vendor modules loaded for the benchmarks' process, found by
// their folders on the search path by child processes, with a scenario in force.
#include <cstdlib>
#include <string>
#include <vector>

#include "common/Paths.h"
#include "tova/DynamicLibrary.h"

namespace kestrel::bench {

class SimulatedModules {
public:
    SimulatedModules()
    {
        std::string path;
        for (const char* module : {"sim_glfw/libglfw.so.3", "sim_nvml/libnvidia-ml.so.1", "sim_nvapi/libnvapi64.so",
                                   "sim_cuda/libcuda.so.1", "sim_adl/libatiadlxx.so"}) {
            const std::string file = kestrel::test::executableDirectory() + "sim/" + module;
            modules_.emplace_back(file.c_str());
            modules_.back().load();
            path += file.substr(0, file.rfind('/')) + ":";
        }
        setenv("LD_LIBRARY_PATH", path.c_str(), 1);
        setenv("KESTREL_SIM_SCENARIO", KESTREL_WORKSTATION, 1);
    }

    // An entry of a loaded module, as its pointer type.
    template <class Pointer>
    Pointer entry(std::size_t module, const char* name) const
    {
        return reinterpret_cast<Pointer>(modules_.at(module).getSymbol(name));
    }

    enum Module : std::size_t { glfw, nvml, nvapi, cuda, adl };

private:
    std::vector<tova::DynamicLibrary> modules_;
};

// The simulated modules, loaded once for the whole run.
inline const SimulatedModules& simulatedModules()
{
    static const SimulatedModules modules;
    return modules;
}

} // namespace kestrel::bench
