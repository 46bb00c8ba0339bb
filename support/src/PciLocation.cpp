#include "pci/PciLocation.h"

#include <cstdio>

namespace pci {

PciLocation::PciLocation(unsigned char bus, unsigned char device, unsigned char function, unsigned int domain)
    : bus(bus), device(device), function(function), domain(domain)
{
}

bool PciLocation::operator==(const PciLocation& other) const
{
    return bus == other.bus && device == other.device && function == other.function && domain == other.domain;
}

bool PciLocation::operator!=(const PciLocation& other) const { return !(*this == other); }

tova::String PciLocation::toString(bool withDomain) const
{
    char text[32];
    if (withDomain)
        std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", static_cast<unsigned>(domain), bus, device, function);
    else
        std::snprintf(text, sizeof text, "%02x:%02x.%x", bus, device, function);
    return text;
}

} // namespace pci
