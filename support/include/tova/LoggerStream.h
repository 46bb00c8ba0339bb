#pragma once

#include <string>

#include "tova/Export.h"
#include "tova/String.h"

namespace tova {

// A message under construction. '+' appends literal pieces, '<<' appends values.
class TOVA_API LoggerStream {
public:
    LoggerStream() = default;
    ~LoggerStream() = default;
    LoggerStream(const LoggerStream&) = delete;
    LoggerStream& operator=(const LoggerStream&) = delete;

    LoggerStream& operator+(const char* text);
    LoggerStream& operator+(const String& text);

    LoggerStream& operator<<(const char* text);
    LoggerStream& operator<<(const String& text);
    LoggerStream& operator<<(int value);
    LoggerStream& operator<<(unsigned int value);
    LoggerStream& operator<<(unsigned long value);
    LoggerStream& operator<<(long long value);
    LoggerStream& operator<<(unsigned long long value);

    const std::string& str() const { return text_; }

private:
    std::string text_;
};

} // namespace tova
