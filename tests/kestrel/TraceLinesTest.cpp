// The values the library writes at TRACE priority while it reads the vendors and
// merges what they said: a host that turns tracing on reads these lines.

#include "common/Test.h"
#include "libKestrel/Query.h"

namespace {

using kestrel::test::LogCapture;

// An NVIDIA card that NVML sees and an AMD card that ADL sees as two adapters in
// one CrossFire combination; ADL's two passes give two records of the AMD card,
// which the query merges.
const char* const machine = R"({"gpus": [
    {"pci": {"bus": 101}, "nvml": {"uuid": "GPU-3b4f1a2c-0001", "vbios": "90.04.38.00.03"}},
    {"pci": {"bus": 3}, "adl": {"adapters": 2, "overdrive5": {"temperature": 54321},
     "crossfire": {"preferred": 0, "combinations": [[0, 1]], "supported": 1}}}]})";

TEST(TraceLines, EachValueAndTraceScopeIsWrittenWithItsTagAndPriority)
{
    const struct {
        const char* logger;
        const char* text;
    } rows[] = {
        {"libKestrel.ADL", "65 Temperature current (millidegrees Celsius): 54321"},
        {"libKestrel.ADL", "108 Combination adapter count: 2"},
        {"libKestrel.NVML", "Entering query_UUID (libKestrel/src/multi/NVidia/nv_nvml.cpp:95)"},
        {"libKestrel.NVML", "Entering query_VBIOSVersionString (libKestrel/src/multi/NVidia/nv_nvml.cpp:115)"},
        {"libKestrel.NVML", "109 UUID: GPU-3b4f1a2c-0001"},
        {"libKestrel.Kestrel", "Entering mergeECCErrorCounts (libKestrel/src/Kestrel.cpp:69)"},
        {"libKestrel.Kestrel", "Entering mergeTwoGPUs (libKestrel/src/Kestrel.cpp:76)"},
        {"libKestrel.Kestrel", "Entering mergeGPUs (libKestrel/src/Kestrel.cpp:120)"},
    };
    const kestrel::test::SimulatedModules modules{"sim_nvml", "sim_adl", "sim_glfw"}; // no real GLFW
    const kestrel::test::SimulatedMachine simulated(machine);
    LogCapture capture(tova::LoggerPriority::TRACE);
    std::bitset<4> status;
    libKestrel::queryAllGPUs({}, {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryAMDGPUsMulti}, status);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_TRUE(capture.has(row.logger, tova::LoggerPriority::TRACE, row.text));
    }
}

} // namespace
