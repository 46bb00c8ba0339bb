#pragma once

#include <cstdint>
#include <string>

// The optional properties of a GPU record, in record order, as
// X(type, getter, setter, unit). The PCI location, the record's identity, is not
// in the list: it is fixed when the record is created.
//
// Units: clocks in kHz, memory sizes in kilobytes, temperatures in whole degrees
// Celsius, utilisation and fan speed in percent or revolutions per minute.
// versionMajor/versionMinor are the CUDA compute capability. memoryBandwidth is
// passed on as AMD's driver reports it, in megabytes per second. nativeMonitorHandle is opaque: only a
// host's own monitor-side source fills it.
#define LIBKESTREL_GPU_PROPERTIES(X)                                                     \
    X(std::string, name, setName, "")                                                    \
    X(std::string, driverVersion, setDriverVersion, "")                                  \
    X(bool, hardwareAcceleration, setHardwareAcceleration, "")                           \
    X(std::uint32_t, coreCount, setCoreCount, "")                                        \
    X(std::string, vbiosVersion, setVBIOSVersion, "")                                    \
    X(std::uint64_t, totalMemory, setTotalMemory, "KB")                                  \
    X(std::uint64_t, dedicatedMemory, setDedicatedMemory, "KB")                          \
    X(std::uint64_t, availableDedicatedMemory, setAvailableDedicatedMemory, "KB")        \
    X(std::uint32_t, graphicsClock, setGraphicsClock, "kHz")                             \
    X(std::uint32_t, memoryClock, setMemoryClock, "kHz")                                 \
    X(std::uint32_t, shaderClock, setShaderClock, "kHz")                                 \
    X(std::uint32_t, memoryWidth, setMemoryWidth, "bits")                                \
    X(std::uint64_t, memoryBandwidth, setMemoryBandwidth, "MB/s")                        \
    X(std::string, busType, setBusType, "")                                              \
    X(bool, eccSupported, setECCSupported, "")                                           \
    X(bool, eccEnabled, setECCEnabled, "")                                               \
    X(std::uint64_t, eccErrorsCorrectedVolatile, setECCErrorsCorrectedVolatile, "")      \
    X(std::uint64_t, eccErrorsUncorrectedVolatile, setECCErrorsUncorrectedVolatile, "")  \
    X(std::uint64_t, eccErrorsCorrectedAggregate, setECCErrorsCorrectedAggregate, "")    \
    X(std::uint64_t, eccErrorsUncorrectedAggregate, setECCErrorsUncorrectedAggregate, "") \
    X(std::uint32_t, utilizationGPU, setUtilizationGPU, "%")                             \
    X(std::uint32_t, utilizationMemory, setUtilizationMemory, "%")                       \
    X(std::uint64_t, temperatureCurrent, setTemperatureCurrent, "°C")                    \
    X(std::uint64_t, temperatureSlowdown, setTemperatureSlowdown, "°C")                  \
    X(std::uint64_t, temperatureShutdown, setTemperatureShutdown, "°C")                  \
    X(std::string, uuid, setUUID, "")                                                    \
    X(std::uint32_t, fanSpeedPercent, setFanSpeedPercent, "%")                           \
    X(std::uint32_t, fanSpeedRPM, setFanSpeedRPM, "RPM")                                 \
    X(bool, sli, setSLI, "")                                                             \
    X(std::uint32_t, versionMajor, setVersionMajor, "")                                  \
    X(std::uint32_t, versionMinor, setVersionMinor, "")                                  \
    X(bool, crossfire, setCrossfire, "")                                                 \
    X(void*, nativeMonitorHandle, setNativeMonitorHandle, "")
