#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <type_traits>

#include "tova/LogFactory.h"
#include "tova/Logger.h"
#include "tova/LoggerPriority.h"
#include "tova/LoggerStream.h"
#include "tova/String.h"
#include "tova/TovaValue.h"
#include "tova/TraceLogger.h"

namespace libKestrel::logging {

using Priority = tova::LoggerPriority;

// The logging state of one source file: its logger name, its path for trace
// lines, and the logger itself, created on the file's first enabled message.
// Constant-initialised, so a site is usable from any static initialiser.
class LogSite {
public:
    constexpr LogSite(const char* loggerName, const char* sourceFile) : name_(loggerName), file_(sourceFile) {}
    LogSite(const LogSite&) = delete;
    LogSite& operator=(const LogSite&) = delete;

    // The file's logger when a message of 'priority' would be written, else null.
    // Runs the threshold tests in their fixed order (process-wide threshold,
    // logger creation, the logger's own threshold, its resolved threshold) and
    // builds nothing, so a disabled message costs no allocation.
    tova::Logger* enabled(Priority::LOGGER_PRIORITY priority);

    // A trace scope for 'function', which begins at 'line' of this file. It gets
    // the logger only while tracing is on, so a disabled trace writes nothing.
    tova::TraceLogger trace(const char* function, int line);

private:
    tova::Logger* logger();

    const char* name_;
    const char* file_;
    // Two threads may create the logger at once; the factory gives both the same
    // one, and the atomic keeps the racing stores well defined.
    std::atomic<tova::Logger*> logger_{nullptr};
};

// A number or flag rendered through TovaValue in a message.
template <class T>
struct Shown {
    T value;
};

template <class T>
Shown<T> shown(T value)
{
    return {value};
}

namespace detail {

inline void append(tova::LoggerStream& stream, const char* text) { stream << text; }
inline void append(tova::LoggerStream& stream, const tova::String& text) { stream << text; }
inline void append(tova::LoggerStream& stream, const std::string& text) { stream << tova::String(text); }

template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
void append(tova::LoggerStream& stream, T value)
{
    if constexpr (std::is_signed_v<T>)
        stream << static_cast<long long>(value);
    else
        stream << static_cast<unsigned long long>(value);
}

template <class T>
void append(tova::LoggerStream& stream, const Shown<T>& shownValue)
{
    // TovaValue takes bool, int, unsigned int and unsigned long long.
    using Value = std::conditional_t<
        std::is_same_v<T, bool>, bool,
        std::conditional_t<std::is_signed_v<T>, int,
                           std::conditional_t<(sizeof(T) <= sizeof(unsigned int)), unsigned int, unsigned long long>>>;
    const Value value = static_cast<Value>(shownValue.value);
    stream << tova::TovaValue(value).toString(tova::TovaValue::nilValue());
}

} // namespace detail

// Writes "<tag><text><values...>" at 'priority' on the site's logger. The tag is
// the message's fixed number and a blank ("294 "); values are strings, integers
// (written as they are) or shown(x) (written through TovaValue).
template <class Text, class... Values>
void log(LogSite& site, Priority::LOGGER_PRIORITY priority, const char* tag, const Text& text, const Values&... values)
{
    tova::Logger* logger = site.enabled(priority);
    if (!logger)
        return;
    tova::LoggerStream stream;
    stream + tag + text;
    (detail::append(stream, values), ...);
    logger->log(priority, stream);
}

} // namespace libKestrel::logging
