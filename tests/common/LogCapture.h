#pragma once

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "tova/LoggerPriority.h"

namespace kestrel::test {

using Priority = tova::LoggerPriority;
using Lines = std::vector<std::string>;

struct LogLine {
    std::string logger;
    int priority;
    std::string text;

    bool operator==(const LogLine& other) const
    {
        return logger == other.logger && priority == other.priority && text == other.text;
    }
};

// "libKestrel.NVML [3] 121 Cannot load NVML: ...", as test failures show it.
void PrintTo(const LogLine& line, std::ostream* out);

using LogLines = std::vector<LogLine>;

// Collects every line written while it lives, at and above 'threshold', and
// puts the process-wide threshold and the default sink back afterwards.
class LogCapture {
public:
    explicit LogCapture(tova::LoggerPriority::LOGGER_PRIORITY threshold = tova::LoggerPriority::TRACE);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    // Every line but the trace scopes' entry and exit lines, in order.
    std::vector<LogLine> messages() const;
    // The messages of one logger, as "priority|text", in order.
    std::vector<std::string> of(const std::string& logger) const;
    // True when exactly this line was written.
    bool has(const std::string& logger, int priority, const std::string& text) const;
    // Lines whose text starts with 'prefix'.
    size_t count(const std::string& prefix) const;
    void clear();

private:
    tova::LoggerPriority::LOGGER_PRIORITY previous_;
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

} // namespace kestrel::test
