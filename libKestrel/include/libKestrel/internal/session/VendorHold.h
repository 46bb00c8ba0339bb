#pragma once

#include <functional>
#include <string>

namespace libKestrel::session {

// Keeps one source's vendor library loaded and initialised while it lives, so
// that the source's own load and initialisation at every refresh nest inside
// it and cost next to nothing: NVML initialised, an NVAPI reference, an ADL2
// context. CUDA's driver and libpci stay loaded for the process anyway. Empty
// (nothing held) for other sources or when the vendor cannot be opened; the
// source then reports that itself.
class VendorHold {
public:
    explicit VendorHold(const std::string& source);
    ~VendorHold();
    VendorHold(const VendorHold&) = delete;
    VendorHold& operator=(const VendorHold&) = delete;

    bool holds() const { return static_cast<bool>(release_); }

private:
    std::function<void()> release_;
};

} // namespace libKestrel::session
