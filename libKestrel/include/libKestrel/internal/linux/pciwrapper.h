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
// libpci, which is loaded on first use and kept. Empty, with a logged reason,
// when libpci is missing or the tree cannot be enumerated; a device libpci
// cannot read is left out, with a logged reason. Safe on several threads at once.
std::vector<PciDevice> displayControllers(const std::string& sysfsRoot);

// For tests: a function run by every later call of displayControllers between
// its listing of the devices folder (passed to it) and libpci's reading of the
// devices, as a device unplugged at that moment would be; null for none.
void setAfterListing(void (*hook)(const std::string& devices));

} // namespace libKestrel::pci_library
