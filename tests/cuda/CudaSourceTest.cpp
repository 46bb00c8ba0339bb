// The CUDA source as a host runs it, on the simulated driver, which stays loaded
// for the life of the process; its records merging with the other NVIDIA
// sources' is tested with them (tests/nvidia).
#include "common/Test.h"

namespace {

using namespace kestrel::test;

const std::string querier = "libKestrel.NVidiaCudaGPUQuerierMulti";
const LogLine versions = {querier, 2, "98 Retrieved driver version '12040' and runtime version '5000'"};

LogLine discovered(int count) { return {querier, 2, "111 Discovered " + std::to_string(count) + " CUDA devices"}; }

LogLine unreadable(int index, const std::string& why)
{
    const std::string where = "CUDA device at index '" + std::to_string(index) + "': ";
    return {querier, 3, "47 Could not obtain the device properties for " + where + why};
}

// Two CUDA devices (the first reporting PCI domain 5), and a GPU that only NVML
// sees; and the records CUDA gives of them, in CUDA's domain and at function 0
// where the other NVIDIA sources place the same GPUs. CUDA reports no cores,
// memory sizes, driver version or identity of its own.
const char* const twoCudaDevices = R"({
  "cudaDriver": {"version": 12040},
  "gpus": [
    {"name": "NVIDIA GeForce RTX 3090", "pci": {"bus": 101, "device": 0, "function": 0, "domain": 0},
     "cuda": {"major": 8, "minor": 6, "clockRate": 1695000, "memoryClockRate": 9751000, "memoryBusWidth": 384,
              "pci": {"domain": 5}}},
    {"name": "Seen by NVML only", "pci": {"bus": 33}, "nvml": {}},
    {"name": "GPU-level name", "pci": {"bus": 23, "device": 1, "function": 1},
     "cuda": {"name": "Tesla T4", "major": 7, "minor": 5, "clockRate": 1590000, "memoryClockRate": 5001000,
              "memoryBusWidth": 256}}
  ]})";
const Lines twoCudaRecords = {
    "0005:65:00.0 name=NVIDIA GeForce RTX 3090 graphicsClock=1695000 memoryClock=9751000 memoryWidth=384 "
    "versionMajor=8 versionMinor=6",
    "0000:17:01.0 name=Tesla T4 graphicsClock=1590000 memoryClock=5001000 memoryWidth=256 versionMajor=7 "
    "versionMinor=5"};

TEST(CudaSource, ReportsEveryDeviceAtTheOtherSourcesLocation)
{
    SimulatedMachine machine(twoCudaDevices);
    LogCapture capture(Priority::TRACE);
    std::bitset<4> status("1010");
    EXPECT_EQ(describe(libKestrel::queryNVidiaCudaGPUsMulti(status)), twoCudaRecords);
    EXPECT_EQ(status, std::bitset<4>("1010")) << "the CUDA source leaves the status alone";
    EXPECT_EQ(capture.messages(), (LogLines{versions, discovered(2),
                                            {querier, 1, "57 Found PCI location information: 0005:65:00.0"},
                                            {querier, 1, "57 Found PCI location information: 0000:17:01.0"}}));
}

