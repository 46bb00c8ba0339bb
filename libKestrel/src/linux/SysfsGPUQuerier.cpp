// GPUs on Linux as the kernel publishes them: every display controller libpci
// finds under sysfs, with what its driver's files say (amdgpu's own files, and the
// hwmon sensors most drivers register).
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "libKestrel/GPU.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/Location.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Plausible.h"
#include "libKestrel/internal/linux/SysfsGPUQuerier.h"
#include "libKestrel/internal/linux/SysfsValues.h"
#include "libKestrel/internal/linux/pciwrapper.h"
#include "tova/System.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;
using sysfs::readNumber;
using sysfs::readText;
using sysfs::readWithin;
namespace fs = std::filesystem;

logging::LogSite site("libKestrel.Sysfs", "libKestrel/src/linux/SysfsGPUQuerier.cpp");

template <class T>
std::optional<T> scaled(const std::optional<std::uint64_t>& value, std::uint64_t per)
{
    if (!value)
        return std::nullopt;
    return static_cast<T>(*value / per);
}

// The device's first hwmon folder, if its driver registered one.
std::optional<fs::path> hwmonFolder(const fs::path& device)
{
    std::error_code error, notFolder;
    std::optional<fs::path> first;
    // Incremented with an error code: a folder that goes away mid-listing ends it, without throwing.
    for (fs::directory_iterator entry(device / "hwmon", error), end; !error && entry != end; entry.increment(error))
        if (entry->path().filename().u8string().rfind("hwmon", 0) == 0 && (!first || entry->path() < *first) &&
            entry->is_directory(notFolder))
            first = entry->path();
    return first;
}

// The hwmon sensors that change while the GPU runs.
void readHwmonReadings(GPU& gpu, const fs::path& hwmon)
{
    gpu.setTemperatureCurrent(scaled<std::uint64_t>(readNumber(hwmon / "temp1_input"), 1000));
    gpu.setFanSpeedRPM(scaled<std::uint32_t>(readNumber(hwmon / "fan1_input"), 1));
    const auto pwm = readNumber(hwmon / "pwm1");
    const auto pwmMax = pwm ? readNumber(hwmon / "pwm1_max") : std::nullopt;
    if (pwm && pwmMax && *pwmMax > 0)
        gpu.setFanSpeedPercent(static_cast<std::uint32_t>(*pwm * 100 / *pwmMax));
    gpu.setGraphicsClock(scaled<std::uint32_t>(readNumber(hwmon / "freq1_input"), 1000));
    gpu.setMemoryClock(scaled<std::uint32_t>(readNumber(hwmon / "freq2_input"), 1000));
}

// amdgpu's files that change: memory in use (in bytes, against the total) and
// the busy percentages.
void readAmdgpuReadings(GPU& gpu, const fs::path& device, const std::optional<std::uint64_t>& total)
{
    if (const auto used = total ? readNumber(device / "mem_info_vram_used") : std::nullopt; used && *used <= *total)
        gpu.setAvailableDedicatedMemory((*total - *used) / 1024);
    gpu.setUtilizationGPU(scaled<std::uint32_t>(readNumber(device / "gpu_busy_percent"), 1));
    gpu.setUtilizationMemory(scaled<std::uint32_t>(readNumber(device / "mem_busy_percent"), 1));
}

// The hwmon temperature inputs that amdgpu labels as the hot spot ("junction")
// and the memory ("mem"); the first by name of each.
struct LabelledTemperatures {
    std::optional<fs::path> hotspot;
    std::optional<fs::path> memory;
};

