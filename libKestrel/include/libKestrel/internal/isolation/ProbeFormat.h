#pragma once

#include <bitset>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "libKestrel/IGPU.h"

namespace libKestrel::probe {

// What kestrel-probe writes to its standard output, one item per line:
//
//   kestrel-probe 1                      the format and its version
//   log <priority> <logger> <text>       a log line the source wrote
//   gpu <domain> <bus> <device> <function>
//   <property> <value>                   the record's properties, by getter name:
//                                        texts escaped (\\, \n, \r, \t), flags 0/1,
//                                        numbers in decimal
//   end                                  the record is complete
//   status <bits>                        the status set, bit 3 first ("0001")
//   done                                 the source returned
//
// Anything else, or output without "done", is output that does not parse.

struct LogLine {
    int priority = 0;
    std::string logger;
    std::string text;
};

struct Output {
    std::vector<std::shared_ptr<IGPU>> records;
    std::bitset<4> status;
    std::vector<LogLine> logs;
};

std::string header();
std::string logLine(const std::string& logger, int priority, const std::string& text);
std::string records(const std::vector<std::shared_ptr<IGPU>>& gpus, const std::bitset<4>& status);

// The probe's output read back. 'logs' holds the log lines read whatever
// happens, so that a child that died still says what it said; 'problem' says
// what does not parse, and is empty when the output is complete.
Output parse(const std::string& text, std::string& problem);

} // namespace libKestrel::probe
