#pragma once

#include <cstdint>

#include "tova/Export.h"
#include "tova/String.h"

namespace pci {

// Where a device sits on the PCI bus; the identity of a GPU across all sources.
//
// A machine may have several PCI domains (segments): large servers, and cloud
// virtual machines, which often pass each GPU through in a domain of its own at
// bus 0. Some drivers do not say which domain a device is in (NVAPI, ADL): their
// locations are made with withoutDomain(), read as domain 0 and print as 0000,
// and domainKnown is false. The four-number constructor takes the domain as
// given, known. Domains are kept whole, 32 bits, however wide.
class TOVA_API PciLocation {
public:
    PciLocation() = default;
    PciLocation(unsigned char bus, unsigned char device, unsigned char function, unsigned int domain);
    // A location whose domain its source cannot tell.
    static PciLocation withoutDomain(unsigned char bus, unsigned char device, unsigned char function);

    // Equal when bus, device, function and domain are equal, an unknown domain
    // counting as 0 (as every domain did before sources told it); whether the
    // domain is known is not compared.
    bool operator==(const PciLocation& other) const;
    bool operator!=(const PciLocation& other) const;

    // Whether both may be the same device: bus, device and function equal, and
    // the domains equal where both are known. With an unknown domain this fits a
    // device in any domain, so it is no equivalence: a location without domain
    // may fit several devices.
    bool fits(const PciLocation& other) const;

    // "dddd:bb:dd.f" in hexadecimal with the domain, "bb:dd.f" without it. The
    // domain has four digits at least and all it needs beyond (as Linux writes
    // it: "10000:00:00.0"); an unknown domain is written as 0000.
    tova::String toString(bool withDomain) const;

    std::uint8_t bus = 0;
    std::uint8_t device = 0;
    std::uint8_t function = 0;
    std::uint32_t domain = 0;   // meaningful only where domainKnown
    bool domainKnown = true;    // false for a source that cannot tell the domain

private:
    std::uint32_t domainOrZero() const { return domainKnown ? domain : 0; }
};

} // namespace pci
