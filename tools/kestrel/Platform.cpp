#include "Platform.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace kestrel {
namespace {
std::atomic<bool> stop{false};
extern "C" void onInterrupt(int) { stop = true; }
} // namespace

std::string executableDirectory()
{
#if defined(_WIN32)
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::filesystem::path(std::wstring(path, length)).parent_path().u8string();
#else
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().u8string();
#endif
}

void pointProgramFilesAt([[maybe_unused]] const std::string& folder)
{
#if defined(_WIN32)
    SetEnvironmentVariableW(L"ProgramW6432", std::filesystem::u8path(folder).wstring().c_str());
#endif
}

void pointSysfsAt(const std::string& folder) { setEnvironment("KESTREL_SYSFS_ROOT", folder); }

void setEnvironment(const std::string& name, const std::string& value)
{
#if defined(_WIN32)
    SetEnvironmentVariableW(std::filesystem::u8path(name).wstring().c_str(),
                            std::filesystem::u8path(value).wstring().c_str());
    _putenv_s(name.c_str(), value.c_str());
#else
    setenv(name.c_str(), value.c_str(), 1);
#endif
}

void prependSearchPath(const std::vector<std::string>& folders)
{
#if defined(_WIN32)
    const char* const variable = "PATH";
    const char separator = ';';
#else
    const char* const variable = "LD_LIBRARY_PATH";
    const char separator = ':';
#endif
    std::vector<std::string> entries(folders);
    const char* current = std::getenv(variable);
    std::istringstream inherited(current ? current : "");
    for (std::string entry; std::getline(inherited, entry, separator);)
        entries.push_back(entry);
    std::string path;
    for (const std::string& entry : entries) {
        std::error_code error;
        const auto absolute = std::filesystem::absolute(std::filesystem::u8path(entry), error);
        if (entry.empty() || error)
            continue;
        path += (path.empty() ? "" : std::string(1, separator)) + absolute.u8string();
    }
    setEnvironment(variable, path);
}

void catchInterrupt()
{
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
}

bool interrupted() { return stop.load(); }

} // namespace kestrel
