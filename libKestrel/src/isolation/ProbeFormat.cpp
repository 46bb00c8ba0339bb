#include "libKestrel/internal/isolation/ProbeFormat.h"

#include <charconv>
#include <optional>
#include <cstdint>
#include <sstream>
#include <type_traits>

#include "libKestrel/GPU.h"
#include "libKestrel/internal/Properties.h"

namespace libKestrel::probe {
namespace {

std::string escaped(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default: out += c;
        }
    }
    return out;
}

std::optional<std::string> unescaped(const std::string& text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        if (++i == text.size())
            return std::nullopt;
        switch (text[i]) {
        case '\\': out += '\\'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        default: return std::nullopt;
        }
    }
    return out;
}

template <class T>
std::string written(const T& value)
{
    if constexpr (std::is_same_v<T, std::string>)
        return escaped(value);
    else if constexpr (std::is_same_v<T, bool>)
        return value ? "1" : "0";
    else
        return std::to_string(value);
}

template <class T>
std::optional<T> read(const std::string& text)
{
    if constexpr (std::is_same_v<T, std::string>) {
        return unescaped(text);
    } else if constexpr (std::is_same_v<T, bool>) {
        if (text == "0" || text == "1")
            return text == "1";
        return std::nullopt;
    } else {
        T value{};
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc() || end != text.data() + text.size())
            return std::nullopt;
        return value;
    }
}

// A property line onto the record: false when the name or value is not one.
bool setProperty(GPU& gpu, const std::string& name, const std::string& value)
{
#define LIBKESTREL_PROBE_SET(type, getter, setter, unit)                                                       \
    if constexpr (!std::is_pointer_v<type>) {                                                                  \
        if (name == #getter) {                                                                                 \
            const auto parsed = read<type>(value);                                                             \
            if (parsed)                                                                                        \
                gpu.setter(*parsed);                                                                           \
            return parsed.has_value();                                                                         \
        }                                                                                                      \
    }
    LIBKESTREL_ALL_GPU_PROPERTIES(LIBKESTREL_PROBE_SET)
#undef LIBKESTREL_PROBE_SET
    return false;
}

} // namespace

bool complete(std::string_view answer)
{
    constexpr std::string_view last = "\ndone\n";
    return answer.size() >= last.size() && answer.substr(answer.size() - last.size()) == last;
}

std::string header() { return "kestrel-probe 1\n"; }

std::string logLine(const std::string& logger, int priority, const std::string& text)
{
    return "log " + std::to_string(priority) + " " + (logger.empty() ? "-" : logger) + " " + escaped(text) + "\n";
}

namespace {

// A location's domain, "-" when its source cannot tell it.
std::string domainText(const pci::PciLocation& location)
{
    return location.domainKnown ? std::to_string(location.domain) : "-";
}

// A "gpu" line's location, "<domain> <bus> <device> <function>" with the
// domain in decimal or "-": nothing when it is no PCI location.
std::optional<pci::PciLocation> locationOf(const std::string& text)
{
    std::istringstream fields(text);
    std::string domain, bus, device, function, extra;
    if (!(fields >> domain >> bus >> device >> function) || fields >> extra)
        return std::nullopt;
    const auto b = read<std::uint8_t>(bus);
    const auto d = read<std::uint8_t>(device);
    const auto f = read<std::uint8_t>(function);
    const bool unknown = domain == "-";
    const auto number = unknown ? std::optional<std::uint32_t>(0) : read<std::uint32_t>(domain);
    if (!b || !d || !f || !number || *d > 31 || *f > 7)
        return std::nullopt;
    return unknown ? pci::PciLocation::withoutDomain(*b, *d, *f) : pci::PciLocation(*b, *d, *f, *number);
}

// Every property the record has, a line each.
void writeProperties(std::ostringstream& out, const IGPU& gpu)
{
#define LIBKESTREL_PROBE_WRITE(type, getter, setter, unit)                                                     \
    if constexpr (!std::is_pointer_v<type>) {                                                                  \
        if (const auto value = gpu.getter())                                                                   \
            out << #getter << ' ' << written(*value) << '\n';                                                  \
    }
    LIBKESTREL_ALL_GPU_PROPERTIES(LIBKESTREL_PROBE_WRITE)
#undef LIBKESTREL_PROBE_WRITE
}

// The records with a location (the merge would drop the others), those that
// 'read' marks with "reads", then the status.
void writeRecords(std::ostringstream& out, const std::vector<std::shared_ptr<IGPU>>& gpus,
                  const std::vector<bool>* read, const std::bitset<4>& status)
{
    for (std::size_t i = 0; i < gpus.size(); ++i) {
        const auto location = gpus[i] ? gpus[i]->pciLocation() : std::nullopt;
        if (!location)
            continue;
        out << "gpu " << domainText(*location) << ' ' << int(location->bus) << ' ' << int(location->device) << ' '
            << int(location->function) << '\n';
        writeProperties(out, *gpus[i]);
        if (read && i < read->size() && (*read)[i])
            out << "reads\n";
        out << "end\n";
    }
    out << "status " << status.to_string() << '\n';
}

} // namespace

