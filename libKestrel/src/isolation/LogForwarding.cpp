#include "libKestrel/internal/isolation/LogForwarding.h"

#include "tova/LogFactory.h"
#include "tova/Logger.h"
#include "tova/LoggerStream.h"

namespace libKestrel::isolation {

void forward(const probe::LogLine& line)
{
    if (line.priority < 0 || line.priority > 7)
        return;
    // The enumeration's underlying type is int: every value from 0 to 7 is one of its values.
    const auto priority = static_cast<tova::LoggerPriority::LOGGER_PRIORITY>(line.priority);
    if (tova::LogFactory::getPriority() > priority)
        return;
    tova::Logger* logger = nullptr;
    tova::LogFactory::createLogger(line.logger.c_str(), logger);
    if (logger->priority > priority || logger->resolvePriority() > priority)
        return;
    tova::LoggerStream message;
    message + tova::String(line.text);
    logger->log(priority, message);
}

} // namespace libKestrel::isolation
