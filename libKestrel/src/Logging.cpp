#include "libKestrel/internal/Logging.h"

namespace libKestrel::logging {

tova::Logger* LogSite::logger()
{
    tova::Logger* current = logger_.load(std::memory_order_acquire);
    if (!current) {
        tova::LogFactory::createLogger(name_, current);
        logger_.store(current, std::memory_order_release);
    }
    return current;
}

tova::Logger* LogSite::enabled(Priority::LOGGER_PRIORITY priority)
{
    if (tova::LogFactory::getPriority() > priority)
        return nullptr;
    tova::Logger* current = logger();
    if (current->priority > priority)
        return nullptr;
    if (current->resolvePriority() > priority)
        return nullptr;
    return current;
}

tova::TraceLogger LogSite::trace(const char* function, int line)
{
    tova::Logger* traceLogger = nullptr;
    if (tova::LogFactory::getPriority() <= Priority::TRACE) {
        tova::Logger* current = logger();
        if (current->priority <= Priority::TRACE)
            traceLogger = current;
    }
    return tova::TraceLogger(traceLogger, function, file_, line);
}

} // namespace libKestrel::logging
