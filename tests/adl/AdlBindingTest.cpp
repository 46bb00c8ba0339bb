// The ADL binding on its own: what a load fills and a release clears.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "adl/AdlTesting.h"
#include "common/Simulator.h"

namespace {

using namespace kestrel::test::adl;
using namespace libKestrel::adl;
using libKestrel::adlwrapper::adlBinding;

TEST_F(AmdSource, LoadFillsTheTableAndReleaseClearsAllButTheFanSpeedSlot)
{
    SimulatedMachine machine("{}");
    ASSERT_TRUE(libKestrel::adlwrapper::initializeLibrary());
    EXPECT_TRUE(adlBinding().library.isLoaded());
    // Every slot filled: no pointer-sized stretch of the table is zero.
    const libKestrel::adlwrapper::ADLFunctions slots = adlBinding().functions;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&slots);
    for (size_t at = 0; at < sizeof slots; at += sizeof(void*)) {
        std::uintptr_t slot = 0;
        std::memcpy(&slot, bytes + at, sizeof slot);
        EXPECT_NE(slot, 0u) << "slot " << at / sizeof(void*);
    }
    libKestrel::adlwrapper::uninitializeLibrary();
    expectReleased();
    EXPECT_EQ(adlBinding().functions.ADL_Overdrive6_FanSpeed_Get, slots.ADL_Overdrive6_FanSpeed_Get);
    EXPECT_TRUE(machine.journal().empty()) << "loading and releasing calls nothing in ADL";
}

#if defined(_WIN32)
TEST(AdlFallback, OnlyTheThirtyTwoBitNameIsPresent)
{
    SimulatedMachine machine(radeon().dump());
    ASSERT_TRUE(libKestrel::adlwrapper::initializeLibrary());
    EXPECT_EQ(adlBinding().library.path().str(), "atiadlxy.dll");
    libKestrel::adlwrapper::uninitializeLibrary();
    EXPECT_EQ(queryAMD().size(), 5u);
    expectClosedAndUnloaded(machine);
    expectReleased();
}
#endif

} // namespace
