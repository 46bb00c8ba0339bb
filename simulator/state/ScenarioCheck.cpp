// Checks a scenario against the keys and value kinds the simulated modules read.
//
// Each module describes its part of the scenario in its folder's
// scenario-schema.json (see simulator/README.md, "Adding a module"); the build
// embeds every description here, so any module, and any program holding one,
// can tell whether a scenario is one the simulator understands. A key nobody
// reads, a value of the wrong kind or out of its field's range, and a fault on
// an entry point no module has are all reported with where they are.
#include <cstdint>
#include <cstdio>
#include <limits>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "state/ScenarioSchemas.h"
#include "state/SimulatorState.h"

namespace {

using nlohmann::json;

// Every module's description, merged: the top-level keys, the keys of a "gpus"
// entry, the named types, the entry points and the keys of a fault object.
struct Schema {
    json scenario = json::object();
    json gpu = json::object();
    json types = json::object();
    std::set<std::string> entries;
    json faultKeys = json::object();
};

void mergeInto(json& target, const json& part)
{
    for (const auto& [key, value] : part.items()) {
        if (target.contains(key) && target[key].is_object() && value.is_object())
            mergeInto(target[key], value);
        else
            target[key] = value;
    }
}

const Schema& schema()
{
    static const Schema merged = [] {
        Schema all;
        for (const char* text : kestrel::sim::scenarioSchemas()) {
            const json part = json::parse(text);
            mergeInto(all.scenario, part.value("scenario", json::object()));
            mergeInto(all.gpu, part.value("gpu", json::object()));
            mergeInto(all.types, part.value("types", json::object()));
            mergeInto(all.faultKeys, part.value("faultKeys", json::object()));
            for (const auto& entry : part.value("entries", json::array()))
                all.entries.insert(entry.get<std::string>());
        }
        all.types["gpu"] = all.gpu;
        all.types["fault"] = all.faultKeys;
        return all;
    }();
    return merged;
}

// An integer kind: its bounds, and how it reads in a message.
struct Range {
    std::int64_t low;
    std::uint64_t high;
};

std::optional<Range> rangeOf(const std::string& kind)
{
    constexpr auto int32Low = std::numeric_limits<std::int32_t>::min();
    if (kind == "int")
        return Range{int32Low, std::numeric_limits<std::int32_t>::max()};
    if (kind == "bits32") // any 32-bit field, read as signed or unsigned
        return Range{int32Low, std::numeric_limits<std::uint32_t>::max()};
    if (kind == "int64")
        return Range{std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()};
    if (kind == "uint64")
        return Range{0, std::numeric_limits<std::uint64_t>::max()};
    // "int[low,high]"
    long long low = 0;
    unsigned long long high = 0;
    if (std::sscanf(kind.c_str(), "int[%lld,%llu]", &low, &high) == 2)
        return Range{low, high};
    return std::nullopt;
}

bool within(const json& value, const Range& range)
{
    if (value.is_number_unsigned()) {
        const auto number = value.get<std::uint64_t>();
        return (range.low <= 0 || number >= static_cast<std::uint64_t>(range.low)) && number <= range.high;
    }
    const auto number = value.get<std::int64_t>();
    return number >= range.low && (number < 0 || static_cast<std::uint64_t>(number) <= range.high);
}

class Checker {
public:
    // The first problem found, as "where: what", or nothing.
    std::optional<std::string> check(const json& scenario)
    {
        if (!scenario.is_object())
            return std::string("the top level must be a JSON object");
        for (const auto& [key, value] : scenario.items()) {
            if (key == "faults")
                faults(value);
            else if (const auto known = schema().scenario.find(key); known != schema().scenario.end())
                node(value, *known, key);
            else
                fail(key, "unknown key");
            if (problem_)
                return problem_;
        }
        return std::nullopt;
    }

private:
    void fail(const std::string& where, const std::string& what)
    {
        if (!problem_)
            problem_ = where + ": " + what;
    }

    void faults(const json& value)
    {
        if (!value.is_object())
            return fail("faults", "expected an object");
        for (const auto& [entry, faults] : value.items()) {
            const std::string where = "faults." + entry;
            if (!schema().entries.count(entry))
                return fail(where, "no simulated module has this entry point");
            static const json oneOrMore = {{"@oneOf", json::array({"#fault", json{{"@list", "#fault"}}})}};
            node(faults, oneOrMore, where);
        }
    }

    void node(const json& value, const json& kind, const std::string& where)
    {
        if (kind.is_string())
            named(value, kind.get<std::string>(), where);
        else if (kind.contains("@list"))
            list(value, kind, where);
        else if (kind.contains("@oneOf"))
            oneOf(value, kind["@oneOf"], where);
        else
            object(value, kind, where);
    }

    void named(const json& value, const std::string& kind, const std::string& where)
    {
        if (kind[0] == '#')
            return node(value, schema().types.at(kind.substr(1)), where);
        if (kind == "string") {
            if (!value.is_string())
                fail(where, "expected a string");
        } else if (kind == "bool") {
            if (!value.is_boolean())
                fail(where, "expected true or false");
        } else if (const auto range = rangeOf(kind)) {
            if (!value.is_number_integer() || !within(value, *range))
                fail(where, "expected an integer from " + std::to_string(range->low) + " to " +
                                std::to_string(range->high));
        } else {
            fail(where, "the simulator's schema names an unknown kind '" + kind + "'");
        }
    }

    void list(const json& value, const json& kind, const std::string& where)
    {
        if (!value.is_array())
            return fail(where, "expected a list");
        if (kind.contains("@max") && value.size() > kind["@max"].get<std::size_t>())
            return fail(where, "more than " + kind["@max"].dump() + " entries");
        for (std::size_t i = 0; i < value.size() && !problem_; ++i)
            node(value[i], kind["@list"], where + "[" + std::to_string(i) + "]");
    }

    void oneOf(const json& value, const json& alternatives, const std::string& where)
    {
        // A form the value got into (its problem lies deeper) says best what is
        // wrong; otherwise the value is of none of the forms' kinds.
        std::string expected;
        for (const json& alternative : alternatives) {
            Checker attempt;
            attempt.node(value, alternative, where);
            if (!attempt.problem_)
                return;
            const std::string& problem = *attempt.problem_;
            if (problem.compare(0, where.size() + 2, where + ": ") != 0) {
                problem_ = problem;
                return;
            }
            expected += (expected.empty() ? "" : ", or ") + problem.substr(where.size() + 2);
        }
        fail(where, expected);
    }

    void object(const json& value, const json& keys, const std::string& where)
    {
        if (!value.is_object())
            return fail(where, "expected an object");
        for (const auto& [key, member] : value.items()) {
            const auto known = keys.find(key);
            if (known == keys.end())
                return fail(where + "." + key, "unknown key");
            node(member, *known, where + "." + key);
            if (problem_)
                return;
        }
    }

    std::optional<std::string> problem_;
};

} // namespace

const char* kestrelSimCheckScenario(const char* text)
{
    static thread_local std::string problem;
    try {
        const json scenario = json::parse(text ? text : "");
        const auto found = Checker().check(scenario);
        if (!found)
            return nullptr;
        problem = *found;
    } catch (const json::exception& error) {
        // "[json.exception.parse_error.101] parse error at line 3, column 5: ..."
        problem = error.what();
        if (const auto end = problem.find("] "); end != std::string::npos)
            problem.erase(0, end + 2);
    }
    return problem.c_str();
}

int kestrelSimKnowsEntry(const char* entry) { return entry && schema().entries.count(entry) ? 1 : 0; }
