#include "libKestrel/internal/isolation/HelperProgram.h"

#include <string>

#include "libKestrel/internal/isolation/Process.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#include <link.h>
#endif

namespace libKestrel::isolation {
namespace {

namespace fs = std::filesystem;

// The file of the module this code is in.
fs::path moduleFile()
{
#if defined(_WIN32)
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCWSTR>(&moduleFile), &module))
        return {};
    // Of any length: the buffer grows until the whole name fits.
    std::wstring name(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(module, name.data(), static_cast<DWORD>(name.size()));
        if (length == 0)
            return {};
        if (length < name.size())
            return fs::path(name.substr(0, length));
        name.resize(name.size() * 2);
    }
#else
    Dl_info info{};
    link_map* map = nullptr;
    if (dladdr1(reinterpret_cast<void*>(&moduleFile), &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0 ||
        !map || !map->l_name)
        return {};
    // The main program's entry has no name (dladdr would give the name it was
    // started by, which may be anything); its file is this one.
    return *map->l_name ? fs::u8path(map->l_name) : fs::path("/proc/self/exe");
#endif
}

HelperProgram find()
{
#if defined(_WIN32)
    const char* const name = "kestrel-probe.exe";
#else
    const char* const name = "kestrel-probe";
#endif
    HelperProgram found;
    std::error_code error;
#if defined(_WIN32)
    found.folder = moduleFile().parent_path(); // the loader's names are whole paths
#else
    found.folder = fs::canonical(moduleFile(), error).parent_path();
#endif
    if (error || found.folder.empty())
        return found;
    for (const fs::path& candidate : {found.folder / name, found.folder / "libKestrel" / name}) {
#if defined(_WIN32)
        const fs::path& program = candidate;
#else
        const fs::path program = fs::canonical(candidate, error);
#endif
        if (!error && Process::isProgram(program.u8string())) {
            found.program = program;
            break;
        }
    }
    return found;
}

// Made as the library loads, before a host can change its current folder.
[[maybe_unused]] const HelperProgram& atLoad = helperProgram();

} // namespace

const HelperProgram& helperProgram()
{
    static const HelperProgram found = find();
    return found;
}

} // namespace libKestrel::isolation
