#pragma once

#include <cstdint>
#include <optional>

#include "pci/PciLocation.h"

namespace libKestrel {

// The location a driver reports for a GPU, when it can be one: PCI has buses 0
// to 255, 32 devices on a bus and 8 functions in a device. A driver reporting
// anything else is wrong about where its GPU is, and such a location names no
// GPU that could be merged with another source's. The domain is the one the
// driver gives, 32 bits whole; without one (NVAPI and ADL have none) the
// location's domain is unknown.
inline std::optional<pci::PciLocation> pciLocationOf(long long bus, long long device, long long function,
                                                     std::optional<std::uint32_t> domain = std::nullopt)
{
    if (bus < 0 || bus > 255 || device < 0 || device > 31 || function < 0 || function > 7)
        return std::nullopt;
    const auto b = static_cast<unsigned char>(bus);
    const auto d = static_cast<unsigned char>(device);
    const auto f = static_cast<unsigned char>(function);
    return domain ? pci::PciLocation(b, d, f, *domain) : pci::PciLocation::withoutDomain(b, d, f);
}

} // namespace libKestrel
