#include "Platform.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>

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

void pointSysfsAt([[maybe_unused]] const std::string& folder)
{
#if !defined(_WIN32)
    setenv("KESTREL_SYSFS_ROOT", folder.c_str(), 1);
#endif
}

void catchInterrupt()
{
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
}

bool interrupted() { return stop.load(); }

} // namespace kestrel
