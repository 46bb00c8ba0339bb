#include "tova/AssertionFailure.h"

#include <string>

#include "tova/LogFactory.h"

namespace tova {

void AssertionFailure::logAssert(const char* sourceFile, unsigned long long line, const char* expression)
{
    LogFactory::write("tova.Assertion", LoggerPriority::CRITICAL,
                      std::string("Assertion failed: ") + (expression ? expression : "?") + " at " +
                          (sourceFile ? sourceFile : "?") + ":" + std::to_string(line));
}

} // namespace tova
