// The sysfs tree of a scenario: for each GPU with a "sysfs" section, the folder
// the kernel would publish for its PCI device, with the identity files libpci
// reads, the driver link, the driver's files and a hwmon folder.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "state/SimulatorState.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string hex(long long value, int digits)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%0*llx", digits, value);
    return text;
}

// A file's text as the scenario gives it: numbers in decimal, texts as they are.
std::string textOf(const json& value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

void write(const fs::path& file, const std::string& text)
{
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text << '\n';
}

void writeDevice(const fs::path& root, const json& gpu, const json& section)
{
    const json pci = gpu.value("pci", json::object());
    char address[32];
    // The kernel writes the domain with four digits at least, and all it has.
    std::snprintf(address, sizeof address, "%04llx:%02llx:%02llx.%llx", pci.value("domain", 0LL) & 0xFFFFFFFF,
                  pci.value("bus", 0LL) & 0xFF, pci.value("device", 0LL) & 0x1F, pci.value("function", 0LL) & 0x7);
    const fs::path device = root / "bus/pci/devices" / address;
    write(device / "vendor", hex(section.value("vendor", 0LL), 4));
    write(device / "device", hex(section.value("device", 0LL), 4));
    write(device / "class", hex(section.value("class", 0x030000LL), 6));
    if (const std::string driver = section.value("driver", std::string()); !driver.empty()) {
        const fs::path target = root / "bus/pci/drivers" / driver;
        fs::create_directories(target);
        std::error_code ignored;
        fs::create_directory_symlink(target, device / "driver", ignored);
    }
    for (const auto& [group, folder] : {std::pair<const char*, fs::path>{"files", device},
                                        std::pair<const char*, fs::path>{"hwmon", device / "hwmon/hwmon0"}}) {
        const auto files = section.find(group);
        if (files == section.end())
            continue;
        for (auto file = files->begin(); file != files->end(); ++file)
            write(folder / file.key(), textOf(file.value()));
    }
}

} // namespace

int kestrelSimWriteSysfs(const char* scenario, const char* folder)
{
    if (!scenario || !folder || kestrelSimCheckScenario(scenario))
        return 0;
    try {
        const json machine = json::parse(scenario);
        const fs::path root = fs::u8path(folder);
        fs::remove_all(root);
        fs::create_directories(root / "bus/pci/devices");
        const auto gpus = machine.find("gpus");
        if (gpus != machine.end())
            for (const json& gpu : *gpus)
                if (const auto section = gpu.find("sysfs"); section != gpu.end())
                    writeDevice(root, gpu, *section);
        return 1;
    } catch (const std::exception&) {
        return 0; // a folder that cannot be written
    }
}
