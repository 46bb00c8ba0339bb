#include "libKestrel/NVIDIAGPU.h"

#include <algorithm>
#include <exception>
#include <string>

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/multi/NVidia/cudaRuntime.h"
#include "libKestrel/internal/windows/NVidia/nvapiwrapper.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;
using logging::shown;
using namespace nvapi;

logging::LogSite site("libKestrel", "libKestrel/windows/NVIDIAGPU.cpp");

// Every NVAPI failure the class reports, in NVAPI's own words. NVAPI is asked
// for them only when the line will be written.
void report(const char* function, NvAPI_Status status)
{
    if (!site.enabled(Priority::WARNING))
        return;
    NvAPI_ShortString description = {};
    // When NVAPI cannot describe the status (it is down), the number says it.
    const std::string text = NvAPI_GetErrorMessage(status, description) == NVAPI_OK
                                 ? shortStringText(description)
                                 : std::to_string(static_cast<int>(status));
    log(site, Priority::WARNING, "28 ", "Function : ", function, " returns ", text);
}

// The sensors a thermal read describes: never more than its array holds,
// whatever count the driver reports.
NvU32 sensorsReported(const NV_GPU_THERMAL_SETTINGS& settings)
{
    return std::min(settings.count, NVAPI_MAX_THERMAL_SENSORS_PER_GPU);
}

// Graphics and memory clocks of one kind (current, base) in MHz. The domains'
// present bits are not looked at.
bool readClocks(NvPhysicalGpuHandle handle, NV_GPU_CLOCK_FREQUENCIES_CLOCK_TYPE type, unsigned int& graphicsMHz,
                unsigned int& memoryMHz)
{
    NV_GPU_CLOCK_FREQUENCIES frequencies{};
    frequencies.version = NV_GPU_CLOCK_FREQUENCIES_VER_3;
    frequencies.ClockType = static_cast<NvU32>(type);
    if (NvAPI_GPU_GetAllClockFrequencies(handle, &frequencies) != NVAPI_OK)
        return false;
    graphicsMHz = frequencies.domain[NVAPI_GPU_PUBLIC_CLOCK_GRAPHICS].frequency / 1000;
    memoryMHz = frequencies.domain[NVAPI_GPU_PUBLIC_CLOCK_MEMORY].frequency / 1000;
    return true;
}

} // namespace

NVIDIAGPU::NvAPIInitializer::NvAPIInitializer()
{
    NvAPI_Initialize();
}

NVIDIAGPU::NvAPIInitializer::NvAPIInitializer(const NvAPIInitializer&) noexcept {}

NVIDIAGPU::NvAPIInitializer::~NvAPIInitializer()
{
    NvAPI_Unload();
}

size_t NVIDIAGPU::enumerate(std::vector<NVIDIAGPU>& gpus)
{
    auto trace = site.trace("NVIDIAGPU::enumerate(std::vector<NVIDIAGPU>& kestrel)", 70);
    NvPhysicalGpuHandle handles[NVAPI_MAX_PHYSICAL_GPUS] = {};
    NvU32 count = 0;
    if (const NvAPI_Status status = NvAPI_EnumPhysicalGPUs(handles, &count); status != NVAPI_OK) {
        report("NvAPI_EnumPhysicalGPUs", status);
        return 0;
    }
    gpus.clear();
    // NVAPI never has more handles than its array holds, whatever count it reports.
    const NvU32 usable = std::min(count, NVAPI_MAX_PHYSICAL_GPUS);
    // Room for all at once: a reallocation would destroy moved-from objects,
    // and each of them unloads NVAPI.
    gpus.reserve(usable);
    for (NvU32 i = 0; i < usable; ++i)
        gpus.push_back(NVIDIAGPU(handles[i]));
    return gpus.size();
}

NVIDIAGPU::NVIDIAGPU(NvPhysicalGpuHandle handle) : handle_(handle)
{
    auto trace = site.trace("NVIDIAGPU::NVIDIAGPU(GPUHandle handle)", 90);
    NvU32 busId = 0;
    if (const NvAPI_Status status = NvAPI_GPU_GetBusId(handle_, &busId); status != NVAPI_OK) {
        report("NvAPI_GPU_GetBusId", status);
        throw std::exception();
    }
    // The slot, system type and name reads are silent: a failure leaves 0 or "".
    NvU32 slotId = 0;
    NvAPI_GPU_GetBusSlotId(handle_, &slotId);
    location_ = pci::PciLocation::withoutDomain(static_cast<unsigned char>(busId & 0xFF),
                                                static_cast<unsigned char>(slotId & 0xFF), 0);
    enumerateThermalSensors();
    NvAPI_GPU_GetSystemType(handle_, &systemType_);
    NvAPI_ShortString name = {};
    NvAPI_GPU_GetFullName(handle_, name);
    name_ = shortStringText(name);

    NV_DISPLAY_DRIVER_MEMORY_INFO memory{};
    memory.version = NV_DISPLAY_DRIVER_MEMORY_INFO_VER_3;
    if (const NvAPI_Status status = NvAPI_GPU_GetMemoryInfo(handle_, &memory); status != NVAPI_OK) {
        report("NvAPI_GPU_GetMemoryInfo", status);
        return;
    }
    videoMemory_ = memory.dedicatedVideoMemory;
    log(site, Priority::INFO, "99 ", "Total Video Memory ", shown(videoMemory_), " kb");
}

