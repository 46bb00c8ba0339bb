#include "libKestrel/AMDGPU.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>

#include "libKestrel/internal/Location.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/multi/AMD/adlwrapper.h"
#include "libKestrel/internal/windows/ADL.h"

namespace libKestrel {

// The library's third process-wide lock, beside the two of the ADL tables. No
// operation takes it: the class is a value type, and ADL serialises the calls on
// its contexts itself.
std::mutex spareMutex;

namespace {

using adl::AdapterInfo;
using logging::log;
using logging::Priority;

logging::LogSite site("libKestrel", "libKestrel/windows/AMDGPU");

// Where ADL places an adapter; ADL has no PCI domain.
pci::PciLocation locationOf(const AdapterInfo& info)
{
    return pci::PciLocation::withoutDomain(static_cast<unsigned char>(info.iBusNumber),
                                           static_cast<unsigned char>(info.iDeviceNumber),
                                           static_cast<unsigned char>(info.iFunctionNumber));
}

// ATI's vendor id, which AMD's GPUs carry, AMD's own id, and 1002 read as a
// decimal number (0x3EA), which is accepted too.
bool isAMDVendor(int vendorId) { return vendorId == 0x1002 || vendorId == 0x1022 || vendorId == 1002; }

bool hasFamily(int types, int valids, int bit) { return (types & bit) != 0 && (valids & bit) != 0; }

// How many entries of an ADL list to read: the reported count, but never past
// the block that holds the list; a list that falls short is logged.
template <class T>
std::size_t entriesToRead(int reported, const T* list)
{
    const std::size_t readable = readableEntries(reported, list);
    if (readable < static_cast<std::size_t>(std::max(reported, 0)))
        log(site, Priority::WARNING, "194 ", "ADL list shorter than its count, entries read: ", readable);
    return readable;
}

// False, logged, for an adapter count no machine has: nothing is allocated for
// a broken driver's count.
bool plausibleAdapterCount(int count)
{
    if (count <= adlwrapper::mostAdapters)
        return true;
    log(site, Priority::WARNING, "700 ", "Adapter count beyond any machine, not enumerating: ", count);
    return false;
}

// ADL's adapter list through the call that fills a caller's buffer: 'count'
// zeroed entries from calloc, so that the list is released with free like the
// lists ADL allocates. Returns the call's status.
int readAdapterInfo(ADLWrapper& table, int count, AdapterInfo*& buffer)
{
    const int entries = std::clamp(count, 0, adlwrapper::mostAdapters);
    buffer = static_cast<AdapterInfo*>(std::calloc(static_cast<std::size_t>(entries), sizeof(AdapterInfo)));
    if (!buffer && entries > 0)
        throw std::bad_alloc();
    return table.Adapter_AdapterInfo_Get(buffer, entries * static_cast<int>(sizeof(AdapterInfo)));
}

// Which Overdrive generation the adapter speaks (5, 6, 7 for OverdriveN, 8); 0
// when the driver does not say.
int overdriveVersion(ADLWrapper& table, int adapterIndex, const char* tag)
{
    int supported = 0;
    int enabled = 0;
    int version = 0;
    table.Overdrive_Caps(adapterIndex, &supported, &enabled, &version);
    log(site, Priority::TRACE, tag, "The capabilities have version: ", version);
    return version;
}

// A current clock on an Overdrive 8 GPU comes from the PM log.
struct Overdrive8Clock {
    const char* versionTag;
    const char* failedTag;
    const char* failedText;
    std::function<int(int adapterIndex, int& clock)> retrieve;
};

// The four clock operations: the first adapter that answers gives the clock, in
// MHz (ADL counts in 10 kHz). 'overdrive8' is null for the default clocks.
unsigned int clockInMHz(ADLWrapper* table, const std::vector<int>& adapters,
                        adl::ADLODClockSetting adl::ADLAdapterODClockInfo::*clock,
                        int adl::ADLODClockSetting::*value, const Overdrive8Clock* overdrive8)
{
    if (!table)
        return 0; // moved from: no ADL to ask
    adl::ADLAdapterODClockInfo info{};
    info.iSize = sizeof(info);
    int& field = (info.*clock).*value;
    try {
        for (int index : adapters) {
            int status = table->Display_ODClockInfo_Get(index, &info);
            if (overdrive8 && overdriveVersion(*table, index, overdrive8->versionTag) == 8) {
                status = overdrive8->retrieve(index, field);
                if (status != 0)
                    log(site, Priority::TRACE, overdrive8->failedTag, overdrive8->failedText);
            }
            if (status == 0)
                break;
        }
    } catch (const std::exception&) {
        return 0;
    }
    // A negative clock from the driver comes back modulo 2^32, as it always has.
    return static_cast<unsigned int>(field / 100);
}

// One PM-log reading: which capability bits offer it, its sensor, and the scale
// that puts it in the older interfaces' units.
struct PMLogReading {
    int capabilityBits;
    int sensor;
    int scale;
    const char* failedTag;
    const char* missingTag;
    const char* missingText;
};

int readPMLog(AMDGPU& gpu, int adapterIndex, int& output, const PMLogReading& reading)
{
    adl::ADLOD8InitSetting init{};
    adl::ADLPMLogDataOutput pmLog{};
    const int status = gpu.queryOverdrive8(adapterIndex, init, pmLog);
    if (status != 0) {
        log(site, Priority::TRACE, reading.failedTag, "New_QueryPMLogData_Get has failed\n");
        return status;
    }
    const adl::ADLSingleSensorData& sensor = pmLog.sensors[reading.sensor];
    if ((init.overdrive8Capabilities & reading.capabilityBits) != 0 && sensor.supported != 0) {
        // Scaled in 64 bits and held to the int range: an absurd sensor value
        // saturates instead of overflowing.
        const std::int64_t scaled = std::int64_t{sensor.value} * reading.scale;
        output = static_cast<int>(std::clamp<std::int64_t>(scaled, INT_MIN, INT_MAX));
        return 0;
    }
    log(site, Priority::TRACE, reading.missingTag, reading.missingText);
    return 0;
}

const PMLogReading temperatureReading{adl::ADL_OD8_TEMPERATURE_SYSTEM | adl::ADL_OD8_TEMPERATURE_FAN |
                                          adl::ADL_OD8_POWER_LIMIT,
                                      adl::PMLOG_TEMPERATURE_EDGE,
                                      1000,
                                      "479 ",
                                      "474 ",
                                      "OD8 Failed to get Temperature Settings\n"};
const PMLogReading clockReading{adl::ADL_OD8_GFXCLK_LIMITS | adl::ADL_OD8_GFXCLK_CURVE,
                                adl::PMLOG_CLK_GFXCLK,
                                100,
                                "507 ",
                                "502 ",
                                "OD8 Failed to get GPU Clock Settings\n"};
const PMLogReading memoryClockReading{adl::ADL_OD8_UCLK_MAX, adl::PMLOG_CLK_MEMCLK, 100, "534 ", "529 ",
                                      "OD8 Failed to get GPU Clock Settings\n"};

// The zero location stands for "no adapter": ADL never places an AMD GPU there.
const pci::PciLocation noLocation;

} // namespace

size_t AMDGPU::enumerate(std::vector<AMDGPU>& gpus)
{
    auto trace = site.trace("size_t AMDGPU::enumerate(std::vector<AMDGPU>& gpus)", 171);
    gpus.clear();
    const std::shared_ptr<ADLWrapper> adl = instantiateADL();
    // ADL allocated the list through adlMemoryAlloc, that is with malloc.
    AdapterInfo* list = nullptr;
    ScopeExit release([&list] { std::free(list); });
    int status = 0;
    try {
        status = adl->Adapter_AdapterInfoX2_Get(&list);
    } catch (const std::exception&) {
        // The driver has no X2 list: count the adapters and have ADL fill a buffer.
        int count = 0;
        status = adl->Adapter_NumberOfAdapters_Get(&count);
        if (status != 0) {
            log(site, Priority::WARNING, "261 ", "Adapter_NumberOfAdapters_Get failed ", status);
            return 0;
        }
        if (!plausibleAdapterCount(count))
            return 0;
        status = readAdapterInfo(*adl, count, list);
        if (status != 0) {
            log(site, Priority::WARNING, "268 ", "Adapter_AdapterInfo_Get failed ", status);
            gpus.clear();
            return 0;
        }
        addGPU(adl, gpus, list);
        return gpus.size();
    }
    if (status != 0) {
        log(site, Priority::WARNING, "250 ", "ADL2_Adapter_AdapterInfoX2_Get failed ", status);
        return 0;
    }
    addGPU(adl, gpus, list);
    return gpus.size();
}

void AMDGPU::addGPU(const std::shared_ptr<ADLWrapper>& adl, std::vector<AMDGPU>& gpus, const AdapterInfo* adapterInfo)
{
    int count = 0;
    const int status = adl->Adapter_NumberOfAdapters_Get(&count);
    if (status != 0) {
        log(site, Priority::WARNING, "193 ", "Adapter_NumberOfAdapters_Get failed ", status);
        return;
    }
    if (!adapterInfo) {
        log(site, Priority::WARNING, "198 ", "Bad adapterInfo parameter");
        return;
    }
    const std::size_t entries = entriesToRead(count, adapterInfo);
    for (std::size_t i = 0; i < entries; ++i) {
        const AdapterInfo& entry = adapterInfo[i];
        if (!adl::adapterExists(entry))
            continue;
        if (entry.iBusNumber == 0 && entry.iDeviceNumber == 0 && entry.iFunctionNumber == 0)
            continue;
        if (!isAMDVendor(entry.iVendorID))
            continue;
        if (!pciLocationOf(entry.iBusNumber, entry.iDeviceNumber, entry.iFunctionNumber)) {
            log(site, Priority::WARNING, "701 ", "Adapter outside the PCI bus, skipped: bus ", entry.iBusNumber,
                ", device ", entry.iDeviceNumber, ", function ", entry.iFunctionNumber);
            continue;
        }
        const pci::PciLocation location = locationOf(entry);
        const auto known = std::find_if(gpus.begin(), gpus.end(), [&location](const AMDGPU& gpu) {
            return gpu.location && *gpu.location == location;
        });
        if (known != gpus.end()) {
            // An adapter of a GPU already listed ends the walk: the adapters after
            // it are not examined.
            known->addInfo(entry);
            return;
        }
        gpus.push_back(AMDGPU(adl, entry));
    }
}

AMDGPU::AMDGPU(const std::shared_ptr<ADLWrapper>& table, const AdapterInfo& info)
    : adl(table), adl2(instantiateADL2())
{
    addInfo(info);
}

AMDGPU::AMDGPU(int adapterIndex)
{
    auto trace = site.trace("AMDGPU::AMDGPU(int adapterIndex)", 248);
    adl = instantiateADL();
    adl2 = instantiateADL2();
    int count = 0;
    const int status = adl->Adapter_NumberOfAdapters_Get(&count);
    if (status != 0) {
        log(site, Priority::WARNING, "62 ", "ADL2_Adapter_NumberOfAdapters_Get failed ", status);
        throw std::exception();
    }
    AdapterInfo* list = nullptr;
    ScopeExit release([&list] { std::free(list); });
    if (adl->Adapter_AdapterInfoX2_Get(&list) != 0 || count <= 0)
        return;
    const std::size_t entries = entriesToRead(count, list);
    for (std::size_t i = 0; i < entries; ++i)
        if (list[i].iAdapterIndex == adapterIndex)
            addInfo(list[i]);
}

AMDGPU::AMDGPU(const pci::PciLocation& loc)
{
    auto trace = site.trace("MDGPU::AMDGPU(const pci::PciLocation& loc)", 269);
    adl = instantiateADL();
    adl2 = instantiateADL2();
    int count = 0;
    int status = adl->Adapter_NumberOfAdapters_Get(&count);
    if (status != 0) {
        log(site, Priority::WARNING, "90 ", "ADL2_Adapter_NumberOfAdapters_Get failed ", status);
        throw std::exception();
    }
    if (!plausibleAdapterCount(count))
        count = 0; // no adapter found: the constructor throws below
    // From ADL's X2 call, or from calloc on the fallback: released with free either way.
    AdapterInfo* list = nullptr;
    ScopeExit release([&list] { std::free(list); });
    try {
        status = adl->Adapter_AdapterInfoX2_Get(&list);
    } catch (const std::exception&) {
        status = readAdapterInfo(*adl, count, list);
    }
    if (status == 0) {
        const std::size_t entries = entriesToRead(count, list);
        for (std::size_t i = 0; i < entries; ++i) {
            const AdapterInfo& entry = list[i];
            if (entry.iBusNumber == loc.bus && entry.iDeviceNumber == loc.device &&
                entry.iFunctionNumber == loc.function)
                addInfo(entry);
        }
    }
    if (adapterIndices.empty()) {
        log(site, Priority::WARNING, "130 ", "Cannot find a matching ADL adapter id given the PCI location.");
        throw std::runtime_error("Cannot find a matching ADL adapter id given the PCI location.");
    }
}

AMDGPU::AMDGPU(const AMDGPU& other) = default;
AMDGPU::AMDGPU(AMDGPU&& other) noexcept = default;
AMDGPU& AMDGPU::operator=(const AMDGPU& other) = default;
AMDGPU& AMDGPU::operator=(AMDGPU&& other) noexcept = default;
AMDGPU::~AMDGPU() = default;

void AMDGPU::addInfo(const AdapterInfo& info)
{
    auto trace = site.trace("AMDGPU::addInfo(const AdapterInfo& info)", 309);
    const pci::PciLocation found = locationOf(info);
    if (!location) {
        // The first adapter places the GPU and tells its ASIC family.
        location = std::make_shared<pci::PciLocation>(found);
        adl->Adapter_ASICFamilyType_Get(info.iAdapterIndex, &asicTypes, &asicValids);
    }
    if (found != *location) {
        log(site, Priority::WARNING, "161 ", " PCI location mismatch! Cannot add GPU info from a different GPU.");
        return;
    }
    if (std::find(adapterIndices.begin(), adapterIndices.end(), info.iAdapterIndex) != adapterIndices.end())
        return;
    adapterIndices.push_back(info.iAdapterIndex);
    std::string display = adlwrapper::adlString(info.strDisplayName);
    if (!display.empty())
        displayIds_.push_back(std::move(display));
}

const pci::PciLocation& AMDGPU::pciLocation() const { return location ? *location : noLocation; }

const std::vector<std::string>& AMDGPU::displayIds() const { return displayIds_; }

// Each predicate in the form hosts link against, and a const one beside it.
#define LIBKESTREL_AMD_FAMILY(predicate, bit)                                                                   \
    bool AMDGPU::predicate() const { return hasFamily(asicTypes, asicValids, bit); }                           \
    bool AMDGPU::predicate() { return std::as_const(*this).predicate(); }
LIBKESTREL_AMD_FAMILY(isDiscrete, adl::ADL_ASIC_DISCRETE)
LIBKESTREL_AMD_FAMILY(isIntegrated, adl::ADL_ASIC_INTEGRATED)
LIBKESTREL_AMD_FAMILY(isFireGL, adl::ADL_ASIC_WORKSTATION)
LIBKESTREL_AMD_FAMILY(isFireMV, adl::ADL_ASIC_FIREMV)
LIBKESTREL_AMD_FAMILY(isXGP, adl::ADL_ASIC_XGP)
LIBKESTREL_AMD_FAMILY(isFusion, adl::ADL_ASIC_FUSION)
LIBKESTREL_AMD_FAMILY(isFireStream, adl::ADL_ASIC_FIRESTREAM)
LIBKESTREL_AMD_FAMILY(isEmbedded, adl::ADL_ASIC_EMBEDDED)
#undef LIBKESTREL_AMD_FAMILY

bool AMDGPU::hasCrossFireSlaveGPU(std::vector<AMDGPU>& linkedGPU)
{
    auto trace = site.trace("AMDGPU::hasCrossFireSlaveGPU(std::vector<AMDGPU>& linkedGPU)", 343);
    linkedGPU.clear();
    if (adapterIndices.empty())
        return false;
    const int primary = adapterIndices.front();
    int preferred = 0;
    int numCombinations = 0;
    // ADL allocated the combinations through adlMemoryAlloc, that is with malloc.
    adl::ADLCrossfireComb* combinations = nullptr;
    ScopeExit release([&combinations] { std::free(combinations); });
    int status = adl->Adapter_Crossfire_Caps(primary, &preferred, &numCombinations, &combinations);
    log(site, Priority::TRACE, "333 ", "Adapter_Crossfire_Caps returns ", status);
    if (status != 0 || numCombinations == 0 || preferred == -1)
        return false;
    // The preferred chain is an index into ADL's list; one outside it names no
    // combination.
    if (preferred < 0 || static_cast<std::size_t>(preferred) >= entriesToRead(numCombinations, combinations)) {
        log(site, Priority::WARNING, "336 ", "Preferred CrossFire combination outside the list: ", preferred);
        return false;
    }
    adl::ADLCrossfireComb& chain = combinations[preferred];
    adl::ADLCrossfireInfo info{};
    status = adl->Adapter_Crossfire_Get(primary, &chain, &info);
    log(site, Priority::TRACE, "340 ", "Adapter_Crossfire_Get returs ", status);
    if (status != 0 || info.iState == 0)
        return false;
    // A combination holds at most as many links as its array.
    constexpr int capacity = static_cast<int>(sizeof(chain.iAdaptLink) / sizeof(chain.iAdaptLink[0]));
    if (chain.iNumLinkAdapter < 0 || chain.iNumLinkAdapter > capacity)
        log(site, Priority::WARNING, "341 ", "CrossFire link count outside the combination: ", chain.iNumLinkAdapter);
    const int links = std::clamp(chain.iNumLinkAdapter, 0, capacity);
    for (int k = 0; k < links; ++k)
        linkedGPU.push_back(AMDGPU(chain.iAdaptLink[k]));
    return true;
}

void AMDGPU::currentTemperature(std::vector<float>& temperature)
{
    auto trace = site.trace("AMDGPU::currentTemperature(std::vector<float>& temperature)", 381);
    temperature.clear();
    adl::ADLTemperature record{};
    record.iSize = sizeof(record);
    int reading = 0;
    try {
        for (int index : adapterIndices) {
            // Zeroed for each adapter: an Overdrive 8 GPU whose PM log lacks the
            // sensor leaves the slot unwritten, and the previous adapter's reading
            // must not count twice.
            reading = 0;
            int status = 0;
            switch (overdriveVersion(*adl, index, "554 ")) {
            case 8:
                status = retrieveCurrentTemperatureOverdrive8(index, reading);
                break;
            case 7:
                status = adl->OverdriveN_Temperature_Get(index, 1, &reading); // 1: the GPU core
                break;
            case 6:
                status = adl->Overdrive6_Temperature_Get(index, &reading);
                break;
            default:
                status = adl->Overdrive5_Temperature_Get(index, 0, &record); // thermal controller 0
                reading = record.iTemperature;
                break;
            }
            if (status == 0 && reading > 0)
                temperature.push_back(static_cast<float>(reading / 1000.0));
        }
    } catch (const std::exception&) {
        // A driver that lacks an entry gives no temperatures at all.
        temperature.clear();
    }
}

unsigned int AMDGPU::currentClock()
{
    const Overdrive8Clock overdrive8{"588 ", "593 ", "Unsuccessfull retrieving the current clock through Overdrive 8 ADL",
                                     [this](int index, int& clock) {
                                         return retrieveCurrentClockOverdrive8(index, clock);
                                     }};
    return clockInMHz(adl.get(), adapterIndices, &adl::ADLAdapterODClockInfo::sEngineClock,
                      &adl::ADLODClockSetting::iCurrentClock, &overdrive8);
}

unsigned int AMDGPU::currentMemoryClock()
{
    const Overdrive8Clock overdrive8{"640 ", "645 ",
                                     "Unsuccessfull retrieving the current memory clock through Overdrive 8 ADL",
                                     [this](int index, int& clock) {
                                         return retrieveCurrentMemoryClockOverdrive8(index, clock);
                                     }};
    return clockInMHz(adl.get(), adapterIndices, &adl::ADLAdapterODClockInfo::sMemoryClock,
                      &adl::ADLODClockSetting::iCurrentClock, &overdrive8);
}

unsigned int AMDGPU::defaultClock()
{
    return clockInMHz(adl.get(), adapterIndices, &adl::ADLAdapterODClockInfo::sEngineClock,
                      &adl::ADLODClockSetting::iDefaultClock, nullptr);
}

unsigned int AMDGPU::defaultMemoryClock()
{
    return clockInMHz(adl.get(), adapterIndices, &adl::ADLAdapterODClockInfo::sMemoryClock,
                      &adl::ADLODClockSetting::iDefaultClock, nullptr);
}

void AMDGPU::currentGPUUsage(std::vector<int>& usage)
{
    for (int index : adapterIndices) {
        adl::ADLPMActivity activity{};
        if (adl->Overdrive5_CurrentActivity_Get(index, &activity) == 0 && activity.iActivityPercent > 0)
            usage.push_back(activity.iActivityPercent);
    }
}

void AMDGPU::refresh()
{
    if (adl)
        adl->Main_Control_Refresh();
}

void AMDGPU::enumThermalControllerInfo()
{
    try {
        for (int index : adapterIndices) {
            adl::ADLThermalControllerInfo info{};
            info.iSize = sizeof(info);
            if (adl->Overdrive5_ThermalDevices_Enum(index, 0, &info) == 0) // controller 0 only
                thermalControllers.push_back(info);
        }
    } catch (const std::exception&) {
        // A driver without the entry has no thermal controllers to list.
    }
}

int AMDGPU::GetOD8InitSetting(unsigned int adapterIndex, adl::ADLOD8InitSetting& init)
{
    auto trace = site.trace("ATIAdapterQuery::GetOD8InitSetting", 477);
    init = adl::ADLOD8InitSetting{};
    init.count = adl::OD8_COUNT;
    if (!adl2)
        return -1;
    int capabilities = 0;
    int numberOfFeatures = adl::OD8_COUNT;
    // ADL allocated the list through adlMemoryAlloc, that is with malloc.
    adl::ADLOD8SingleInitSetting* list = nullptr;
    ScopeExit release([&list] { std::free(list); });
    const int status = adl2->Overdrive8_Init_SettingX2_Get(static_cast<int>(adapterIndex), &capabilities,
                                                           &numberOfFeatures, &list);
    if (status != 0) {
        log(site, Priority::TRACE, "397 ", "ADL2_Overdrive8_Init_SettingX2_Get is failed\n");
        return -1;
    }
    const std::size_t count = std::min<std::size_t>(entriesToRead(numberOfFeatures, list), adl::OD8_COUNT);
    init.count = static_cast<int>(count);
    init.overdrive8Capabilities = capabilities;
    for (std::size_t i = 0; i < count; ++i) {
        init.od8SettingTable[i].featureID = list[i].featureID;
        init.od8SettingTable[i].defaultValue = list[i].defaultValue;
        init.od8SettingTable[i].minValue = list[i].minValue;
        init.od8SettingTable[i].maxValue = list[i].maxValue;
    }
    return 0;
}

int AMDGPU::GetOD8CurrentSetting(unsigned int adapterIndex, adl::ADLOD8CurrentSetting& current)
{
    auto trace = site.trace("ATIAdapterQuery::GetOD8CurrentSetting", 507);
    current = adl::ADLOD8CurrentSetting{};
    current.count = adl::OD8_COUNT;
    if (!adl2)
        return -1;
    const int index = static_cast<int>(adapterIndex);
    int numberOfFeatures = adl::OD8_COUNT;
    // ADL allocated the list through adlMemoryAlloc, that is with malloc.
    int* list = nullptr;
    ScopeExit release([&list] { std::free(list); });
    if (adl2->Overdrive8_Current_SettingX2_Get(index, &numberOfFeatures, &list) == 0) {
        const std::size_t count = std::min<std::size_t>(entriesToRead(numberOfFeatures, list), adl::OD8_COUNT);
        current.count = static_cast<int>(count);
        std::copy(list, list + count, current.Od8SettingTable);
        return 0;
    }
    log(site, Priority::TRACE, "429 ", "ADL2_Overdrive8_Current_SettingX2_Get is failed\n");
    if (adl2->Overdrive8_Current_Setting_Get(index, &current) == 0) {
        // The record holds 29 settings, whatever count the driver wrote.
        current.count = std::clamp(current.count, 0, adl::OD8_COUNT);
        return 0;
    }
    log(site, Priority::TRACE, "436 ", "ADL2_Overdrive8_Current_Setting_Get is failed\n");
    return -1;
}

int AMDGPU::queryOverdrive8(int adapterIndex, adl::ADLOD8InitSetting& init, adl::ADLPMLogDataOutput& pmLog)
{
    auto trace = site.trace("ATIAdapterQuery::initializeOverdrive8", 535);
    if (!adl2)
        return -1;
    if (GetOD8InitSetting(static_cast<unsigned int>(adapterIndex), init) != 0)
        return -1;
    adl::ADLOD8CurrentSetting current{};
    if (GetOD8CurrentSetting(static_cast<unsigned int>(adapterIndex), current) != 0)
        return -1;
    return adl2->New_QueryPMLogData_Get(adapterIndex, &pmLog);
}

int AMDGPU::retrieveCurrentTemperatureOverdrive8(int adapterIndex, int& temperature)
{
    auto trace = site.trace("ATIAdapterQuery::retrieveCurrentTemperatureOverdrive8", 548);
    return readPMLog(*this, adapterIndex, temperature, temperatureReading);
}

int AMDGPU::retrieveCurrentClockOverdrive8(int adapterIndex, int& clock)
{
    auto trace = site.trace("ATIAdapterQuery::retrieveCurrentClockOverdrive8", 554);
    return readPMLog(*this, adapterIndex, clock, clockReading);
}

int AMDGPU::retrieveCurrentMemoryClockOverdrive8(int adapterIndex, int& clock)
{
    // Traced under the GPU clock's name, which it has always shared.
    auto trace = site.trace("ATIAdapterQuery::retrieveCurrentClockOverdrive8", 560);
    return readPMLog(*this, adapterIndex, clock, memoryClockReading);
}

} // namespace libKestrel
