#pragma once

#include "tova/Export.h"

namespace tova {

class TOVA_API AssertionFailure {
public:
    // Reports a broken invariant. The line is written whatever the thresholds
    // say, because the caller is about to stop the process.
    static void logAssert(const char* sourceFile, unsigned long long line, const char* expression);
};

} // namespace tova
