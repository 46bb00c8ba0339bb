#include "common/Sources.h"

#include <type_traits>

#include "common/Simulator.h"
#include "libKestrel/internal/Properties.h"

namespace kestrel::test {
namespace {

template <class T>
std::string valueText(const T& value)
{
    if constexpr (std::is_same_v<T, std::string>)
        return value;
    else if constexpr (std::is_same_v<T, bool>)
        return value ? "true" : "false";
    else if constexpr (std::is_pointer_v<T>)
        return "handle";
    else
        return std::to_string(value);
}

} // namespace

SourceRun runSource(libKestrel::GPUQuerier source, const std::string& scenario,
                    tova::LoggerPriority::LOGGER_PRIORITY threshold)
{
    SimulatedMachine machine(scenario);
    LogCapture capture(threshold);
    SourceRun run;
    run.records = source(run.status);
    run.lines = capture.messages();
    return run;
}

std::string describe(const libKestrel::IGPU& gpu)
{
    std::string text = gpu.pciLocation() ? gpu.pciLocation()->toString(true).str() : "unlocated";
#define KESTREL_DESCRIBE(type, getter, setter, unit)                                                                  \
    if (const auto value = gpu.getter())                                                                              \
        text += " " #getter "=" + valueText(*value);
    LIBKESTREL_ALL_GPU_PROPERTIES(KESTREL_DESCRIBE)
#undef KESTREL_DESCRIBE
    return text;
}

std::vector<std::string> describe(const Records& records)
{
    std::vector<std::string> texts;
    for (const auto& record : records)
        texts.push_back(describe(*record));
    return texts;
}

} // namespace kestrel::test
