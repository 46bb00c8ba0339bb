#include "libKestrel/internal/LiveSource.h"

#include "libKestrel/internal/Kestrel.h"

// The getters are named with their class: every record here is a GPU, and the
// calls need no virtual dispatch.

namespace libKestrel {

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
    X(fanSpeedRPM, setFanSpeedRPM, mergeFanSpeed)                                                     \
    X(powerDraw, setPowerDraw, mergePowerDraw)                                                        \
    X(energyConsumed, setEnergyConsumed, mergeEnergy)                                                 \
    X(temperatureHotspot, setTemperatureHotspot, mergeTemperature)                                    \
    X(temperatureMemory, setTemperatureMemory, mergeTemperature)                                      \
    X(pcieLinkGeneration, setPCIeLinkGeneration, mergePCIeLink)                                       \
    X(pcieLinkWidth, setPCIeLinkWidth, mergePCIeLink)                                                 \
    X(performanceState, setPerformanceState, mergePerformanceState)                                   \
    X(clockEventReasons, setClockEventReasons, mergeClockEventReasons)

void clearReadings(GPU& gpu)
{
#define LIBKESTREL_CLEAR(getter, setter, merge) gpu.setter(std::nullopt);
    LIBKESTREL_READINGS(LIBKESTREL_CLEAR)
#undef LIBKESTREL_CLEAR
}

bool hasReadings(const GPU& gpu)
{
#define LIBKESTREL_PRESENT(getter, setter, merge) || gpu.GPU::getter().has_value()
    return false LIBKESTREL_READINGS(LIBKESTREL_PRESENT);
#undef LIBKESTREL_PRESENT
}

bool sameReadings(const GPU& one, const GPU& other)
{
#define LIBKESTREL_SAME(getter, setter, merge) &&one.GPU::getter() == other.GPU::getter()
    return true LIBKESTREL_READINGS(LIBKESTREL_SAME);
#undef LIBKESTREL_SAME
}

void takeReadings(GPU& into, const GPU& from)
{
#define LIBKESTREL_TAKE(getter, setter, merge) into.setter(from.GPU::getter());
    LIBKESTREL_READINGS(LIBKESTREL_TAKE)
#undef LIBKESTREL_TAKE
}

void foldReadings(GPU& into, const GPU& from)
{
// The rule decides only when both have the property; otherwise the present one
// stands, as every rule has it.
#define LIBKESTREL_FOLD(getter, setter, merge)                                                          \
    if (into.GPU::getter() && from.GPU::getter())                                                     \
        into.setter(merge(into.GPU::getter(), from.GPU::getter()));                                   \
    else if (from.GPU::getter())                                                                      \
        into.setter(from.GPU::getter());
    LIBKESTREL_READINGS(LIBKESTREL_FOLD)
#undef LIBKESTREL_FOLD
}

#undef LIBKESTREL_READINGS

} // namespace libKestrel
