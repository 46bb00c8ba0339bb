#include "NvmlTesting.h"

#include <algorithm>
#include <cstdlib>
#include <map>

#if defined(_WIN32)
#include <windows.h>
#endif

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

std::vector<std::string> messagesOf(const LogCapture& capture, const std::string& logger)
{
    std::vector<std::string> messages;
    for (const auto& line : capture.of(logger))
        if (line.rfind("1|Entering ", 0) != 0 && line.rfind("1|Leaving ", 0) != 0)
            messages.push_back(line);
    return messages;
}

bool happenedInOrder(const std::vector<std::string>& journal, const std::string& first, const std::string& second)
{
    const auto at = std::find(journal.begin(), journal.end(), first);
    return at != journal.end() && std::find(at + 1, journal.end(), second) != journal.end();
}

std::map<std::string, const void*> keptEntries()
{
    const libKestrel::NVMLFunctions& f = libKestrel::nvmlBinding().functions;
    const auto entry = [](auto pointer) { return reinterpret_cast<const void*>(pointer); };
    return {{"nvmlInit_v2", entry(f.nvmlInit_v2)},
            {"nvmlShutdown", entry(f.nvmlShutdown)},
            {"nvmlDeviceGetCount_v2", entry(f.nvmlDeviceGetCount_v2)},
            {"nvmlDeviceGetHandleByIndex", entry(f.nvmlDeviceGetHandleByIndex)},
            {"nvmlDeviceGetTemperature", entry(f.nvmlDeviceGetTemperature)},
            {"nvmlDeviceGetTemperatureThreshold", entry(f.nvmlDeviceGetTemperatureThreshold)},
            {"nvmlDeviceGetPciInfo_v2", entry(f.nvmlDeviceGetPciInfo_v2)},
            {"nvmlDeviceGetDetailedEccErrors", entry(f.nvmlDeviceGetDetailedEccErrors)},
            {"nvmlDeviceGetName", entry(f.nvmlDeviceGetName)},
            {"nvmlDeviceGetUUID", entry(f.nvmlDeviceGetUUID)},
            {"nvmlDeviceGetUtilizationRates", entry(f.nvmlDeviceGetUtilizationRates)},
            {"nvmlDeviceGetVbiosVersion", entry(f.nvmlDeviceGetVbiosVersion)},
            {"nvmlDeviceGetFanSpeed", entry(f.nvmlDeviceGetFanSpeed)},
            {"nvmlErrorString", entry(f.nvmlErrorString)}};
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
