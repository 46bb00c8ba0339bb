#include "libKestrel/internal/session/VendorHold.h"

#include <memory>

#include "libKestrel/internal/multi/AMD/adlwrapper.h"
#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"
#include "libKestrel/internal/windows/NVidia/nvapiwrapper.h"

namespace libKestrel::session {
namespace {

// NVML initialised through a share of its module that outlives the binding's.
std::function<void()> holdNvml()
{
    if (!initializeLibrary())
        return {};
    tova::DynamicLibrary module = nvmlBinding().library;
    const auto shutdown = nvmlBinding().functions.nvmlShutdown;
    const auto init = nvmlBinding().functions.nvmlInit_v2;
    const bool initialised = init && shutdown && init() == nvml::NVML_SUCCESS;
    uninitializeLibrary();
    if (!initialised)
        return {};
    return [module, shutdown]() mutable {
        shutdown();
        module.unload();
    };
}

std::function<void()> holdNvapi()
{
    if (nvapi::NvAPI_Initialize() != nvapi::NVAPI_OK)
        return {};
    return [] { nvapi::NvAPI_Unload(); };
}

// An ADL2 context through a share of ADL's module that outlives the binding's.
std::function<void()> holdAdl()
{
    if (!adlwrapper::initializeLibrary())
        return {};
    tova::DynamicLibrary module = adlwrapper::adlBinding().library;
    const auto create = adlwrapper::adlBinding().functions.ADL2_Main_Control_Create;
    const auto destroy = adlwrapper::adlBinding().functions.ADL2_Main_Control_Destroy;
    adl::ADL_CONTEXT_HANDLE context = nullptr;
    const bool created = create && destroy && create(adlwrapper::adlMainMemoryAlloc, 1, &context) == adl::ADL_OK;
    adlwrapper::uninitializeLibrary();
    if (!created)
        return {};
    return [module, destroy, context]() mutable {
        destroy(context);
        module.unload();
    };
}

} // namespace

VendorHold::VendorHold(const std::string& source)
{
    if (source == "nvml")
        release_ = holdNvml();
    else if (source == "nvapi")
        release_ = holdNvapi();
    else if (source == "adl")
        release_ = holdAdl();
}

VendorHold::~VendorHold()
{
    if (release_)
        release_();
}

} // namespace libKestrel::session
