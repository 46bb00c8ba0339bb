#pragma once

#include <algorithm>
#include <cstring>
#include <bitset>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "common/LogCapture.h"
#include "common/Modules.h"
#include "common/Simulator.h"
#include "libKestrel/IGPU.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/multi/AMD/adlwrapper.h"

namespace kestrel::test::adl {

using nlohmann::json;
using kestrel::test::LogCapture;
using kestrel::test::SimulatedModules;
using kestrel::test::SimulatedMachine;
using Priority = tova::LoggerPriority;
using Records = std::vector<std::shared_ptr<libKestrel::IGPU>>;
using Lines = std::vector<std::string>;

// One AMD card at 03:00.0 seen by ADL as three adapters (the second not
// present), with every property the AMD source reads; and a card ADL does not see.
inline json radeon()
{
    return json::parse(R"({"gpus": [
        {"name": "AMD Radeon RX 6800", "pci": {"bus": 3, "device": 0, "function": 0},
         "adl": {"udid": "PCI_VEN_1002&DEV_73BF&SUBSYS_0E3A1002&REV_C3",
                 "adapters": [{"displayName": "\\\\.\\DISPLAY1"}, {"present": 0}, {}],
                 "bios": {"version": "113-D4120100-101"},
                 "overdrive5": {"temperature": 54321},
                 "overdrive6": {"engineClock": 225000, "memoryClock": 100000, "activity": 37, "busSpeed": 16000,
                                "busLanes": 8, "maxBusLanes": 16, "fan": {"percent": 41, "rpm": 1650}},
                 "memory": {"size": 17163091968, "type": "GDDR6", "bandwidth": 512000},
                 "crossfire": {"preferred": 0, "combinations": [[0, 1]], "supported": 1}}},
        {"name": "A card without ADL", "pci": {"bus": 1}}]})");
}

// The radeon() card with one adapter and 'changes' merged into its "adl" section.
inline json oneAdapter(const json& changes)
{
    json scenario = radeon();
    json& adl = scenario["gpus"][0]["adl"];
    adl["adapters"] = 1;
    adl.merge_patch(changes);
    return scenario;
}

// The AMD source as a host calls it, with a status set it must leave alone.
inline Records queryAMD()
{
    std::bitset<4> status("1010");
    Records records = libKestrel::queryAMDGPUsMulti(status);
    EXPECT_EQ(status, std::bitset<4>("1010"));
    return records;
}

// The binding's entry table with the fan-speed slot left out: the release keeps
// that slot as it was.
inline libKestrel::adlwrapper::ADLFunctions releasedSlots()
{
    libKestrel::adlwrapper::ADLFunctions slots = libKestrel::adlwrapper::adlBinding().functions;
    slots.ADL_Overdrive6_FanSpeed_Get = nullptr;
    return slots;
}

// After a query, whatever its outcome: ADL unloaded, every slot empty but the
// fan-speed one.
inline void expectReleased()
{
    EXPECT_FALSE(libKestrel::adlwrapper::adlBinding().library.isLoaded());
    const libKestrel::adlwrapper::ADLFunctions slots = releasedSlots();
    const libKestrel::adlwrapper::ADLFunctions empty{};
    EXPECT_EQ(std::memcmp(&slots, &empty, sizeof empty), 0);
}

// Every main control and ADL2 context that ADL created was destroyed.
inline void expectClosedAndUnloaded(const SimulatedMachine& machine)
{
    const Lines journal = machine.journal();
    int controls = 0;
    int contexts = 0;
    for (const std::string& event : journal) {
        controls += event == "ADL main control created" ? 1 : event == "ADL main control destroyed" ? -1 : 0;
        if (event.rfind("ADL2 context ", 0) == 0)
            contexts += event.find(" created") != std::string::npos ? 1 : -1;
    }
    EXPECT_EQ(controls, 0);
    EXPECT_EQ(contexts, 0);
}

// Tests of the AMD source against the full simulated ADL (and a simulated GLFW
// for the whole query).
class AmdSource : public ::testing::Test {
protected:
    SimulatedModules modules{"sim_adl", "sim_glfw"};
};

} // namespace kestrel::test::adl
