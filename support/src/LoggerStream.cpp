#include "tova/LoggerStream.h"

#include <string>

namespace tova {

LoggerStream& LoggerStream::operator+(const char* text) { return *this << text; }

LoggerStream& LoggerStream::operator+(const String& text) { return *this << text; }

LoggerStream& LoggerStream::operator<<(const char* text)
{
    // A vendor may hand back a null text; say so rather than crash.
    text_ += text ? text : "(null)";
    return *this;
}

LoggerStream& LoggerStream::operator<<(const String& text)
{
    text_ += text.str();
    return *this;
}

LoggerStream& LoggerStream::operator<<(int value) { return *this << static_cast<long long>(value); }

LoggerStream& LoggerStream::operator<<(unsigned int value) { return *this << static_cast<unsigned long long>(value); }

LoggerStream& LoggerStream::operator<<(unsigned long value) { return *this << static_cast<unsigned long long>(value); }

LoggerStream& LoggerStream::operator<<(long long value)
{
    text_ += std::to_string(value);
    return *this;
}

LoggerStream& LoggerStream::operator<<(unsigned long long value)
{
    text_ += std::to_string(value);
    return *this;
}

} // namespace tova
