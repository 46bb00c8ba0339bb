#pragma once

#include <bitset>
#include <memory>
#include <vector>

#include "libKestrel/IGPU.h"
#include "libKestrel/internal/LiveSource.h"
#include "libKestrel/internal/multi/AMD/adlwrapper.h"
#include "libKestrel/vendor/adl.h"

namespace libKestrel {

// The first pass's record of one ADL adapter: everything ADL tells about it,
// through 'calls'.
std::vector<std::shared_ptr<IGPU>> queryAMDGPU(const adlwrapper::ADLCalls& calls, const adl::AdapterInfo& info);

// The second pass's record of one ADL adapter, its PCI location only; none when
// ADL does not report the adapter as present. Makes no ADL call.
std::vector<std::shared_ptr<IGPU>> queryPresentAMDGPU(const adl::AdapterInfo& info);

// Both passes' records for a session: ADL stays loaded and an ADL2 context open
// while the source lives, and each GPU's changing properties are read again
// through one of its adapter indices.
LiveSource enumerateAdlLive(std::bitset<4>& status);

} // namespace libKestrel
