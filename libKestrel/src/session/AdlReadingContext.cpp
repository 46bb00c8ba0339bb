#include "libKestrel/internal/session/AdlReadingContext.h"

#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/session/LiveSource.h"

namespace libKestrel::session {
namespace {

// The context whose reads are running. The first interface's entries take no
// context, so the stand-ins below find it here; ADL is read by one query at a
// time, as its binding already requires.
const AdlReadingContext::Entries* answering = nullptr;
adl::ADL_CONTEXT_HANDLE answeringContext = nullptr;

int temperature(int adapterIndex, int thermalController, adl::ADLTemperature* degrees)
{
    return answering->temperature(answeringContext, adapterIndex, thermalController, degrees);
}

int currentStatus(int adapterIndex, adl::ADLOD6CurrentStatus* status)
{
    return answering->currentStatus(answeringContext, adapterIndex, status);
}

int fanSpeed(int adapterIndex, adl::ADLOD6FanSpeedInfo* speed)
{
    return answering->fanSpeed(answeringContext, adapterIndex, speed);
}

} // namespace

std::shared_ptr<AdlReadingContext> AdlReadingContext::open(const adlwrapper::ADLBinding& binding)
{
    const tova::DynamicLibrary& module = binding.library;
    Entries entries;
    entries.destroy = binding.functions.ADL2_Main_Control_Destroy;
    entries.temperature =
        reinterpret_cast<adl::PFN_ADL2_Overdrive5_Temperature_Get>(module.getSymbol("ADL2_Overdrive5_Temperature_Get"));
    entries.currentStatus = reinterpret_cast<adl::PFN_ADL2_Overdrive6_CurrentStatus_Get>(
        module.getSymbol("ADL2_Overdrive6_CurrentStatus_Get"));
    entries.fanSpeed =
        reinterpret_cast<adl::PFN_ADL2_Overdrive6_FanSpeed_Get>(module.getSymbol("ADL2_Overdrive6_FanSpeed_Get"));
    const auto create = binding.functions.ADL2_Main_Control_Create;
    if (!create || !entries.destroy || !entries.temperature || !entries.currentStatus || !entries.fanSpeed)
        return nullptr;
    adl::ADL_CONTEXT_HANDLE context = nullptr;
    if (create(adlwrapper::adlMainMemoryAlloc, 1, &context) != adl::ADL_OK)
        return nullptr;
    return std::shared_ptr<AdlReadingContext>(new AdlReadingContext(module, entries, context));
}

AdlReadingContext::AdlReadingContext(tova::DynamicLibrary module, const Entries& entries,
                                     adl::ADL_CONTEXT_HANDLE context)
    : module_(std::move(module)), entries_(entries), context_(context)
{
}

// The module's share is released after, with its member.
AdlReadingContext::~AdlReadingContext() { entries_.destroy(context_); }

void AdlReadingContext::run(adlwrapper::ADLFunctions& functions, const std::function<void()>& reads) const
{
    adlwrapper::ADLFunctions throughContext = functions;
    throughContext.ADL_Overdrive5_Temperature_Get = temperature;
    throughContext.ADL_Overdrive6_CurrentStatus_Get = currentStatus;
    throughContext.ADL_Overdrive6_FanSpeed_Get = fanSpeed;
    const BorrowedEntries<adlwrapper::ADLFunctions> borrowed(functions, throughContext);
    answering = &entries_;
    answeringContext = context_;
    ScopeExit done([] {
        answering = nullptr;
        answeringContext = nullptr;
    });
    reads();
}

} // namespace libKestrel::session
