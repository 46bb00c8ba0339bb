#pragma once

#include <bitset>
#include <memory>
#include <vector>

#include "libKestrel/Export.h"
#include "libKestrel/IGPU.h"

namespace libKestrel {

// The library's own GPU sources. Each is a GPUQuerier (libKestrel/Query.h): it
// loads its vendor's library when called, reports one record per GPU it can
// place on the PCI bus, and releases the library before it returns (unless a
// session or another thread still uses it). A vendor that is missing or failing
// yields fewer records, never an exception. Each may run on several threads at
// once, beside queries and sessions of the same vendor.

// NVIDIA GPUs through NVML: name, UUID, VBIOS version, utilisation, ECC error
// counts, temperatures (the memory's too) and fan speed, power draw and the
// enforced power limit, energy since the driver loaded, the PCIe link now and at
// most, the performance state and the clock event reasons. Sets status bit 0
// when NVML refuses a GPU for insufficient power.
LIBKESTREL_API std::vector<std::shared_ptr<IGPU>> queryNVidiaNvmlGPUsMulti(std::bitset<4>& status);

// NVIDIA GPUs through NVAPI: name, driver and VBIOS versions, core count,
// dedicated memory, current clocks, bus type, ECC state and SLI membership.
// Leaves the status set alone.
LIBKESTREL_API std::vector<std::shared_ptr<IGPU>> queryNVidiaGPUs(std::bitset<4>& status);

// Every device that NVIDIA's CUDA runtime reports, with its name, compute
// capability, graphics and memory clocks and memory bus width. The PCI location
// is CUDA's bus and device number with function 0 and domain 0, so the records
// meet the other NVIDIA sources' records in the merge. 'status' is left alone.
LIBKESTREL_API std::vector<std::shared_ptr<IGPU>> queryNVidiaCudaGPUsMulti(std::bitset<4>& status);

// AMD GPUs through ADL, in two passes: one full record per ADL adapter (a GPU
// has one adapter per output, all at its PCI location, so the merge folds them),
// then one record holding only the PCI location per adapter that ADL reports as
// present. The first pass also reads, on an ADL2 context of its own, the power
// draw and the hot-spot and memory temperatures of the Overdrive 8 PM log (the
// power else from Overdrive 6). The status set is left as it is.
LIBKESTREL_API std::vector<std::shared_ptr<IGPU>> queryAMDGPUsMulti(std::bitset<4>& status);

#if !defined(_WIN32)
// Every display controller (PCI class 0x03) the Linux kernel lists, enumerated
// through libpci (loaded at run time) under the directory that KESTREL_SYSFS_ROOT
// names (default /sys): its name from the PCI ID database, bus type, whether a
// driver is bound, amdgpu's memory, utilisation, VBIOS and unique id, the PCIe
// link now and at most, and the hwmon temperatures (the hot spot and the
// memory's by their labels), fan, clocks, power, power cap and energy most
// drivers register. The domain is left out, as the NVIDIA sources leave it out.
// 'status' is left alone.
LIBKESTREL_API std::vector<std::shared_ptr<IGPU>> querySysfsGPUs(std::bitset<4>& status);
#endif

} // namespace libKestrel
