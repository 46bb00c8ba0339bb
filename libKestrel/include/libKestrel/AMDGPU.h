#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "libKestrel/ADLWrapper.h"
#include "libKestrel/Export.h"
#include "libKestrel/vendor/adl.h"
#include "pci/PciLocation.h"

namespace libKestrel {

// One physical AMD GPU, as ADL reports it: ADL lists adapters (one per output or
// logical head), all at the GPU's PCI location, and an AMDGPU gathers the
// adapters of one location. Its questions are answered live through ADL.
//
// A value type: copies share the PCI location and the ADL call tables.
//
// Threads: objects that came from one enumerate call, and copies of one
// another, share their call tables (an ADL2 context): use them from one thread
// at a time. Objects made separately may be used on different threads at once,
// beside queries and sessions; calls through ADL's first interface (a driver
// without ADL2) are serialised by the library.
class LIBKESTREL_API AMDGPU {
public:
    // Fills 'gpus' with the machine's AMD GPUs and returns how many there are;
    // 0 when ADL cannot list its adapters. Throws std::runtime_error when ADL is
    // missing or will not start.
    static size_t enumerate(std::vector<AMDGPU>& gpus);

    // The GPU at 'loc' (ADL knows no PCI domain: only bus, device and function
    // are compared). Throws std::runtime_error when no adapter is there.
    explicit AMDGPU(const pci::PciLocation& loc);

    AMDGPU(const AMDGPU& other);
    AMDGPU(AMDGPU&& other) noexcept;
    AMDGPU& operator=(const AMDGPU& other);
    AMDGPU& operator=(AMDGPU&& other) noexcept;
    ~AMDGPU();

    // The GPU's PCI location, without domain (ADL has none: domainKnown is
    // false, and it reads as domain 0). An object without adapters (moved from,
    // or a CrossFire link that ADL no longer lists) answers 00:00.0, where ADL
    // never places an AMD GPU; its operations all answer as failures (false, 0,
    // nothing).
    const pci::PciLocation& pciLocation() const;
    // The display names of the adapters that drive a display, in ADL's order.
    const std::vector<std::string>& displayIds() const;

    // The GPU's ASIC family, as the first of its adapters reports it; a family
    // counts only when ADL marks its bit valid. Each comes in the form hosts
    // link against and as a const overload.
    bool isDiscrete();
    bool isIntegrated();
    bool isFireGL();
    bool isFireMV();
    bool isXGP();
    bool isFusion();
    bool isFireStream();
    bool isEmbedded();
    bool isDiscrete() const;
    bool isIntegrated() const;
    bool isFireGL() const;
    bool isFireMV() const;
    bool isXGP() const;
    bool isFusion() const;
    bool isFireStream() const;
    bool isEmbedded() const;

    // True when the GPU leads an active CrossFire chain; 'linkedGPU' then holds
    // the chain's linked GPUs.
    bool hasCrossFireSlaveGPU(std::vector<AMDGPU>& linkedGPU);

    // Degrees Celsius, one per adapter that gives a reading above 0; empty when
    // the driver lacks an entry it needs.
    void currentTemperature(std::vector<float>& temperature);
    // MHz, from the first adapter that answers; 0 when the driver lacks an entry.
    unsigned int currentClock();
    unsigned int currentMemoryClock();
    unsigned int defaultClock();
    unsigned int defaultMemoryClock();
    // Appends one activity percentage per adapter that reports one above 0.
    void currentGPUUsage(std::vector<int>& usage);
    // Asks the driver to refresh its view of the adapters.
    void refresh();

    // Overdrive 8, for GPUs whose older Overdrive interfaces no longer report.
    // 0 on success, -1 on failure (also when ADL2 is not available). Lists longer
    // than the 29 entries of the records are cut.
    int GetOD8InitSetting(unsigned int adapterIndex, adl::ADLOD8InitSetting& init);
    int GetOD8CurrentSetting(unsigned int adapterIndex, adl::ADLOD8CurrentSetting& current);
    // The initial settings and the PM log of one adapter: 0, -1, or ADL's status
    // of the PM-log call.
    int queryOverdrive8(int adapterIndex, adl::ADLOD8InitSetting& init, adl::ADLPMLogDataOutput& pmLog);
    // Readings from the PM log in the units of the older interfaces
    // (millidegrees Celsius; 10 kHz). 0, or the failing status; a reading the GPU
    // does not offer leaves the output as it was and still gives 0.
    int retrieveCurrentTemperatureOverdrive8(int adapterIndex, int& temperature);
    int retrieveCurrentClockOverdrive8(int adapterIndex, int& clock);
    int retrieveCurrentMemoryClockOverdrive8(int adapterIndex, int& clock);

private:
    explicit AMDGPU(int adapterIndex);
    AMDGPU(const std::shared_ptr<ADLWrapper>& table, const adl::AdapterInfo& info);

    void addInfo(const adl::AdapterInfo& info);
    static void addGPU(const std::shared_ptr<ADLWrapper>& adl, std::vector<AMDGPU>& gpus,
                       const adl::AdapterInfo* adapterInfo);
    void enumThermalControllerInfo();

    std::shared_ptr<ADLWrapper> adl;
    std::shared_ptr<ADL2> adl2; // for Overdrive 8 only; empty without ADL2
    std::shared_ptr<pci::PciLocation> location;
    std::vector<int> adapterIndices; // the first is the GPU's primary adapter
    std::vector<int> spareList;
    std::vector<std::string> displayIds_;
    std::vector<adl::ADLThermalControllerInfo> thermalControllers;
    int asicTypes = 0;
    int asicValids = 0;
};

} // namespace libKestrel
