#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

#include "pci/PciLocation.h"
#include "tova/LogFactory.h"
#include "tova/Logger.h"
#include "tova/LoggerPriority.h"
#include "tova/LoggerStream.h"
#include "tova/String.h"
#include "tova/TovaValue.h"
#include "tova/TraceLogger.h"

namespace libKestrel::logging {

using Priority = tova::LoggerPriority;

// Holds back every message of this thread while it lives: a session reading a
// GPU it has already reported as not answering, whose vendor would say the same
// at every refresh. Tested after the process-wide threshold, so a message that
// threshold stops still costs one load.
class QuietScope {
public:
    QuietScope();
    ~QuietScope();
    QuietScope(const QuietScope&) = delete;
    QuietScope& operator=(const QuietScope&) = delete;
};

// The support library's trace scope ("Entering"/"Leaving" lines), made only for
// a logger that traces.
class TraceScope {
public:
    TraceScope(tova::Logger* logger, const char* function, const char* sourceFile, int line)
    {
        if (logger)
            scope_.emplace(logger, function, sourceFile, line);
    }

private:
    std::optional<tova::TraceLogger> scope_;
};

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
    // builds nothing, so a disabled message costs no allocation. The first test
    // is inline: a message the process-wide threshold stops costs one load.
    tova::Logger* enabled(Priority::LOGGER_PRIORITY priority)
    {
        if (processThreshold() > priority)
            return nullptr;
        return loggerAllowing(priority);
    }

    // A trace scope for 'function', which begins at 'line' of this file. It is
    // made only while tracing is on, so a disabled trace writes and calls nothing.
    TraceScope trace(const char* function, int line)
    {
        return TraceScope(processThreshold() > Priority::TRACE ? nullptr : tracingLogger(), function, file_, line);
    }

private:
    static int processThreshold() { return tova::LogFactory::threshold.load(std::memory_order_relaxed); }
    // The remaining tests of enabled(), and trace()'s, once the process-wide one passed.
    tova::Logger* loggerAllowing(Priority::LOGGER_PRIORITY priority);
    tova::Logger* tracingLogger();
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

// A value that is costly to make (a vendor call, a formatted text): made only
// when the message is written.
template <class Make>
struct Deferred {
    Make make;
};

template <class Make>
Deferred<Make> deferred(Make make)
{
    return {std::move(make)};
}

namespace detail {

inline void append(tova::LoggerStream& stream, const char* text) { stream << text; }
inline void append(tova::LoggerStream& stream, const tova::String& text) { stream << text; }
inline void append(tova::LoggerStream& stream, const std::string& text) { stream << tova::String(text); }
// A PCI location reads as its text form; it is formatted only when written.
inline void append(tova::LoggerStream& stream, const pci::PciLocation& location) { stream << location.toString(true); }

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
    // TovaValue takes bool, int, unsigned int and unsigned long long; a signed
    // value wider than int has no TovaValue and is written whole, as a number.
    if constexpr (std::is_signed_v<T> && sizeof(T) > sizeof(int)) {
        stream << static_cast<long long>(shownValue.value);
    } else {
        using Value = std::conditional_t<
            std::is_same_v<T, bool>, bool,
            std::conditional_t<std::is_signed_v<T>, int,
                               std::conditional_t<(sizeof(T) <= sizeof(unsigned int)), unsigned int,
                                                  unsigned long long>>>;
        stream << tova::TovaValue(static_cast<Value>(shownValue.value)).toString(tova::TovaValue::nilValue());
    }
}

template <class Make>
void append(tova::LoggerStream& stream, const Deferred<Make>& value)
{
    append(stream, value.make());
}

template <class Text, class... Values>
void write(tova::Logger& logger, Priority::LOGGER_PRIORITY priority, const char* tag, const Text& text,
           const Values&... values)
{
    tova::LoggerStream stream;
    stream + tag + text;
    (append(stream, values), ...);
    logger.log(priority, stream);
}

} // namespace detail

// Writes "<tag><text><values...>" at 'priority' on the site's logger. The tag is
// the message's fixed number and a blank ("294 "); values are strings, integers
// (written as they are), PCI locations, shown(x) (written through TovaValue) or
// deferred(callable) (made only when the message is written). Nothing is made
// or formatted for a message the thresholds stop.
template <class Text, class... Values>
void log(LogSite& site, Priority::LOGGER_PRIORITY priority, const char* tag, const Text& text, const Values&... values)
{
    // Small enough to be inlined: a disabled message costs its threshold test only.
    if (tova::Logger* logger = site.enabled(priority))
        detail::write(*logger, priority, tag, text, values...);
}

} // namespace libKestrel::logging
