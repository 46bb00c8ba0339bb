#pragma once

#include <string>
#include <vector>

namespace kestrel::test {

// Puts a scenario (JSON text) in force for the simulated vendor modules while it
// lives, with an empty journal; the modules read it when they next initialise.
// A scenario the modules would not understand (a misspelt key or fault entry, a
// value of the wrong kind) fails the test at once, and so does a scenario or
// simulator error that reaches the journal meanwhile.
class SimulatedMachine {
public:
    explicit SimulatedMachine(const std::string& json);
    ~SimulatedMachine();
    SimulatedMachine(const SimulatedMachine&) = delete;
    SimulatedMachine& operator=(const SimulatedMachine&) = delete;

    // Everything the modules recorded since, one event per entry.
    std::vector<std::string> journal() const;
    // How often 'event' was recorded.
    size_t count(const std::string& event) const;
};

} // namespace kestrel::test
