#include "libKestrel/GPU.h"

namespace libKestrel {

IGPU::~IGPU() = default;

GPU::GPU(const pci::PciLocation& location) : pciLocation_(location) {}

bool GPU::isSameGPU(const IGPU& other) const { return pciLocation() == other.pciLocation(); }

std::optional<pci::PciLocation> GPU::pciLocation() const { return pciLocation_; }

} // namespace libKestrel
