#include "tova/Logger.h"

#include <utility>

#include "tova/LogFactory.h"
#include "tova/LoggerStream.h"

namespace tova {

Logger::Logger(std::string name, Logger* parent) : name_(std::move(name)), parent_(parent) {}

LoggerPriority::LOGGER_PRIORITY Logger::resolvePriority() const
{
    for (const Logger* logger = this; logger; logger = logger->parent_) {
        if (logger->priority != LoggerPriority::ALL)
            return static_cast<LoggerPriority::LOGGER_PRIORITY>(logger->priority);
    }
    return LoggerPriority::ALL;
}

bool Logger::log(LoggerPriority::LOGGER_PRIORITY priority, const LoggerStream& message)
{
    LogFactory::write(name_, priority, message.str());
    return true;
}

} // namespace tova
