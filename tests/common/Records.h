#pragma once

#include <memory>
#include <optional>

#include "libKestrel/GPU.h"

namespace kestrel::test {

// A record that could not learn its PCI location, as a host's source may return.
class UnlocatedGPU : public libKestrel::GPU {
public:
    UnlocatedGPU() : GPU(pci::PciLocation()) {}
    std::optional<pci::PciLocation> pciLocation() const override { return std::nullopt; }
};

inline std::shared_ptr<libKestrel::GPU> gpuAt(unsigned char bus, unsigned char device = 0, unsigned char function = 0)
{
    return std::make_shared<libKestrel::GPU>(pci::PciLocation(bus, device, function, 0));
}

} // namespace kestrel::test
