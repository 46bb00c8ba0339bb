#pragma once

namespace libKestrel {

// Reports a broken invariant and stops: on Windows by raising structured
// exception 7, elsewhere by abort().
[[noreturn]] void assertionFailed(const char* sourceFile, unsigned long long line, const char* expression);

} // namespace libKestrel

#define KESTREL_ASSERT(condition)                                                                    \
    ((condition) ? static_cast<void>(0) : ::libKestrel::assertionFailed(__FILE__, __LINE__, #condition))
