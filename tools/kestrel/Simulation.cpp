#include "Simulation.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#if !defined(_WIN32)
#include <unistd.h>
#endif

#include "Platform.h"

namespace kestrel {
namespace {

namespace fs = std::filesystem;

// The simulated modules, each alone in its folder under "sim" beside the program.
const char* const moduleFolders[] = {"sim_glfw", "sim_nvml", "sim_nvapi", "sim_cuda", "sim_adl"};

bool isModuleFile(const fs::path& file)
{
    const std::string name = file.filename().u8string();
#if defined(_WIN32)
    return file.extension() == ".dll";
#else
    return name.find(".so") != std::string::npos;
#endif
}

using SetScenario = void (*)(const char* json);
using WriteSysfs = int (*)(const char* json, const char* folder);
using CheckScenario = const char* (*)(const char* json);

// Where the modules are: "sim" beside the program in a build, the simulator
// folder under the library folder once installed.
fs::path simulatorFolder()
{
    const fs::path program = fs::u8path(executableDirectory());
    std::error_code ignored;
    if (fs::is_directory(program / "sim", ignored))
        return program / "sim";
    return (program / fs::u8path(KESTREL_INSTALLED_SIMULATOR)).lexically_normal();
}

} // namespace

Simulation::Simulation(std::string& error)
{
    const fs::path root = simulatorFolder();
    for (const char* folder : moduleFolders) {
        std::error_code ignored;
        for (const auto& entry : fs::recursive_directory_iterator(root / folder, ignored)) {
            if (!entry.is_regular_file() || !isModuleFile(entry.path()))
                continue;
            tova::DynamicLibrary module(entry.path().u8string().c_str());
            if (module.load())
                modules_.push_back(module);
            else
                error = "cannot load the simulated module " + entry.path().u8string() + ": " +
                        module.lastError().str();
            if (entry.path().filename() == "nvml.dll")
                pointProgramFilesAt(entry.path().parent_path().parent_path().parent_path().u8string());
        }
    }
    // Child processes (an isolated query's) find the same modules on their search path.
    std::vector<std::string> folders;
    for (const char* folder : moduleFolders)
        folders.push_back((root / folder).u8string());
    prependSearchPath(folders);
    if (modules_.empty())
        error = "no simulated vendor module found in " + root.u8string();
    else if (!modules_.front().getSymbol("kestrelSimulatorSetScenario"))
        error = "the simulated modules do not accept a scenario";
}

std::optional<std::string> Simulation::use(const std::string& path)
{
    std::error_code ignored;
    path_ = path;
    // Child processes read the scenario from its file.
    setEnvironment("KESTREL_SIM_SCENARIO", fs::absolute(fs::u8path(path), ignored).u8string());
    written_ = fs::last_write_time(fs::u8path(path), ignored);
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return "cannot read scenario '" + path + "'";
    std::stringstream contents;
    contents << file.rdbuf();
    const std::string scenario = contents.str();
    // Every module shares one scenario and one checker; asking one asks them all.
    const tova::DynamicLibrary& module = modules_.front();
    if (auto check = reinterpret_cast<CheckScenario>(module.getSymbol("kestrelSimulatorCheckScenario")))
        if (const char* problem = check(scenario.c_str()))
            return "invalid scenario '" + path + "': " + problem;
    reinterpret_cast<SetScenario>(module.getSymbol("kestrelSimulatorSetScenario"))(scenario.c_str());
#if !defined(_WIN32)
    // The machine's own devices stay out of a simulated machine, whatever it holds.
    sysfsRoot_ = (fs::temp_directory_path() / ("kestrel-sysfs-" + std::to_string(getpid()))).u8string();
    const auto write = reinterpret_cast<WriteSysfs>(module.getSymbol("kestrelSimulatorWriteSysfs"));
    if (!write || !write(scenario.c_str(), sysfsRoot_.c_str()))
        return "cannot write the simulated sysfs tree to " + sysfsRoot_;
    pointSysfsAt(sysfsRoot_);
#endif
    return std::nullopt;
}

void Simulation::follow()
{
    std::error_code error;
    const auto written = fs::last_write_time(fs::u8path(path_), error);
    if (path_.empty() || error || written == written_)
        return;
    if (const auto problem = use(path_))
        std::fprintf(stderr, "kestrel: %s\n", problem->c_str());
}

Simulation::~Simulation()
{
    std::error_code ignored;
    if (!sysfsRoot_.empty())
        fs::remove_all(fs::u8path(sysfsRoot_), ignored);
}

} // namespace kestrel
