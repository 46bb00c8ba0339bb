#include "common/Modules.h"

#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "common/Paths.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

bool isModuleFile(const fs::path& file)
{
#if defined(_WIN32)
    return file.extension() == ".dll";
#else
    return file.filename().u8string().find(".so") != std::string::npos;
#endif
}

std::string programFiles()
{
#if defined(_WIN32)
    char value[MAX_PATH] = "";
    const DWORD length = GetEnvironmentVariableA("ProgramW6432", value, MAX_PATH);
    return length < MAX_PATH ? std::string(value, length) : std::string();
#else
    const char* value = std::getenv("ProgramW6432");
    return value ? value : "";
#endif
}

// Wine sets ProgramW6432 itself when a process starts, so only the process can
// point it elsewhere.
void setProgramFiles([[maybe_unused]] const std::string& value)
{
#if defined(_WIN32)
    SetEnvironmentVariableA("ProgramW6432", value.empty() ? nullptr : value.c_str());
#endif
}

} // namespace

std::string SimulatedModules::folder(const std::string& name)
{
    return (fs::u8path(executableDirectory()) / "sim" / name).u8string();
}

SimulatedModules::SimulatedModules(std::initializer_list<std::string> folders) : programFiles_(programFiles())
{
    // No NVML unless one is chosen: a folder that holds none.
    setProgramFiles(folder("no_nvml"));
    for (const std::string& name : folders) {
        std::error_code error;
        bool found = false;
        for (const auto& entry : fs::recursive_directory_iterator(fs::u8path(folder(name)), error)) {
            if (!entry.is_regular_file() || !isModuleFile(entry.path()))
                continue;
            found = true;
            tova::DynamicLibrary module(entry.path().u8string().c_str());
            if (module.load())
                modules_.push_back(module);
            else
                ADD_FAILURE() << "cannot load the simulated module " << entry.path().u8string() << ": "
                              << module.lastError().str();
            if (entry.path().filename() == "nvml.dll")
                setProgramFiles(folder(name));
        }
        if (!found)
            ADD_FAILURE() << "no simulated module in " << folder(name);
    }
}

SimulatedModules::~SimulatedModules() { setProgramFiles(programFiles_); }

} // namespace kestrel::test
