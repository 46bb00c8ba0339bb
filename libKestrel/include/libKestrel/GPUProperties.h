#pragma once

#include <cstdint>
#include <string>

// The optional properties of a GPU record, in record order, as
// X(type, getter, setter, unit). The PCI location, the record's identity, is not
// in the lists: it is fixed when the record is created.
//
// LIBKESTREL_GPU_PROPERTIES holds the properties of libKestrel 0.1 and never
// changes: a host that declares its own IGPU getters with it keeps declaring
// exactly those. Properties added later come in lists of their own, one per
// release that adds any (LIBKESTREL_GPU_PROPERTIES_0_2), whose IGPU getters
// have a default (absent), so that a host's IGPU need not know them. A record
// holds every list's properties, in the order of the lists.
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


// Added in libKestrel 0.2: power, energy, more temperatures, the PCIe link and
// why the clocks are held back.
//
// Units: power in milliwatts, energy in millijoules since the driver was loaded
// (a counter, which starts again when the driver does), temperatures in whole
// degrees Celsius (the hot spot is the hottest point of the die, "junction" to
// the Linux kernel). The PCIe link is its generation (1 to 7: 2.5 GT/s is
// generation 1, 64 GT/s generation 6) and its width in lanes, as it runs now
// and as the GPU and its slot allow at most. performanceState is the number of
// the performance state, 0 (P0, the fastest) to 15. clockEventReasons is a set
// of libKestrel/ClockEventReasons.h's bits: why the clocks are where they are.
#define LIBKESTREL_GPU_PROPERTIES_0_2(X)                                                 \
    X(std::uint32_t, powerDraw, setPowerDraw, "mW")                                      \
    X(std::uint32_t, powerLimit, setPowerLimit, "mW")                                    \
    X(std::uint64_t, energyConsumed, setEnergyConsumed, "mJ")                            \
    X(std::uint64_t, temperatureHotspot, setTemperatureHotspot, "°C")                    \
    X(std::uint64_t, temperatureMemory, setTemperatureMemory, "°C")                      \
    X(std::uint32_t, pcieLinkGeneration, setPCIeLinkGeneration, "")                      \
    X(std::uint32_t, pcieLinkWidth, setPCIeLinkWidth, "lanes")                           \
    X(std::uint32_t, pcieLinkGenerationMax, setPCIeLinkGenerationMax, "")                \
    X(std::uint32_t, pcieLinkWidthMax, setPCIeLinkWidthMax, "lanes")                     \
    X(std::uint32_t, performanceState, setPerformanceState, "")                          \
    X(std::uint64_t, clockEventReasons, setClockEventReasons, "")
