#include <atomic>
#include <thread>

#include "common/Paths.h"
#include "common/Test.h"
#include "tova/DynamicLibrary.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace {

#if defined(_WIN32)
const char* const moduleFile = "kestrel_test_module.dll";
#else
const char* const moduleFile = "kestrel_test_module.so";
#endif

std::string modulePath() { return kestrel::test::executableDirectory() + moduleFile; }

// Asks the system loader itself whether the module is mapped, without loading it.
bool isMapped()
{
#if defined(_WIN32)
    return GetModuleHandleA(moduleFile) != nullptr;
#else
    void* handle = dlopen(modulePath().c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle)
        dlclose(handle);
    return handle != nullptr;
#endif
}

using Answer = int (*)();

TEST(DynamicLibrary, LoadsFindsSymbolsAndUnloads)
{
    tova::DynamicLibrary library(modulePath().c_str());
    EXPECT_FALSE(isMapped()) << "constructing must not load";
    EXPECT_EQ(library.getSymbol("kestrelTestModuleAnswer"), nullptr);

    ASSERT_TRUE(library.load()) << library.lastError().c_str();
    EXPECT_TRUE(isMapped());
    auto answer = reinterpret_cast<Answer>(library.getSymbol("kestrelTestModuleAnswer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(library.getSymbol("kestrelTestModuleMissing"), nullptr);
    EXPECT_EQ(library.getSymbol(nullptr), nullptr);

    EXPECT_TRUE(library.unload());
    EXPECT_FALSE(isMapped());
    EXPECT_EQ(library.getSymbol("kestrelTestModuleAnswer"), nullptr);
    EXPECT_FALSE(library.unload()) << "nothing left to unload";
}

TEST(DynamicLibrary, CopyAssignmentKeepsTheModuleUntilUnload)
{
    tova::DynamicLibrary holder;
    EXPECT_FALSE(holder.load()) << "a holder without a name loads nothing";
    {
        tova::DynamicLibrary local(modulePath().c_str());
        ASSERT_TRUE(local.load());
        holder = local;
    }
    // The local copy is gone; the holder's share keeps the module mapped.
    EXPECT_TRUE(isMapped());
    auto answer = reinterpret_cast<Answer>(holder.getSymbol("kestrelTestModuleAnswer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);

    // Replacing a loaded holder releases the module it held.
    holder = tova::DynamicLibrary();
    EXPECT_FALSE(isMapped());
}

} // namespace

#if defined(_WIN32)
namespace {

// The loader's quiet mode is the loading thread's own: a host thread that reads
// the process's error mode meanwhile never sees it change.
TEST(DynamicLibrary, LoadingLeavesTheProcessErrorModeAlone)
{
    const UINT processMode = GetErrorMode();
    std::atomic<bool> done{false};
    std::atomic<bool> changed{false};
    std::thread host([&] {
        while (!done)
            if (GetErrorMode() != processMode)
                changed = true;
    });
    for (int i = 0; i < 300; ++i) {
        tova::DynamicLibrary missing("kestrel_no_such_module.dll");
        EXPECT_FALSE(missing.load());
    }
    done = true;
    host.join();
    EXPECT_FALSE(changed);
}

} // namespace
#endif
