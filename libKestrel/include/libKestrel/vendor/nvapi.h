#pragma once

#include <cstddef>
#include <cstdint>

// Our declarations of the part of NVIDIA's NVAPI that the library calls. NVAPI is
// reached only at run time: the driver's module exports a single function,
// nvapi_QueryInterface, that hands out every other entry point by a 32-bit
// interface id. All entry points return an NvAPI_Status and use the platform's C
// calling convention (on x64 Windows there is only one).
//
// Enumerations have a fixed underlying type: the driver may write any 32-bit
// value into them, and reading one that no enumerator names stays well defined.
namespace libKestrel::nvapi {

using NvU8 = std::uint8_t;
using NvU32 = std::uint32_t;
using NvS32 = std::int32_t;

// Opaque handles: the driver's pointers, never dereferenced by callers.
struct NvPhysicalGpu;
struct NvLogicalGpu;
using NvPhysicalGpuHandle = NvPhysicalGpu*;
using NvLogicalGpuHandle = NvLogicalGpu*;

constexpr NvU32 NVAPI_SHORT_STRING_MAX = 64;
using NvAPI_ShortString = char[NVAPI_SHORT_STRING_MAX];

constexpr NvU32 NVAPI_MAX_PHYSICAL_GPUS = 64;
constexpr NvU32 NVAPI_MAX_LOGICAL_GPUS = 64;
constexpr NvU32 NVAPI_MAX_THERMAL_SENSORS_PER_GPU = 3;
constexpr NvU32 NVAPI_MAX_GPU_PUBLIC_CLOCKS = 32;

enum NvAPI_Status : int {
    NVAPI_OK = 0,
    NVAPI_ERROR = -1,
    NVAPI_LIBRARY_NOT_FOUND = -2,
    NVAPI_NO_IMPLEMENTATION = -3,
    NVAPI_API_NOT_INITIALIZED = -4,
    NVAPI_INVALID_ARGUMENT = -5,
    NVAPI_NVIDIA_DEVICE_NOT_FOUND = -6,
    NVAPI_END_ENUMERATION = -7,
    NVAPI_INVALID_HANDLE = -8,
    NVAPI_INCOMPATIBLE_STRUCT_VERSION = -9,
    NVAPI_HANDLE_INVALIDATED = -10,
    NVAPI_EXPECTED_PHYSICAL_GPU_HANDLE = -101,
    NVAPI_NOT_SUPPORTED = -104,
};

// A structure's version word: its size in the low 16 bits, its revision above.
constexpr NvU32 makeNvapiVersion(std::size_t size, NvU32 revision)
{
    return static_cast<NvU32>(size) | (revision << 16);
}

enum NV_GPU_BUS_TYPE : int {
    NVAPI_GPU_BUS_TYPE_UNDEFINED = 0,
    NVAPI_GPU_BUS_TYPE_PCI = 1,
    NVAPI_GPU_BUS_TYPE_AGP = 2,
    NVAPI_GPU_BUS_TYPE_PCI_EXPRESS = 3,
    NVAPI_GPU_BUS_TYPE_FPCI = 4,
    NVAPI_GPU_BUS_TYPE_AXI = 5,
};

enum NV_SYSTEM_TYPE : int {
    NV_SYSTEM_TYPE_UNKNOWN = 0,
    NV_SYSTEM_TYPE_LAPTOP = 1,
    NV_SYSTEM_TYPE_DESKTOP = 2,
};

enum NV_THERMAL_TARGET : int {
    NVAPI_THERMAL_TARGET_NONE = 0,
    NVAPI_THERMAL_TARGET_GPU = 1,
    NVAPI_THERMAL_TARGET_MEMORY = 2,
    NVAPI_THERMAL_TARGET_POWER_SUPPLY = 4,
    NVAPI_THERMAL_TARGET_BOARD = 8,
    NVAPI_THERMAL_TARGET_VCD_BOARD = 9,
    NVAPI_THERMAL_TARGET_VCD_INLET = 10,
    NVAPI_THERMAL_TARGET_VCD_OUTLET = 11,
    NVAPI_THERMAL_TARGET_ALL = 15,
    NVAPI_THERMAL_TARGET_UNKNOWN = -1,
};

enum NV_THERMAL_CONTROLLER : int {
    NVAPI_THERMAL_CONTROLLER_NONE = 0,
    NVAPI_THERMAL_CONTROLLER_GPU_INTERNAL = 1,
    NVAPI_THERMAL_CONTROLLER_ADM1032 = 2,
    NVAPI_THERMAL_CONTROLLER_MAX6649 = 3,
    NVAPI_THERMAL_CONTROLLER_MAX1617 = 4,
    NVAPI_THERMAL_CONTROLLER_LM99 = 5,
    NVAPI_THERMAL_CONTROLLER_LM89 = 6,
    NVAPI_THERMAL_CONTROLLER_LM64 = 7,
    NVAPI_THERMAL_CONTROLLER_ADT7473 = 8,
    NVAPI_THERMAL_CONTROLLER_SBMAX6649 = 9,
    NVAPI_THERMAL_CONTROLLER_VBIOSEVT = 10,
    NVAPI_THERMAL_CONTROLLER_OS = 11,
    NVAPI_THERMAL_CONTROLLER_UNKNOWN = -1,
};

enum NV_GPU_PUBLIC_CLOCK_ID : int {
    NVAPI_GPU_PUBLIC_CLOCK_GRAPHICS = 0,
    NVAPI_GPU_PUBLIC_CLOCK_MEMORY = 4,
    NVAPI_GPU_PUBLIC_CLOCK_PROCESSOR = 7,
    NVAPI_GPU_PUBLIC_CLOCK_VIDEO = 8,
    NVAPI_GPU_PUBLIC_CLOCK_UNDEFINED = 32,
};

enum NV_GPU_CLOCK_FREQUENCIES_CLOCK_TYPE : int {
    NV_GPU_CLOCK_FREQUENCIES_CURRENT_FREQ = 0,
    NV_GPU_CLOCK_FREQUENCIES_BASE_CLOCK = 1,
    NV_GPU_CLOCK_FREQUENCIES_BOOST_CLOCK = 2,
    NV_GPU_CLOCK_FREQUENCIES_CLOCK_TYPE_NUM = 3,
};

enum NV_ECC_CONFIGURATION : int {
    NV_ECC_CONFIGURATION_NOT_SUPPORTED = 0,
    NV_ECC_CONFIGURATION_DEFERRED = 1,
    NV_ECC_CONFIGURATION_IMMEDIATE = 2,
};

// Video memory sizes in kilobytes. Revisions 1 and 2 are prefixes of revision 3
// (20 and 24 bytes): a driver fills only as much as the version word names.
struct NV_DISPLAY_DRIVER_MEMORY_INFO_V3 {
    NvU32 version;
    NvU32 dedicatedVideoMemory;
    NvU32 availableDedicatedVideoMemory;
    NvU32 systemVideoMemory;
    NvU32 sharedSystemMemory;
    NvU32 curAvailableDedicatedVideoMemory;
    NvU32 dedicatedVideoMemoryEvictionsSize;
    NvU32 dedicatedVideoMemoryEvictionCount;
};
using NV_DISPLAY_DRIVER_MEMORY_INFO = NV_DISPLAY_DRIVER_MEMORY_INFO_V3;
constexpr NvU32 NV_DISPLAY_DRIVER_MEMORY_INFO_VER_1 = makeNvapiVersion(20, 1);
constexpr NvU32 NV_DISPLAY_DRIVER_MEMORY_INFO_VER_2 = makeNvapiVersion(24, 2);
constexpr NvU32 NV_DISPLAY_DRIVER_MEMORY_INFO_VER_3 = makeNvapiVersion(sizeof(NV_DISPLAY_DRIVER_MEMORY_INFO_V3), 3);
static_assert(sizeof(NV_DISPLAY_DRIVER_MEMORY_INFO_V3) == 32);
static_assert(NV_DISPLAY_DRIVER_MEMORY_INFO_VER_1 == 0x10014);
static_assert(NV_DISPLAY_DRIVER_MEMORY_INFO_VER_2 == 0x20018);
static_assert(NV_DISPLAY_DRIVER_MEMORY_INFO_VER_3 == 0x30020);

// One clock domain: whether the GPU has it, and its frequency in kHz.
struct NV_GPU_CLOCK_DOMAIN {
    NvU32 bIsPresent : 1;
    NvU32 reserved : 31;
    NvU32 frequency;
};

// All public clock domains, indexed by NV_GPU_PUBLIC_CLOCK_ID. ClockType picks
// current, base or boost frequencies; the reserved bits must be zero.
struct NV_GPU_CLOCK_FREQUENCIES_V2 {
    NvU32 version;
    NvU32 ClockType : 4;
    NvU32 reserved : 20;
    NvU32 reserved1 : 8;
    NV_GPU_CLOCK_DOMAIN domain[NVAPI_MAX_GPU_PUBLIC_CLOCKS];
};
using NV_GPU_CLOCK_FREQUENCIES = NV_GPU_CLOCK_FREQUENCIES_V2;
constexpr NvU32 NV_GPU_CLOCK_FREQUENCIES_VER_1 = makeNvapiVersion(sizeof(NV_GPU_CLOCK_FREQUENCIES_V2), 1);
constexpr NvU32 NV_GPU_CLOCK_FREQUENCIES_VER_2 = makeNvapiVersion(sizeof(NV_GPU_CLOCK_FREQUENCIES_V2), 2);
constexpr NvU32 NV_GPU_CLOCK_FREQUENCIES_VER_3 = makeNvapiVersion(sizeof(NV_GPU_CLOCK_FREQUENCIES_V2), 3);
static_assert(sizeof(NV_GPU_CLOCK_DOMAIN) == 8);
static_assert(sizeof(NV_GPU_CLOCK_FREQUENCIES_V2) == 264);
static_assert(offsetof(NV_GPU_CLOCK_FREQUENCIES_V2, domain) == 8);
static_assert(NV_GPU_CLOCK_FREQUENCIES_VER_1 == 0x10108);
static_assert(NV_GPU_CLOCK_FREQUENCIES_VER_3 == 0x30108);

// The enumeration between the two flags puts each flag in a 32-bit word of its own.
struct NV_GPU_ECC_STATUS_INFO {
    NvU32 version;
    NvU32 isSupported : 1;
    NV_ECC_CONFIGURATION configurationOptions;
    NvU32 isEnabled : 1;
};
constexpr NvU32 NV_GPU_ECC_STATUS_INFO_VER_1 = makeNvapiVersion(sizeof(NV_GPU_ECC_STATUS_INFO), 1);
static_assert(sizeof(NV_GPU_ECC_STATUS_INFO) == 16);
static_assert(offsetof(NV_GPU_ECC_STATUS_INFO, configurationOptions) == 8);
static_assert(NV_GPU_ECC_STATUS_INFO_VER_1 == 0x10010);

// Thermal sensors, in degrees Celsius. Revision 1 reports unsigned temperatures,
// revision 2 signed ones; the layout is the same. 'count' says how many entries
// of 'sensor' are valid.
template <class Temperature>
struct NV_GPU_THERMAL_SENSOR {
    NV_THERMAL_CONTROLLER controller;
    Temperature defaultMinTemp;
    Temperature defaultMaxTemp;
    Temperature currentTemp;
    NV_THERMAL_TARGET target;
};

template <class Temperature>
struct NV_GPU_THERMAL_SETTINGS_REVISION {
    NvU32 version;
    NvU32 count;
    NV_GPU_THERMAL_SENSOR<Temperature> sensor[NVAPI_MAX_THERMAL_SENSORS_PER_GPU];
};
using NV_GPU_THERMAL_SETTINGS_V1 = NV_GPU_THERMAL_SETTINGS_REVISION<NvU32>;
using NV_GPU_THERMAL_SETTINGS_V2 = NV_GPU_THERMAL_SETTINGS_REVISION<NvS32>;
using NV_GPU_THERMAL_SETTINGS = NV_GPU_THERMAL_SETTINGS_V2;
constexpr NvU32 NV_GPU_THERMAL_SETTINGS_VER_1 = makeNvapiVersion(sizeof(NV_GPU_THERMAL_SETTINGS_V1), 1);
constexpr NvU32 NV_GPU_THERMAL_SETTINGS_VER_2 = makeNvapiVersion(sizeof(NV_GPU_THERMAL_SETTINGS_V2), 2);
static_assert(sizeof(NV_GPU_THERMAL_SETTINGS_V1) == 68);
static_assert(sizeof(NV_GPU_THERMAL_SETTINGS_V2) == 68);
static_assert(offsetof(NV_GPU_THERMAL_SETTINGS_V2, sensor) == 8);
static_assert(offsetof(NV_GPU_THERMAL_SENSOR<NvS32>, currentTemp) == 12);
static_assert(NV_GPU_THERMAL_SETTINGS_VER_1 == 0x10044);
static_assert(NV_GPU_THERMAL_SETTINGS_VER_2 == 0x20044);

static_assert(sizeof(NvAPI_Status) == 4 && sizeof(NV_GPU_BUS_TYPE) == 4 && sizeof(NV_SYSTEM_TYPE) == 4 &&
              sizeof(NV_THERMAL_TARGET) == 4 && sizeof(NV_THERMAL_CONTROLLER) == 4);

// The interface ids that nvapi_QueryInterface answers.
namespace interface_id {
constexpr NvU32 NvAPI_Initialize = 0x0150E828;
constexpr NvU32 NvAPI_Unload = 0xD22BDD7E;
constexpr NvU32 NvAPI_GetErrorMessage = 0x6C2D048C;
constexpr NvU32 NvAPI_EnumPhysicalGPUs = 0xE5AC921F;
constexpr NvU32 NvAPI_GPU_GetBusId = 0x1BE0B8E5;
constexpr NvU32 NvAPI_GPU_GetBusSlotId = 0x2A0A350F;
constexpr NvU32 NvAPI_GPU_GetFullName = 0xCEEE8E9F;
constexpr NvU32 NvAPI_SYS_GetDriverAndBranchVersion = 0x2926AAAD;
constexpr NvU32 NvAPI_GPU_GetVbiosVersionString = 0xA561FD7D;
constexpr NvU32 NvAPI_GPU_GetMemoryInfo = 0x07F9B368;
constexpr NvU32 NvAPI_GPU_GetAllClockFrequencies = 0xDCB616C3;
constexpr NvU32 NvAPI_GPU_GetBusType = 0x1BB18724;
constexpr NvU32 NvAPI_GPU_GetGpuCoreCount = 0xC7026A87;
constexpr NvU32 NvAPI_GetLogicalGPUFromPhysicalGPU = 0xADD604D1;
constexpr NvU32 NvAPI_GetPhysicalGPUsFromLogicalGPU = 0xAEA3FA32;
constexpr NvU32 NvAPI_GPU_GetECCStatusInfo = 0xCA1DDAF3;
constexpr NvU32 NvAPI_GPU_GetThermalSettings = 0xE3640A56;
constexpr NvU32 NvAPI_GPU_GetTachReading = 0x5F608315;
constexpr NvU32 NvAPI_GPU_GetSystemType = 0xBAAABFCC;
constexpr NvU32 NvAPI_Stereo_IsEnabled = 0x348FF8E1;
} // namespace interface_id

// The module's only named export.
using PFN_nvapi_QueryInterface = void* (*)(NvU32 id);

// Arrays of handles are caller storage for NVAPI_MAX_PHYSICAL_GPUS entries.
using PFN_NvAPI_Initialize = NvAPI_Status (*)();
using PFN_NvAPI_Unload = NvAPI_Status (*)();
using PFN_NvAPI_GetErrorMessage = NvAPI_Status (*)(NvAPI_Status status, char* description);
using PFN_NvAPI_EnumPhysicalGPUs = NvAPI_Status (*)(NvPhysicalGpuHandle* handles, NvU32* count);
using PFN_NvAPI_GPU_GetBusId = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, NvU32* busId);
using PFN_NvAPI_GPU_GetBusSlotId = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, NvU32* slotId);
using PFN_NvAPI_GPU_GetFullName = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, char* name);
using PFN_NvAPI_SYS_GetDriverAndBranchVersion = NvAPI_Status (*)(NvU32* driverVersion, char* branch);
using PFN_NvAPI_GPU_GetVbiosVersionString = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, char* revision);
using PFN_NvAPI_GPU_GetMemoryInfo = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, NV_DISPLAY_DRIVER_MEMORY_INFO* info);
using PFN_NvAPI_GPU_GetAllClockFrequencies = NvAPI_Status (*)(NvPhysicalGpuHandle gpu,
                                                              NV_GPU_CLOCK_FREQUENCIES* frequencies);
using PFN_NvAPI_GPU_GetBusType = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, NV_GPU_BUS_TYPE* busType);
using PFN_NvAPI_GPU_GetGpuCoreCount = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, NvU32* count);
using PFN_NvAPI_GetLogicalGPUFromPhysicalGPU = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, NvLogicalGpuHandle* logical);
using PFN_NvAPI_GetPhysicalGPUsFromLogicalGPU = NvAPI_Status (*)(NvLogicalGpuHandle logical,
                                                                 NvPhysicalGpuHandle* handles, NvU32* count);
using PFN_NvAPI_GPU_GetECCStatusInfo = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, NV_GPU_ECC_STATUS_INFO* info);
using PFN_NvAPI_GPU_GetThermalSettings = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, NvU32 sensorIndex,
                                                          NV_GPU_THERMAL_SETTINGS* settings);
using PFN_NvAPI_GPU_GetTachReading = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, NvU32* rpm);
using PFN_NvAPI_GPU_GetSystemType = NvAPI_Status (*)(NvPhysicalGpuHandle gpu, NV_SYSTEM_TYPE* systemType);
using PFN_NvAPI_Stereo_IsEnabled = NvAPI_Status (*)(NvU8* enabled);

} // namespace libKestrel::nvapi
