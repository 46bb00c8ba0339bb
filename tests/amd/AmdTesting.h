#pragma once

#include <exception>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "adl/AdlTesting.h"
#include "common/LogCapture.h"
#include "common/Simulator.h"
#include "libKestrel/ADLWrapper.h"
#include "libKestrel/AMDGPU.h"

// The device class and its call tables keep ADL loaded for the whole process, so
// the simulated ADL keeps its state between tests: each test sets its machine,
// and the module reads it when the next table makes its ADL2 context.
namespace kestrel::test::amd {

using nlohmann::json;
using kestrel::test::LogCapture;
using kestrel::test::SimulatedMachine;
using libKestrel::AMDGPU;
using Priority = tova::LoggerPriority;

// A GPU at <bus>:00.0 that ADL sees, with its "adl" section.
inline json gpuAt(int bus, const json& adl)
{
    json gpu;
    gpu["name"] = "Radeon at bus " + std::to_string(bus);
    gpu["pci"] = {{"bus", bus}, {"device", 0}, {"function", 0}};
    gpu["adl"] = adl;
    return gpu;
}

inline std::string scenario(const std::vector<json>& gpus, const json& faults = json::object())
{
    json machine;
    machine["gpus"] = gpus;
    machine["faults"] = faults;
    return machine.dump();
}

// Faults that keep ADL2 from making a context, so that the tables fall back to
// the classic interface.
inline json withoutAdl2(json faults = json::object())
{
    faults["ADL2_Main_ControlX2_Create"] = {{"return", -1}};
    faults["ADL2_Main_Control_Create"] = {{"return", -1}};
    return faults;
}

inline pci::PciLocation at(int bus) { return pci::PciLocation(static_cast<unsigned char>(bus), 0, 0, 0); }

inline std::vector<AMDGPU> enumerated()
{
    std::vector<AMDGPU> gpus;
    AMDGPU::enumerate(gpus);
    return gpus;
}

// The text of the std::exception that 'call' throws; "" when it throws none.
template <class Call>
std::string thrownBy(Call call)
{
    try {
        call();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

// ADL2 contexts made and not yet ended since the machine was set.
inline int openContexts(const SimulatedMachine& machine)
{
    int open = 0;
    for (const std::string& event : machine.journal())
        if (event.rfind("ADL2 context ", 0) == 0)
            open += event.find(" created") != std::string::npos ? 1 : -1;
    return open;
}

inline bool logged(const LogCapture& capture, int priority, const std::string& text)
{
    return capture.has("libKestrel", priority, text);
}

} // namespace kestrel::test::amd
