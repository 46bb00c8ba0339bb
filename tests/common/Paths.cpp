#include "common/Paths.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace kestrel::test {

std::string executableDirectory()
{
#if defined(_WIN32)
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::filesystem::path executable(std::wstring(path, length));
#else
    std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe");
#endif
    return executable.parent_path().u8string() + static_cast<char>(std::filesystem::path::preferred_separator);
}

std::string temporaryPath(const std::string& name)
{
#if defined(_WIN32)
    const auto id = GetCurrentProcessId();
#else
    const auto id = getpid();
#endif
    return (std::filesystem::temp_directory_path() / (std::to_string(id) + "-" + name)).u8string();
}

std::string fileText(const std::string& path)
{
    std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace kestrel::test
