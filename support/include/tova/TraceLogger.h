#pragma once

#include "tova/Export.h"

namespace tova {

class Logger;

// Scope object reporting entry into and exit from a function at priority TRACE.
// With a null logger it does nothing at all.
class TOVA_API TraceLogger {
public:
    TraceLogger(Logger* logger, const char* function, const char* sourceFile, int line);
    ~TraceLogger();
    TraceLogger(const TraceLogger&) = delete;
    TraceLogger& operator=(const TraceLogger&) = delete;

private:
    Logger* logger_;
    const char* function_;
    const char* sourceFile_;
    int line_;
};

} // namespace tova
