#pragma once

#include <bitset>
#include <memory>
#include <vector>

#include "libKestrel/Export.h"
#include "libKestrel/IGPU.h"

namespace libKestrel {

// The library's own GPU sources. Each is a GPUQuerier (libKestrel/Query.h): it
// loads its vendor's library when called, reports one record per GPU it can
// place on the PCI bus, and releases the library before it returns. A vendor
// that is missing or failing yields fewer records, never an exception.

// Every device that NVIDIA's CUDA runtime reports, with its name, compute
// capability, graphics and memory clocks and memory bus width. The PCI location
// is CUDA's bus and device number with function 0 and domain 0, so the records
// meet the other NVIDIA sources' records in the merge. 'status' is left alone.
LIBKESTREL_API std::vector<std::shared_ptr<IGPU>> queryNVidiaCudaGPUsMulti(std::bitset<4>& status);

// NVIDIA GPUs through NVML: name, UUID, VBIOS version, utilisation, ECC error
// counts, temperatures and fan speed. Sets status bit 0 when NVML refuses a GPU
// for insufficient power.
LIBKESTREL_API std::vector<std::shared_ptr<IGPU>> queryNVidiaNvmlGPUsMulti(std::bitset<4>& status);

} // namespace libKestrel
