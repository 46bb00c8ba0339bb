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

namespace {

// How many quiet scopes this thread is in.
thread_local int quietScopes = 0;

} // namespace

QuietScope::QuietScope() { ++quietScopes; }
QuietScope::~QuietScope() { --quietScopes; }

tova::Logger* LogSite::loggerAllowing(Priority::LOGGER_PRIORITY priority)
{
    if (quietScopes > 0)
        return nullptr;
    tova::Logger* current = logger();
    if (current->priority > priority)
        return nullptr;
    if (current->resolvePriority() > priority)
        return nullptr;
    return current;
}

tova::Logger* LogSite::tracingLogger()
{
    if (quietScopes > 0)
        return nullptr;
    tova::Logger* current = logger();
    return current->priority <= Priority::TRACE ? current : nullptr;
}

} // namespace libKestrel::logging
