#pragma once

namespace tova {

// Message priorities, lower is more verbose. A threshold lets a message through
// when the threshold is at most the message's priority; OFF stops everything.
struct LoggerPriority {
    enum LOGGER_PRIORITY : int {
        ALL = 0,
        TRACE = 1,    // function tracing and every value read
        INFO = 2,     // one-line summaries of an enumeration
        WARNING = 3,  // a failed step that was survived
        CRITICAL = 4, // a failure after which a source yields nothing
        OFF = 5,
    };
};

} // namespace tova
