// What a session's refresh costs, wall time, against the vendor calls it makes
// made directly, and against a one-shot query of the same sources: for the
// simulated workstation, a simulated machine of 16 GPUs, and the workstation
// with drivers that take 250 ms to start.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "SimulatedMachine.h"
#include "libKestrel/Query.h"
#include "libKestrel/Session.h"
#include "libKestrel/Sources.h"
#include "libKestrel/vendor/adl.h"
#include "libKestrel/vendor/nvml.h"
#include "state/SimulatorState.h"

namespace {

using kestrel::bench::SimulatedModules;
using kestrel::bench::simulatedModules;
namespace adl = libKestrel::adl;
namespace nvml = libKestrel::nvml;

// The sources a Linux machine with NVIDIA and AMD drivers has.
const std::vector<libKestrel::GPUQuerier> sources = {
    libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaCudaGPUsMulti, libKestrel::queryAMDGPUsMulti};

std::string workstation() {
    std::ifstream file(KESTREL_WORKSTATION);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// Eight NVIDIA cards (NVML and CUDA) and eight AMD cards (ADL, three adapters each).
std::string sixteenGpus() {
    std::string gpus;
    for (int i = 0; i < 8; ++i) {
        const std::string n = std::to_string(i);
        gpus += R"({"name": "NVIDIA )" + n + R"(", "pci": {"bus": )" + std::to_string(100 + i) +
                R"(}, "nvml": {"temperature": 5)" + n + R"(, "utilization": {"gpu": 1)" + n +
                R"(, "memory": 3}, "fanSpeed": 40, "ecc": {"corrected": {"volatile": {}, "aggregate": {}},)"
                R"( "uncorrected": {"volatile": {}, "aggregate": {}}}, "power": 21)" + n +
                R"(000, "powerLimit": 250000, "energy": 4318275000, "memoryTemperature": 6)" + n +
                R"(, "link": {"generation": 4, "width": 16, "maxGeneration": 4, "maxWidth": 16},)"
                R"( "performanceState": 2, "clocksEventReasons": 4}, "cuda": {}}, )";
        gpus += R"({"name": "Radeon )" + n + R"(", "pci": {"bus": )" + std::to_string(10 + i) +
                R"(}, "adl": {"adapters": 3, "overdrive5": {"temperature": 6)" + n +
                R"(000}, "overdrive6": {"engineClock": 215500, "memoryClock": 200000, "activity": 7,)"
                R"( "fan": {"percent": 22, "rpm": 980}}, "overdrive8": {"pmlog": [{"sensor": 23, "value": 14)" + n +
                R"(}, {"sensor": 27, "value": 7)" + n + R"(}, {"sensor": 9, "value": 6)" + n + R"(}]}}})" +
                (i < 7 ? ", " : "");
    }
    return R"({"gpus": [)" + gpus + "]}";
}

// The workstation whose NVML, CUDA driver and ADL each take 250 ms to start.
std::string slowWorkstation() {
    std::string scenario = workstation();
    const std::string latency = R"("initLatencyMs": 250, )";
    for (const char *section : {"\"nvml\": { ", "\"cudaDriver\": { "})
        scenario.insert(scenario.find(section) + std::string(section).size(), latency);
    scenario.insert(scenario.find('{') + 1, R"( "adl": { "initLatencyMs": 250 },)");
    return scenario;
}

enum MachineKind { Workstation, Sixteen, SlowWorkstation };

// The machine of a benchmark's argument, in force while it lives: set in this
// process, and in the file KESTREL_SIM_SCENARIO names for helper processes.
class Machine {
public:
    explicit Machine(const benchmark::State &state) {
        simulatedModules();
        const auto kind = static_cast<MachineKind>(state.range(0));
        const std::string scenario = kind == Sixteen           ? sixteenGpus()
                                     : kind == SlowWorkstation ? slowWorkstation()
                                                               : workstation();
        kestrelSimSetScenario(scenario.c_str());
        std::ofstream(file_) << scenario;
        setenv("KESTREL_SIM_SCENARIO", file_.c_str(), 1);
    }
    ~Machine() {
        kestrelSimSetScenario(nullptr);
        setenv("KESTREL_SIM_SCENARIO", KESTREL_WORKSTATION, 1);
        std::remove(file_.c_str());
    }

private:
    const std::string file_ = kestrel::test::temporaryPath("bench-machine.json");
};

void BM_OneShotQuery(benchmark::State &state) {
    const Machine machine(state);
    for (auto _ : state) {
        std::bitset<4> status;
        benchmark::DoNotOptimize(libKestrel::queryAllGPUs({}, sources, status));
    }
}

void BM_SessionRefresh(benchmark::State &state) {
    const Machine machine(state);
    libKestrel::Session session(sources);
    for (auto _ : state)
        session.refresh();
}

// The same, each source in a helper process.
void BM_IsolatedSessionRefresh(benchmark::State &state) {
    const Machine machine(state);
    libKestrel::SessionOptions isolated;
    isolated.isolate = true;
    libKestrel::Session session(sources, isolated);
    for (auto _ : state)
        session.refresh();
    if (!session.sources().empty() && !session.sources().front().up)
        state.SkipWithError("the helpers did not answer");
}

// Resident memory of a process, in kilobytes (0 when it cannot be read).
long residentKilobytes(const std::string &process) {
    std::ifstream statm("/proc/" + process + "/statm");
    long pages = 0;
    long resident = 0;
    statm >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// This process's resident memory and its helpers'.
long residentWithHelpers() {
    long total = residentKilobytes("self");
    std::error_code error;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::ifstream children(task.path() / "children");
        for (std::string child; children >> child;)
            total += residentKilobytes(child);
    }
    return total;
}

// Resident memory after 1,000 refreshes and after 100,000, the helpers' with
// it (isolated): what grows with each refresh shows as the difference.
void BM_ResidentAfterRefreshes(benchmark::State &state) {
    const Machine machine(state);
    libKestrel::SessionOptions options;
    options.isolate = state.range(1) != 0;
    libKestrel::Session session(sources, options);
    for (auto _ : state) {
        for (int i = 0; i < 1000; ++i)
            session.refresh();
        const long early = residentWithHelpers();
        for (int i = 1000; i < 100000; ++i)
            session.refresh();
        state.counters["kB_after_1k"] = static_cast<double>(early);
        state.counters["kB_after_100k"] = static_cast<double>(residentWithHelpers());
    }
}

void *allocate(int size) {
    return std::malloc(static_cast<std::size_t>(size));
}

// The readings a refresh gives, read by calling the simulated NVML and ADL
// directly, with both kept open (NVML initialised, an ADL2 context) and the
// devices and adapters enumerated once: per NVIDIA GPU utilisation, four ECC
// counts, temperature, fan speed, power, energy, the memory's temperature, the
// link's generation and width, the performance state and the clock event
// reasons; per AMD GPU temperature, current status, fan speed and the PM log.
class DirectCalls {
public:
    explicit DirectCalls(const SimulatedModules &sim) {
        const auto nvmlEntry = [&sim](const char *name) { return sim.entry<void *>(SimulatedModules::nvml, name); };
        const auto adlEntry = [&sim](const char *name) { return sim.entry<void *>(SimulatedModules::adl, name); };
        nvmlInit = reinterpret_cast<nvml::PFN_nvmlInit_v2>(nvmlEntry("nvmlInit_v2"));
        nvmlShutdown = reinterpret_cast<nvml::PFN_nvmlShutdown>(nvmlEntry("nvmlShutdown"));
        utilization =
            reinterpret_cast<nvml::PFN_nvmlDeviceGetUtilizationRates>(nvmlEntry("nvmlDeviceGetUtilizationRates"));
        ecc = reinterpret_cast<nvml::PFN_nvmlDeviceGetDetailedEccErrors>(nvmlEntry("nvmlDeviceGetDetailedEccErrors"));
        temperature = reinterpret_cast<nvml::PFN_nvmlDeviceGetTemperature>(nvmlEntry("nvmlDeviceGetTemperature"));
        fan = reinterpret_cast<nvml::PFN_nvmlDeviceGetFanSpeed>(nvmlEntry("nvmlDeviceGetFanSpeed"));
        power = reinterpret_cast<nvml::PFN_nvmlDeviceGetPowerUsage>(nvmlEntry("nvmlDeviceGetPowerUsage"));
        energy = reinterpret_cast<nvml::PFN_nvmlDeviceGetTotalEnergyConsumption>(
            nvmlEntry("nvmlDeviceGetTotalEnergyConsumption"));
        fields = reinterpret_cast<nvml::PFN_nvmlDeviceGetFieldValues>(nvmlEntry("nvmlDeviceGetFieldValues"));
        linkGeneration = reinterpret_cast<nvml::PFN_nvmlDeviceGetCurrPcieLinkGeneration>(
            nvmlEntry("nvmlDeviceGetCurrPcieLinkGeneration"));
        linkWidth =
            reinterpret_cast<nvml::PFN_nvmlDeviceGetCurrPcieLinkWidth>(nvmlEntry("nvmlDeviceGetCurrPcieLinkWidth"));
        state = reinterpret_cast<nvml::PFN_nvmlDeviceGetPerformanceState>(nvmlEntry("nvmlDeviceGetPerformanceState"));
        reasons = reinterpret_cast<nvml::PFN_nvmlDeviceGetCurrentClocksEventReasons>(
            nvmlEntry("nvmlDeviceGetCurrentClocksEventReasons"));
        create = reinterpret_cast<adl::PFN_ADL2_Main_Control_Create>(adlEntry("ADL2_Main_Control_Create"));
        destroy = reinterpret_cast<adl::PFN_ADL2_Main_Control_Destroy>(adlEntry("ADL2_Main_Control_Destroy"));
        odTemperature =
            reinterpret_cast<adl::PFN_ADL2_Overdrive5_Temperature_Get>(adlEntry("ADL2_Overdrive5_Temperature_Get"));
        odStatus = reinterpret_cast<adl::PFN_ADL2_Overdrive6_CurrentStatus_Get>(
            adlEntry("ADL2_Overdrive6_CurrentStatus_Get"));
        odFan = reinterpret_cast<adl::PFN_ADL2_Overdrive6_FanSpeed_Get>(adlEntry("ADL2_Overdrive6_FanSpeed_Get"));
        pmLog = reinterpret_cast<adl::PFN_ADL2_New_QueryPMLogData_Get>(adlEntry("ADL2_New_QueryPMLogData_Get"));

        nvmlInit();
        unsigned int count = 0;
        reinterpret_cast<nvml::PFN_nvmlDeviceGetCount_v2>(nvmlEntry("nvmlDeviceGetCount_v2"))(&count);
        devices.resize(count);
        for (unsigned int i = 0; i < count; ++i)
            reinterpret_cast<nvml::PFN_nvmlDeviceGetHandleByIndex>(nvmlEntry("nvmlDeviceGetHandleByIndex"))(
                i, &devices[i]);

        create(allocate, 1, &context);
        int adapters = 0;
        reinterpret_cast<adl::PFN_ADL2_Adapter_NumberOfAdapters_Get>(adlEntry("ADL2_Adapter_NumberOfAdapters_Get"))(
            context, &adapters);
        std::vector<adl::AdapterInfo> info(static_cast<std::size_t>(adapters));
        reinterpret_cast<adl::PFN_ADL2_Adapter_AdapterInfo_Get>(adlEntry("ADL2_Adapter_AdapterInfo_Get"))(
            context, info.data(), adapters * static_cast<int>(sizeof(adl::AdapterInfo)));
        for (const adl::AdapterInfo &adapter : info) // the first adapter of each GPU
            if (indices.empty() ||
                adapter.iBusNumber != info[static_cast<std::size_t>(indices.back().second)].iBusNumber)
                indices.emplace_back(adapter.iAdapterIndex, &adapter - info.data());
    }
    ~DirectCalls() {
        destroy(context);
        nvmlShutdown();
    }

    void read() {
        for (nvml::nvmlDevice_t device : devices) {
            nvml::nvmlUtilization_t rates{};
            utilization(device, &rates);
            nvml::nvmlEccErrorCounts_t counts{};
            for (auto type : {nvml::NVML_MEMORY_ERROR_TYPE_CORRECTED, nvml::NVML_MEMORY_ERROR_TYPE_UNCORRECTED})
                for (auto counter : {nvml::NVML_VOLATILE_ECC, nvml::NVML_AGGREGATE_ECC})
                    ecc(device, type, counter, &counts);
            unsigned int value = 0;
            temperature(device, nvml::NVML_TEMPERATURE_GPU, &value);
            fan(device, &value);
            power(device, &value);
            unsigned long long counter = 0;
            energy(device, &counter);
            nvml::nvmlFieldValue_t field{};
            field.fieldId = nvml::NVML_FI_DEV_MEMORY_TEMP;
            fields(device, 1, &field);
            linkGeneration(device, &value);
            linkWidth(device, &value);
            nvml::nvmlPstates_t pstate{};
            state(device, &pstate);
            reasons(device, &counter);
            benchmark::DoNotOptimize(value);
            benchmark::DoNotOptimize(counter);
        }
        for (const auto &[index, position] : indices) {
            adl::ADLTemperature degrees{};
            degrees.iSize = sizeof degrees;
            odTemperature(context, index, 0, &degrees);
            adl::ADLOD6CurrentStatus status{};
            odStatus(context, index, &status);
            adl::ADLOD6FanSpeedInfo speed{};
            speed.iSpeedType = adl::ADL_OD6_FANSPEED_TYPE_PERCENT | adl::ADL_OD6_FANSPEED_TYPE_RPM;
            odFan(context, index, &speed);
            adl::ADLPMLogDataOutput log{};
            pmLog(context, index, &log);
            benchmark::DoNotOptimize(status);
            benchmark::DoNotOptimize(log);
        }
    }

private:
    nvml::PFN_nvmlInit_v2 nvmlInit;
    nvml::PFN_nvmlShutdown nvmlShutdown;
    nvml::PFN_nvmlDeviceGetUtilizationRates utilization;
    nvml::PFN_nvmlDeviceGetDetailedEccErrors ecc;
    nvml::PFN_nvmlDeviceGetTemperature temperature;
    nvml::PFN_nvmlDeviceGetFanSpeed fan;
    nvml::PFN_nvmlDeviceGetPowerUsage power;
    nvml::PFN_nvmlDeviceGetTotalEnergyConsumption energy;
    nvml::PFN_nvmlDeviceGetFieldValues fields;
    nvml::PFN_nvmlDeviceGetCurrPcieLinkGeneration linkGeneration;
    nvml::PFN_nvmlDeviceGetCurrPcieLinkWidth linkWidth;
    nvml::PFN_nvmlDeviceGetPerformanceState state;
    nvml::PFN_nvmlDeviceGetCurrentClocksEventReasons reasons;
    adl::PFN_ADL2_Main_Control_Create create;
    adl::PFN_ADL2_Main_Control_Destroy destroy;
    adl::PFN_ADL2_Overdrive5_Temperature_Get odTemperature;
    adl::PFN_ADL2_Overdrive6_CurrentStatus_Get odStatus;
    adl::PFN_ADL2_Overdrive6_FanSpeed_Get odFan;
    adl::PFN_ADL2_New_QueryPMLogData_Get pmLog;
    adl::ADL_CONTEXT_HANDLE context = nullptr;
    std::vector<nvml::nvmlDevice_t> devices;
    std::vector<std::pair<int, std::ptrdiff_t>> indices; // adapter index, place in ADL's list
};

void BM_DirectVendorCalls(benchmark::State &state) {
    const Machine machine(state);
    DirectCalls calls(simulatedModules());
    for (auto _ : state)
        calls.read();
}

void machines(benchmark::internal::Benchmark *benchmark) {
    benchmark->ArgName("machine")->Arg(Workstation)->Arg(Sixteen)->Unit(benchmark::kMicrosecond)->UseRealTime();
}

BENCHMARK(BM_DirectVendorCalls)->Apply(machines);
BENCHMARK(BM_SessionRefresh)->Apply(machines);
BENCHMARK(BM_IsolatedSessionRefresh)->Apply(machines);
BENCHMARK(BM_OneShotQuery)->Apply(machines);
BENCHMARK(BM_SessionRefresh)->Arg(SlowWorkstation)->ArgName("slow")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ResidentAfterRefreshes)
    ->ArgNames({"machine", "isolated"})
    ->Args({Workstation, 0})
    ->Args({Workstation, 1})
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();
BENCHMARK(BM_OneShotQuery)
    ->Arg(SlowWorkstation)
    ->ArgName("slow")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2);

} // namespace
