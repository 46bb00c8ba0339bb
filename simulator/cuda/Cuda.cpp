// A simulated CUDA driver (libcuda.so.1, nvcuda.dll): the driver API calls that
// enumerate devices, answered from the "cuda" sections of the scenario's GPUs.
// Like the driver, it answers nothing about devices before cuInit, and cuInit
// fails with CUDA_ERROR_NO_DEVICE on a machine without a CUDA device.
//
// Scenario: "cudaDriver": {"version": 12040}; per GPU "cuda": {"name", "major",
//           "minor", "clockRate", "memoryClockRate", "memoryBusWidth",
//           "pci": {"bus", "device", "domain"}, "unsupportedAttributes": [ids]}.
// Faults:   see README.md.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "common/Simulator.h"
#include "libKestrel/vendor/cuda.h"

using namespace libKestrel::cuda;

namespace {

struct Device {
    std::string name;
    int major = 0;
    int minor = 0;
    int clockRate = 0;
    int memoryClockRate = 0;
    int memoryBusWidth = 0;
    int bus = 0;
    int device = 0;
    int domain = 0;
    std::vector<std::int64_t> unsupportedAttributes;
};

struct Driver {
    bool scenarioRead = false;
    bool initialized = false;
    int version = 12040;
    std::vector<Device> devices;
};

Driver& driver()
{
    static Driver state;
    return state;
}

// An integer field of a JSON object (any other JSON gives the fallback), held to
// the range of an int as the driver reports it.
int integer(const nlohmann::json& object, const char* key, int fallback)
{
    const auto found = object.is_object() ? object.find(key) : object.end();
    if (found == object.end() || !found->is_number_integer())
        return fallback;
    const auto value = found->get<std::int64_t>();
    return static_cast<int>(std::clamp<std::int64_t>(value, std::numeric_limits<int>::min(),
                                                      std::numeric_limits<int>::max()));
}

// A PCI domain: 32 bits, which the driver's int attribute holds as they are, so
// a domain past 2^31 reads as a negative int, as NVIDIA's driver gives it.
int domainOf(const nlohmann::json& pci, int fallback)
{
    const auto found = pci.is_object() ? pci.find("domain") : pci.end();
    if (found == pci.end() || !found->is_number_integer())
        return fallback;
    return static_cast<int>(static_cast<std::uint32_t>(found->get<std::int64_t>()));
}

const nlohmann::json& member(const nlohmann::json& object, const char* key)
{
    static const nlohmann::json none;
    const auto found = object.is_object() ? object.find(key) : object.end();
    return found != object.end() ? *found : none;
}

bool flag(const nlohmann::json& object, const char* key)
{
    const nlohmann::json& value = member(object, key);
    return value.is_boolean() && value.get<bool>();
}

Device readDevice(const nlohmann::json& gpu, const nlohmann::json& cuda)
{
    // The GPU's own name and PCI location are defaults that the "cuda" section may override.
    const nlohmann::json& pci = member(gpu, "pci");
    const nlohmann::json& cudaPci = member(cuda, "pci");
    Device device;
    device.name = sim::text(cuda, "name", sim::text(gpu, "name", "NVIDIA Simulated GPU"));
    device.major = integer(cuda, "major", 8);
    device.minor = integer(cuda, "minor", 6);
    device.clockRate = integer(cuda, "clockRate", 1695000);
    device.memoryClockRate = integer(cuda, "memoryClockRate", 9751000);
    device.memoryBusWidth = integer(cuda, "memoryBusWidth", 384);
    device.bus = integer(cudaPci, "bus", integer(pci, "bus", 0));
    device.device = integer(cudaPci, "device", integer(pci, "device", 0));
    device.domain = domainOf(cudaPci, domainOf(pci, 0));
    for (const auto& id : member(cuda, "unsupportedAttributes"))
        if (id.is_number_integer())
            device.unsupportedAttributes.push_back(id.get<std::int64_t>());
    return device;
}

void readScenario()
{
    sim::reload();
    Driver& state = driver();
    state.scenarioRead = true;
    const nlohmann::json& scenario = sim::scenario();
    state.version = integer(member(scenario, "cudaDriver"), "version", 12040);
    state.devices.clear();
    const nlohmann::json& gpus = member(scenario, "gpus");
    if (!gpus.is_array())
        return;
    for (const auto& gpu : gpus)
        if (const nlohmann::json& cuda = member(gpu, "cuda"); cuda.is_object())
            state.devices.push_back(readDevice(gpu, cuda));
}

std::optional<CUresult> injected(const std::optional<sim::Fault>& fault)
{
    if (fault && fault->returnCode)
        return static_cast<CUresult>(*fault->returnCode);
    return std::nullopt;
}

// The status of a device call that cannot be answered yet, or success.
CUresult deviceCallState(const void* output)
{
    if (!output)
        return CUDA_ERROR_INVALID_VALUE;
    if (!driver().initialized)
        return CUDA_ERROR_NOT_INITIALIZED;
    return CUDA_SUCCESS;
}

const Device* findDevice(CUdevice handle)
{
    const auto& devices = driver().devices;
    if (handle < 0 || static_cast<std::size_t>(handle) >= devices.size())
        return nullptr;
    return &devices[static_cast<std::size_t>(handle)];
}

struct ErrorText {
    CUresult code;
    const char* name;
    const char* description;
};

constexpr ErrorText errorTexts[] = {
    {CUDA_SUCCESS, "CUDA_SUCCESS", "no error"},
    {CUDA_ERROR_INVALID_VALUE, "CUDA_ERROR_INVALID_VALUE", "invalid argument"},
    {CUDA_ERROR_NOT_INITIALIZED, "CUDA_ERROR_NOT_INITIALIZED", "initialization error"},
    {CUDA_ERROR_DEINITIALIZED, "CUDA_ERROR_DEINITIALIZED", "driver shutting down"},
    {CUDA_ERROR_STUB_LIBRARY, "CUDA_ERROR_STUB_LIBRARY", "CUDA driver is a stub library"},
    {CUDA_ERROR_DEVICE_UNAVAILABLE, "CUDA_ERROR_DEVICE_UNAVAILABLE",
     "CUDA-capable device(s) is/are busy or unavailable"},
    {CUDA_ERROR_NO_DEVICE, "CUDA_ERROR_NO_DEVICE", "no CUDA-capable device is detected"},
    {CUDA_ERROR_INVALID_DEVICE, "CUDA_ERROR_INVALID_DEVICE", "invalid device ordinal"},
    {CUDA_ERROR_OPERATING_SYSTEM, "CUDA_ERROR_OPERATING_SYSTEM", "OS call failed or operation not supported on this OS"},
    {CUDA_ERROR_NOT_SUPPORTED, "CUDA_ERROR_NOT_SUPPORTED", "operation not supported"},
    {CUDA_ERROR_SYSTEM_NOT_READY, "CUDA_ERROR_SYSTEM_NOT_READY", "system not yet initialized"},
    {CUDA_ERROR_SYSTEM_DRIVER_MISMATCH, "CUDA_ERROR_SYSTEM_DRIVER_MISMATCH",
     "system has unsupported display driver / cuda driver combination"},
    {CUDA_ERROR_COMPAT_NOT_SUPPORTED_ON_DEVICE, "CUDA_ERROR_COMPAT_NOT_SUPPORTED_ON_DEVICE",
     "forward compatibility was attempted on non supported HW"},
    {CUDA_ERROR_UNKNOWN, "CUDA_ERROR_UNKNOWN", "unknown error"},
};

// cuGetErrorName and cuGetErrorString: an unknown code is an invalid value and
// leaves no text; so does an injected failure, as with the toolkit's stub.
CUresult lookUpErrorText(const char* entry, CUresult error, const char** text, const char* ErrorText::*field)
{
    const auto fault = sim::enter(entry);
    if (!text)
        return CUDA_ERROR_INVALID_VALUE;
    *text = nullptr;
    if (const auto code = injected(fault))
        return *code;
    for (const ErrorText& entryText : errorTexts)
        if (entryText.code == error) {
            *text = entryText.*field;
            return CUDA_SUCCESS;
        }
    return CUDA_ERROR_INVALID_VALUE;
}

} // namespace

