#include "hostile/ScenarioGenerator.h"

#include <limits>

#include "state/ScenarioSchemas.h"

namespace kestrel::test {
namespace {

using nlohmann::json;
using Limits32 = std::numeric_limits<std::int32_t>;
using Limits64 = std::numeric_limits<std::int64_t>;

// Every module's schema merged: each module adds its own keys to the machine
// and to a GPU.
void merge(json& into, const json& from)
{
    if (from.is_object())
        into.merge_patch(from);
}

} // namespace

ScenarioGenerator::ScenarioGenerator(std::uint32_t seed) : random_(seed)
{
    for (const char* text : kestrel::sim::scenarioSchemas()) {
        const json schema = json::parse(text);
        merge(scenario_, schema.value("scenario", json::object()));
        merge(gpu_, schema.value("gpu", json::object()));
        merge(types_, schema.value("types", json::object()));
        const json moduleKeys = schema.value("faultKeys", json::object());
        for (const auto& entry : schema.value("entries", json::array())) {
            entries_.push_back(entry.get<std::string>());
            faultKeys_[entry.get<std::string>()] = moduleKeys;
        }
    }
    scenario_.erase("gpus"); // built below, with the merged GPU keys
}

bool ScenarioGenerator::chance(double p) { return std::bernoulli_distribution(p)(random_); }

std::int64_t ScenarioGenerator::pick(const std::vector<std::int64_t>& values)
{
    if (chance(0.2))
        return std::uniform_int_distribution<std::int64_t>(-100000, 100000)(random_);
    return values[std::uniform_int_distribution<std::size_t>(0, values.size() - 1)(random_)];
}

std::string ScenarioGenerator::text()
{
    const auto repeated = [](const std::string& piece, int times) {
        std::string text;
        for (int i = 0; i < times; ++i)
            text += piece;
        return text;
    };
    // Multi-byte characters in long texts: vendors cut them at 64 or 256 bytes,
    // anywhere inside a character.
    const std::vector<std::string> texts = {"", "NVIDIA GeForce RTX 3090", "AMD Radeon RX 6800", repeated("x", 300),
                                            repeated("\u00e9", 40), repeated("\u2713", 100), "GPU-\u0416\u0416\u0416",
                                            "PCI_VEN_1002&DEV_73BF", repeated("\U0001F525", 70), " "};
    return texts[std::uniform_int_distribution<std::size_t>(0, texts.size() - 1)(random_)];
}

json ScenarioGenerator::scalar(const std::string& kind)
{
    if (kind == "string")
        return text();
    if (kind == "bool")
        return chance(0.5);
    if (kind == "bits32" || kind == "int")
        return pick({0, 1, -1, 2, 7, 8, 31, 32, 255, 256, 65535, 4096, 4097, Limits32::min(), Limits32::max(),
                     kind == "int" ? 0 : 4294967295LL});
    if (kind == "int64")
        return pick({0, 1, -1, -1024, -5000, 1LL << 40, Limits64::min(), Limits64::max()});
    if (kind == "uint64") {
        if (chance(0.2))
            return std::numeric_limits<std::uint64_t>::max();
        return static_cast<std::uint64_t>(pick({0, 1, 1024, 1LL << 34, 1LL << 62}));
    }
    if (kind.rfind("int[", 0) == 0) {
        const auto comma = kind.find(',');
        const std::int64_t low = std::stoll(kind.substr(4, comma - 4));
        const std::int64_t high = std::stoll(kind.substr(comma + 1));
        if (chance(0.3))
            return chance(0.5) ? low : high;
        return std::uniform_int_distribution<std::int64_t>(low, high)(random_);
    }
    return nullptr;
}

json ScenarioGenerator::value(const json& kind, int depth)
{
    if (kind.is_string()) {
        const std::string name = kind.get<std::string>();
        if (name.rfind('#', 0) == 0)
            return value(types_.at(name.substr(1)), depth);
        return scalar(name);
    }
    if (kind.contains("@oneOf")) {
        const json& choices = kind["@oneOf"];
        return value(choices[std::uniform_int_distribution<std::size_t>(0, choices.size() - 1)(random_)], depth);
    }
    if (kind.contains("@list")) {
        const std::size_t most = kind.value("@max", depth > 2 ? 3 : 6);
        json list = json::array();
        const std::size_t length = std::uniform_int_distribution<std::size_t>(0, std::min<std::size_t>(most, 6))(random_);
        for (std::size_t i = 0; i < length; ++i)
            list.push_back(value(kind["@list"], depth + 1));
        return list;
    }
    json object = json::object();
    for (const auto& [key, inner] : kind.items())
        if (key != "initLatencyMs" && chance(depth == 0 ? 0.7 : 0.5)) // a slow driver is no hostile one
            object[key] = value(inner, depth + 1);
    return object;
}

json ScenarioGenerator::fault(const std::string& entry)
{
    json fault = json::object();
    if (chance(0.5))
        fault["return"] = pick({-1, -3, -4, -8, 1, 2, 3, 46, 999, Limits32::min()});
    if (chance(0.2))
        fault["null"] = true;
    if (chance(0.3))
        fault["count"] = pick({0, -1, 1, 5, 64, 1000, 4097, Limits32::max(), 1LL << 40});
    if (faultKeys_[entry].contains("unterminated") && chance(0.2))
        fault["unterminated"] = true;
    if (chance(0.3))
        fault["device"] = std::uniform_int_distribution<int>(0, 3)(random_);
    if (chance(0.2))
        fault["call"] = std::uniform_int_distribution<int>(1, 3)(random_);
    return fault;
}

std::vector<json> ScenarioGenerator::faultsFor(const std::string& entry) const
{
    std::vector<json> faults = {json{{"return", -1}}, json{{"return", 3}}, json{{"null", true}},
                                json{{"count", Limits32::max()}}, json{{"count", 0}}, json{{"count", -1}}};
    if (faultKeys_.at(entry).contains("unterminated"))
        faults.push_back(json{{"unterminated", true}});
    return faults;
}

json ScenarioGenerator::machine()
{
    json machine = value(scenario_, 0);
    json gpus = json::array();
    const int count = std::uniform_int_distribution<int>(0, 6)(random_);
    for (int i = 0; i < count; ++i) {
        json gpu = value(gpu_, 0);
        // Some GPUs share a location, as the adapters of one card do.
        if (!gpus.empty() && chance(0.2))
            gpu["pci"] = gpus.back().value("pci", json::object());
        gpus.push_back(gpu);
    }
    machine["gpus"] = gpus;
    json faults = json::object();
    for (const std::string& entry : entries_)
        if (chance(0.05))
            faults[entry] = chance(0.8) ? fault(entry) : json::array({fault(entry), fault(entry)});
    machine["faults"] = faults;
    // Now and then a value of the wrong kind, which the modules refuse.
    if (chance(0.05)) {
        const json spoilt[] = {json{{"monitors", {{{"x", "0"}}}}}, json{{"gpus", {{{"name", 1}}}}},
                               json{{"gpus", {{{"pci", {{"bus", 1e300}}}}}}}, json{{"bogus", true}}};
        machine.merge_patch(spoilt[std::uniform_int_distribution<int>(0, 3)(random_)]);
    }
    return machine;
}

} // namespace kestrel::test
