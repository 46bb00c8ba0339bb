#pragma once

#include <functional>
#include <string>

#include "libKestrel/internal/SourceTable.h"

namespace libKestrel::probe {

// The helper's session mode: serves one source for an isolated session, keeping
// its vendor open between requests, until the requests end. Requests, one line
// each:
//
//   rescan <level>            enumerate anew; the enumeration before is let go
//                             once the new one is made
//   refresh <level> <quiet>   read the GPUs' changing properties again; <quiet>
//                             holds a 0 or 1 per record, 1 where the host holds
//                             back the vendor's lines (it said the GPU no
//                             longer answers)
//
// <level> is the host's process-wide log threshold at the time.
//
// 'next' gives the next request (false when there is none), 'answer' sends a
// whole answer (ProbeFormat.h); log lines go out as the source writes them.
void serveSession(const OwnSource& source, const std::function<bool(std::string&)>& next,
                  const std::function<void(const std::string&)>& answer);

} // namespace libKestrel::probe
