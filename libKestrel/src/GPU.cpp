#include "libKestrel/GPU.h"

namespace libKestrel {

IGPU::~IGPU() = default;

#define LIBKESTREL_IGPU_ABSENT(type, getter, setter, unit)                                                         \
    std::optional<type> IGPU::getter() const { return std::nullopt; }
LIBKESTREL_GPU_PROPERTIES_0_2(LIBKESTREL_IGPU_ABSENT)
#undef LIBKESTREL_IGPU_ABSENT

GPU::GPU(const pci::PciLocation& location) : pciLocation_(location) {}

bool GPU::isSameGPU(const IGPU& other) const
{
    const auto mine = pciLocation();
    const auto theirs = other.pciLocation();
    return mine && theirs ? mine->fits(*theirs) : !mine && !theirs;
}

std::optional<pci::PciLocation> GPU::pciLocation() const { return pciLocation_; }

} // namespace libKestrel
