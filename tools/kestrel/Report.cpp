#include "Report.h"

#include <cinttypes>
#include <cstdio>
#include <optional>
#include <sstream>
#include <type_traits>

#include <libKestrel/ClockEventReasons.h>
#include <nlohmann/json.hpp>

#include "Utf8.h"

namespace kestrel {
namespace {

// How each property reads in the text report.
struct Label {
    const char* getter;
    const char* text;
};

const Label labels[] = {
    {"name", "Name"},
    {"driverVersion", "Driver version"},
    {"hardwareAcceleration", "Hardware acceleration"},
    {"coreCount", "Cores"},
    {"vbiosVersion", "VBIOS version"},
    {"totalMemory", "Total memory"},
    {"dedicatedMemory", "Dedicated memory"},
    {"availableDedicatedMemory", "Available dedicated memory"},
    {"graphicsClock", "Graphics clock"},
    {"memoryClock", "Memory clock"},
    {"shaderClock", "Shader clock"},
    {"memoryWidth", "Memory bus width"},
    {"memoryBandwidth", "Memory bandwidth"},
    {"busType", "Bus"},
    {"eccSupported", "ECC supported"},
    {"eccEnabled", "ECC enabled"},
    {"eccErrorsCorrectedVolatile", "ECC errors corrected (since driver load)"},
    {"eccErrorsUncorrectedVolatile", "ECC errors uncorrected (since driver load)"},
    {"eccErrorsCorrectedAggregate", "ECC errors corrected (lifetime)"},
    {"eccErrorsUncorrectedAggregate", "ECC errors uncorrected (lifetime)"},
    {"utilizationGPU", "GPU utilization"},
    {"utilizationMemory", "Memory utilization"},
    {"temperatureCurrent", "Temperature"},
    {"temperatureSlowdown", "Slowdown temperature"},
    {"temperatureShutdown", "Shutdown temperature"},
    {"uuid", "UUID"},
    {"fanSpeedPercent", "Fan speed"},
    {"fanSpeedRPM", "Fan speed"},
    {"sli", "SLI"},
    {"versionMajor", "CUDA compute capability (major)"},
    {"versionMinor", "CUDA compute capability (minor)"},
    {"computeCapability", "CUDA compute capability"},
    {"crossfire", "CrossFire"},
    {"nativeMonitorHandle", "Monitor handle"},
    {"powerDraw", "Power"},
    {"powerLimit", "Power limit"},
    {"energyConsumed", "Energy (since driver load)"},
    {"temperatureHotspot", "Hot spot temperature"},
    {"temperatureMemory", "Memory temperature"},
    {"pcieLink", "Link"},
    {"performanceState", "Performance state"},
    {"clockEventReasons", "Clock event reasons"},
};

std::string labelOf(const std::string& getter)
{
    for (const Label& label : labels)
        if (getter == label.getter)
            return label.text;
    return getter;
}

// Drivers' texts are bytes: a name cut inside a character is shown with U+FFFD.
std::string textOf(const std::string& value) { return validUtf8(value); }
std::string textOf(bool value) { return value ? "yes" : "no"; }
std::string textOf(std::uint32_t value) { return std::to_string(value); }
std::string textOf(std::uint64_t value) { return std::to_string(value); }
std::string textOf(void* value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", value);
    return text;
}

// Keys stay in record order, so the document reads like the text report.
using Json = nlohmann::ordered_json;

Json jsonOf(const std::string& value) { return validUtf8(value); }
Json jsonOf(bool value) { return value; }
Json jsonOf(std::uint32_t value) { return value; }
Json jsonOf(std::uint64_t value) { return value; }
Json jsonOf(void* value) { return textOf(value); }

template <class T>
Json jsonOf(const std::optional<T>& value)
{
    return value ? jsonOf(*value) : Json(nullptr);
}

// One decimal, without a trailing ".0": "11 GiB", "15.9 GiB", "1545 MHz".
std::string decimal(double value, const char* unit)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.1f", value);
    std::string shown = text;
    if (shown.size() > 2 && shown.compare(shown.size() - 2, 2, ".0") == 0)
        shown.resize(shown.size() - 2);
    return shown + " " + unit;
}

// The value as a reader takes it in: sizes in MiB or GiB, clocks in MHz, power
// in W, energy in kJ, the rest in the record's own unit ("54 °C", "30%", "8704").
template <class T>
std::string withUnit(const T& value, const std::string& unit)
{
    if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) {
        const double number = static_cast<double>(value);
        if (unit == "KB")
            return number >= 1024.0 * 1024.0 ? decimal(number / (1024.0 * 1024.0), "GiB") : decimal(number / 1024.0, "MiB");
        if (unit == "kHz")
            return decimal(number / 1000.0, "MHz");
        if (unit == "mW")
            return decimal(number / 1000.0, "W");
        if (unit == "mJ")
            return decimal(number / 1e6, "kJ");
    }
    const std::string text = textOf(value);
    if (unit.empty())
        return text;
    return text + (unit == "%" ? "" : " ") + unit;
}

