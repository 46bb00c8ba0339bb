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

    // True when both records have no PCI location, or locations that fit each
    // other (pci::PciLocation::fits): the same bus, device and function, and the
    // same domain where both know it. A record whose source cannot tell the
    // domain (NVAPI, ADL) fits a GPU of that bus, device and function in any
    // domain; merging takes it as that GPU only when exactly one GPU of a known
    // domain is there (libKestrel/Query.h).
    virtual bool isSameGPU(const IGPU& other) const = 0;
    // Where the GPU sits: bus, device, function and, where a source knows it
    // (NVML, CUDA, the kernel's sysfs), its PCI domain, 32 bits whole.
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
