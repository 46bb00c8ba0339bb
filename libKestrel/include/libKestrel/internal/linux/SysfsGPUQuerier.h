#pragma once

#include <bitset>

#include "libKestrel/internal/LiveSource.h"

namespace libKestrel {

// The sysfs source's records for a session: each reads its device's sensor and
// driver files again.
LiveSource enumerateSysfsLive(std::bitset<4>& status);

} // namespace libKestrel
