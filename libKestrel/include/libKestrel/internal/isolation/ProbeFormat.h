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
//   gpu <domain> <bus> <device> <function>   in decimal; the domain "-" when
//                                        the source cannot tell it
//   <property> <value>                   the record's properties, by getter name:
//                                        texts escaped (\\, \n, \r, \t), flags 0/1,
//                                        numbers in decimal
//   end                                  the record is complete
//   status <bits>                        the status set, bit 3 first ("0001")
//   done                                 the source returned
//
// In its session mode (kestrel-probe SOURCE --session, with a request pipe) the
// helper answers each request the same way, header first and "done" last. An
// enumeration ("rescan") marks each record that is read again at every refresh
// with a line "reads" before its "end", and says "open" when the vendor stays
// open for those readings. A refresh answers
//
//   reached <0|1>                        whether the vendor could be reached
//   readings <n>                         the readings of the n-th record of the
//   <property> <value>                   enumeration (counted from 0, every
//   end                                  record included), then "end"
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
    // A session's answers: per record, whether it is read again; whether the
    // vendor stays open; and a refresh's readings, by the record's place.
    std::vector<bool> readers;
    bool open = false;
    std::optional<bool> reached;
    std::vector<std::pair<std::size_t, std::shared_ptr<IGPU>>> readings;
};

// Whether 'answer' ends with its last item, "done".
bool complete(std::string_view answer);

std::string header();
std::string logLine(const std::string& logger, int priority, const std::string& text);
std::string records(const std::vector<std::shared_ptr<IGPU>>& gpus, const std::bitset<4>& status);
// The rest of a session's answers, after the header and the log lines: an
// enumeration, each record marked as 'read' says, and a refresh's readings.
std::string enumeration(const std::vector<std::shared_ptr<IGPU>>& gpus, const std::vector<bool>& read, bool open,
                        const std::bitset<4>& status);
std::string readings(bool reached, const std::vector<std::pair<std::size_t, const IGPU*>>& gpus);

// The probe's output read back. 'logs' holds the log lines read whatever
// happens, so that a child that died still says what it said; 'problem' says
// what does not parse, and is empty when the output is complete.
Output parse(const std::string& text, std::string& problem);

} // namespace libKestrel::probe
