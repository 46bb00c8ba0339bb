#include <cstdint>

#include <gtest/gtest.h>

#include "common/Paths.h"
#include "libKestrel/Optimus.h"
#include "tova/DynamicLibrary.h"

namespace {

// Built as a host is: linked against the shared library, not its objects.
TEST(NvOptimusEnablementCuda, IsExportedByNameWithTheValueOne)
{
    static_assert(sizeof NvOptimusEnablementCuda == 4, "a 32-bit value");
    EXPECT_EQ(NvOptimusEnablementCuda, 1u);

    // NVIDIA's driver looks the value up by name among the module's exports.
    tova::DynamicLibrary library{tova::String(kestrel::test::executableDirectory() + KESTREL_LIBRARY_FILE)};
    ASSERT_TRUE(library.load()) << library.lastError().str();
    const void* exported = library.getSymbol("NvOptimusEnablementCuda");
    ASSERT_NE(exported, nullptr);
    EXPECT_EQ(*static_cast<const std::uint32_t*>(exported), 1u);
}

} // namespace