NVIDIAGPU::NVIDIAGPU(const pci::PciLocation& pciLocation) : location_(pciLocation)
{
    auto trace = site.trace("NVIDIAGPU::NVIDIAGPU(const pci::PciLocation& pciLocation)", 119);
    std::vector<NVIDIAGPU> gpus;
    enumerate(gpus);
    if (gpus.empty()) {
        log(site, Priority::WARNING, "113 ", "No NVIDIA GPUS enumerated.");
        throw std::exception();
    }
    // NVAPI has no domain: a GPU fits a location in any domain, and of two that
    // fit (at one bus and slot in two domains) neither is the one.
    const auto fits = [&pciLocation](const NVIDIAGPU& gpu) { return gpu.location_.fits(pciLocation); };
    const auto match = std::find_if(gpus.begin(), gpus.end(), fits);
    if (match != gpus.end() && std::count_if(gpus.begin(), gpus.end(), fits) == 1)
        *this = *match;
}

NVIDIAGPU::NVIDIAGPU(const NVIDIAGPU& other) = default;
NVIDIAGPU::NVIDIAGPU(NVIDIAGPU&& other) noexcept = default;
NVIDIAGPU& NVIDIAGPU::operator=(const NVIDIAGPU& other) = default;
NVIDIAGPU& NVIDIAGPU::operator=(NVIDIAGPU&& other) noexcept = default;
NVIDIAGPU::~NVIDIAGPU() = default;

const pci::PciLocation& NVIDIAGPU::pciLocation() const { return location_; }

const std::string& NVIDIAGPU::name() const { return name_; }

unsigned int NVIDIAGPU::videoMemoryKB() const { return videoMemory_; }

bool NVIDIAGPU::isDesktop() const { return systemType_ == NV_SYSTEM_TYPE_DESKTOP; }

bool NVIDIAGPU::isNotebook() const { return systemType_ == NV_SYSTEM_TYPE_LAPTOP; }

bool NVIDIAGPU::supportOptimus() const
{
    auto trace = site.trace("NVIDIAAdapterInfo::isOptimus", 150);
    return systemType_ == NV_SYSTEM_TYPE_LAPTOP;
}

bool NVIDIAGPU::isStereoEnabled() const
{
    NvU8 enabled = 0;
    NvAPI_Stereo_IsEnabled(&enabled);
    return enabled != 0;
}

unsigned long NVIDIAGPU::fanSpeed() const
{
    NvU32 rpm = 0;
    NvAPI_GPU_GetTachReading(handle_, &rpm);
    return rpm;
}

bool NVIDIAGPU::currentClock(unsigned int& graphicsMHz, unsigned int& memoryMHz) const
{
    return readClocks(handle_, NV_GPU_CLOCK_FREQUENCIES_CURRENT_FREQ, graphicsMHz, memoryMHz);
}

bool NVIDIAGPU::baseClock(unsigned int& graphicsMHz, unsigned int& memoryMHz) const
{
    return readClocks(handle_, NV_GPU_CLOCK_FREQUENCIES_BASE_CLOCK, graphicsMHz, memoryMHz);
}

bool NVIDIAGPU::currentTemperature(std::vector<float>& temps) const
{
    temps.clear();
    // The stored positions only count the GPU sensors: pass k reads NVAPI's
    // sensor k, whatever its target.
    for (size_t k = 0; k < thermalSensors_.size(); ++k) {
        NV_GPU_THERMAL_SETTINGS settings;
        if (const NvAPI_Status status = getThermalSettings(handle_, NVAPI_THERMAL_TARGET_ALL, &settings);
            status != NVAPI_OK) {
            report("NvAPI_GPU_GetThermalSettings", status);
            continue;
        }
        // A read that no longer reports position k has no value for it.
        if (k < sensorsReported(settings))
            temps.push_back(static_cast<float>(settings.sensor[k].currentTemp));
    }
    return !temps.empty();
}

