#include "libKestrel/internal/multi/AMD/AdlReadingContext.h"

namespace libKestrel {

std::shared_ptr<const AdlReadingContext> AdlReadingContext::open()
{
    // Made before anything is taken, so that nothing is left to give back if it cannot be.
    std::shared_ptr<AdlReadingContext> kept(new AdlReadingContext());
    if (!adlwrapper::initializeLibrary())
        return nullptr;
    kept->loaded_ = true;
    const adlwrapper::ADLBinding& binding = adlwrapper::adlBinding();
    const auto create = binding.functions.ADL2_Main_Control_Create;
    kept->destroy_ = binding.functions.ADL2_Main_Control_Destroy;
    if (!create || !kept->destroy_ || create(adlwrapper::adlMainMemoryAlloc, 1, &kept->context_) != adl::ADL_OK) {
        kept->context_ = nullptr;
        return kept;
    }
    const tova::DynamicLibrary& module = binding.library;
    kept->adl2Only_.context = kept->context_;
    kept->adl2Only_.pmLog =
        reinterpret_cast<adl::PFN_ADL2_New_QueryPMLogData_Get>(module.getSymbol("ADL2_New_QueryPMLogData_Get"));
    kept->adl2Only_.currentPower = reinterpret_cast<adl::PFN_ADL2_Overdrive6_CurrentPower_Get>(
        module.getSymbol("ADL2_Overdrive6_CurrentPower_Get"));
    adlwrapper::ADL2Readings readings;
    readings.context = kept->context_;
    readings.temperature =
        reinterpret_cast<adl::PFN_ADL2_Overdrive5_Temperature_Get>(module.getSymbol("ADL2_Overdrive5_Temperature_Get"));
    readings.currentStatus = reinterpret_cast<adl::PFN_ADL2_Overdrive6_CurrentStatus_Get>(
        module.getSymbol("ADL2_Overdrive6_CurrentStatus_Get"));
    readings.fanSpeed =
        reinterpret_cast<adl::PFN_ADL2_Overdrive6_FanSpeed_Get>(module.getSymbol("ADL2_Overdrive6_FanSpeed_Get"));
    if (readings.temperature && readings.currentStatus && readings.fanSpeed)
        kept->readings_ = readings;
    return kept;
}

// The context ends before the load that keeps its module mapped.
AdlReadingContext::~AdlReadingContext()
{
    if (context_)
        destroy_(context_);
    if (loaded_)
        adlwrapper::uninitializeLibrary();
}

adlwrapper::ADLCalls AdlReadingContext::calls() const
{
    return {adlwrapper::adlBinding().functions, readsThroughContext() ? &readings_ : nullptr, adl2Only()};
}

} // namespace libKestrel
