#include "tova/LogFactory.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>

#include "tova/Logger.h"

namespace tova {
namespace {

const char* priorityName(LoggerPriority::LOGGER_PRIORITY priority)
{
    switch (priority) {
    case LoggerPriority::TRACE: return "TRACE";
    case LoggerPriority::INFO: return "INFO";
    case LoggerPriority::WARNING: return "WARNING";
    case LoggerPriority::CRITICAL: return "CRITICAL";
    default: return "LOG";
    }
}

void writeToStandardError(const std::string& logger, LoggerPriority::LOGGER_PRIORITY priority,
                          const std::string& text)
{
    std::fprintf(stderr, "%s [%s] %s\n", logger.c_str(), priorityName(priority), text.c_str());
    std::fflush(stderr);
}

// Everything the factory keeps. Loggers are never destroyed: callers hold raw
// pointers to them in static storage, and other modules' static destructors may
// still log while this module shuts down, so the registry is deliberately leaked.
struct Registry {
    std::mutex loggersMutex;
    std::map<std::string, std::unique_ptr<Logger>> loggers;
    std::mutex sinkMutex; // guards 'sink' only, never held while a line is delivered
    std::shared_ptr<const LogFactory::Sink> sink = std::make_shared<const LogFactory::Sink>(writeToStandardError);
    std::mutex deliveryMutex; // one line at a time, so concurrent messages never interleave
};

// Set while this thread's line is in the sink. A line the sink itself writes
// (through a logger, directly or from a library it calls) goes to standard
// error instead: back into the sink it would wait for itself or never end.
thread_local bool delivering = false;

struct Delivering {
    Delivering() { delivering = true; }
    ~Delivering() { delivering = false; }
    Delivering(const Delivering&) = delete;
    Delivering& operator=(const Delivering&) = delete;
};

Registry& registry()
{
    static Registry* instance = new Registry();
    return *instance;
}

// Finds or creates 'name' and, for a dotted name, its ancestors. Caller holds loggersMutex.
Logger* findOrCreate(Registry& reg, const std::string& name)
{
    auto found = reg.loggers.find(name);
    if (found != reg.loggers.end())
        return found->second.get();
    const auto dot = name.rfind('.');
    Logger* parent = dot == std::string::npos ? nullptr : findOrCreate(reg, name.substr(0, dot));
    auto& slot = reg.loggers[name];
    slot = std::make_unique<Logger>(name, parent);
    return slot.get();
}

} // namespace

// Constant-initialised, so it holds CRITICAL before any static constructor runs.
std::atomic<int> LogFactory::threshold{LoggerPriority::CRITICAL};

LoggerPriority::LOGGER_PRIORITY LogFactory::getPriority()
{
    return static_cast<LoggerPriority::LOGGER_PRIORITY>(threshold.load(std::memory_order_relaxed));
}

void LogFactory::setPriority(LoggerPriority::LOGGER_PRIORITY priority)
{
    threshold.store(priority, std::memory_order_relaxed);
}

void LogFactory::createLogger(const char* name, Logger*& out)
{
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.loggersMutex);
    out = findOrCreate(reg, name ? name : "");
}

void LogFactory::setSink(Sink sink)
{
    Registry& reg = registry();
    auto replacement = std::make_shared<const Sink>(sink ? std::move(sink) : Sink(writeToStandardError));
    std::lock_guard<std::mutex> lock(reg.sinkMutex);
    // A sink that replaces itself keeps running: the line it handles holds it.
    reg.sink = std::move(replacement);
}

void LogFactory::write(const std::string& logger, LoggerPriority::LOGGER_PRIORITY priority, const std::string& text)
{
    if (delivering) {
        writeToStandardError(logger, priority, text);
        return;
    }
    Registry& reg = registry();
    std::shared_ptr<const Sink> sink;
    {
        std::lock_guard<std::mutex> lock(reg.sinkMutex);
        sink = reg.sink;
    }
    std::lock_guard<std::mutex> delivery(reg.deliveryMutex);
    const Delivering inSink;
    (*sink)(logger, priority, text);
}

} // namespace tova
