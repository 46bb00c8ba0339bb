#pragma once

#include "libKestrel/internal/isolation/ProbeFormat.h"

namespace libKestrel::isolation {

// Writes a helper's log line through the host's logger of that name, when the
// host's thresholds (the process-wide one, the logger's own, its ancestors')
// let a line of that priority through, as they would the library's own line.
// A priority outside 0 to 7 is no log line's, and is dropped.
void forward(const probe::LogLine& line);

} // namespace libKestrel::isolation
