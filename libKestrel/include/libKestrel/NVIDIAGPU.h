#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "libKestrel/Export.h"
#include "libKestrel/vendor/nvapi.h"
#include "pci/PciLocation.h"

namespace libKestrel {

// One physical NVIDIA GPU as NVAPI describes it. The PCI location, name, video
// memory size, system type and the GPU's thermal sensors are captured when the
// object is built; every other answer is read from NVAPI when asked.
//
// NVAPI lifetime: an object built by a constructor initialises NVAPI, and every
// object that is destroyed unloads it once, although copies and moves never
// initialise it. So a dying copy, or the temporaries and lists that enumerate
// and the PCI-location constructor use, can take NVAPI down while other objects
// live; their questions then answer as failures (false, 0, nothing), never
// crash. NvAPIInitializer objects of your own add references that keep it up.
//
// Threads: an object is used by one thread at a time; different objects may be
// used on different threads at once, beside queries and sessions.
class LIBKESTREL_API NVIDIAGPU {
public:
    // Initialises NVAPI when built and unloads it when destroyed; a copy
    // initialises nothing but still unloads.
    class LIBKESTREL_API NvAPIInitializer {
    public:
        NvAPIInitializer();
        NvAPIInitializer(const NvAPIInitializer& other) noexcept;
        NvAPIInitializer& operator=(const NvAPIInitializer& other) = default;
        ~NvAPIInitializer();
    };

    // Replaces 'gpus' by every GPU NVAPI enumerates, in NVAPI's order, and
    // returns how many there are. When the enumeration fails 'gpus' is left as
    // it was and 0 is returned. Throws std::exception when a GPU's bus cannot be
    // read. Needs NVAPI initialised.
    static size_t enumerate(std::vector<NVIDIAGPU>& gpus);

    // The GPU at that location. Throws std::exception when NVAPI enumerates no
    // GPU at all; when none is at that location the object keeps only the
    // location, with an empty name. NVAPI has no PCI domain: its GPU at the
    // location's bus and slot is taken whatever the location's domain, unless
    // NVAPI has several there (in different domains), which leaves none taken.
    // A GPU taken has NVAPI's location, without domain (domainKnown false).
    NVIDIAGPU(const pci::PciLocation& pciLocation);

    NVIDIAGPU(const NVIDIAGPU& other);
    NVIDIAGPU(NVIDIAGPU&& other) noexcept;
    NVIDIAGPU& operator=(const NVIDIAGPU& other);
    NVIDIAGPU& operator=(NVIDIAGPU&& other) noexcept;
    ~NVIDIAGPU();

    const pci::PciLocation& pciLocation() const;
    const std::string& name() const;
    unsigned int videoMemoryKB() const;

    bool isDesktop() const;
    bool isNotebook() const;
    // A laptop counts as an Optimus system.
    bool supportOptimus() const;
    bool isStereoEnabled() const;
    // Fan speed in RPM; 0 when it cannot be read.
    unsigned long fanSpeed() const;
    // Graphics and memory clocks in MHz; false, with the outputs untouched, on failure.
    bool currentClock(unsigned int& graphicsMHz, unsigned int& memoryMHz) const;
    bool baseClock(unsigned int& graphicsMHz, unsigned int& memoryMHz) const;
    // One temperature in degrees Celsius per GPU sensor; true when any was read.
    bool currentTemperature(std::vector<float>& temps) const;
    // True when the GPU works in SLI; 'others' receives the other GPUs of its group.
    bool isInSLI(std::vector<NVIDIAGPU>& others) const;
    // True when CUDA reports a device at this GPU's PCI bus and device, with a
    // driver at least as new as the CUDA version the library speaks; 'major' and
    // 'minor' then receive its compute capability (and are untouched otherwise).
    bool supportsCuda(unsigned int& major, unsigned int& minor);

private:
    explicit NVIDIAGPU(nvapi::NvPhysicalGpuHandle handle);
    void enumerateThermalSensors();
    nvapi::NvAPI_Status getThermalSettings(nvapi::NvPhysicalGpuHandle handle, unsigned long sensorIndex,
                                           nvapi::NV_GPU_THERMAL_SETTINGS_V2* settings) const;

    nvapi::NvPhysicalGpuHandle handle_ = nullptr;
    pci::PciLocation location_;
    std::string name_;
    std::uint32_t videoMemory_ = 0;
    NvAPIInitializer initializer_;
    std::vector<std::uint32_t> thermalSensors_; // positions of the sensors that measure the GPU
    nvapi::NV_SYSTEM_TYPE systemType_ = nvapi::NV_SYSTEM_TYPE_UNKNOWN;
};

} // namespace libKestrel
