#include "pci/PciLocation.h"

#include <cstdio>

namespace pci {

PciLocation::PciLocation(unsigned char bus, unsigned char device, unsigned char function, unsigned int domain)
    : bus(bus), device(device), function(function), domain(domain)
{
}

PciLocation PciLocation::withoutDomain(unsigned char bus, unsigned char device, unsigned char function)
{
    PciLocation location(bus, device, function, 0);
    location.domainKnown = false;
    return location;
}

bool PciLocation::operator==(const PciLocation& other) const
{
    return bus == other.bus && device == other.device && function == other.function &&
           domainOrZero() == other.domainOrZero();
}

bool PciLocation::operator!=(const PciLocation& other) const { return !(*this == other); }

bool PciLocation::fits(const PciLocation& other) const
{
    return bus == other.bus && device == other.device && function == other.function &&
           (!domainKnown || !other.domainKnown || domain == other.domain);
}

tova::String PciLocation::toString(bool withDomain) const
{
    char text[32];
    if (withDomain)
        std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", static_cast<unsigned>(domainOrZero()), bus, device,
                      function);
    else
        std::snprintf(text, sizeof text, "%02x:%02x.%x", bus, device, function);
    return text;
}

} // namespace pci
