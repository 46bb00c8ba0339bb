#pragma once

#include <cstddef>

// Our declarations of the part of NVIDIA's management library (NVML) that the
// NVML source calls. NVML is reached only at run time, through these pointer
// types. Layouts are the same on Windows x64 and Linux x86-64; NVML names no
// calling convention, so the compiler's default (the only one on x64) applies.
namespace libKestrel::nvml {

// NVML's enumerations are C enums of int size. Ours fix int as their type, which
// passes the same way and keeps any value a module returns a valid value.

// Return codes.
enum nvmlReturn_t : int {
    NVML_SUCCESS = 0,
    NVML_ERROR_UNINITIALIZED = 1,
    NVML_ERROR_INVALID_ARGUMENT = 2,
    NVML_ERROR_NOT_SUPPORTED = 3,
    NVML_ERROR_NO_PERMISSION = 4,
    NVML_ERROR_ALREADY_INITIALIZED = 5,
    NVML_ERROR_NOT_FOUND = 6,
    NVML_ERROR_INSUFFICIENT_SIZE = 7,
    NVML_ERROR_INSUFFICIENT_POWER = 8,
    NVML_ERROR_DRIVER_NOT_LOADED = 9,
    NVML_ERROR_TIMEOUT = 10,
    NVML_ERROR_IRQ_ISSUE = 11,
    NVML_ERROR_LIBRARY_NOT_FOUND = 12,
    NVML_ERROR_FUNCTION_NOT_FOUND = 13,
    NVML_ERROR_CORRUPTED_INFOROM = 14,
    NVML_ERROR_GPU_IS_LOST = 15,
    NVML_ERROR_RESET_REQUIRED = 16,
    NVML_ERROR_OPERATING_SYSTEM = 17,
    NVML_ERROR_LIB_RM_VERSION_MISMATCH = 18,
    NVML_ERROR_IN_USE = 19,
    NVML_ERROR_MEMORY = 20,
    NVML_ERROR_NO_DATA = 21,
    NVML_ERROR_VGPU_ECC_NOT_SUPPORTED = 22,
    NVML_ERROR_INSUFFICIENT_RESOURCES = 23,
    NVML_ERROR_FREQ_NOT_SUPPORTED = 24,
    NVML_ERROR_ARGUMENT_VERSION_MISMATCH = 25,
    NVML_ERROR_DEPRECATED = 26,
    NVML_ERROR_NOT_READY = 27,
    NVML_ERROR_GPU_NOT_FOUND = 28,
    NVML_ERROR_INVALID_STATE = 29,
    NVML_ERROR_RESET_TYPE_NOT_SUPPORTED = 30,
    NVML_ERROR_UNKNOWN = 999
};

enum nvmlTemperatureSensors_t : int {
    NVML_TEMPERATURE_GPU = 0,
    NVML_TEMPERATURE_COUNT = 1
};

enum nvmlTemperatureThresholds_t : int {
    NVML_TEMPERATURE_THRESHOLD_SHUTDOWN = 0,
    NVML_TEMPERATURE_THRESHOLD_SLOWDOWN = 1,
    NVML_TEMPERATURE_THRESHOLD_MEM_MAX = 2,
    NVML_TEMPERATURE_THRESHOLD_GPU_MAX = 3,
    NVML_TEMPERATURE_THRESHOLD_ACOUSTIC_MIN = 4,
    NVML_TEMPERATURE_THRESHOLD_ACOUSTIC_CURR = 5,
    NVML_TEMPERATURE_THRESHOLD_ACOUSTIC_MAX = 6,
    NVML_TEMPERATURE_THRESHOLD_GPS_CURR = 7
};

enum nvmlMemoryErrorType_t : int {
    NVML_MEMORY_ERROR_TYPE_CORRECTED = 0,
    NVML_MEMORY_ERROR_TYPE_UNCORRECTED = 1,
    NVML_MEMORY_ERROR_TYPE_COUNT = 2
};

enum nvmlEccCounterType_t : int {
    NVML_VOLATILE_ECC = 0,
    NVML_AGGREGATE_ECC = 1,
    NVML_ECC_COUNTER_TYPE_COUNT = 2
};

// Performance states, P0 (the fastest) to P15; NVML_PSTATE_UNKNOWN when the
// driver cannot tell.
enum nvmlPstates_t : int {
    NVML_PSTATE_0 = 0,
    NVML_PSTATE_15 = 15,
    NVML_PSTATE_UNKNOWN = 32
};

// What a field value holds (nvmlFieldValue_t::valueType).
enum nvmlValueType_t : int {
    NVML_VALUE_TYPE_DOUBLE = 0,
    NVML_VALUE_TYPE_UNSIGNED_INT = 1,
    NVML_VALUE_TYPE_UNSIGNED_LONG = 2,
    NVML_VALUE_TYPE_UNSIGNED_LONG_LONG = 3,
    NVML_VALUE_TYPE_SIGNED_LONG_LONG = 4,
    NVML_VALUE_TYPE_SIGNED_INT = 5,
    NVML_VALUE_TYPE_UNSIGNED_SHORT = 6
};

// Field ids for nvmlDeviceGetFieldValues.
constexpr unsigned int NVML_FI_DEV_MEMORY_TEMP = 82; // the memory's temperature, degrees Celsius

// Bits of nvmlDeviceGetCurrentClocksEventReasons (and of its older name,
// nvmlDeviceGetCurrentClocksThrottleReasons, which reports the same bits).
constexpr unsigned long long nvmlClocksEventReasonGpuIdle = 0x1;
constexpr unsigned long long nvmlClocksEventReasonApplicationsClocksSetting = 0x2;
constexpr unsigned long long nvmlClocksEventReasonSwPowerCap = 0x4;
constexpr unsigned long long nvmlClocksThrottleReasonHwSlowdown = 0x8;
constexpr unsigned long long nvmlClocksEventReasonSyncBoost = 0x10;
constexpr unsigned long long nvmlClocksEventReasonSwThermalSlowdown = 0x20;
constexpr unsigned long long nvmlClocksThrottleReasonHwThermalSlowdown = 0x40;
constexpr unsigned long long nvmlClocksThrottleReasonHwPowerBrakeSlowdown = 0x80;
constexpr unsigned long long nvmlClocksEventReasonDisplayClockSetting = 0x100;

// Buffer sizes NVML documents for its text outputs, terminating NUL included.
constexpr unsigned int NVML_DEVICE_NAME_BUFFER_SIZE = 64;
constexpr unsigned int NVML_DEVICE_UUID_BUFFER_SIZE = 80;
constexpr unsigned int NVML_DEVICE_VBIOS_VERSION_BUFFER_SIZE = 32;
constexpr unsigned int NVML_SYSTEM_DRIVER_VERSION_BUFFER_SIZE = 80;
constexpr unsigned int NVML_DEVICE_PCI_BUS_ID_BUFFER_SIZE = 32;
constexpr unsigned int NVML_DEVICE_PCI_BUS_ID_BUFFER_V2_SIZE = 16;

// A device, opaque to its clients.
struct nvmlDevice_st;
using nvmlDevice_t = nvmlDevice_st*;

// The PCI information of nvmlDeviceGetPciInfo_v2 (and _v3).
struct nvmlPciInfo_t {
    char busIdLegacy[NVML_DEVICE_PCI_BUS_ID_BUFFER_V2_SIZE]; // "dddd:bb:dd.f"
    unsigned int domain;
    unsigned int bus;
    unsigned int device;
    unsigned int pciDeviceId;    // device id in the high 16 bits, vendor id in the low 16
    unsigned int pciSubSystemId;
    char busId[NVML_DEVICE_PCI_BUS_ID_BUFFER_SIZE]; // "dddddddd:bb:dd.f"
};

// Percent of the last sample period in which the GPU, or its memory, was busy.
struct nvmlUtilization_t {
    unsigned int gpu;
    unsigned int memory;
};

// ECC error counts per memory location. NVML orders the fields this way, with
// device memory third.
struct nvmlEccErrorCounts_t {
    unsigned long long l1Cache;
    unsigned long long l2Cache;
    unsigned long long deviceMemory;
    unsigned long long registerFile;
};

// Frame-buffer memory in bytes.
struct nvmlMemory_t {
    unsigned long long total;
    unsigned long long free;
    unsigned long long used;
};

// One value of nvmlDeviceGetFieldValues, read as valueType says.
union nvmlValue_t {
    double dVal;
    int siVal;
    unsigned int uiVal;
    unsigned long ulVal; // 4 bytes on Windows, 8 on Linux: the union is 8 bytes either way
    unsigned long long ullVal;
    signed long long sllVal;
    unsigned short usVal;
};

// A field the caller asks for (fieldId, scopeId) and NVML's answer for it: its
// own return code, and the value when that is NVML_SUCCESS.
struct nvmlFieldValue_t {
    unsigned int fieldId;
    unsigned int scopeId;
    long long timestamp;   // microseconds since 1970
    long long latencyUsec;
    nvmlValueType_t valueType;
    nvmlReturn_t nvmlReturn;
    nvmlValue_t value;
};

static_assert(sizeof(nvmlReturn_t) == 4, "nvmlReturn_t is a 4-byte enum");
static_assert(sizeof(nvmlDevice_t) == 8, "nvmlDevice_t is an 8-byte handle");
static_assert(sizeof(nvmlPciInfo_t) == 68, "nvmlPciInfo_t layout");
static_assert(sizeof(nvmlUtilization_t) == 8, "nvmlUtilization_t layout");
static_assert(sizeof(nvmlEccErrorCounts_t) == 32, "nvmlEccErrorCounts_t layout");
static_assert(sizeof(nvmlMemory_t) == 24, "nvmlMemory_t layout");
static_assert(sizeof(nvmlValue_t) == 8, "nvmlValue_t layout");
static_assert(sizeof(nvmlFieldValue_t) == 40 && offsetof(nvmlFieldValue_t, valueType) == 24 &&
                  offsetof(nvmlFieldValue_t, value) == 32,
              "nvmlFieldValue_t layout");

using PFN_nvmlInit_v2 = nvmlReturn_t (*)();
using PFN_nvmlShutdown = nvmlReturn_t (*)();
using PFN_nvmlSystemGetDriverVersion = nvmlReturn_t (*)(char* version, unsigned int length);
using PFN_nvmlDeviceGetCount_v2 = nvmlReturn_t (*)(unsigned int* deviceCount);
// The unversioned export, which NVML keeps beside nvmlDeviceGetHandleByIndex_v2.
using PFN_nvmlDeviceGetHandleByIndex = nvmlReturn_t (*)(unsigned int index, nvmlDevice_t* device);
using PFN_nvmlDeviceGetTemperature = nvmlReturn_t (*)(nvmlDevice_t device, nvmlTemperatureSensors_t sensorType,
                                                      unsigned int* temp);
using PFN_nvmlDeviceGetTemperatureThreshold = nvmlReturn_t (*)(nvmlDevice_t device,
                                                               nvmlTemperatureThresholds_t thresholdType,
                                                               unsigned int* temp);
using PFN_nvmlDeviceGetPciInfo_v2 = nvmlReturn_t (*)(nvmlDevice_t device, nvmlPciInfo_t* pci);
using PFN_nvmlDeviceGetMemoryInfo = nvmlReturn_t (*)(nvmlDevice_t device, nvmlMemory_t* memory);
using PFN_nvmlDeviceGetDetailedEccErrors = nvmlReturn_t (*)(nvmlDevice_t device, nvmlMemoryErrorType_t errorType,
                                                            nvmlEccCounterType_t counterType,
                                                            nvmlEccErrorCounts_t* eccCounts);
using PFN_nvmlDeviceGetName = nvmlReturn_t (*)(nvmlDevice_t device, char* name, unsigned int length);
using PFN_nvmlDeviceGetUUID = nvmlReturn_t (*)(nvmlDevice_t device, char* uuid, unsigned int length);
using PFN_nvmlDeviceGetUtilizationRates = nvmlReturn_t (*)(nvmlDevice_t device, nvmlUtilization_t* utilization);
using PFN_nvmlDeviceGetVbiosVersion = nvmlReturn_t (*)(nvmlDevice_t device, char* version, unsigned int length);
using PFN_nvmlDeviceGetFanSpeed = nvmlReturn_t (*)(nvmlDevice_t device, unsigned int* speed);
using PFN_nvmlErrorString = const char* (*)(nvmlReturn_t result);
// Milliwatts: the GPU's draw with its board (memory included), and the limit
// the driver enforces after every limiter.
using PFN_nvmlDeviceGetPowerUsage = nvmlReturn_t (*)(nvmlDevice_t device, unsigned int* power);
using PFN_nvmlDeviceGetEnforcedPowerLimit = nvmlReturn_t (*)(nvmlDevice_t device, unsigned int* limit);
// Millijoules since the driver was last loaded.
using PFN_nvmlDeviceGetTotalEnergyConsumption = nvmlReturn_t (*)(nvmlDevice_t device, unsigned long long* energy);
// The PCIe link: generation and lanes, now and at most (the most the GPU and
// its slot allow together).
using PFN_nvmlDeviceGetCurrPcieLinkGeneration = nvmlReturn_t (*)(nvmlDevice_t device, unsigned int* currLinkGen);
using PFN_nvmlDeviceGetCurrPcieLinkWidth = nvmlReturn_t (*)(nvmlDevice_t device, unsigned int* currLinkWidth);
using PFN_nvmlDeviceGetMaxPcieLinkGeneration = nvmlReturn_t (*)(nvmlDevice_t device, unsigned int* maxLinkGen);
using PFN_nvmlDeviceGetMaxPcieLinkWidth = nvmlReturn_t (*)(nvmlDevice_t device, unsigned int* maxLinkWidth);
using PFN_nvmlDeviceGetPerformanceState = nvmlReturn_t (*)(nvmlDevice_t device, nvmlPstates_t* pState);
// A mask of nvmlClocks*Reason* bits. The older name is kept by drivers that
// predate the newer one, with the same signature and bits.
using PFN_nvmlDeviceGetCurrentClocksEventReasons = nvmlReturn_t (*)(nvmlDevice_t device,
                                                                    unsigned long long* clocksEventReasons);
using PFN_nvmlDeviceGetCurrentClocksThrottleReasons = nvmlReturn_t (*)(nvmlDevice_t device,
                                                                       unsigned long long* clocksThrottleReasons);
// Fills each of 'valuesCount' values whose fieldId (and scopeId) the caller set.
using PFN_nvmlDeviceGetFieldValues = nvmlReturn_t (*)(nvmlDevice_t device, int valuesCount, nvmlFieldValue_t* values);

} // namespace libKestrel::nvml
