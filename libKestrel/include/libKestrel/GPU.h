#pragma once

#include <optional>

#include "libKestrel/IGPU.h"

namespace libKestrel {

// The one concrete record. Sources create it with std::make_shared<GPU>(location)
// and fill it through the setters before they return it; a setter given an empty
// optional clears the property. Host-side monitor sources use it the same way.
class LIBKESTREL_API GPU : public IGPU {
public:
    explicit GPU(const pci::PciLocation& location);

    bool isSameGPU(const IGPU& other) const override;
    std::optional<pci::PciLocation> pciLocation() const override;

#define LIBKESTREL_GPU_ACCESSORS(type, getter, setter, unit)                          \
    std::optional<type> getter() const override { return getter##_; }                \
    void setter(const std::optional<type>& value) { getter##_ = value; }
    LIBKESTREL_GPU_PROPERTIES(LIBKESTREL_GPU_ACCESSORS)
    LIBKESTREL_GPU_PROPERTIES_0_2(LIBKESTREL_GPU_ACCESSORS)
#undef LIBKESTREL_GPU_ACCESSORS

private:
    std::optional<pci::PciLocation> pciLocation_;
#define LIBKESTREL_GPU_MEMBER(type, getter, setter, unit) std::optional<type> getter##_;
    LIBKESTREL_GPU_PROPERTIES(LIBKESTREL_GPU_MEMBER)
    LIBKESTREL_GPU_PROPERTIES_0_2(LIBKESTREL_GPU_MEMBER)
#undef LIBKESTREL_GPU_MEMBER
};

} // namespace libKestrel
