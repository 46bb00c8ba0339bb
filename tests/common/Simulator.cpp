#include "common/Simulator.h"

#include <algorithm>
#include <sstream>

#include "state/SimulatorState.h"

namespace kestrel::test {

SimulatedMachine::SimulatedMachine(const std::string& json) { kestrelSimSetScenario(json.c_str()); }

SimulatedMachine::~SimulatedMachine() { kestrelSimSetScenario(nullptr); }

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
