#pragma once

#include <cstdint>
#include <string>

#include "tova/Export.h"
#include "tova/LoggerPriority.h"

namespace tova {

class LoggerStream;

// A named logger. Names are dotted paths ("libKestrel.NVML"); a logger whose own
// threshold is ALL takes the threshold of the nearest ancestor that has one.
// Loggers are created by LogFactory::createLogger and live until process exit.
class TOVA_API Logger {
public:
    Logger(std::string name, Logger* parent);
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // The logger's own threshold; read directly by callers before they build a
    // message. ALL (0) means "inherit from the parent".
    std::int32_t priority = LoggerPriority::ALL;

    // The effective threshold: the own one, else the nearest ancestor's.
    LoggerPriority::LOGGER_PRIORITY resolvePriority() const;

    // Hands one finished message to the sink. Callers decide beforehand whether
    // the message passes the thresholds; log writes what it is given and may be
    // called from several threads at once.
    bool log(LoggerPriority::LOGGER_PRIORITY priority, const LoggerStream& message);

    const std::string& name() const { return name_; }
    Logger* parent() const { return parent_; }

private:
    std::string name_;
    Logger* parent_;
};

} // namespace tova
