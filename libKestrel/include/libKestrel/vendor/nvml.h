#pragma once

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

static_assert(sizeof(nvmlReturn_t) == 4, "nvmlReturn_t is a 4-byte enum");
static_assert(sizeof(nvmlDevice_t) == 8, "nvmlDevice_t is an 8-byte handle");
static_assert(sizeof(nvmlPciInfo_t) == 68, "nvmlPciInfo_t layout");
static_assert(sizeof(nvmlUtilization_t) == 8, "nvmlUtilization_t layout");
static_assert(sizeof(nvmlEccErrorCounts_t) == 32, "nvmlEccErrorCounts_t layout");
static_assert(sizeof(nvmlMemory_t) == 24, "nvmlMemory_t layout");

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

} // namespace libKestrel::nvml
