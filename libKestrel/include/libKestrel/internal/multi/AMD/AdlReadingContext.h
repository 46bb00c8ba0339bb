#pragma once

#include <memory>

#include "libKestrel/internal/multi/AMD/adlwrapper.h"

namespace libKestrel {

// What a session's AMD readers call through, kept while they live: one load of
// ADL's binding, whose table does not change while it is held, and an ADL2
// context of the session's own, which keeps the driver started. When the driver
// has the ADL2 forms of the temperature, current-status and fan readings, they
// run on that context; else they go through the first interface, which needs a
// control of it around them (ADL keeps one per process, shared through
// adlcontrol.h). The readings ADL has in their ADL2 form alone (power, hot spot
// and memory temperatures) run on the context in either case; a one-shot query
// opens one for them too.
class AdlReadingContext {
public:
    // Null when ADL cannot be loaded. Called while the enumeration holds ADL
    // loaded, so the load it takes only counts.
    static std::shared_ptr<const AdlReadingContext> open();
    ~AdlReadingContext();
    AdlReadingContext(const AdlReadingContext&) = delete;
    AdlReadingContext& operator=(const AdlReadingContext&) = delete;

    adlwrapper::ADLCalls calls() const;
    // The readings with an ADL2 form alone, on the context; null without one.
    const adlwrapper::ADL2OnlyReadings* adl2Only() const { return adl2Only_.context ? &adl2Only_ : nullptr; }
    // Whether the readings run on the context, needing no first-interface control.
    bool readsThroughContext() const { return readings_.context != nullptr; }

private:
    AdlReadingContext() = default;

    bool loaded_ = false;
    adl::ADL_CONTEXT_HANDLE context_ = nullptr;
    adl::PFN_ADL2_Main_Control_Destroy destroy_ = nullptr;
    adlwrapper::ADL2Readings readings_;
    adlwrapper::ADL2OnlyReadings adl2Only_;
};

} // namespace libKestrel