std::string records(const std::vector<std::shared_ptr<IGPU>>& gpus, const std::bitset<4>& status)
{
    std::ostringstream out;
    writeRecords(out, gpus, nullptr, status);
    out << "done\n";
    return out.str();
}

std::string enumeration(const std::vector<std::shared_ptr<IGPU>>& gpus, const std::vector<bool>& read, bool open,
                        const std::bitset<4>& status)
{
    std::ostringstream out;
    writeRecords(out, gpus, &read, status);
    if (open)
        out << "open\n";
    out << "done\n";
    return out.str();
}

std::string readings(bool reached, const std::vector<std::pair<std::size_t, const IGPU*>>& gpus)
{
    std::ostringstream out;
    out << "reached " << (reached ? 1 : 0) << '\n';
    for (const auto& [place, gpu] : gpus) {
        out << "readings " << place << '\n';
        writeProperties(out, *gpu);
        out << "end\n";
    }
    out << "done\n";
    return out.str();
}

Output parse(const std::string& text, std::string& problem)
{
    Output output;
    std::istringstream lines(text);
    std::string line;
    std::shared_ptr<GPU> gpu;
    bool reads = false;               // the record being read is marked "reads"
    std::optional<std::size_t> place; // the readings being read are of this record
    int number = 0;
    bool done = false;
    const auto fail = [&problem, &number](const std::string& why) {
        problem = "line " + std::to_string(number) + ": " + why;
        return false;
    };
    const auto take = [&](const std::string& item) {
        const auto space = item.find(' ');
        const std::string word = item.substr(0, space);
        const std::string rest = space == std::string::npos ? "" : item.substr(space + 1);
        if (number == 1)
            return item == "kestrel-probe 1" || fail("not kestrel-probe output");
        if (done)
            return fail("output after done");
        if (word == "log") {
            std::istringstream fields(rest);
            LogLine log;
            std::string logger;
            if (!(fields >> log.priority >> logger) || fields.get() != ' ')
                return fail("a log line without priority and logger");
            std::string message;
            std::getline(fields, message);
            const auto unescapedText = unescaped(message);
            if (!unescapedText)
                return fail("a log text badly escaped");
            log.logger = logger == "-" ? "" : logger;
            log.text = *unescapedText;
            output.logs.push_back(log);
            return true;
        }
        if (gpu) {
            if (item == "end") {
                if (place) {
                    output.readings.emplace_back(*place, gpu);
                } else {
                    output.records.push_back(gpu);
                    output.readers.push_back(reads);
                }
                gpu.reset();
                place.reset();
                reads = false;
                return true;
            }
            if (item == "reads" && !place)
                return reads = true;
            return setProperty(*gpu, word, rest) || fail("not a property: " + word);
        }
        if (word == "readings") {
            const auto index = probe::read<std::size_t>(rest);
            if (!index)
                return fail("not a record's place: " + rest);
            place = *index;
            gpu = std::make_shared<GPU>(pci::PciLocation());
            return true;
        }
        if (word == "reached") {
            const auto reached = probe::read<bool>(rest);
            output.reached = reached;
            return reached.has_value() || fail("not a flag: " + rest);
        }
        if (item == "open")
            return output.open = true;
        if (word == "gpu") {
            const auto location = locationOf(rest);
            if (!location)
                return fail("not a PCI location: " + rest);
            gpu = std::make_shared<GPU>(*location);
            return true;
        }
        if (word == "status") {
            if (rest.size() != 4 || rest.find_first_not_of("01") != std::string::npos)
                return fail("not a status: " + rest);
            output.status = std::bitset<4>(rest);
            return true;
        }
        if (item == "done")
            return done = true;
        return fail("unknown: " + word);
    };
    while (std::getline(lines, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!take(line))
            return output;
    }
    if (!done)
        problem = number == 0 ? "no output" : "cut short after line " + std::to_string(number);
    return output;
}

} // namespace libKestrel::probe
