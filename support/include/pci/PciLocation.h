#pragma once

#include <cstdint>

#include "tova/Export.h"
#include "tova/String.h"

namespace pci {

// Where a device sits on the PCI bus; the identity of a GPU across all sources.
class TOVA_API PciLocation {
public:
    PciLocation() = default;
    PciLocation(unsigned char bus, unsigned char device, unsigned char function, unsigned int domain);

    bool operator==(const PciLocation& other) const;
    bool operator!=(const PciLocation& other) const;

    // "dddd:bb:dd.f" in hexadecimal with the domain, "bb:dd.f" without it.
    tova::String toString(bool withDomain) const;

    std::uint8_t bus = 0;
    std::uint8_t device = 0;
    std::uint8_t function = 0;
    std::uint32_t domain = 0;
};

} // namespace pci
