#include "libKestrel/internal/session/LiveSource.h"

#include "libKestrel/internal/Kestrel.h"

namespace libKestrel::session {

// The properties that change while a GPU runs, as (getter, setter, merge rule).
#define LIBKESTREL_READINGS(X)                                                                          \
    X(availableDedicatedMemory, setAvailableDedicatedMemory, mergeMemory)                             \
    X(graphicsClock, setGraphicsClock, mergeClockFrequencies)                                         \
    X(memoryClock, setMemoryClock, mergeClockFrequencies)                                             \
    X(shaderClock, setShaderClock, mergeClockFrequencies)                                             \
    X(eccErrorsCorrectedVolatile, setECCErrorsCorrectedVolatile, mergeECCErrorCounts)                 \
    X(eccErrorsUncorrectedVolatile, setECCErrorsUncorrectedVolatile, mergeECCErrorCounts)             \
    X(eccErrorsCorrectedAggregate, setECCErrorsCorrectedAggregate, mergeECCErrorCounts)               \
    X(eccErrorsUncorrectedAggregate, setECCErrorsUncorrectedAggregate, mergeECCErrorCounts)           \
    X(utilizationGPU, setUtilizationGPU, mergeUtilizationPercent)                                     \
    X(utilizationMemory, setUtilizationMemory, mergeUtilizationPercent)                               \
    X(temperatureCurrent, setTemperatureCurrent, mergeTemperature)                                    \
    X(fanSpeedPercent, setFanSpeedPercent, mergeFanSpeed)                                             \
    X(fanSpeedRPM, setFanSpeedRPM, mergeFanSpeed)

void clearReadings(GPU& gpu)
{
#define LIBKESTREL_CLEAR(getter, setter, merge) gpu.setter(std::nullopt);
    LIBKESTREL_READINGS(LIBKESTREL_CLEAR)
#undef LIBKESTREL_CLEAR
}

bool hasReadings(const IGPU& gpu)
{
#define LIBKESTREL_PRESENT(getter, setter, merge) || gpu.getter().has_value()
    return false LIBKESTREL_READINGS(LIBKESTREL_PRESENT);
#undef LIBKESTREL_PRESENT
}

bool sameReadings(const IGPU& one, const IGPU& other)
{
#define LIBKESTREL_SAME(getter, setter, merge) &&one.getter() == other.getter()
    return true LIBKESTREL_READINGS(LIBKESTREL_SAME);
#undef LIBKESTREL_SAME
}

void takeReadings(GPU& into, const IGPU& from)
{
#define LIBKESTREL_TAKE(getter, setter, merge) into.setter(from.getter());
    LIBKESTREL_READINGS(LIBKESTREL_TAKE)
#undef LIBKESTREL_TAKE
}

void foldReadings(GPU& into, const IGPU& from)
{
// The rule decides only when both have the property; otherwise the present one
// stands, as every rule has it.
#define LIBKESTREL_FOLD(getter, setter, merge)                                                          \
    if (into.getter() && from.getter())                                                               \
        into.setter(merge(into.getter(), from.getter()));                                             \
    else if (from.getter())                                                                           \
        into.setter(from.getter());
    LIBKESTREL_READINGS(LIBKESTREL_FOLD)
#undef LIBKESTREL_FOLD
}

#undef LIBKESTREL_READINGS

} // namespace libKestrel::session
