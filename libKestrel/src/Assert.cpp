#include "libKestrel/internal/Assert.h"

#include <cstdlib>

#include "tova/AssertionFailure.h"

#if defined(_WIN32)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#endif

namespace libKestrel {

void assertionFailed(const char* sourceFile, unsigned long long line, const char* expression)
{
    tova::AssertionFailure::logAssert(sourceFile, line, expression);
#if defined(_WIN32)
    RaiseException(7, 0, 0, nullptr);
#endif
    // A handler may resume after the structured exception; the broken invariant
    // still holds, so the process stops here either way.
    std::abort();
}

} // namespace libKestrel
