#pragma once

#include <optional>

#include "libKestrel/Export.h"
#include "libKestrel/GPUProperties.h"
#include "pci/PciLocation.h"

namespace libKestrel {

// The read-only view of one GPU record. Every property is optional: empty means
// that no source could tell. Records are shared through std::shared_ptr<IGPU> and
// never change once a query has returned them.
class LIBKESTREL_API IGPU {
public:
    IGPU() = default;
    IGPU(const IGPU&) = default;
    IGPU& operator=(const IGPU&) = default;
    virtual ~IGPU();

    // True when both records have equal PCI locations, or both have none.
    virtual bool isSameGPU(const IGPU& other) const = 0;
    virtual std::optional<pci::PciLocation> pciLocation() const = 0;

#define LIBKESTREL_IGPU_GETTER(type, getter, setter, unit) virtual std::optional<type> getter() const = 0;
    LIBKESTREL_GPU_PROPERTIES(LIBKESTREL_IGPU_GETTER)
#undef LIBKESTREL_IGPU_GETTER
};

} // namespace libKestrel
