#include "common/LogCapture.h"

#include "tova/LogFactory.h"

namespace kestrel::test {

namespace {
// The entry and exit lines of a trace scope.
bool isTrace(const LogLine& l) { return l.text.rfind("Entering ", 0) == 0 || l.text.rfind("Leaving ", 0) == 0; }
} // namespace

void PrintTo(const LogLine& line, std::ostream* out)
{
    *out << line.logger << " [" << line.priority << "] " << line.text;
}

LogCapture::LogCapture(tova::LoggerPriority::LOGGER_PRIORITY threshold) : previous_(tova::LogFactory::getPriority())
{
    tova::LogFactory::setSink([this](const std::string& logger, tova::LoggerPriority::LOGGER_PRIORITY priority,
                                     const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back({logger, priority, text});
    });
    tova::LogFactory::setPriority(threshold);
}

LogCapture::~LogCapture()
{
    tova::LogFactory::setSink(nullptr);
    tova::LogFactory::setPriority(previous_);
}

std::vector<LogLine> LogCapture::lines() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<LogLine> LogCapture::messages() const
{
    std::vector<LogLine> result;
    for (const auto& line : lines())
        if (!isTrace(line))
            result.push_back(line);
    return result;
}

std::vector<std::string> LogCapture::of(const std::string& logger) const
{
    std::vector<std::string> result;
    for (const auto& line : messages())
        if (line.logger == logger)
            result.push_back(std::to_string(line.priority) + "|" + line.text);
    return result;
}

bool LogCapture::has(const std::string& logger, int priority, const std::string& text) const
{
    for (const auto& line : lines())
        if (line.logger == logger && line.priority == priority && line.text == text)
            return true;
    return false;
}

size_t LogCapture::count(const std::string& prefix) const
{
    size_t found = 0;
    for (const auto& line : lines())
        if (line.text.compare(0, prefix.size(), prefix) == 0)
            ++found;
    return found;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

} // namespace kestrel::test
