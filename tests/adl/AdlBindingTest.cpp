// The ADL binding on its own, and the simulated ADL's own bookkeeping, on which
// the querier tests rely to see what was left open.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "adl/AdlTesting.h"
#include "common/Simulator.h"
#include "tova/DynamicLibrary.h"

namespace {

using namespace kestrel::test::adl;
using namespace libKestrel::adl;
using libKestrel::adlwrapper::adlBinding;

#if defined(_WIN32)
const char* const adlModule = "atiadlxx.dll";
#else
const char* const adlModule = "libatiadlxx.so";
#endif

TEST(AdlBinding, LoadFillsTheTableAndReleaseClearsAllButTheFanSpeedSlot)
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
    // Loading and releasing calls nothing in ADL.
    EXPECT_EQ(machine.journal(), (Lines{"load adl", "unload adl"}));

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

int allocations = 0;
void* countingAlloc(int size)
{
    ++allocations;
    return std::malloc(static_cast<size_t>(size));
}

template <class Entry>
Entry entry(const tova::DynamicLibrary& library, const char* name)
{
    return reinterpret_cast<Entry>(library.getSymbol(name));
}

TEST(AdlSimulator, InterfacesAndContextsAreCheckedAndWhatIsLeftOpenIsJournaled)
{
    SimulatedMachine machine(radeon().dump());
    {
        tova::DynamicLibrary library{tova::String(adlModule)};
        ASSERT_TRUE(library.load());
        const auto create = entry<PFN_ADL_Main_Control_Create>(library, "ADL_Main_Control_Create");
        const auto count = entry<PFN_ADL_Adapter_NumberOfAdapters_Get>(library, "ADL_Adapter_NumberOfAdapters_Get");
        const auto temperature = entry<PFN_ADL_Overdrive5_Temperature_Get>(library, "ADL_Overdrive5_Temperature_Get");
        const auto caps = entry<PFN_ADL_Adapter_Crossfire_Caps>(library, "ADL_Adapter_Crossfire_Caps");
        const auto create2 = entry<PFN_ADL2_Main_Control_Create>(library, "ADL2_Main_Control_Create");
        const auto destroy2 = entry<PFN_ADL2_Main_Control_Destroy>(library, "ADL2_Main_Control_Destroy");
        const auto count2 = entry<PFN_ADL2_Adapter_NumberOfAdapters_Get>(library, "ADL2_Adapter_NumberOfAdapters_Get");
        ASSERT_TRUE(create && count && temperature && caps && create2 && destroy2 && count2);

        int adapters = -1;
        EXPECT_EQ(count(&adapters), ADL_ERR_NOT_INIT) << "before ADL_Main_Control_Create";
        ADL_CONTEXT_HANDLE first = nullptr;
        ADL_CONTEXT_HANDLE second = nullptr;
        ASSERT_EQ(create2(countingAlloc, 1, &first), ADL_OK);
        ASSERT_EQ(create2(countingAlloc, 1, &second), ADL_OK);
        EXPECT_NE(first, second);
        EXPECT_EQ(count2(first, &adapters), ADL_OK);
        EXPECT_EQ(adapters, 3);
        EXPECT_EQ(destroy2(first), ADL_OK);
        EXPECT_EQ(count2(first, &adapters), ADL_ERR_NOT_INIT) << "a destroyed context";
        EXPECT_EQ(destroy2(first), ADL_ERR_NOT_INIT);
        EXPECT_EQ(count(&adapters), ADL_ERR_NOT_INIT) << "ADL2 does not start the first interface";

        ASSERT_EQ(create(countingAlloc, 1), ADL_OK);
        ADLTemperature reading{};
        EXPECT_EQ(temperature(7, 0, &reading), ADL_ERR_INVALID_ADL_IDX);
        int preferred = -1;
        int combinations = -1;
        ADLCrossfireComb* list = nullptr;
        allocations = 0;
        ASSERT_EQ(caps(0, &preferred, &combinations, &list), ADL_OK);
        EXPECT_EQ(allocations, 1) << "through the caller's callback";
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(list[0].iNumLinkAdapter, 2);
        std::free(list);
    }
    EXPECT_EQ(machine.count("ADL2 context 2 destroyed"), 0u);
    EXPECT_EQ(machine.count("ADL2 contexts left open at unload: 1"), 1u);
    EXPECT_EQ(machine.count("ADL main controls left open at unload: 1"), 1u);
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
