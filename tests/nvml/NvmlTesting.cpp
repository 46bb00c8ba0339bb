#include "NvmlTesting.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <type_traits>

#if defined(_WIN32)
#include <windows.h>
#endif

#include "libKestrel/GPUProperties.h"
#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"

namespace kestrel::test {

const char* const quadro = R"({
    "name": "Quadro RTX 5000", "pci": {"bus": 101, "device": 0, "function": 0, "domain": 0},
    "nvml": {"uuid": "GPU-3b4f1a2c-0001", "vbios": "90.04.38.00.03",
             "temperature": 45, "slowdownTemperature": 93, "shutdownTemperature": 96,
             "utilization": {"gpu": 37, "memory": 12}, "fanSpeed": 41,
             "memory": {"total": 17179869184, "used": 1073741824},
             "ecc": {"corrected": {"volatile": {"deviceMemory": 1, "l1Cache": 2, "l2Cache": 3, "registerFile": 4},
                                   "aggregate": {"deviceMemory": 10, "l1Cache": 20, "l2Cache": 30, "registerFile": 40}},
                     "uncorrected": {"volatile": {"deviceMemory": 5}, "aggregate": {"registerFile": 7}}}}})";

const char* const tesla = R"json({
    "name": "Tesla T4", "pci": {"bus": 179, "device": 3, "function": 1, "domain": 2},
    "nvml": {"name": "Tesla T4 (NVML)", "uuid": "GPU-3b4f1a2c-0002", "vbios": "90.04.96.00.01",
             "temperature": 61, "slowdownTemperature": 87, "shutdownTemperature": 90,
             "utilization": {"gpu": 99, "memory": 80}, "fanSpeed": 0,
             "ecc": {"corrected": {"volatile": {}, "aggregate": {}},
                     "uncorrected": {"volatile": {}, "aggregate": {}}}}})json";

const char* const radeon = R"({"name": "Radeon Pro W6800", "pci": {"bus": 3}, "adl": {}})";

std::string scenario(const std::vector<std::string>& gpus, const std::string& faults)
{
    std::string json = R"({"gpus": [)";
    for (size_t i = 0; i < gpus.size(); ++i)
        json += (i ? "," : "") + gpus[i];
    return json + R"(], "faults": )" + faults + "}";
}

std::string nvmlPathUnder([[maybe_unused]] const std::string& programFiles)
{
#if defined(_WIN32)
    return programFiles + "\\NVIDIA Corporation\\NVSMI\\nvml.dll";
#else
    return "libnvidia-ml.so.1";
#endif
}

std::string nvmlFolder()
{
    const char* folder = std::getenv("KESTREL_NVML_FOLDER");
    return folder ? folder : "";
}

void setProgramFiles(const char* value)
{
#if defined(_WIN32)
    SetEnvironmentVariableA("ProgramW6432", value);
#else
    if (value)
        setenv("ProgramW6432", value, 1);
    else
        unsetenv("ProgramW6432");
#endif
}

namespace {

template <class T>
std::string valueText(const T& value)
{
    if constexpr (std::is_same_v<T, std::string>)
        return value;
    else if constexpr (std::is_same_v<T, bool>)
        return value ? "true" : "false";
    else if constexpr (std::is_pointer_v<T>)
        return "handle";
    else
        return std::to_string(value);
}

std::map<std::string, const void*> keptEntries()
{
    const libKestrel::NVMLFunctions& f = libKestrel::nvmlBinding().functions;
#define KESTREL_ENTRY(name) {#name, reinterpret_cast<const void*>(f.name)}
    return {KESTREL_ENTRY(nvmlInit_v2), KESTREL_ENTRY(nvmlShutdown), KESTREL_ENTRY(nvmlDeviceGetCount_v2),
            KESTREL_ENTRY(nvmlDeviceGetHandleByIndex), KESTREL_ENTRY(nvmlDeviceGetTemperature),
            KESTREL_ENTRY(nvmlDeviceGetTemperatureThreshold), KESTREL_ENTRY(nvmlDeviceGetPciInfo_v2),
            KESTREL_ENTRY(nvmlDeviceGetDetailedEccErrors), KESTREL_ENTRY(nvmlDeviceGetName),
            KESTREL_ENTRY(nvmlDeviceGetUUID), KESTREL_ENTRY(nvmlDeviceGetUtilizationRates),
            KESTREL_ENTRY(nvmlDeviceGetVbiosVersion), KESTREL_ENTRY(nvmlDeviceGetFanSpeed),
            KESTREL_ENTRY(nvmlErrorString)};
#undef KESTREL_ENTRY
}

} // namespace

std::string describe(const libKestrel::IGPU& gpu)
{
    std::string text = gpu.pciLocation() ? gpu.pciLocation()->toString(true).str() : "unlocated";
#define KESTREL_DESCRIBE(type, getter, setter, unit)                                                                  \
    if (const auto value = gpu.getter())                                                                              \
        text += " " #getter "=" + valueText(*value);
    LIBKESTREL_GPU_PROPERTIES(KESTREL_DESCRIBE)
#undef KESTREL_DESCRIBE
    return text;
}

bool happenedInOrder(const std::vector<std::string>& journal, const std::string& first, const std::string& second)
{
    const auto at = std::find(journal.begin(), journal.end(), first);
    return at != journal.end() && std::find(at + 1, journal.end(), second) != journal.end();
}

std::vector<std::string> nullEntries()
{
    std::vector<std::string> names;
    for (const auto& [name, pointer] : keptEntries())
        if (!pointer)
            names.push_back(name);
    return names;
}

void expectNvmlReleased()
{
    EXPECT_FALSE(libKestrel::nvmlBinding().library.isLoaded());
    EXPECT_EQ(nullEntries().size(), 14u) << "every kept entry point is null again";
}

void NvmlTest::SetUp()
{
    const std::string folder = nvmlFolder();
    if (!folder.empty())
        setProgramFiles(folder.c_str());
}

} // namespace kestrel::test
