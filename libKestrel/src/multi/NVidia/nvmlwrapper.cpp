#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"

#include <cstddef>

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Lookup.h"
#include "tova/System.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;

logging::LogSite site("libKestrel.NVML", "libKestrel/src/multi/NVidia/nvmlwrapper.cpp");

// Created with the module, so NVML can be bound from the first call on.
NVMLBinding binding;

// The sixteen look-ups, in order.
template <class Visit>
void listEntries(NVMLFunctions& f, Visit visit)
{
    visit("nvmlInit_v2", &f.nvmlInit_v2);
    visit("nvmlShutdown", &f.nvmlShutdown);
    visit("nvmlSystemGetDriverVersion", dropped);
    visit("nvmlDeviceGetCount_v2", &f.nvmlDeviceGetCount_v2);
    visit("nvmlDeviceGetHandleByIndex", &f.nvmlDeviceGetHandleByIndex);
    visit("nvmlDeviceGetTemperature", &f.nvmlDeviceGetTemperature);
    visit("nvmlDeviceGetTemperatureThreshold", &f.nvmlDeviceGetTemperatureThreshold);
    visit("nvmlDeviceGetPciInfo_v2", &f.nvmlDeviceGetPciInfo_v2);
    visit("nvmlDeviceGetMemoryInfo", dropped);
    visit("nvmlDeviceGetDetailedEccErrors", &f.nvmlDeviceGetDetailedEccErrors);
    visit("nvmlDeviceGetName", &f.nvmlDeviceGetName);
    visit("nvmlDeviceGetUUID", &f.nvmlDeviceGetUUID);
    visit("nvmlDeviceGetUtilizationRates", &f.nvmlDeviceGetUtilizationRates);
    visit("nvmlDeviceGetVbiosVersion", &f.nvmlDeviceGetVbiosVersion);
    visit("nvmlDeviceGetFanSpeed", &f.nvmlDeviceGetFanSpeed);
    visit("nvmlErrorString", &f.nvmlErrorString);
}

#if defined(_WIN32)
// The driver puts NVSMI in the 64-bit program-files folder; no other folder is tried.
tova::String nvmlPath()
{
    const tova::String programFiles = tova::System::getEnvironmentVariable("ProgramW6432");
    if (programFiles.empty())
        return {};
    // Joined as it stands: a trailing separator in the variable stays doubled.
    return programFiles + "\\NVIDIA Corporation\\NVSMI\\nvml.dll";
}

bool fileMissing(const tova::String& path) { return !tova::System::exists(path); }

bool nothingToLoad(const tova::DynamicLibrary&) { return false; }
#else
// The driver installs NVML under its soname, where the loader's search finds it.
tova::String nvmlPath() { return "libnvidia-ml.so.1"; }

// The loader's search is the existence test.
bool fileMissing(const tova::String&) { return false; }

// When the loader finds no file it names the soname itself, followed by
// "cannot open shared object file"; a file it found but could not load, or a
// dependency it could not find, reads differently and counts as present.
bool nothingToLoad(const tova::DynamicLibrary& library)
{
    const std::string absent = library.path().str() + ": cannot open shared object file";
    return library.lastError().str().compare(0, absent.size(), absent) == 0;
}
#endif

// The longest error text we read: nvmlErrorString gives no length, and a text
// without a NUL must not send us through the rest of the module's memory.
constexpr std::size_t maximumErrorText = 256;

} // namespace

NVMLBinding& nvmlBinding() { return binding; }

bool initializeLibrary()
{
    auto trace = site.trace("initializeLibrary", 96);
    const tova::String path = nvmlPath();
    if (path.empty()) {
        log(site, Priority::WARNING, "115 ", "Cannot load NVML: Could not obtain path for the program files directory");
        return false;
    }
    tova::DynamicLibrary candidate(path);
    if (fileMissing(path) || (!candidate.load() && nothingToLoad(candidate))) {
        log(site, Priority::WARNING, "121 ", "Cannot load NVML: File not found: ", path);
        return false;
    }
    if (!candidate.isLoaded()) {
        log(site, Priority::CRITICAL, "128 ", "Cannot load NVML: failed to load the nvml.dll file from: ", path);
        return false;
    }

    binding.library = candidate;
    resolveEntries(binding.library, [](auto visit) { listEntries(binding.functions, visit); });
    return true;
}

void uninitializeLibrary()
{
    auto trace = site.trace("uninitializeLibrary", 144);
    binding.library.unload();
    binding.functions = NVMLFunctions();
}

std::string nvmlErrorText(nvml::nvmlReturn_t code)
{
    const char* text = binding.functions.nvmlErrorString ? binding.functions.nvmlErrorString(code) : nullptr;
    if (!text)
        return std::to_string(static_cast<int>(code));
    std::size_t length = 0;
    while (length < maximumErrorText && text[length] != '\0')
        ++length;
    return std::string(text, length);
}

} // namespace libKestrel
