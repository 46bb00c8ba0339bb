#include "libKestrel/internal/session/LiveSource.h"

namespace libKestrel::session {

// The properties that change while a GPU runs, as (getter, setter).
#define LIBKESTREL_READINGS(X)                                                                          \
    X(availableDedicatedMemory, setAvailableDedicatedMemory)                                          \
    X(graphicsClock, setGraphicsClock)                                                                \
    X(memoryClock, setMemoryClock)                                                                    \
    X(shaderClock, setShaderClock)                                                                    \
    X(eccErrorsCorrectedVolatile, setECCErrorsCorrectedVolatile)                                      \
    X(eccErrorsUncorrectedVolatile, setECCErrorsUncorrectedVolatile)                                  \
    X(eccErrorsCorrectedAggregate, setECCErrorsCorrectedAggregate)                                    \
    X(eccErrorsUncorrectedAggregate, setECCErrorsUncorrectedAggregate)                                \
    X(utilizationGPU, setUtilizationGPU)                                                              \
    X(utilizationMemory, setUtilizationMemory)                                                        \
    X(temperatureCurrent, setTemperatureCurrent)                                                      \
    X(fanSpeedPercent, setFanSpeedPercent)                                                            \
    X(fanSpeedRPM, setFanSpeedRPM)

void clearReadings(GPU& gpu)
{
#define LIBKESTREL_CLEAR(getter, setter) gpu.setter(std::nullopt);
    LIBKESTREL_READINGS(LIBKESTREL_CLEAR)
#undef LIBKESTREL_CLEAR
}

bool hasReadings(const IGPU& gpu)
{
#define LIBKESTREL_PRESENT(getter, setter) || gpu.getter().has_value()
    return false LIBKESTREL_READINGS(LIBKESTREL_PRESENT);
#undef LIBKESTREL_PRESENT
}

#undef LIBKESTREL_READINGS

} // namespace libKestrel::session