// The scenario is read by cuInit, by the first call after the module is loaded,
// and by the first call after a new scenario is set: the library initialises the
// driver once per process, and tests and hosts change the machine under it.
void sim::followScenario()
{
    if (!driver().scenarioRead || sim::scenarioChanged())
        readScenario();
}

// The simulator implements exactly the signatures the library calls through.
#define CHECK_SIGNATURE(function) \
    static_assert(std::is_same_v<decltype(&function), PFN_##function>, #function " has the wrong signature")

SIM_EXPORT CUresult cuInit(unsigned int flags)
{
    const sim::Guard guard;
    readScenario();
    sim::initLatency("cudaDriver");
    const auto fault = sim::enter("cuInit");
    if (const auto code = injected(fault))
        return *code;
    if (flags != 0)
        return CUDA_ERROR_INVALID_VALUE;
    if (driver().devices.empty())
        return CUDA_ERROR_NO_DEVICE;
    driver().initialized = true;
    return CUDA_SUCCESS;
}
CHECK_SIGNATURE(cuInit);

// Needs no cuInit, as with the driver.
SIM_EXPORT CUresult cuDriverGetVersion(int* driverVersion)
{
    const sim::Guard guard;
    const auto fault = sim::enter("cuDriverGetVersion");
    if (const auto code = injected(fault))
        return *code;
    if (!driverVersion)
        return CUDA_ERROR_INVALID_VALUE;
    *driverVersion = driver().version;
    return CUDA_SUCCESS;
}
CHECK_SIGNATURE(cuDriverGetVersion);

SIM_EXPORT CUresult cuDeviceGetCount(int* count)
{
    const sim::Guard guard;
    const auto fault = sim::enter("cuDeviceGetCount");
    if (const auto code = injected(fault))
        return *code;
    if (const CUresult state = deviceCallState(count))
        return state;
    // A count is only a number: any value can be shown, absurd ones included;
    // ordinals past the true count stay invalid devices.
    const auto size = static_cast<std::int64_t>(driver().devices.size());
    const std::int64_t shown = fault && fault->count ? *fault->count : size;
    *count = static_cast<int>(std::clamp<std::int64_t>(shown, std::numeric_limits<int>::min(),
                                                       std::numeric_limits<int>::max()));
    return CUDA_SUCCESS;
}
CHECK_SIGNATURE(cuDeviceGetCount);

SIM_EXPORT CUresult cuDeviceGet(CUdevice* device, int ordinal)
{
    const sim::Guard guard;
    const auto fault = sim::enter("cuDeviceGet", ordinal);
    if (const auto code = injected(fault))
        return *code;
    if (const CUresult state = deviceCallState(device))
        return state;
    if (!findDevice(ordinal))
        return CUDA_ERROR_INVALID_DEVICE;
    *device = ordinal; // the driver's handles are the ordinals
    return CUDA_SUCCESS;
}
CHECK_SIGNATURE(cuDeviceGet);

SIM_EXPORT CUresult cuDeviceGetName(char* name, int length, CUdevice handle)
{
    const sim::Guard guard;
    const auto fault = sim::enter("cuDeviceGetName", handle);
    if (const auto code = injected(fault))
        return *code;
    if (const CUresult state = deviceCallState(name))
        return state;
    if (length <= 0)
        return CUDA_ERROR_INVALID_VALUE;
    const Device* device = findDevice(handle);
    if (!device)
        return CUDA_ERROR_INVALID_DEVICE;
    if (fault && fault->null)
        return CUDA_SUCCESS;
    const auto size = static_cast<std::size_t>(length);
    const std::string& text = device->name.empty() ? std::string("?") : device->name;
    if (fault && flag(fault->spec, "unterminated")) {
        // Every byte of the buffer is a character of the name, repeated as needed.
        for (std::size_t i = 0; i < size; ++i)
            name[i] = text[i % text.size()];
        return CUDA_SUCCESS;
    }
    // Truncated to the buffer, always terminated.
    const std::size_t copied = std::min(device->name.size(), size - 1);
    std::memcpy(name, device->name.data(), copied);
    name[copied] = '\0';
    return CUDA_SUCCESS;
}
CHECK_SIGNATURE(cuDeviceGetName);

#if !defined(SIM_OMIT_cuDeviceGetAttribute)
SIM_EXPORT CUresult cuDeviceGetAttribute(int* value, CUdevice_attribute attribute, CUdevice handle)
{
    const sim::Guard guard;
    const auto fault = sim::enter("cuDeviceGetAttribute", handle);
    // A fault that names an attribute hits only that one.
    const nlohmann::json& only = fault ? member(fault->spec, "attribute") : nlohmann::json();
    if (const auto code = injected(fault); code && (only.is_null() || only == static_cast<std::int64_t>(attribute)))
        return *code;
    if (const CUresult state = deviceCallState(value))
        return state;
    const Device* device = findDevice(handle);
    if (!device)
        return CUDA_ERROR_INVALID_DEVICE;
    // What a driver answers for an attribute id it does not know.
    const auto& unsupported = device->unsupportedAttributes;
    if (std::find(unsupported.begin(), unsupported.end(), static_cast<std::int64_t>(attribute)) != unsupported.end())
        return CUDA_ERROR_INVALID_VALUE;
    switch (attribute) {
    case CU_DEVICE_ATTRIBUTE_CLOCK_RATE:
        *value = device->clockRate;
        return CUDA_SUCCESS;
    case CU_DEVICE_ATTRIBUTE_PCI_BUS_ID:
        *value = device->bus;
        return CUDA_SUCCESS;
    case CU_DEVICE_ATTRIBUTE_PCI_DEVICE_ID:
        *value = device->device;
        return CUDA_SUCCESS;
    case CU_DEVICE_ATTRIBUTE_MEMORY_CLOCK_RATE:
        *value = device->memoryClockRate;
        return CUDA_SUCCESS;
    case CU_DEVICE_ATTRIBUTE_GLOBAL_MEMORY_BUS_WIDTH:
        *value = device->memoryBusWidth;
        return CUDA_SUCCESS;
    case CU_DEVICE_ATTRIBUTE_PCI_DOMAIN_ID:
        *value = device->domain;
        return CUDA_SUCCESS;
    case CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MAJOR:
        *value = device->major;
        return CUDA_SUCCESS;
    case CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MINOR:
        *value = device->minor;
        return CUDA_SUCCESS;
    default:
        return CUDA_ERROR_INVALID_VALUE;
    }
}
CHECK_SIGNATURE(cuDeviceGetAttribute);
#endif

SIM_EXPORT CUresult cuGetErrorName(CUresult error, const char** text)
{
    const sim::Guard guard;
    return lookUpErrorText("cuGetErrorName", error, text, &ErrorText::name);
}
CHECK_SIGNATURE(cuGetErrorName);

SIM_EXPORT CUresult cuGetErrorString(CUresult error, const char** text)
{
    const sim::Guard guard;
    return lookUpErrorText("cuGetErrorString", error, text, &ErrorText::description);
}
CHECK_SIGNATURE(cuGetErrorString);