bool NVIDIAGPU::isInSLI(std::vector<NVIDIAGPU>& others) const
{
    // 'others' may hold this very object: its handle is read first, and the old
    // list (ending it) is destroyed only as the function returns.
    const NvPhysicalGpuHandle self = handle_;
    std::vector<NVIDIAGPU> linked;
    ScopeExit replace([&others, &linked] { others.swap(linked); });
    NvLogicalGpuHandle logical = nullptr;
    if (const NvAPI_Status status = NvAPI_GetLogicalGPUFromPhysicalGPU(self, &logical); status != NVAPI_OK) {
        report("NvAPI_GetLogicalGPUFromPhysicalGPU", status);
        return false;
    }
    NvPhysicalGpuHandle handles[NVAPI_MAX_PHYSICAL_GPUS] = {};
    NvU32 count = 0;
    if (const NvAPI_Status status = NvAPI_GetPhysicalGPUsFromLogicalGPU(logical, handles, &count);
        status != NVAPI_OK) {
        report("NvAPI_GetPhysicalGPUsFromLogicalGPU", status);
        return false;
    }
    const NvU32 usable = std::min(count, NVAPI_MAX_PHYSICAL_GPUS);
    linked.reserve(usable);
    for (NvU32 i = 0; i < usable; ++i)
        if (handles[i] != self)
            linked.push_back(NVIDIAGPU(handles[i]));
    return count > 1;
}

bool NVIDIAGPU::supportsCuda(unsigned int& major, unsigned int& minor)
{
    auto trace = site.trace("bool NVIDIAGPU::supportsCuda(unsigned int& major, unsigned int& minor)", 223);
    int driverVersion = 0;
    if (cudaDriverGetVersion(&driverVersion) != cuda::cudaSuccess) {
        log(site, Priority::TRACE, "276 ", "Could not get driver version");
        return false;
    }
    int runtimeVersion = 0;
    if (cudaRuntimeGetVersion(&runtimeVersion) != cuda::cudaSuccess) {
        log(site, Priority::TRACE, "281 ", "Could not get run time version");
        return false;
    }
    if (runtimeVersion > driverVersion) {
        log(site, Priority::TRACE, "286 ",
            "Older version of CUDA is installed. Support for this version is not available. Driver Version is ",
            driverVersion, " Runtime Version is ", runtimeVersion);
        return false;
    }
    int count = 0;
    if (cudaGetDeviceCount(&count) != cuda::cudaSuccess) {
        log(site, Priority::TRACE, "294 ", "Cannot enumerate any CUDA devices");
        return false;
    }
    for (int device = 0; device < count; ++device) {
        cuda::cudaDeviceProp properties{};
        if (cudaGetDeviceProperties(&properties, device) != cuda::cudaSuccess)
            continue;
        // The function is not compared: CUDA gives none.
        if ((properties.pciBusID & 0xFF) == location_.bus && (properties.pciDeviceID & 0xFF) == location_.device) {
            major = static_cast<unsigned int>(properties.major);
            minor = static_cast<unsigned int>(properties.minor);
            return true;
        }
    }
    return false;
}

void NVIDIAGPU::enumerateThermalSensors()
{
    auto trace = site.trace("void NVIDIAGPU::enumerateThermalSensors()", 264);
    thermalSensors_.clear();
    NV_GPU_THERMAL_SETTINGS settings;
    if (const NvAPI_Status status = getThermalSettings(handle_, NVAPI_THERMAL_TARGET_ALL, &settings);
        status != NVAPI_OK) {
        report("NvAPI_GPU_GetThermalSettings", status);
        return;
    }
    // Only the target is looked at, not the controller.
    for (NvU32 i = 0; i < sensorsReported(settings); ++i)
        if (settings.sensor[i].target == NVAPI_THERMAL_TARGET_GPU)
            thermalSensors_.push_back(i);
}

// Always reads all sensors, whatever index is asked for: as revision 2, and
// as revision 1 from a driver too old for revision 2.
NvAPI_Status NVIDIAGPU::getThermalSettings(NvPhysicalGpuHandle handle, unsigned long,
                                           NV_GPU_THERMAL_SETTINGS_V2* settings) const
{
    *settings = NV_GPU_THERMAL_SETTINGS_V2{};
    settings->version = NV_GPU_THERMAL_SETTINGS_VER_2;
    const NvAPI_Status status = NvAPI_GPU_GetThermalSettings(handle, NVAPI_THERMAL_TARGET_ALL, settings);
    if (status != NVAPI_INCOMPATIBLE_STRUCT_VERSION)
        return status;
    *settings = NV_GPU_THERMAL_SETTINGS_V2{};
    settings->version = NV_GPU_THERMAL_SETTINGS_VER_1;
    return NvAPI_GPU_GetThermalSettings(handle, NVAPI_THERMAL_TARGET_ALL, settings);
}

} // namespace libKestrel
