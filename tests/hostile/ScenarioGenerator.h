#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace kestrel::test {

// Builds hostile machines from the simulated modules' scenario schemas: every
// kind of value at its extremes, long and non-ASCII strings, huge counts,
// repeated PCI locations, faults on any entry point, and now and then a value
// of the wrong kind (which the modules must refuse as a whole).
class ScenarioGenerator {
public:
    explicit ScenarioGenerator(std::uint32_t seed);

    nlohmann::json machine();

    // Every entry point of every module, and every fault one can be given.
    const std::vector<std::string>& entries() const { return entries_; }
    std::vector<nlohmann::json> faultsFor(const std::string& entry) const;

private:
    nlohmann::json value(const nlohmann::json& kind, int depth);
    nlohmann::json scalar(const std::string& kind);
    nlohmann::json fault(const std::string& entry);
    bool chance(double p);
    std::int64_t pick(const std::vector<std::int64_t>& values);
    std::string text();

    std::mt19937 random_;
    nlohmann::json scenario_ = nlohmann::json::object(); // the machine's own keys, merged
    nlohmann::json gpu_ = nlohmann::json::object();      // a GPU's keys, merged
    nlohmann::json types_ = nlohmann::json::object();
    nlohmann::json faultKeys_ = nlohmann::json::object(); // per entry point, its module's own
    std::vector<std::string> entries_;
};

} // namespace kestrel::test
