#include <cstdint>

#include "common/Paths.h"
#include "common/Test.h"
#include "libKestrel/AMDGPU.h"
#include "libKestrel/Optimus.h"
#include "tova/DynamicLibrary.h"

namespace {

tova::DynamicLibrary sharedLibrary()
{
    return tova::DynamicLibrary{tova::String(kestrel::test::executableDirectory() + KESTREL_LIBRARY_FILE)};
}

// Built as a host is: linked against the shared library, not its objects.
TEST(Exports, NvOptimusEnablementCudaIsExportedByNameWithTheValueOne)
{
    static_assert(sizeof NvOptimusEnablementCuda == 4, "a 32-bit value");
    EXPECT_EQ(NvOptimusEnablementCuda, 1u);

    // NVIDIA's driver looks the value up by name among the module's exports.
    tova::DynamicLibrary library = sharedLibrary();
    ASSERT_TRUE(library.load()) << library.lastError().str();
    const void* exported = library.getSymbol("NvOptimusEnablementCuda");
    ASSERT_NE(exported, nullptr);
    EXPECT_EQ(*static_cast<const std::uint32_t*>(exported), 1u);
}

// Hosts built against the declarations without const link against these symbols.
TEST(Exports, TheAmdFamilyPredicatesKeepTheirNonConstSymbols)
{
    tova::DynamicLibrary library = sharedLibrary();
    ASSERT_TRUE(library.load()) << library.lastError().str();
    for (const char* predicate : {"isDiscrete", "isIntegrated", "isFireGL", "isFireMV", "isXGP", "isFusion",
                                  "isFireStream", "isEmbedded"}) {
        const std::string name = std::to_string(std::string(predicate).size()) + predicate;
        EXPECT_NE(library.getSymbol(("_ZN10libKestrel6AMDGPU" + name + "Ev").c_str()), nullptr) << predicate;
        EXPECT_NE(library.getSymbol(("_ZNK10libKestrel6AMDGPU" + name + "Ev").c_str()), nullptr) << predicate;
    }
}

} // namespace
