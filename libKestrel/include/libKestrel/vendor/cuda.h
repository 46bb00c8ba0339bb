#pragma once

// Our declarations of the part of CUDA that the library reaches: the driver API
// entry points of the driver's own library (nvcuda.dll, libcuda.so.1), found at
// run time through the PFN_ types below, and the runtime API's types in the
// shape our own runtime calls give them (cudaRuntime.h). No toolkit header is
// needed to build against them.
//
// CUDAAPI is __stdcall on Windows; x86-64 has a single calling convention, so
// the pointer types need no keyword.
namespace libKestrel::cuda {

// ---- Driver API ----------------------------------------------------------

// A 4-byte status: 0 is success.
enum CUresult : int {
    CUDA_SUCCESS = 0,
    CUDA_ERROR_INVALID_VALUE = 1,
    CUDA_ERROR_NOT_INITIALIZED = 3,
    CUDA_ERROR_DEINITIALIZED = 4,
    CUDA_ERROR_STUB_LIBRARY = 34,
    CUDA_ERROR_DEVICE_UNAVAILABLE = 46,
    CUDA_ERROR_NO_DEVICE = 100,
    CUDA_ERROR_INVALID_DEVICE = 101,
    CUDA_ERROR_OPERATING_SYSTEM = 304,
    CUDA_ERROR_NOT_SUPPORTED = 801,
    CUDA_ERROR_SYSTEM_NOT_READY = 802,
    CUDA_ERROR_SYSTEM_DRIVER_MISMATCH = 803,
    CUDA_ERROR_COMPAT_NOT_SUPPORTED_ON_DEVICE = 804,
    CUDA_ERROR_UNKNOWN = 999,
};
static_assert(sizeof(CUresult) == 4, "CUresult is a 4-byte enumeration");

// A device handle, from cuDeviceGet.
using CUdevice = int;

enum CUdevice_attribute : int {
    CU_DEVICE_ATTRIBUTE_CLOCK_RATE = 13,               // kHz
    CU_DEVICE_ATTRIBUTE_PCI_BUS_ID = 33,
    CU_DEVICE_ATTRIBUTE_PCI_DEVICE_ID = 34,
    CU_DEVICE_ATTRIBUTE_MEMORY_CLOCK_RATE = 36,        // kHz
    CU_DEVICE_ATTRIBUTE_GLOBAL_MEMORY_BUS_WIDTH = 37,  // bits
    CU_DEVICE_ATTRIBUTE_PCI_DOMAIN_ID = 50,
    CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MAJOR = 75,
    CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MINOR = 76,
};
static_assert(sizeof(CUdevice_attribute) == 4, "CUdevice_attribute is a 4-byte enumeration");

using PFN_cuInit = CUresult (*)(unsigned int flags);
using PFN_cuDriverGetVersion = CUresult (*)(int* driverVersion);
using PFN_cuDeviceGetCount = CUresult (*)(int* count);
using PFN_cuDeviceGet = CUresult (*)(CUdevice* device, int ordinal);
using PFN_cuDeviceGetName = CUresult (*)(char* name, int length, CUdevice device);
using PFN_cuDeviceGetAttribute = CUresult (*)(int* value, CUdevice_attribute attribute, CUdevice device);
// An unknown code gives CUDA_ERROR_INVALID_VALUE and a null text; a stub driver
// fails them too, so a caller never relies on a text.
using PFN_cuGetErrorName = CUresult (*)(CUresult error, const char** text);
using PFN_cuGetErrorString = CUresult (*)(CUresult error, const char** text);

// ---- Runtime API ---------------------------------------------------------

// The runtime's status codes in their numbering up to CUDA 10.0 (10.1 moved
// several, for example no device from 38 to 100). Only the codes our runtime
// calls return are named.
enum cudaError : int {
    cudaSuccess = 0,
    cudaErrorInitializationError = 3,
    cudaErrorInvalidDevice = 10,
    cudaErrorInvalidValue = 11,
    cudaErrorUnknown = 30,
    cudaErrorInsufficientDriver = 35,
    cudaErrorNoDevice = 38,
    cudaErrorDevicesUnavailable = 46,
};
using cudaError_t = cudaError;
static_assert(sizeof(cudaError_t) == 4, "cudaError_t is a 4-byte enumeration");

// The properties of one device, holding only what the library reads. Its layout
// is our own: it never crosses into vendor code.
struct cudaDeviceProp {
    char name[256];      // NUL-terminated
    int clockRate;       // kHz
    int major;           // compute capability
    int minor;
    int pciBusID;
    int pciDeviceID;     // the device (slot) number on the bus
    int pciDomainID;
    int memoryClockRate; // kHz
    int memoryBusWidth;  // bits
};

} // namespace libKestrel::cuda
