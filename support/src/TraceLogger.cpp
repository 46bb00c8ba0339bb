#include "tova/TraceLogger.h"

#include "tova/Logger.h"
#include "tova/LoggerStream.h"

namespace tova {

TraceLogger::TraceLogger(Logger* logger, const char* function, const char* sourceFile, int line)
    : logger_(logger && logger->resolvePriority() <= LoggerPriority::TRACE ? logger : nullptr),
      function_(function),
      sourceFile_(sourceFile),
      line_(line)
{
    if (!logger_)
        return;
    LoggerStream stream;
    stream + "Entering " << function_ << " (" << sourceFile_ << ":" << line_ << ")";
    logger_->log(LoggerPriority::TRACE, stream);
}

TraceLogger::~TraceLogger()
{
    if (!logger_)
        return;
    LoggerStream stream;
    stream + "Leaving " << function_;
    logger_->log(LoggerPriority::TRACE, stream);
}

} // namespace tova
