#pragma once

#include <optional>
#include <string>
#include <vector>

namespace libKestrel::pci_library {

// A display controller as libpci enumerates it, with its name from the PCI ID
// database when the database knows the device.
struct PciDevice {
    int domain = 0;
    int bus = 0;
    int device = 0;
    int function = 0;
    unsigned int vendorId = 0;
    unsigned int deviceId = 0;
    std::optional<std::string> name;
};

// The display controllers (PCI class 0x03) under '<sysfsRoot>/bus/pci', through
// libpci loaded for this call alone. Empty, with a logged reason, when libpci is
// missing or the tree cannot be enumerated.
std::vector<PciDevice> displayControllers(const std::string& sysfsRoot);

} // namespace libKestrel::pci_library
