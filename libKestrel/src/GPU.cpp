#include "libKestrel/GPU.h"

namespace libKestrel {

IGPU::~IGPU() = default;

GPU::GPU(const pci::PciLocation& location) : pciLocation_(location) {}

bool GPU::isSameGPU(const IGPU& other) const
{
    const auto mine = pciLocation();
    const auto theirs = other.pciLocation();
    return mine && theirs ? mine->fits(*theirs) : !mine && !theirs;
}

std::optional<pci::PciLocation> GPU::pciLocation() const { return pciLocation_; }

} // namespace libKestrel
