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

    // Properties added since 0.1: absent unless the record overrides them, so an
    // IGPU written for 0.1 still compiles. They come after 0.1's in the table of
    // virtual operations.
#define LIBKESTREL_IGPU_LATER_GETTER(type, getter, setter, unit) virtual std::optional<type> getter() const;
    LIBKESTREL_GPU_PROPERTIES_0_2(LIBKESTREL_IGPU_LATER_GETTER)
#undef LIBKESTREL_IGPU_LATER_GETTER
};

} // namespace libKestrel
