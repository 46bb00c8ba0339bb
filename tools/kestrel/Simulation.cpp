#include "Simulation.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

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

} // namespace

std::optional<std::string> Simulation::check(const std::string& path, std::string& scenario)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return "cannot read scenario '" + path + "'";
    std::stringstream contents;
    contents << file.rdbuf();
    scenario = contents.str();
    try {
        const auto document = nlohmann::json::parse(scenario);
        if (!document.is_object())
            return "invalid scenario '" + path + "': the top level must be a JSON object";
    } catch (const nlohmann::json::parse_error& error) {
        // what() reads "[json.exception.parse_error.101] parse error at line 3, column 5: ..."
        std::string reason = error.what();
        if (const auto end = reason.find("] "); end != std::string::npos)
            reason.erase(0, end + 2);
        return "invalid scenario '" + path + "': " + reason;
    }
    return std::nullopt;
}

Simulation::Simulation(const std::string& scenario, std::string& error)
{
    const fs::path root = fs::u8path(executableDirectory()) / "sim";
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
    if (modules_.empty()) {
        error = "no simulated vendor module found in " + root.u8string();
        return;
    }
    // Every module shares one scenario; telling one tells them all.
    if (auto set = reinterpret_cast<SetScenario>(modules_.front().getSymbol("kestrelSimulatorSetScenario")))
        set(scenario.c_str());
    else
        error = "the simulated modules do not accept a scenario";
}

} // namespace kestrel