TEST(CudaSource, EachFailureCostsOnlyWhatDependsOnIt)
{
    const auto oneDevice = [](const std::string& faults) {
        return R"({"gpus": [{"pci": {"bus": 101}, "cuda": {}}], "faults": )" + faults + "}";
    };
    const std::string simulated = "name=NVIDIA Simulated GPU graphicsClock=1695000 memoryClock=9751000 memoryWidth=384 "
                                  "versionMajor=8 versionMinor=6";
    std::string fourth; // device 3's name, repeated over the whole buffer but for the terminator
    while (fourth.size() < 255)
        fourth += "Fourth";
    fourth.resize(255);
    LogLines absurd = {versions, discovered(32)};
    for (int index = 1; index < 32; ++index)
        absurd.push_back(unreadable(index, "cudaErrorInvalidDevice: invalid device ordinal"));

    const struct {
        std::string scenario;
        LogLines lines; // at and above INFO
        Lines records;
    } rows[] = {
        // No device (cuInit says so, or the count is zero or less) is an empty machine, not a failure.
        {R"({"gpus": [{"name": "Seen by NVML only", "pci": {"bus": 33}, "nvml": {}}]})", {versions, discovered(0)}, {}},
        {oneDevice(R"({"cuDeviceGetCount": {"count": 0}})"), {versions, discovered(0)}, {}},
        {oneDevice(R"({"cuDeviceGetCount": {"count": -3}})"), {versions, discovered(0)}, {}},
        // A failure before the device loop yields nothing.
        {oneDevice(R"({"cuDriverGetVersion": {"return": 999}})"),
         {{querier, 3, "87 Could not retrieve the CUDA driver version: cudaErrorUnknown: unknown error"}}, {}},
        {oneDevice(R"({"cuDriverGetVersion": {"return": 100}})"),
         {{querier, 3, "87 Could not retrieve the CUDA driver version: cudaErrorNoDevice: no CUDA-capable device is "
                       "detected"}}, {}},
        {oneDevice(R"({"cuDeviceGetCount": {"return": 46}})"),
         {versions, {querier, 3, "107 Failed to get CUDA device count: cudaErrorDevicesUnavailable: CUDA-capable "
                                 "device(s) is/are busy or unavailable"}}, {}},
        // Device 1 lacks an attribute, device 2 is busy; device 3 fills the whole
        // name buffer without a terminator and reports a negative clock rate.
        {R"({"gpus": [{"name": "First", "pci": {"bus": 1}, "cuda": {}},
                      {"name": "Second", "pci": {"bus": 2}, "cuda": {"unsupportedAttributes": [36]}},
                      {"name": "Third", "pci": {"bus": 3}, "cuda": {}},
                      {"name": "Fourth", "pci": {"bus": 4}, "cuda": {"clockRate": -1}}],
            "faults": {"cuDeviceGet": {"device": 2, "return": 46},
                       "cuDeviceGetName": {"device": 3, "unterminated": true}}})",
         {versions, discovered(4), unreadable(1, "cudaErrorInvalidValue: invalid argument"),
          unreadable(2, "cudaErrorDevicesUnavailable: CUDA-capable device(s) is/are busy or unavailable"),
          {querier, 3, "64 Ignoring a negative clock rate reported by CUDA: -1"}},
         {"0000:01:00.0 name=First graphicsClock=1695000 memoryClock=9751000 memoryWidth=384 versionMajor=8 "
          "versionMinor=6",
          "0000:04:00.0 name=" + fourth + " memoryClock=9751000 memoryWidth=384 versionMajor=8 versionMinor=6"}},
        {R"({"gpus": [{"pci": {"bus": 101}, "cuda": {}}, {"pci": {"bus": 3, "device": 40}, "cuda": {}},
                      {"pci": {"bus": 256}, "cuda": {}}]})",
         {versions, discovered(3), {querier, 3, "58 Device outside the PCI bus, skipped: bus 3, device 40"},
          {querier, 3, "58 Device outside the PCI bus, skipped: bus 256, device 0"}},
         {"0000:65:00.0 " + simulated}},
        // NVIDIA's driver manages at most 32 GPUs: an absurd count is not walked
        // past that, and each ordinal past the one real device costs a line.
        {oneDevice(R"({"cuDeviceGetCount": {"count": 2147483647}})"), absurd, {"0000:65:00.0 " + simulated}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.scenario);
        const SourceRun run = runSource(libKestrel::queryNVidiaCudaGPUsMulti, row.scenario, Priority::INFO);
        EXPECT_EQ(describe(run.records), row.records);
        EXPECT_EQ(run.lines, row.lines);
    }
}

} // namespace
