#pragma once

#include <bitset>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libKestrel/IGPU.h"

namespace libKestrel::probe {

// What kestrel-probe answers on its answer pipe (the descriptor or handle its
// "--answer-pipe N" names; standard output when run by hand), one item per line:
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
// Anything else, or output without "done", is output that does not parse. The
// answer is complete with "done", whether or not the pipe is closed then. An
// answer holds at most 4 MiB (mostAnswer): a helper that writes more is stopped
// and its records are left out.

constexpr std::size_t mostAnswer = std::size_t{4} << 20;

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

// Whether 'answer' ends with its last item, "done".
bool complete(std::string_view answer);

std::string header();
std::string logLine(const std::string& logger, int priority, const std::string& text);
std::string records(const std::vector<std::shared_ptr<IGPU>>& gpus, const std::bitset<4>& status);

// The probe's output read back. 'logs' holds the log lines read whatever
// happens, so that a child that died still says what it said; 'problem' says
// what does not parse, and is empty when the output is complete.
Output parse(const std::string& text, std::string& problem);

} // namespace libKestrel::probe
