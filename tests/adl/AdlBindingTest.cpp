// The ADL binding on its own: what a load fills and a release clears.
#include <cstdlib>
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
    for (const void* slot : keptSlots())
        EXPECT_NE(slot, nullptr);
    const void* fanSpeed = keptSlots().back();

    libKestrel::adlwrapper::uninitializeLibrary();
    expectReleased();
    EXPECT_EQ(keptSlots().back(), fanSpeed);
    EXPECT_TRUE(machine.journal().empty()) << "loading and releasing calls nothing in ADL";

    // The next load overwrites the slot that the release kept.
    ASSERT_TRUE(libKestrel::adlwrapper::initializeLibrary());
    EXPECT_NE(keptSlots().front(), nullptr);
    libKestrel::adlwrapper::uninitializeLibrary();
}

TEST(AdlBinding, TheMemoryCallbackIsMallocOfTheSize)
{
    void* block = libKestrel::adlwrapper::adlMainMemoryAlloc(64);
    ASSERT_NE(block, nullptr);
    std::memset(block, 0xA5, 64); // all 64 bytes are ours (the sanitizer build checks)
    std::free(block);
    EXPECT_EQ(libKestrel::adlwrapper::adlMainMemoryAlloc(-1), nullptr) << "no heap has a negative size";
    std::free(libKestrel::adlwrapper::adlMainMemoryAlloc(0));
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
