// Values of sysfs files, and what a bad file costs.
#include "libKestrel/internal/linux/SysfsValues.h"

#include <charconv>
#include <utility>

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/linux/SysfsFile.h"

namespace libKestrel::sysfs {
namespace {

using logging::log;
using logging::Priority;
namespace fs = std::filesystem;

logging::LogSite site("libKestrel.Sysfs", "libKestrel/src/linux/SysfsValues.cpp");

// Every value the kernel writes in these files is a short line.
constexpr std::size_t mostBytes = 256;

} // namespace

std::optional<std::string> readText(const fs::path& file)
{
    std::string text;
    switch (readAttribute(file.native(), mostBytes, text)) {
    case Attribute::Regular:
        break;
    case Attribute::Missing:
        log(site, Priority::TRACE, "38 ", "Not offered: ", logging::deferred([&file] { return file.u8string(); }));
        return std::nullopt;
    case Attribute::Folder:
    case Attribute::Unreadable:
        log(site, Priority::WARNING, "45 ", "Cannot read ", file.u8string());
        return std::nullopt;
    case Attribute::Special:
        log(site, Priority::WARNING, "46 ", "Not a regular file: ", file.u8string());
        return std::nullopt;
    case Attribute::TooLong:
        log(site, Priority::WARNING, "47 ", "Longer than ", mostBytes, " bytes: ", file.u8string());
        return std::nullopt;
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
        text.pop_back();
    if (text.empty()) {
        log(site, Priority::WARNING, "52 ", "Empty file: ", file.u8string());
        return std::nullopt;
    }
    return text;
}

std::optional<std::uint64_t> readNumber(const fs::path& file)
{
    const auto text = readText(file);
    if (!text)
        return std::nullopt;
    // Decimal digits only, within 64 bits: no sign, no spaces, no other base.
    std::uint64_t value = 0;
    const char* end = text->data() + text->size();
    const auto [stop, error] = std::from_chars(text->data(), end, value);
    if (error != std::errc() || stop != end || text->front() == '-' || text->front() == '+') {
        log(site, Priority::WARNING, "66 ", "Not a number in ", file.u8string(), ": ", *text);
        return std::nullopt;
    }
    return value;
}

std::optional<std::uint64_t> readWithin(const fs::path& file, std::uint64_t per, std::uint64_t least,
                                        std::uint64_t most)
{
    const auto value = readNumber(file);
    if (!value)
        return std::nullopt;
    const std::uint64_t scaled = *value / per;
    if (scaled < least || scaled > most) {
        log(site, Priority::WARNING, "70 ", "Reading beyond any GPU left out in ", file.u8string(), ": ", *value);
        return std::nullopt;
    }
    return scaled;
}

std::optional<std::uint64_t> readLinkGeneration(const fs::path& file)
{
    const auto text = readText(file);
    if (!text)
        return std::nullopt;
    if (text->rfind("Unknown", 0) == 0) {
        log(site, Priority::TRACE, "71 ", "Link speed unknown: ", file.u8string());
        return std::nullopt;
    }
    // The transfer rate, then " GT/s" and whatever the kernel appends.
    const std::string speed = text->substr(0, text->find(" GT/s"));
    static const std::pair<const char*, std::uint64_t> generations[] = {
        {"2.5", 1}, {"5", 2},   {"5.0", 2},   {"8", 3},   {"8.0", 3}, {"16", 4},    {"16.0", 4},
        {"32", 5},  {"32.0", 5}, {"64", 6}, {"64.0", 6}, {"128", 7}, {"128.0", 7}};
    if (speed.size() < text->size())
        for (const auto& [rate, generation] : generations)
            if (speed == rate)
                return generation;
    log(site, Priority::WARNING, "72 ", "Not a PCIe link speed in ", file.u8string(), ": ", *text);
    return std::nullopt;
}

} // namespace libKestrel::sysfs
