#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "tova/Export.h"
#include "tova/LoggerPriority.h"

namespace tova {

class Logger;

// Process-wide logging configuration and the registry of named loggers.
class TOVA_API LogFactory {
public:
    // Receives every written line: the logger's name, the priority and the text.
    using Sink = std::function<void(const std::string& logger, LoggerPriority::LOGGER_PRIORITY priority,
                                    const std::string& text)>;

    // The process-wide threshold, checked before any logger is consulted.
    // Starts at CRITICAL: a host hears about the gravest failures only until it asks for more.
    static LoggerPriority::LOGGER_PRIORITY getPriority();
    static void setPriority(LoggerPriority::LOGGER_PRIORITY priority);

    // The threshold itself, as getPriority reads it. Callers that test it before
    // every message read it inline, with one relaxed load instead of a call, so
    // a disabled message costs next to nothing.
    static std::atomic<int> threshold;

    // Creates the named logger, or finds it when it exists, and stores its address
    // in 'out'. Safe to call from several threads: one name always gives one logger.
    static void createLogger(const char* name, Logger*& out);

    // Replaces the destination of all written lines; an empty sink restores the
    // default, which writes "name [priority] text" lines to standard error. The
    // sink receives one line at a time. It may call setSink and may log: a line
    // it writes while it handles one goes to standard error, not back into it.
    static void setSink(Sink sink);

    // Used by Logger::log: delivers one line to the current sink, one line at a time.
    static void write(const std::string& logger, LoggerPriority::LOGGER_PRIORITY priority, const std::string& text);
};

} // namespace tova
