#include "common/Simulator.h"

#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include "state/SimulatorState.h"

namespace kestrel::test {

SimulatedMachine::SimulatedMachine(const std::string& json)
{
    if (const char* problem = kestrelSimCheckScenario(json.c_str()))
        ADD_FAILURE() << "the test's scenario is wrong: " << problem;
    kestrelSimSetScenario(json.c_str());
}

SimulatedMachine::~SimulatedMachine()
{
    for (const std::string& event : journal())
        if (event.rfind("scenario error", 0) == 0 || event.rfind("simulator error", 0) == 0)
            ADD_FAILURE() << event;
    kestrelSimSetScenario(nullptr);
}

std::vector<std::string> SimulatedMachine::journal() const
{
    std::vector<std::string> events;
    std::istringstream lines(kestrelSimJournal());
    for (std::string line; std::getline(lines, line);)
        events.push_back(line);
    return events;
}

size_t SimulatedMachine::count(const std::string& event) const
{
    const auto events = journal();
    return static_cast<size_t>(std::count(events.begin(), events.end(), event));
}

} // namespace kestrel::test
