// A vendor that answers for a while and then fails ("fromCall"), and faults a
// new scenario brings in and takes away while the vendor stays open, set as a
// test sets it or rewritten in the scenario file a child process follows.
#include <functional>
#include <optional>

#include <nlohmann/json.hpp>

#include "common/MachineInFile.h"
#include "common/Paths.h"
#include "common/Process.h"
#include "common/Test.h"
#include "libKestrel/Query.h"
#include "libKestrel/Session.h"
#include "state/SimulatorState.h"

namespace {

using namespace kestrel::test;
using nlohmann::json;

// The machine the library runs on, changed under it: set through the
// simulator's control, or written to the file KESTREL_SIM_SCENARIO names.
class ChangingMachine {
public:
    ChangingMachine(bool inFile, const json& machine)
    {
        if (inFile)
            file_.emplace(checked(machine));
        else
            change(machine);
    }
    ~ChangingMachine()
    {
        expectNoErrors();
        kestrelSimSetScenario(nullptr);
    }
    ChangingMachine(const ChangingMachine&) = delete;
    ChangingMachine& operator=(const ChangingMachine&) = delete;

    void change(const json& machine)
    {
        const std::string text = checked(machine);
        if (file_) {
            file_->change(text);
        } else {
            expectNoErrors(); // setting a scenario clears the journal
            kestrelSimSetScenario(text.c_str());
        }
    }

private:
    static std::string checked(const json& machine)
    {
        const std::string text = machine.dump();
        if (const char* problem = kestrelSimCheckScenario(text.c_str()))
            ADD_FAILURE() << "the test's scenario is wrong: " << problem;
        return text;
    }

    static void expectNoErrors()
    {
        const std::string journal = kestrelSimJournal();
        EXPECT_EQ(journal.find("scenario error"), std::string::npos) << journal;
        EXPECT_EQ(journal.find("simulator error"), std::string::npos) << journal;
    }

    std::optional<MachineInFile> file_;
};

const char* way(bool inFile) { return inFile ? "scenario file rewritten" : "scenario set"; }

// One NVIDIA card that NVML, NVAPI and CUDA see and one AMD card, with 'faults'.
json machine(const json& faults = json::object())
{
    return {{"gpus",
             {{{"name", "RTX"}, {"pci", {{"bus", 101}}}, {"cuda", json::object()},
               {"nvapi", {{"memory", {{"dedicated", 8000000}, {"available", 6000000}}}}},
               {"nvml", {{"temperature", 50}}}},
              {{"name", "Radeon"}, {"pci", {{"bus", 3}}}, {"adl", {{"overdrive5", {{"temperature", 50000}}}}}}}},
            {"faults", faults}};
}

// Each vendor kept open by a session: a reading call (or for CUDA, whose
// properties a refresh does not read, the enumeration a rescan runs again)
// answers twice after the new scenario comes in, then fails from its third
// call on, until a scenario without the fault takes it away.
TEST(MidRunFault, StartsAtItsCallAndEndsWithTheScenario)
{
    const SimulatedModules modules{"sim_nvml", "sim_nvapi", "sim_adl"};
    const struct {
        const char* vendor;
        libKestrel::GPUQuerier source;
        const char* entry;
        json effect;
        std::function<bool(const libKestrel::IGPU&)> reads;
        bool rescan = false;
    } rows[] = {
        {"nvml", libKestrel::queryNVidiaNvmlGPUsMulti, "nvmlDeviceGetTemperature", {{"return", 15}},
         [](const libKestrel::IGPU& gpu) { return gpu.temperatureCurrent().has_value(); }},
        {"nvapi", libKestrel::queryNVidiaGPUs, "NvAPI_GPU_GetMemoryInfo", {{"return", -1}},
         [](const libKestrel::IGPU& gpu) { return gpu.availableDedicatedMemory().has_value(); }},
        {"adl", libKestrel::queryAMDGPUsMulti, "ADL2_Overdrive5_Temperature_Get", {{"return", -1}},
         [](const libKestrel::IGPU& gpu) { return gpu.temperatureCurrent().has_value(); }},
        {"cuda", libKestrel::queryNVidiaCudaGPUsMulti, "cuDeviceGetCount", {{"count", 0}},
         [](const libKestrel::IGPU& gpu) { return gpu.versionMajor().has_value(); }, true},
    };
    for (const auto& row : rows) {
        for (const bool inFile : {false, true}) {
            SCOPED_TRACE(std::string(row.vendor) + ", " + way(inFile));
            ChangingMachine simulated(inFile, machine());
            libKestrel::Session session({row.source});
            std::string seen; // per step: + the reading is there, - it is not
            const auto step = [&] {
                row.rescan ? session.rescan() : session.refresh();
                const auto gpus = session.gpus();
                seen += !gpus.empty() && row.reads(*gpus[0]) ? '+' : '-';
            };
            step();
            json fault = row.effect;
            fault["fromCall"] = 2;
            simulated.change(machine({{row.entry, fault}}));
            for (int i = 0; i < 4; ++i)
                step();
            simulated.change(machine());
            step();
            EXPECT_EQ(seen, "+++--+");
        }
    }
}

// GLFW, kept initialised through one enumeration of the monitors, takes in a
// scenario a monitor-side source sets: the old scenario's fault on the second
// window goes, and the new one's, counted from the change, fails the window
// after the next from then on.
ChangingMachine* changing = nullptr;
json monitorsWithFault(const json& fault)
{
    return {{"monitors", {{{"x", 0}}, {{"x", 100}}, {{"x", 200}}, {{"x", 300}}}},
            {"faults", {{"glfwCreateWindow", fault}}}};
}

Records changesTheMachine(void* const&, void* const&)
{
    if (changing)
        changing->change(monitorsWithFault({{"fromCall", 1}, {"null", true}}));
    changing = nullptr;
    return {};
}

TEST(MidRunFault, GlfwTakesInANewScenarioWhileInitialised)
{
    for (const bool inFile : {false, true}) {
        SCOPED_TRACE(way(inFile));
        ChangingMachine simulated(inFile, monitorsWithFault({{"call", 1}, {"null", true}}));
        changing = &simulated;
        LogCapture capture(Priority::CRITICAL);
        std::bitset<4> status;
        libKestrel::queryAllGPUs({changesTheMachine}, {}, status);
        EXPECT_EQ(capture.of("libKestrel.Main"), (Lines{"4|84 Failed to create window on monitor 2",
                                                        "4|84 Failed to create window on monitor 3"}));
    }
}

} // namespace
