#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <sstream>
#include <string>

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

// The twenty-seven look-ups, in order.
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
    visit("nvmlDeviceGetPowerUsage", &f.nvmlDeviceGetPowerUsage);
    visit("nvmlDeviceGetEnforcedPowerLimit", &f.nvmlDeviceGetEnforcedPowerLimit);
    visit("nvmlDeviceGetTotalEnergyConsumption", &f.nvmlDeviceGetTotalEnergyConsumption);
    visit("nvmlDeviceGetCurrPcieLinkGeneration", &f.nvmlDeviceGetCurrPcieLinkGeneration);
    visit("nvmlDeviceGetCurrPcieLinkWidth", &f.nvmlDeviceGetCurrPcieLinkWidth);
    visit("nvmlDeviceGetMaxPcieLinkGeneration", &f.nvmlDeviceGetMaxPcieLinkGeneration);
    visit("nvmlDeviceGetMaxPcieLinkWidth", &f.nvmlDeviceGetMaxPcieLinkWidth);
    visit("nvmlDeviceGetPerformanceState", &f.nvmlDeviceGetPerformanceState);
    visit("nvmlDeviceGetCurrentClocksEventReasons", &f.nvmlDeviceGetCurrentClocksEventReasons);
    visit("nvmlDeviceGetCurrentClocksThrottleReasons", &f.nvmlDeviceGetCurrentClocksThrottleReasons);
    visit("nvmlDeviceGetFieldValues", &f.nvmlDeviceGetFieldValues);
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

// The loader searches; a failed load is then looked into.
bool fileMissing(const tova::String&) { return false; }

// Far beyond any real loader cache; only so much is read.
constexpr std::streamoff maximumCacheSize = 16 << 20;

// Whether the loader's search could have found a file of this name: in a folder
// of LD_LIBRARY_PATH, among the paths of the loader's cache, or in a default
// folder. A library that is there but does not load is broken; one that is
// nowhere is absent. The loader's message cannot tell: it is translated under
// the host's locale.
bool loaderCanFind(const std::string& name)
{
    const auto found = [&name](const std::string& folder) {
        return !folder.empty() && tova::System::exists(tova::String(folder + "/" + name));
    };
    std::istringstream searchPath(tova::System::getEnvironmentVariable("LD_LIBRARY_PATH").str());
    for (std::string folder; std::getline(searchPath, folder, ':');)
        if (found(folder))
            return true;
    for (const char* folder : {"/lib", "/usr/lib", "/lib64", "/usr/lib64"})
        if (found(folder))
            return true;
    // The cache's string table holds each library's full path, zero-terminated.
    std::ifstream cache("/etc/ld.so.cache", std::ios::binary | std::ios::ate);
    const std::streamoff size = cache ? static_cast<std::streamoff>(cache.tellg()) : 0;
    std::string table(static_cast<std::size_t>(std::clamp<std::streamoff>(size, 0, maximumCacheSize)), '\0');
    cache.seekg(0);
    cache.read(table.data(), static_cast<std::streamsize>(table.size()));
    table.resize(static_cast<std::size_t>(cache.gcount()));
    const std::string tail = "/" + name + std::string(1, '\0');
    for (std::size_t end = table.find(tail); end != std::string::npos; end = table.find(tail, end + 1)) {
        const std::size_t start = table.rfind('\0', end);
        const std::size_t from = start == std::string::npos ? 0 : start + 1;
        if (found(table.substr(from, end - from)))
            return true;
    }
    return false;
}

bool nothingToLoad(const tova::DynamicLibrary& library) { return !loaderCanFind(library.path().str()); }
#endif

// The longest error text we read: nvmlErrorString gives no length, and a text
// without a NUL must not send us through the rest of the module's memory.
constexpr std::size_t maximumErrorText = 256;

} // namespace

NVMLBinding& nvmlBinding() { return binding; }

bool initializeLibrary()
{
    auto trace = site.trace("initializeLibrary", 96);
    const std::lock_guard<std::mutex> lock(binding.mutex);
    if (binding.loads > 0) {
        ++binding.loads;
        return true;
    }
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
    binding.loads = 1;
    return true;
}

void uninitializeLibrary()
{
    auto trace = site.trace("uninitializeLibrary", 144);
    const std::lock_guard<std::mutex> lock(binding.mutex);
    if (binding.loads == 0 || --binding.loads > 0)
        return;
    binding.library.unload();
    binding.functions = NVMLFunctions();
}

std::string describeNvmlError(const NVMLFunctions& functions, nvml::nvmlReturn_t code)
{
    const char* text = functions.nvmlErrorString ? functions.nvmlErrorString(code) : nullptr;
    if (!text)
        return std::to_string(static_cast<int>(code));
    std::size_t length = 0;
    while (length < maximumErrorText && text[length] != '\0')
        ++length;
    return std::string(text, length);
}

} // namespace libKestrel
