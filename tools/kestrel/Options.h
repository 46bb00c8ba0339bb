#pragma once

#include <optional>
#include <string>

#include "Serve.h"

namespace kestrel {

struct Options {
    bool json = false;
    bool prometheus = false;            // one Prometheus exposition instead of the report
    bool isolate = false;               // vendor libraries in child processes
    std::optional<int> logLevel;        // the library's log on standard error from this priority up
    std::optional<std::string> scenario; // run against the vendor simulator with this scenario
    std::optional<double> watchSeconds;  // repeat until interrupted
    std::optional<ServeOptions> serve;   // serve the readings over HTTP
};

// Parses the command line. Returns the options, or the exit code to end with:
// 0 after --help or --version, 2 after a usage error (reported on standard error).
struct Parsed {
    std::optional<Options> options;
    int exitCode = 0;
};
Parsed parseCommandLine(int argc, char** argv);

} // namespace kestrel
