#pragma once

#include <bitset>
#include <memory>
#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "libKestrel/IGPU.h"
#include "libKestrel/Query.h"

namespace kestrel::test {

using Records = std::vector<std::shared_ptr<libKestrel::IGPU>>;

// What a GPU source gave and said.
struct SourceRun {
    Records records;
    std::bitset<4> status;
    std::vector<LogLine> lines; // every line at and above the run's threshold, trace scopes left out
};

// Runs 'source' as a host calls it, on the machine 'scenario' (JSON text)
// describes, with the simulated modules the caller holds, and collects what it
// logged at and above 'threshold'.
SourceRun runSource(libKestrel::GPUQuerier source, const std::string& scenario,
                    tova::LoggerPriority::LOGGER_PRIORITY threshold = tova::LoggerPriority::TRACE);

// A record as one line of text: its location, then every present property as
// name=value, in record order; compares whole records in one expectation.
std::string describe(const libKestrel::IGPU& gpu);
std::vector<std::string> describe(const Records& records);

} // namespace kestrel::test
