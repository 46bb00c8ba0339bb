#pragma once

#include <bitset>
#include <memory>
#include <vector>

#include "libKestrel/IGPU.h"
#include "libKestrel/internal/LiveSource.h"
#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"
#include "libKestrel/vendor/nvml.h"

namespace libKestrel {

// The NVML source proper is queryNVidiaNvmlGPUsMulti (libKestrel/Sources.h),
// which loads NVML around these two steps.

// Initialises NVML, builds one record per device that NVML places on the PCI
// bus, in NVML's order, and shuts NVML down again. Sets status bit 0 when NVML
// refuses a device for insufficient power.
std::vector<std::shared_ptr<IGPU>> queryNVidiaGPUsMultiWorker(std::bitset<4>& status);

// The record of one device (none when NVML gives no PCI location for it),
// read through 'entries'.
std::vector<std::shared_ptr<IGPU>> queryNVidiaGPU(const NVMLFunctions& entries, nvml::nvmlDevice_t const& device);

// The same records for a session: NVML stays loaded and initialised while the
// source lives, and each record reads its device's changing properties again
// through the device's handle.
LiveSource enumerateNvmlLive(std::bitset<4>& status);

} // namespace libKestrel
