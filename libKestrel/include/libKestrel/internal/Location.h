#pragma once

#include <optional>

#include "pci/PciLocation.h"

namespace libKestrel {

// The location a driver reports for a GPU, when it can be one: PCI has buses 0
// to 255, 32 devices on a bus and 8 functions in a device. A driver reporting
// anything else is wrong about where its GPU is, and such a location names no
// GPU that could be merged with another source's. Domain 0, as every source
// reports it.
inline std::optional<pci::PciLocation> pciLocationOf(long long bus, long long device, long long function)
{
    if (bus < 0 || bus > 255 || device < 0 || device > 31 || function < 0 || function > 7)
        return std::nullopt;
    return pci::PciLocation(static_cast<unsigned char>(bus), static_cast<unsigned char>(device),
                            static_cast<unsigned char>(function), 0);
}

} // namespace libKestrel