// "PCIe 4.0 x16 (of 4.0 x16)": the link as it runs, and at most; a part the
// record lacks is left out.
std::string linkOf(const libKestrel::IGPU& gpu)
{
    const auto part = [](const std::optional<std::uint32_t>& generation, const std::optional<std::uint32_t>& width) {
        std::string text = generation ? std::to_string(*generation) + ".0" : "";
        if (width)
            text += (text.empty() ? "x" : " x") + std::to_string(*width);
        return text;
    };
    const std::string now = part(gpu.pcieLinkGeneration(), gpu.pcieLinkWidth());
    const std::string most = part(gpu.pcieLinkGenerationMax(), gpu.pcieLinkWidthMax());
    std::string text = "PCIe";
    if (!now.empty())
        text += " " + now;
    if (!most.empty())
        text += " (of " + most + ")";
    return text;
}

// The reasons' names, "none" for none; bits the table does not name in hex.
std::string reasonsOf(std::uint64_t reasons)
{
    std::string text;
    for (const libKestrel::ClockEventReason& reason : libKestrel::clockEventReasons)
        if (reasons & reason.bit) {
            text += (text.empty() ? "" : ", ") + std::string(reason.text);
            reasons &= ~reason.bit;
        }
    if (reasons) {
        char other[32];
        std::snprintf(other, sizeof other, "0x%llx", static_cast<unsigned long long>(reasons));
        text += (text.empty() ? "other " : ", other ") + std::string(other);
    }
    return text.empty() ? "none" : text;
}

// The lines of the properties added since 0.1, the link's four on one line.
void laterLines(std::ostringstream& out, const libKestrel::IGPU& gpu)
{
    const auto line = [&out](const char* getter, const std::string& text) {
        out << "  " << labelOf(getter) << ": " << text << "\n";
    };
    if (const auto value = gpu.powerDraw())
        line("powerDraw", withUnit(*value, "mW"));
    if (const auto value = gpu.powerLimit())
        line("powerLimit", withUnit(*value, "mW"));
    if (const auto value = gpu.energyConsumed())
        line("energyConsumed", withUnit(*value, "mJ"));
    if (const auto value = gpu.temperatureHotspot())
        line("temperatureHotspot", withUnit(*value, "°C"));
    if (const auto value = gpu.temperatureMemory())
        line("temperatureMemory", withUnit(*value, "°C"));
    if (gpu.pcieLinkGeneration() || gpu.pcieLinkWidth() || gpu.pcieLinkGenerationMax() || gpu.pcieLinkWidthMax())
        line("pcieLink", linkOf(gpu));
    if (const auto value = gpu.performanceState())
        line("performanceState", "P" + std::to_string(*value));
    if (const auto value = gpu.clockEventReasons())
        line("clockEventReasons", reasonsOf(*value));
}

std::string locationOf(const libKestrel::IGPU& gpu)
{
    const auto location = gpu.pciLocation();
    return location ? location->toString(true).str() : "unknown location";
}

const char* const insufficientPowerNote =
    "Note: NVML left out a GPU that does not have enough power (check its power cables).\n";

} // namespace

std::string textReport(const Records& gpus, const std::bitset<4>& status)
{
    std::ostringstream out;
    if (gpus.empty())
        out << "No GPU found.\n";
    for (const auto& gpu : gpus) {
        out << locationOf(*gpu) << "  " << textOf(gpu->name().value_or("(unnamed GPU)")) << "\n";
        // The name heads the record; a full compute capability reads as one version.
        const bool bothVersions = gpu->versionMajor() && gpu->versionMinor();
        const auto shows = [&](const std::string& getter) {
            return getter != "name" && !(bothVersions && (getter == "versionMajor" || getter == "versionMinor"));
        };
#define KESTREL_REPORT_LINE(type, getter, setter, unit)                                                    \
    if (const auto value = gpu->getter(); value && shows(#getter))                                            \
        out << "  " << labelOf(#getter) << ": " << withUnit(*value, unit) << "\n";
        LIBKESTREL_GPU_PROPERTIES(KESTREL_REPORT_LINE)
#undef KESTREL_REPORT_LINE
        if (bothVersions)
            out << "  " << labelOf("computeCapability") << ": " << *gpu->versionMajor() << "." << *gpu->versionMinor()
                << "\n";
        laterLines(out, *gpu);
        out << "\n";
    }
    if (status.test(0))
        out << insufficientPowerNote;
    return out.str();
}

std::string jsonReport(const Records& gpus, const std::bitset<4>& status, bool oneLine)
{
    Json list = Json::array();
    for (const auto& gpu : gpus) {
        Json record;
        const auto location = gpu->pciLocation();
        record["pciLocation"] = location ? Json(location->toString(true).str()) : Json(nullptr);
#define KESTREL_JSON_FIELD(type, getter, setter, unit) record[#getter] = jsonOf(gpu->getter());
        LIBKESTREL_GPU_PROPERTIES(KESTREL_JSON_FIELD)
        LIBKESTREL_GPU_PROPERTIES_0_2(KESTREL_JSON_FIELD)
#undef KESTREL_JSON_FIELD
        list.push_back(record);
    }
    Json document;
    document["gpus"] = list;
    document["insufficientPower"] = status.test(0);
    return document.dump(oneLine ? -1 : 2, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace kestrel
