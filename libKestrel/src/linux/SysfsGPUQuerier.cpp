// GPUs on Linux as the kernel publishes them: every display controller libpci
// finds under sysfs, with what its driver's files say (amdgpu's own files, and the
// hwmon sensors most drivers register).
#include <charconv>
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
#include "libKestrel/internal/linux/SysfsFile.h"
#include "libKestrel/internal/linux/SysfsGPUQuerier.h"
#include "libKestrel/internal/linux/pciwrapper.h"
#include "tova/System.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;
namespace fs = std::filesystem;

logging::LogSite site("libKestrel.Sysfs", "libKestrel/src/linux/SysfsGPUQuerier.cpp");

// Every value the kernel writes in these files is a short line.
constexpr std::size_t mostBytes = 256;

// The text of one sysfs file, without its line end. Nothing when the file is
// not there (a driver that does not offer it: logged as a trace), is no regular
// file, cannot be read, is longer than any value the kernel writes, or is empty
// (logged as warnings).
std::optional<std::string> readText(const fs::path& file)
{
    std::string text;
    switch (sysfs::readAttribute(file.native(), mostBytes, text)) {
    case sysfs::Attribute::Regular:
        break;
    case sysfs::Attribute::Missing:
        log(site, Priority::TRACE, "38 ", "Not offered: ", logging::deferred([&file] { return file.u8string(); }));
        return std::nullopt;
    case sysfs::Attribute::Folder:
    case sysfs::Attribute::Unreadable:
        log(site, Priority::WARNING, "45 ", "Cannot read ", file.u8string());
        return std::nullopt;
    case sysfs::Attribute::Special:
        log(site, Priority::WARNING, "46 ", "Not a regular file: ", file.u8string());
        return std::nullopt;
    case sysfs::Attribute::TooLong:
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

// A file holding one non-negative decimal number.
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

// Where a device's readings are: its folder, whether amdgpu drives it, and its
// first hwmon folder if its driver registered one.
struct Sensors {
    fs::path device;
    bool amdgpu = false;
    std::optional<fs::path> hwmon;
    std::optional<std::uint64_t> memoryTotal; // bytes, as amdgpu says

    void read(GPU& gpu) const
    {
        if (amdgpu)
            readAmdgpuReadings(gpu, device, memoryTotal);
        if (hwmon)
            readHwmonReadings(gpu, *hwmon);
    }
};

// Everything the files say: amdgpu's memory size, VBIOS and unique id, the
// sensors' shutdown temperature, and the readings.
void readFiles(GPU& gpu, Sensors& sensors)
{
    if (sensors.amdgpu) {
        sensors.memoryTotal = readNumber(sensors.device / "mem_info_vram_total");
        gpu.setDedicatedMemory(scaled<std::uint64_t>(sensors.memoryTotal, 1024));
        gpu.setVBIOSVersion(readText(sensors.device / "vbios_version"));
        gpu.setUUID(readText(sensors.device / "unique_id"));
    }
    if (sensors.hwmon)
        gpu.setTemperatureShutdown(scaled<std::uint64_t>(readNumber(*sensors.hwmon / "temp1_crit"), 1000));
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
