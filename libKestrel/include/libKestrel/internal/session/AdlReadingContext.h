#pragma once

#include <functional>
#include <memory>

#include "libKestrel/internal/multi/AMD/adlwrapper.h"

namespace libKestrel::session {

// An ADL2 context that a session keeps open for its AMD readings, with a share
// of ADL's module. The first interface allows one main control per process, and
// a host's own query may hold it; a context is the session's alone, so the
// readings need no control made and destroyed at every refresh.
class AdlReadingContext {
public:
    // A context on the module 'binding' holds; null when ADL2 lacks the create or
    // destroy entry or one of the reading entries, or refuses the context.
    static std::shared_ptr<AdlReadingContext> open(const adlwrapper::ADLBinding& binding);
    ~AdlReadingContext();
    AdlReadingContext(const AdlReadingContext&) = delete;
    AdlReadingContext& operator=(const AdlReadingContext&) = delete;

    // Runs 'reads' with the first interface's temperature, current-status and
    // fan entries of 'functions' answered through this context, and puts the
    // entries back after.
    void run(adlwrapper::ADLFunctions& functions, const std::function<void()>& reads) const;

    struct Entries {
        adl::PFN_ADL2_Main_Control_Destroy destroy = nullptr;
        adl::PFN_ADL2_Overdrive5_Temperature_Get temperature = nullptr;
        adl::PFN_ADL2_Overdrive6_CurrentStatus_Get currentStatus = nullptr;
        adl::PFN_ADL2_Overdrive6_FanSpeed_Get fanSpeed = nullptr;
    };

private:
    AdlReadingContext(tova::DynamicLibrary module, const Entries& entries, adl::ADL_CONTEXT_HANDLE context);

    tova::DynamicLibrary module_;
    Entries entries_;
    adl::ADL_CONTEXT_HANDLE context_;
};

} // namespace libKestrel::session
