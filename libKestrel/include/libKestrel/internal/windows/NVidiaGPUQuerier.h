#pragma once

#include <memory>
#include <vector>

#include "libKestrel/IGPU.h"
#include "libKestrel/internal/LiveSource.h"
#include "libKestrel/vendor/nvapi.h"

namespace libKestrel {

// The record of one NVAPI GPU: none when its PCI location cannot be read,
// otherwise one record with every property NVAPI could give. NVAPI must be
// initialised.
std::vector<std::shared_ptr<IGPU>> queryNVidiaGPU(nvapi::NvPhysicalGpuHandle const& handle);

// The NVAPI source for a session: its records, each read again through its GPU
// handle (available memory and clocks). NVAPI stays initialised while the
// source lives.
LiveSource enumerateNvapiLive(std::bitset<4>& status);

} // namespace libKestrel
