#include "Platform.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <vector>

namespace tova::platform {
namespace {

std::wstring widen(const std::string& text)
{
    if (text.empty())
        return {};
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    return wide;
}

std::string narrow(const wchar_t* text, int length)
{
    if (length <= 0)
        return {};
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, length, utf8.data(), size, nullptr, nullptr);
    return utf8;
}

std::string systemMessage(DWORD code)
{
    wchar_t* buffer = nullptr;
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, code, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    std::string message = length ? narrow(buffer, static_cast<int>(length)) : "error " + std::to_string(code);
    LocalFree(buffer);
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r'))
        message.pop_back();
    return message;
}

} // namespace

void* openModule(const std::string& path, std::string& error)
{
    // No "missing DLL" message boxes inside a host process; for this thread only,
    // as the host's other threads may set and rely on the process's mode meanwhile.
    DWORD previousMode = 0;
    const BOOL quiet = SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &previousMode);
    HMODULE module = LoadLibraryW(widen(path).c_str());
    const DWORD code = module ? 0 : GetLastError();
    if (quiet)
        SetThreadErrorMode(previousMode, nullptr);
    if (!module)
        error = systemMessage(code);
    return reinterpret_cast<void*>(module);
}

void closeModule(void* module) { FreeLibrary(reinterpret_cast<HMODULE>(module)); }

void* findSymbol(void* module, const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(reinterpret_cast<HMODULE>(module), name));
}

bool pathExists(const std::string& path)
{
    return GetFileAttributesW(widen(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string environmentVariable(const std::string& name)
{
    const std::wstring wideName = widen(name);
    const DWORD needed = GetEnvironmentVariableW(wideName.c_str(), nullptr, 0);
    if (needed == 0)
        return {};
    std::vector<wchar_t> value(needed);
    const DWORD length = GetEnvironmentVariableW(wideName.c_str(), value.data(), needed);
    return length < needed ? narrow(value.data(), static_cast<int>(length)) : std::string();
}

} // namespace tova::platform