LabelledTemperatures labelledTemperatures(const fs::path& hwmon)
{
    LabelledTemperatures found;
    const std::string suffix = "_label";
    std::error_code error;
    for (fs::directory_iterator entry(hwmon, error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().u8string();
        if (name.rfind("temp", 0) != 0 || name.size() <= suffix.size() + 4 ||
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        const auto label = readText(entry->path());
        std::optional<fs::path>* slot = !label ? nullptr
                                        : *label == "junction" ? &found.hotspot
                                        : *label == "mem"      ? &found.memory
                                                               : nullptr;
        const fs::path input = hwmon / (name.substr(0, name.size() - suffix.size()) + "_input");
        if (slot && (!*slot || input < **slot))
            *slot = input;
    }
    return found;
}

// The hwmon sensors of power and heat that change: the power (microwatts, the
// average where the driver keeps one), the energy counter (microjoules) and the
// labelled temperatures (millidegrees Celsius).
void readPowerAndHeat(GPU& gpu, const fs::path& hwmon, const LabelledTemperatures& labelled)
{
    auto power = readWithin(hwmon / "power1_average", 1000, 0, plausible::mostMilliwatts);
    if (!power)
        power = readWithin(hwmon / "power1_input", 1000, 0, plausible::mostMilliwatts);
    gpu.setPowerDraw(scaled<std::uint32_t>(power, 1));
    gpu.setEnergyConsumed(readWithin(hwmon / "energy1_input", 1000, 0, plausible::mostMillijoules));
    const auto degrees = [](const std::optional<fs::path>& input) {
        return input ? readWithin(*input, 1000, 0, plausible::mostDegreesCelsius) : std::nullopt;
    };
    gpu.setTemperatureHotspot(degrees(labelled.hotspot));
    gpu.setTemperatureMemory(degrees(labelled.memory));
}

// The device's PCIe link, as it runs ("current_...") or at most ("max_...").
struct Link {
    std::optional<std::uint32_t> generation;
    std::optional<std::uint32_t> width;
};

Link readLink(const fs::path& device, const std::string& which)
{
    return {scaled<std::uint32_t>(sysfs::readLinkGeneration(device / (which + "_link_speed")), 1),
            scaled<std::uint32_t>(readWithin(device / (which + "_link_width"), 1, plausible::leastPCIeLanes,
                                             plausible::mostPCIeLanes),
                                  1)};
}

// Where a device's readings are: its folder, whether amdgpu drives it, its first
// hwmon folder if its driver registered one, and there its labelled temperatures.
struct Sensors {
    fs::path device;
    bool amdgpu = false;
    std::optional<fs::path> hwmon;
    LabelledTemperatures labelled;
    std::optional<std::uint64_t> memoryTotal; // bytes, as amdgpu says

    void read(GPU& gpu) const
    {
        if (amdgpu)
            readAmdgpuReadings(gpu, device, memoryTotal);
        if (hwmon) {
            readHwmonReadings(gpu, *hwmon);
            readPowerAndHeat(gpu, *hwmon, labelled);
        }
        const Link link = readLink(device, "current");
        gpu.setPCIeLinkGeneration(link.generation);
        gpu.setPCIeLinkWidth(link.width);
    }
};

// Everything the files say: amdgpu's memory size, VBIOS and unique id, the
// sensors' shutdown temperature and power cap, the link at most, and the
// readings.
void readFiles(GPU& gpu, Sensors& sensors)
{
    if (sensors.amdgpu) {
        sensors.memoryTotal = readNumber(sensors.device / "mem_info_vram_total");
        gpu.setDedicatedMemory(scaled<std::uint64_t>(sensors.memoryTotal, 1024));
        gpu.setVBIOSVersion(readText(sensors.device / "vbios_version"));
        gpu.setUUID(readText(sensors.device / "unique_id"));
    }
    if (sensors.hwmon) {
        gpu.setTemperatureShutdown(scaled<std::uint64_t>(readNumber(*sensors.hwmon / "temp1_crit"), 1000));
        gpu.setPowerLimit(scaled<std::uint32_t>(
            readWithin(*sensors.hwmon / "power1_cap", 1000, 0, plausible::mostMilliwatts), 1));
        sensors.labelled = labelledTemperatures(*sensors.hwmon);
    }
    const Link most = readLink(sensors.device, "max");
    gpu.setPCIeLinkGenerationMax(most.generation);
    gpu.setPCIeLinkWidthMax(most.width);
    sensors.read(gpu);
}

std::string hex4(unsigned int value)
{
    char text[8];
    std::snprintf(text, sizeof text, "%04x", value & 0xFFFFu);
    return text;
}

} // namespace

namespace {

// Every display controller's record, with where its readings are.
std::vector<std::pair<std::shared_ptr<GPU>, Sensors>> enumerate()
{
    auto trace = site.trace("querySysfsGPUs", 140);
    const std::string configured = tova::System::getEnvironmentVariable("KESTREL_SYSFS_ROOT").str();
    const std::string root = configured.empty() ? "/sys" : configured;
    std::vector<std::pair<std::shared_ptr<GPU>, Sensors>> found;
    for (const pci_library::PciDevice& controller : pci_library::displayControllers(root)) {
        const auto location = pciLocationOf(controller.bus, controller.device, controller.function,
                                            static_cast<std::uint32_t>(controller.domain));
        if (!location)
            continue; // libpci parses only addresses that exist
        char address[32];
        std::snprintf(address, sizeof address, "%04x:%02x:%02x.%d", static_cast<unsigned int>(controller.domain),
                      controller.bus, controller.device, controller.function);
        Sensors sensors;
        sensors.device = fs::u8path(root) / "bus/pci/devices" / address;
        log(site, Priority::TRACE, "151 ", "Display controller at ", address);

        auto gpu = std::make_shared<GPU>(*location);
        gpu->setName(controller.name ? *controller.name
                                     : "PCI device " + hex4(controller.vendorId) + ":" + hex4(controller.deviceId));
        std::error_code error;
        if (fs::exists(sensors.device / "current_link_speed", error))
            gpu->setBusType(std::string("PCI Express"));
        // The kernel links a bound device's "driver" to its driver's folder.
        const fs::path driverLink = sensors.device / "driver";
        const bool bound = fs::is_directory(driverLink, error);
        gpu->setHardwareAcceleration(bound);
        sensors.amdgpu = bound && fs::read_symlink(driverLink, error).filename() == "amdgpu";
        sensors.hwmon = hwmonFolder(sensors.device);
        readFiles(*gpu, sensors);
        found.emplace_back(gpu, std::move(sensors));
    }
    return found;
}

} // namespace

std::vector<std::shared_ptr<IGPU>> querySysfsGPUs(std::bitset<4>&)
{
    std::vector<std::shared_ptr<IGPU>> records;
    for (const auto& [gpu, sensors] : enumerate())
        records.push_back(gpu);
    return records;
}

LiveSource enumerateSysfsLive(std::bitset<4>&)
{
    LiveSource live;
    for (auto& [gpu, sensors] : enumerate())
        live.gpus.push_back({gpu, [sensors = std::move(sensors)](GPU& fresh) { sensors.read(fresh); }});
    // Files need nothing opened around them.
    live.around = readDirectly;
    return live;
}

} // namespace libKestrel
